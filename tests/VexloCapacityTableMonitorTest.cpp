// Capacity-monitoring configuration of the L3 adjacency tables, and the hardware resource types.

#include "VexloL3Common/monitoring/VexloCapacityTableMonitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "TcamFixture.h"
#include "VexloL3Common/monitoring/L3HardwareResource.h"

namespace VexloL3Common {
namespace {

using testing::failureOf;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using Ulo::CapacityTableType;

TEST(CapacityTableMonitorTest, FactoryListsSixTablesInOrderUnderTheL3StatusPath) {
   auto group = CapacityTableMonitorConfig::capacityTableMonitorConfigFactory(
       CapacityTableType::adjacency, "chip0");
   EXPECT_EQ(group->statusPath(), "hardware/capacity/status/l3");
   std::vector<std::string> keys;
   for (const auto& table : group->tableConfig()) {
      auto adj = std::dynamic_pointer_cast<const Ulo::UloAdjCapacityTableMonitorConfig>(table);
      ASSERT_TRUE(adj);
      EXPECT_EQ(adj->featureMap(), std::vector<uint32_t>{1}) << adj->key().toString();
      keys.push_back(adj->key().toString());
   }
   EXPECT_EQ(keys,
             (std::vector<std::string>{"chip0/NextHop/Overlay", "chip0/NextHop/Underlay",
                                       "chip0/OverlayEcmp/groups", "chip0/OverlayEcmp/Members",
                                       "chip0/UnderlayEcmp/groups", "chip0/UnderlayEcmp/Members"}));
   // Any other table name (matched exactly) gets an empty feature map.
   for (const char* table : {"Mpls", "nexthop", "NextHop "})
      EXPECT_TRUE(getAdjCapacityMonitorTableConfig(table, "Labels", "chip0")->featureMap().empty())
          << table;
}

TEST(CapacityTableMonitorTest, NonAdjacencyTypeIsFatalAndAnInvalidKeyARangeError) {
   EXPECT_EQ(failureOf([] {
                CapacityTableMonitorConfig::capacityTableMonitorConfigFactory(
                    CapacityTableType::route, "chip0");
             }),
             "tableType == Ulo::CapacityTableType::adjacency");
   EXPECT_THAT([] { getAdjCapacityMonitorTableConfig("NextHop", "Overlay", ""); },
               ThrowsMessage<std::range_error>(StrEq(
                   "Ulo::UloCapacityTableKey::chipName empty or containing '/' not allowed")));
   EXPECT_THROW(getAdjCapacityMonitorTableConfig("", "Overlay", "chip0"), std::range_error);
   EXPECT_THROW(getAdjCapacityMonitorTableConfig("NextHop", "a/b", "chip0"), std::range_error);
   // The group checks every table's key with the chip name it was given.
   EXPECT_THROW(CapacityTableMonitorConfig::capacityTableMonitorConfigFactory(
                    CapacityTableType::adjacency, "line/card"),
                std::range_error);
}

TEST(HwResourceTypeTest, EcmpResourcesReportThroughTheirCapacityTables) {
   using namespace Hardware::Capacity::Vexlo;
   EXPECT_EQ(
       fmt::format("{} {} [{}] {}", capacityTableName(HwResourceType::hwResourceTypeOverlayEcmp),
                   capacityTableName(HwResourceType::hwResourceTypeUnderlayEcmp),
                   capacityTableName(HwResourceType::hwResourceTypeInvalid),
                   HwResourceType::hwResourceTypeUnderlayEcmp),
       "OverlayEcmp UnderlayEcmp [] hwResourceTypeUnderlayEcmp");
}

}  // namespace
}  // namespace VexloL3Common
