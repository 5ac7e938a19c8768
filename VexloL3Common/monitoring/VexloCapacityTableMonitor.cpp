#include "VexloL3Common/monitoring/VexloCapacityTableMonitor.h"

#include <utility>

#include "platform/Assert.h"

namespace VexloL3Common {

Ulo::Ptr<const Ulo::UloCapacityTableGroupMonitorConfig>
CapacityTableMonitorConfig::capacityTableMonitorConfigFactory(Ulo::CapacityTableType tableType,
                                                              const std::string& chipName) {
   auto group = Ulo::uloCapacityTableGroupMonitorConfigFactory(tableType, chipName);
   VEXLO_ASSERT(tableType == Ulo::CapacityTableType::adjacency,
                "tableType == Ulo::CapacityTableType::adjacency");
   group->statusPathIs(std::string(l3CapacityStatusPath));
   constexpr std::pair<std::string_view, std::string_view> tables[] = {
       {CapacityTableNames::nextHop, CapacityFeatureStrs::ovrlay},
       {CapacityTableNames::nextHop, CapacityFeatureStrs::underlay},
       {CapacityTableNames::overlayEcmp, CapacityFeatureStrs::groups},
       {CapacityTableNames::overlayEcmp, CapacityFeatureStrs::members},
       {CapacityTableNames::underlayEcmp, CapacityFeatureStrs::groups},
       {CapacityTableNames::underlayEcmp, CapacityFeatureStrs::members},
   };
   for (const auto& [table, feature] : tables) {
      group->tableConfigPush(getAdjCapacityMonitorTableConfig(table, feature, chipName));
   }
   return group;
}

Ulo::Ptr<Ulo::UloAdjCapacityTableMonitorConfig> getAdjCapacityMonitorTableConfig(
    std::string_view tableName, std::string_view featureName, const std::string& chipName) {
   Ulo::checkCapacityTableKey(tableName, featureName, chipName);
   auto config = Ulo::uloAdjCapacityTableMonitorConfigFactory(
       Ulo::UloCapacityTableKey{std::string(tableName), std::string(featureName), chipName});
   if (tableName == CapacityTableNames::nextHop || tableName == CapacityTableNames::overlayEcmp ||
       tableName == CapacityTableNames::underlayEcmp) {
      config->featureMapPush(1);
   }
   return config;
}

}  // namespace VexloL3Common
