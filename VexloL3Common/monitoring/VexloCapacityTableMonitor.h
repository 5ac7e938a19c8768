// Capacity monitoring of the L3 adjacency tables: the group configuration that the
// forwarding-abstraction layer's capacity-reporting service consumes.
//
// Synopsis
//   auto group = CapacityTableMonitorConfig::capacityTableMonitorConfigFactory(
//       Ulo::CapacityTableType::adjacency, "chip0");
//   group->statusPath()            "hardware/capacity/status/l3"
//   group->tableConfig()           six tables: NextHop Overlay/Underlay, OverlayEcmp
//   groups/Members,
//                                  UnderlayEcmp groups/Members, in this order
//   getAdjCapacityMonitorTableConfig("NextHop", "Overlay", "chip0")   one table
//
// The names are the reporting service's: "groups" and "Members" are capitalised differently and
// the overlay feature attribute is spelled `ovrlay`, and both stay so.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <string>
#include <string_view>

#include "platform/CapacityMonitor.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

struct CapacityTableNames {
   static constexpr std::string_view nextHop = "NextHop";
   static constexpr std::string_view overlayEcmp = "OverlayEcmp";
   static constexpr std::string_view underlayEcmp = "UnderlayEcmp";
};

struct CapacityFeatureStrs {
   static constexpr std::string_view ovrlay = "Overlay";
   static constexpr std::string_view underlay = "Underlay";
   static constexpr std::string_view groups = "groups";
   static constexpr std::string_view members = "Members";
};

inline constexpr std::string_view l3CapacityStatusPath = "hardware/capacity/status/l3";

class CapacityTableMonitorConfig {
 public:
   // Only the adjacency table type is served here; any other is fatal.
   static Ulo::Ptr<const Ulo::UloCapacityTableGroupMonitorConfig> capacityTableMonitorConfigFactory(
       Ulo::CapacityTableType tableType, const std::string& chipName);
};

// One adjacency table. The three L3 tables get the feature value 1; any other table name an empty
// feature map. An invalid key raises the table-key check's range error.
Ulo::Ptr<Ulo::UloAdjCapacityTableMonitorConfig> getAdjCapacityMonitorTableConfig(
    std::string_view tableName, std::string_view featureName, const std::string& chipName);

}  // namespace VexloL3Common
