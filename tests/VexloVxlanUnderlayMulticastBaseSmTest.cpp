// The underlay multicast state machine driven through the decap tables' own notifications: a
// recording subclass stands in for the chip and logs programEntry / deleteEntry in order.

#include "VexloL3Common/vxlan/VexloVxlanUnderlayMulticastBaseSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Trace.h"

namespace VexloL3Common {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;
using Ulo::IpGenRouteKey;
using Ulo::VlanId;
using Texts = std::vector<std::string>;

constexpr const char* traceName = "VexloVxlanUnderlayMulticastBaseSm";

const auto key = [](const char* text) { return IpGenRouteKey::fromString(text); };

class RecordingSm : public VexloVxlanUnderlayMulticastBaseSm {
 public:
   using VexloVxlanUnderlayMulticastBaseSm::VexloVxlanUnderlayMulticastBaseSm;

   // Like a chip would, reads the VLAN to program from the table of the key's family.
   void programEntry(const IpGenRouteKey& k) override {
      const auto& table = k.af() == Ulo::AddressFamily::ipv4 ? mrouteVxlanDecapTable()
                                                             : mrouteVxlanIpv6DecapTable();
      calls.push_back(fmt::format("program {} vlan {}", k, table->entry(k)->vlanId));
   }
   void deleteEntry(const IpGenRouteKey& k, VlanId vlan) override {
      calls.push_back(fmt::format("delete {} vlan {}", k, vlan));
   }
   // The calls since the last take.
   Texts take() { return std::exchange(calls, {}); }

   Texts calls;
};

class UnderlayMulticastSmTest : public ::testing::Test {
 protected:
   Ulo::Ptr<RecordingSm> makeSm() {
      return std::make_shared<RecordingSm>(
          Ulo::entityManagerFactory("stateDb"),
          std::make_shared<VexloCentral::FeatureAgentCommonSmData>(), v4, v6);
   }

   const IpGenRouteKey k4 = key("239.1.1.1/32,10.0.0.0/8");
   const IpGenRouteKey k6 = key("ff0e::1/128,2001:db8::/32");
   Ulo::Ptr<Ulo::MrouteVxlanDecapTable> v4 = Ulo::mrouteVxlanDecapTableFactory("v4");
   Ulo::Ptr<Ulo::MrouteVxlanDecapTable> v6 = Ulo::mrouteVxlanDecapTableFactory("v6");
};

// Added, rewritten with the same VLAN, moved to another VLAN, removed: each step's calls and
// traces, and the VLAN remembered for the delete.
TEST_F(UnderlayMulticastSmTest, EntryLifecycleProgramsOnceAndDeletesWithTheRememberedVlan) {
   auto sm = makeSm();
   // The subclass calls and the trace lines of one table write.
   const auto step = [&](const std::function<void()>& write) {
      Ulo::ScopedTraceCapture cap(traceName);
      write();
      return std::pair{sm->take(), cap.texts()};
   };
   const std::string keyLine = "handleVxlanMroute mroute key : 239.1.1.1/32,10.0.0.0/8";
   const std::string addLine = "handleVxlanMroute adding mroute : 239.1.1.1/32,10.0.0.0/8";
   EXPECT_EQ(step([&] { v4->entryIs(k4, VlanId(10)); }),
             std::pair(Texts{"program 239.1.1.1/32,10.0.0.0/8 vlan 10"}, Texts{keyLine, addLine}));
   EXPECT_EQ(step([&] { v4->entryIs(k4, VlanId(10)); }),
             std::pair(Texts{},
                       Texts{keyLine, "handleVxlanMroute update mroute oldVlan : 10newVlan : 10"}));
   EXPECT_EQ(step([&] { v4->entryIs(k4, VlanId(20)); }),
             std::pair(Texts{"delete 239.1.1.1/32,10.0.0.0/8 vlan 10",
                             "program 239.1.1.1/32,10.0.0.0/8 vlan 20"},
                       Texts{keyLine, "handleVxlanMroute update mroute oldVlan : 10newVlan : 20",
                             addLine}));
   EXPECT_EQ(
       step([&] { v4->entryDel(k4); }),
       std::pair(Texts{"delete 239.1.1.1/32,10.0.0.0/8 vlan 20"},
                 Texts{keyLine, "handleVxlanMroute deleting mroute : 239.1.1.1/32,10.0.0.0/8"}));
   EXPECT_TRUE(sm->mrouteKeyToVlan().empty());
}

// Switched off, nothing from either table reaches the hardware or the VLAN map.
TEST_F(UnderlayMulticastSmTest, NotificationsSwitchedOffLeaveTheHardwareAlone) {
   auto sm = makeSm();
   sm->hasNotificationActiveIs(false);
   v4->entryIs(k4, VlanId(10));
   v6->entryIs(k6, VlanId(10));
   EXPECT_TRUE(sm->calls.empty() && sm->mrouteKeyToVlan().empty());
}

TEST_F(UnderlayMulticastSmTest, Ipv6KeyIsLookedUpOnlyInTheIpv6Table) {
   auto sm = makeSm();
   v4->entryIs(k6, VlanId(30));  // misfiled in the IPv4 table: not a programming request
   EXPECT_EQ(sm->take(), Texts{"delete ff0e::1/128,2001:db8::/32 vlan 1"});
   v6->entryIs(k6, VlanId(40));
   EXPECT_EQ(sm->calls, Texts{"program ff0e::1/128,2001:db8::/32 vlan 40"});
}

TEST_F(UnderlayMulticastSmTest, UnknownAddressFamilyIsTracedAtLevelZeroAndIgnored) {
   auto sm = makeSm();
   sm->mrouteKeyToVlanIs(IpGenRouteKey(), VlanId(5));
   Ulo::ScopedTraceCapture cap(traceName, 0, 0);
   v4->entryIs(IpGenRouteKey(), VlanId(10));
   v4->entryDel(IpGenRouteKey());
   EXPECT_TRUE(sm->calls.empty());
   EXPECT_EQ(sm->mrouteKeyToVlan(IpGenRouteKey()), VlanId(5));
   EXPECT_EQ(cap.texts(), (Texts{"Invalid address family", "Invalid address family"}));
}

TEST_F(UnderlayMulticastSmTest, HandleInitializedProgramsIpv4ThenIpv6Entries) {
   v4->entryIs(k4, VlanId(10));
   v6->entryIs(k6, VlanId(30));
   v4->entryIs(key("239.1.1.2/32,10.0.0.0/8"), VlanId(20));
   auto sm = makeSm();
   EXPECT_TRUE(sm->calls.empty());
   Ulo::ScopedTraceCapture cap(traceName);
   sm->handleInitialized();
   EXPECT_THAT(sm->take(), ElementsAre(HasSubstr("239.1.1."), HasSubstr("239.1.1."),
                                       "program ff0e::1/128,2001:db8::/32 vlan 30"));
   EXPECT_EQ(cap.texts().front(), "handleInitialized");
   sm->handleInitialized();  // a second walk finds everything programmed already
   EXPECT_TRUE(sm->calls.empty());
}

TEST_F(UnderlayMulticastSmTest, NullTablesAreNotWatchedAndLookEmpty) {
   v6 = nullptr;
   auto sm = makeSm();
   EXPECT_EQ(v4->entryChanged().subscribers(), 1u);
   sm->handleInitialized();
   EXPECT_TRUE(sm->calls.empty());
   sm->handleVxlanMroute(k6);
   EXPECT_EQ(sm->calls, Texts{"delete ff0e::1/128,2001:db8::/32 vlan 1"});
}

TEST_F(UnderlayMulticastSmTest, DestroyedMachineStopsWatchingAndDeletesNothing) {
   auto sm = makeSm();
   v4->entryIs(k4, VlanId(10));
   EXPECT_EQ(v6->entryChanged().subscribers(), 1u);
   sm.reset();
   EXPECT_EQ(v4->entryChanged().subscribers() + v6->entryChanged().subscribers(), 0u);
   v4->entryDel(k4);  // must not reach the destroyed machine
}

TEST(MrouteVxlanDecapTableTest, EveryWriteNotifiesOncePerKeyAfterTheChange) {
   auto t = Ulo::mrouteVxlanDecapTableFactory("v4");
   Texts seen;
   auto sub = t->entryChanged().subscribe([&](const IpGenRouteKey& k) {
      const auto* e = t->entry(k);
      seen.push_back(fmt::format("{} {}", k, e ? fmt::to_string(e->vlanId) : "gone"));
   });
   const IpGenRouteKey a = key("239.1.1.1/32,10.0.0.0/8");
   t->entryIs(a, VlanId(10));
   t->entryIs(a, VlanId(10));
   t->entryIs(key("239.1.1.2/32,10.0.0.0/8"), VlanId(20));
   t->entryDel(key("239.9.9.9/32,10.0.0.0/8"));  // absent: nothing
   t->entryDel(a);
   EXPECT_EQ(seen, (Texts{"239.1.1.1/32,10.0.0.0/8 10", "239.1.1.1/32,10.0.0.0/8 10",
                          "239.1.1.2/32,10.0.0.0/8 20", "239.1.1.1/32,10.0.0.0/8 gone"}));
   t->entryIs(a, VlanId(10));
   seen.clear();
   t->entryDelAll();
   EXPECT_THAT(
       seen, UnorderedElementsAre("239.1.1.1/32,10.0.0.0/8 gone", "239.1.1.2/32,10.0.0.0/8 gone"));
   EXPECT_EQ(t->size(), 0u);
}

}  // namespace
}  // namespace VexloL3Common
