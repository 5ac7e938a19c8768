// Multicast forwarding directories: (S,G) keys, port/VLAN sets, filtered output-interface sets
// and per-VFI group lookup with the (*,G) fallback.

#include "VexloL3Common/mcast/VexloMcastDirs.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <unordered_set>

#include "TcamFixture.h"

namespace VexloL3Common {
namespace {

using testing::failureOf;
using Ulo::IntfId;
using Ulo::IpGenAddr;
using Ulo::VlanId;

const auto ip = [](const char* text) { return IpGenAddr::fromString(text); };
const auto pv = [](uint32_t eth, uint16_t vlan) {
   return PortVlan(IntfId::ethernet(eth), VlanId(vlan));
};

TEST(McastSourceGroupTest, TextFormsRoundTripAndBadValuesAreRangeErrors) {
   for (const char* text : {"(10.0.0.1, 239.1.1.1)", "(*, 239.1.1.1)", "(2001:db8::1, ff0e::1)"})
      EXPECT_EQ(McastSourceGroup::fromString(text).toString(), text);
   EXPECT_TRUE(McastSourceGroup::fromString("(*,239.1.1.1)").anySource());
   std::unordered_set<McastSourceGroup> set = {McastSourceGroup(ip("10.0.0.1"), ip("239.1.1.1")),
                                               McastSourceGroup(IpGenAddr(), ip("239.1.1.1"))};
   EXPECT_EQ(set.size(), 2u);
   // Not a multicast group, or source and group of different families.
   EXPECT_THROW(McastSourceGroup(ip("10.0.0.1"), ip("10.0.0.2")), std::range_error);
   EXPECT_THROW(McastSourceGroup(ip("2001:db8::1"), ip("239.1.1.1")), std::range_error);
   EXPECT_THROW(McastSourceGroup(IpGenAddr(), IpGenAddr()), std::range_error);
   for (const char* bad : {"10.0.0.1, 239.1.1.1", "(10.0.0.1 239.1.1.1)", "(x, 239.1.1.1)", "()"})
      EXPECT_THROW(McastSourceGroup::fromString(bad), std::range_error) << bad;

   EXPECT_EQ(pv(1, 10).toString(), "Ethernet1:10");
   EXPECT_EQ(PortVlan::fromString("Port-Channel3:4095"),
             PortVlan(IntfId::portChannel(3), VlanId(4095)));
   EXPECT_THROW(PortVlan::fromString("Ethernet1"), std::range_error);
   EXPECT_THROW(PortVlan::fromString("Ethernet1:4096"), std::range_error);
}

TEST(FilteredOifSetTest, FilteredMembersAreHiddenUntilTheFilterGoes) {
   FilteredOifSet s;
   for (PortVlan m : {pv(1, 10), pv(2, 10), pv(3, 20)})
      s.oifIs(m);
   s.filterIs(pv(2, 10));  // e.g. the ingress port
   s.filterIs(pv(9, 10));  // filtering a non-member changes nothing
   EXPECT_EQ(s.size(), 2u);
   EXPECT_TRUE(s.has(pv(1, 10)));
   EXPECT_FALSE(s.has(pv(2, 10)) || s.has(pv(9, 10)));
   EXPECT_EQ(s.effective(), (PortVlanSet{pv(1, 10), pv(3, 20)}));
   EXPECT_EQ(s.oif().size(), 3u);
   s.filterDel(pv(2, 10));
   EXPECT_TRUE(s.has(pv(2, 10)));
   s.oifDel(pv(3, 20));
   EXPECT_EQ(s.effective().toString(), "{Ethernet1:10, Ethernet2:10}");
}

TEST(McastDirsTest, CollectionHoldersHaveNoStringConstructor) {
   EXPECT_EQ(failureOf([] { PortVlanSet::fromString("{}"); }),
             "No String constructor for PortVlanSet - has collection");
   EXPECT_EQ(failureOf([] { FilteredOifSet::fromString(""); }),
             "No String constructor for FilteredOifSet - has collection");
   EXPECT_EQ(failureOf([] { VfiMcastGroups::fromString(""); }),
             "No String constructor for VfiMcastGroups - has collection");
   EXPECT_EQ(failureOf([] { VfiMcastGroupsDir::fromString(""); }),
             "No String constructor for VfiMcastGroupsDir - has collection");
}

TEST(VfiMcastGroupsTest, LookupPrefersSourceGroupThenFallsBackToAnySource) {
   auto dir = vfiMcastGroupsDirFactory("mcast");
   auto vfi = dir->vfiMcastGroupsIs(7);
   EXPECT_EQ(dir->vfiMcastGroupsIs(7), vfi);
   const McastSourceGroup sg(ip("10.0.0.1"), ip("239.1.1.1"));
   const McastSourceGroup starG(IpGenAddr(), ip("239.1.1.1"));
   auto specific = vfi->groupIs(sg);
   auto shared = vfi->groupIs(starG);
   EXPECT_EQ(vfi->groupIs(sg), specific);
   EXPECT_EQ(vfi->lookup(ip("10.0.0.1"), ip("239.1.1.1")), specific);
   EXPECT_EQ(vfi->lookup(ip("10.0.0.2"), ip("239.1.1.1")), shared);
   EXPECT_EQ(vfi->lookup(ip("2001:db8::1"), ip("239.1.1.1")), shared);
   EXPECT_EQ(vfi->lookup(ip("10.0.0.1"), ip("239.1.1.2")), nullptr);
   EXPECT_EQ(vfi->lookup(ip("10.0.0.1"), ip("10.1.1.1")), nullptr);  // not a group address
   // Each VFI has its own groups.
   EXPECT_EQ(dir->vfiMcastGroupsIs(2)->lookup(ip("10.0.0.1"), ip("239.1.1.1")), nullptr);
   vfi->groupDel(starG);
   EXPECT_EQ(vfi->lookup(ip("10.0.0.2"), ip("239.1.1.1")), nullptr);
   dir->vfiMcastGroupsDel(7);
   EXPECT_EQ(dir->vfiMcastGroups(7), nullptr);
   EXPECT_EQ(dir->size(), 1u);
}

}  // namespace
}  // namespace VexloL3Common
