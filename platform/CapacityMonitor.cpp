#include "platform/CapacityMonitor.h"

#include <stdexcept>

namespace Ulo {

namespace {

void checkName(std::string_view field, std::string_view value) {
   if (value.empty() || value.find('/') != std::string_view::npos) {
      throw std::range_error(
          fmt::format("Ulo::UloCapacityTableKey::{} empty or containing '/' not allowed", field));
   }
}

}  // namespace

std::string_view toString(CapacityTableType t) {
   switch (t) {
      case CapacityTableType::adjacency:
         return "adjacency";
      case CapacityTableType::route:
         return "route";
      case CapacityTableType::multicast:
         return "multicast";
   }
   return "unknown";
}

std::string UloCapacityTableKey::toString() const {
   return fmt::format("{}/{}/{}", chipName, tableName, featureName);
}

void checkCapacityTableKey(std::string_view tableName, std::string_view featureName,
                           std::string_view chipName) {
   checkName("tableName", tableName);
   checkName("featureName", featureName);
   checkName("chipName", chipName);
}

Ptr<UloAdjCapacityTableMonitorConfig> uloAdjCapacityTableMonitorConfigFactory(
    const UloCapacityTableKey& key) {
   checkCapacityTableKey(key.tableName, key.featureName, key.chipName);
   return std::make_shared<UloAdjCapacityTableMonitorConfig>(key);
}

Ptr<UloCapacityTableGroupMonitorConfig> uloCapacityTableGroupMonitorConfigFactory(
    CapacityTableType tableType, const std::string& chipName) {
   return std::make_shared<UloCapacityTableGroupMonitorConfig>(tableType, chipName);
}

}  // namespace Ulo
