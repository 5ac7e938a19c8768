#include "VexloL3Common/monitoring/L3HardwareResource.h"

#include "VexloL3Common/monitoring/VexloCapacityTableMonitor.h"

namespace Hardware::Capacity::Vexlo {

std::string_view toString(HwResourceType t) {
   switch (t) {
      case HwResourceType::hwResourceTypeInvalid:
         return "hwResourceTypeInvalid";
      case HwResourceType::hwResourceTypeOverlayEcmp:
         return "hwResourceTypeOverlayEcmp";
      case HwResourceType::hwResourceTypeUnderlayEcmp:
         return "hwResourceTypeUnderlayEcmp";
   }
   return "unknown";
}

std::string_view capacityTableName(HwResourceType t) {
   switch (t) {
      case HwResourceType::hwResourceTypeOverlayEcmp:
         return VexloL3Common::CapacityTableNames::overlayEcmp;
      case HwResourceType::hwResourceTypeUnderlayEcmp:
         return VexloL3Common::CapacityTableNames::underlayEcmp;
      case HwResourceType::hwResourceTypeInvalid:
         break;
   }
   return {};
}

}  // namespace Hardware::Capacity::Vexlo
