// Capacity-monitoring configuration of the L3 adjacency tables, and the hardware resource types.

#include "VexloL3Common/VexloCapacityTableMonitor.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "VexloL3Common/L3HardwareResource.h"
#include "platform/Assert.h"

namespace VexloL3Common {
namespace {

using Ulo::CapacityTableType;

TEST(CapacityTableMonitorTest, FactoryListsSixTablesInOrderUnderTheL3StatusPath) {
   auto group = CapacityTableMonitorConfig::capacityTableMonitorConfigFactory(
       CapacityTableType::adjacency, "chip0");
   EXPECT_EQ(group->statusPath(), "hardware/capacity/status/l3");
   EXPECT_EQ(group->tableType(), CapacityTableType::adjacency);
   EXPECT_EQ(group->chipName(), "chip0");
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
   for (const char* table : {"Mpls", "nexthop", "NextHop "}) {
      auto config = getAdjCapacityMonitorTableConfig(table, "Labels", "chip0");
      EXPECT_TRUE(config->featureMap().empty()) << table;
      EXPECT_EQ(config->key().tableName, table);
   }
}

TEST(CapacityTableMonitorTest, NonAdjacencyTypeIsFatalAndAnInvalidKeyARangeError) {
   {
      Ulo::ScopedThrowingAssertHandler guard;
      try {
         CapacityTableMonitorConfig::capacityTableMonitorConfigFactory(CapacityTableType::route,
                                                                       "chip0");
         ADD_FAILURE() << "no assertion";
      } catch (const Ulo::AssertionFailure& e) {
         EXPECT_EQ(e.text, "tableType == Ulo::CapacityTableType::adjacency");
      }
   }
   try {
      getAdjCapacityMonitorTableConfig("NextHop", "Overlay", "");
      ADD_FAILURE() << "no range error";
   } catch (const std::range_error& e) {
      EXPECT_STREQ(e.what(),
                   "Ulo::UloCapacityTableKey::chipName empty or containing '/' not allowed");
   }
   EXPECT_THROW(getAdjCapacityMonitorTableConfig("", "Overlay", "chip0"), std::range_error);
   EXPECT_THROW(getAdjCapacityMonitorTableConfig("NextHop", "a/b", "chip0"), std::range_error);
   // The group checks every table's key with the chip name it was given.
   EXPECT_THROW(CapacityTableMonitorConfig::capacityTableMonitorConfigFactory(
                    CapacityTableType::adjacency, "line/card"),
                std::range_error);
}

TEST(HwResourceTypeTest, EcmpResourcesReportThroughTheirCapacityTables) {
   using namespace Hardware::Capacity::Vexlo;
   EXPECT_EQ(capacityTableName(HwResourceType::hwResourceTypeOverlayEcmp),
             CapacityTableNames::overlayEcmp);
   EXPECT_EQ(capacityTableName(HwResourceType::hwResourceTypeUnderlayEcmp),
             CapacityTableNames::underlayEcmp);
   EXPECT_TRUE(capacityTableName(HwResourceType::hwResourceTypeInvalid).empty());
   EXPECT_EQ(fmt::format("{}", HwResourceType::hwResourceTypeUnderlayEcmp),
             "hwResourceTypeUnderlayEcmp");
}

}  // namespace
}  // namespace VexloL3Common
