// VXLAN state and configuration records: family-keyed VTEP accessors, change
// notifications, the tunnel key's ttl range and text form, find-or-create collections and the
// encapId reverse index.

#include "VexloL3Common/vxlan/VexloVxlanTypes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "TcamFixture.h"

namespace VexloL3Common {
namespace {

using testing::failureOf;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using Names = std::vector<std::string>;

const auto ip = [](const char* text) { return IpGenAddr::fromString(text); };

// Records the names an entity notifies.
struct ChangeLog {
   explicit ChangeLog(VxlanEntity& e)
       : sub(e.changed().subscribe([this](std::string_view a) { names.emplace_back(a); })) {}
   Names names;
   Ulo::Subscription sub;
};

// setLocalVtep picks the field by the address's family and bypasses the notification; the
// attribute writers notify only when the value changes.
TEST(VexloVxlanStateTest, LocalVtepIsKeptPerFamilyAndWritersNotifyOnlyOnChange) {
   VexloVxlanState s("s");
   ChangeLog log(s);
   s.setLocalVtep(ip("2001:db8::1"));
   s.setLocalVtep(ip("10.0.0.1"));
   // A family that is neither is a range error and changes nothing.
   const auto badFamily = ThrowsMessage<std::range_error>(StrEq("Invalid AddressFamily type"));
   EXPECT_THAT([&] { s.getLocalVtep(AddressFamily::ipunknown); }, badFamily);
   EXPECT_THAT([&] { s.setLocalVtep(IpGenAddr()); }, badFamily);
   EXPECT_EQ(fmt::format("{} {} {} {}", s.localVtep(), s.localVtep6(),
                         s.getLocalVtep(AddressFamily::ipv4), s.getLocalVtep(AddressFamily::ipv6)),
             "10.0.0.1 2001:db8::1 10.0.0.1 2001:db8::1");
   s.ttlIs(64);
   s.udpPortIs(4789);
   s.ttlIs(10);
   s.localVtepIs(ip("10.0.0.2"));
   s.localVtepIs(ip("10.0.0.2"));
   s.egrL3TunnelIndexIs(7);
   EXPECT_EQ(log.names, (Names{"ttl", "localVtep", "egrL3TunnelIndex"}));
}

TEST(VxlanTunnelKeyTest, TextFormParsesBackHashesEveryFieldAndBadTextOrTtlIsARangeError) {
   const VxlanTunnelKey k(IntfId::fromString("Vxlan1"), ip("2001:db8::1"), 4790, true, 5000, 32);
   EXPECT_EQ(fmt::format("{}", k),
             "vti: Vxlan1, sip: 2001:db8::1, dstPort: 4790, srcPortValid: true, srcPort: 5000, "
             "ttl: 32");
   EXPECT_EQ(VxlanTunnelKey::fromString(k.toString()), k);
   // Any order; missing attributes take the defaults.
   EXPECT_EQ(VxlanTunnelKey::fromString("ttl: 8, sip: 10.0.0.1"),
             VxlanTunnelKey(IntfId(), ip("10.0.0.1"), 4789, false, 0, 8));
   // Keys differing from the default one in one field at a time: all unequal to it, and an equal
   // key hashes alike. The ttl takes 1..64 (the default) but nothing else that fits 8 bits.
   std::unordered_set<VxlanTunnelKey> set = {VxlanTunnelKey(), VxlanTunnelKey::fromString(""),
                                             VxlanTunnelKey::fromString("ttl: 64")};
   for (const char* text : {"vti: Vxlan2", "sip: 10.0.0.2", "dstPort: 4790", "srcPortValid: true",
                            "srcPort: 1", "ttl: 1"}) {
      EXPECT_NE(VxlanTunnelKey::fromString(text), VxlanTunnelKey()) << text;
      set.insert(VxlanTunnelKey::fromString(text));
   }
   EXPECT_EQ(set.size(), 7u);
   for (const char* bad : {"mtu: 9000", "ttl: 8, ttl: 9", "srcPortValid: yes", "dstPort: 70000",
                           "dstPort 1", "sip: 10.0.0.300", "srcPort: -1"})
      EXPECT_THROW(VxlanTunnelKey::fromString(bad), std::range_error) << bad;
   for (const char* ttl : {"ttl: 0", "ttl: 65", "ttl: 300"})
      EXPECT_THAT([&] { VxlanTunnelKey::fromString(ttl); },
                  ThrowsMessage<std::range_error>(
                      StrEq("VexloL3Common::VxlanTunnelKey::ttl < 1 or > 64 not allowed")))
          << ttl;
   EXPECT_EQ(fmt::format("{} | {}", VnIdTableConstants(), VtepCtrTblConstants()),
             "sourceTableName: VnIdTable-0_4095 numEntries: 4095 | "
             "ingSourceTableName: SVP egrSourceTableName: EGR_DVP");
}

TEST(VxlanIndexMapsTest, CollectionsAndCountersNotifyOnlyWhenTheContentChanges) {
   VxlanDvpToVtepMap m("dvp");
   ChangeLog log(m);
   m.dvpToVtepMapIs(5, ip("10.0.0.1"));
   m.dvpToVtepMapIs(5, ip("10.0.0.1"));  // same value: no change
   m.dvpToVtepMapIs(5, ip("10.0.0.2"));
   m.dvpToVtepMapIs(6, ip("10.0.0.3"));
   m.dvpToVtepMapDel(99);
   m.dvpToVtepMapDel(6);
   EXPECT_EQ(m.dvpToVtepMap(5), ip("10.0.0.2"));
   EXPECT_EQ(m.dvpToVtepMap(6), std::nullopt);
   m.dvpToVtepMapDelAll();
   m.dvpToVtepMapDelAll();
   EXPECT_TRUE(m.dvpToVtepMap().empty());
   EXPECT_EQ(log.names.size(), 5u);  // two writes that changed, one add, one delete, one clear
   // Each increment is a request, and the counter wraps.
   VxlanClearHitBitConfig c("clear");
   ChangeLog clearLog(c);
   c.clearReqIdIs(0xFFFFFFFF);
   c.clearReqIdInc();
   c.clearReqIdInc(2);
   EXPECT_EQ(c.clearReqId(), 2u);
   EXPECT_EQ(clearLog.names.size(), 3u);
}

TEST(VexloVxlanBumVtepConfigDirTest, FindOrCreateKeepsEntitiesWithTheSameAttributes) {
   auto dir = vexloVxlanBumVtepConfigDirFactory("bum");
   const auto mac = [](const char* text) { return EthAddr::fromString(text); };
   auto a = dir->bumVtepConfigIs(ip("10.0.0.1"), EncapId(5));
   auto nh = a->nextHopsIs(IntfId::vlan(10), ip("10.1.1.2"), mac("00:00:00:00:00:01"));
   EXPECT_EQ(dir->bumVtepConfigIs(ip("10.0.0.1"), EncapId(5)), a);
   EXPECT_EQ(a->nextHopsIs(IntfId::vlan(10), ip("10.1.1.2"), mac("00:00:00:00:00:01")), nh);
   // Attributes fixed at construction: a different one makes a new entity in the same slot.
   auto nh2 = a->nextHopsIs(IntfId::vlan(10), ip("10.1.1.2"), mac("00:00:00:00:00:02"));
   EXPECT_NE(nh2, nh);
   EXPECT_EQ(a->nextHops(IntfId::vlan(10)), nh2);
   EXPECT_NE(dir->bumVtepConfigIs(ip("10.0.0.1"), EncapId(6)), a);
}

TEST(EncapIdToBumVtepIpConfigDirTest, SyncFollowsTheForwardDirectory) {
   VexloVxlanBumVtepConfigDir forward("bum");
   EncapIdToBumVtepIpConfigDir reverse("reverse");
   forward.bumVtepConfigIs(ip("10.0.0.1"), EncapId(1));
   forward.bumVtepConfigIs(ip("10.0.0.2"), EncapId(2));
   syncReverseConfig(forward, reverse);
   ASSERT_EQ(reverse.vxlanReverseConfig().size(), 2u);
   auto kept = reverse.vxlanReverseConfig(EncapId(1));
   EXPECT_EQ(kept->vtepIp(), ip("10.0.0.1"));
   EXPECT_EQ(reverse.vxlanReverseConfig(EncapId(2))->vtepIp(), ip("10.0.0.2"));

   ChangeLog keptLog(*kept);
   forward.bumVtepConfigIs(ip("10.0.0.2"), EncapId(3));  // re-encapsulated
   syncReverseConfig(forward, reverse);
   EXPECT_EQ(reverse.vxlanReverseConfig(EncapId(2)), nullptr);
   EXPECT_EQ(reverse.vxlanReverseConfig(EncapId(3))->vtepIp(), ip("10.0.0.2"));
   EXPECT_EQ(reverse.vxlanReverseConfig(EncapId(1)), kept);
   EXPECT_TRUE(keptLog.names.empty());

   forward.bumVtepConfigIs(ip("10.0.0.9"), EncapId(1));
   EXPECT_EQ(failureOf([&] { syncReverseConfig(forward, reverse); }), "encapId used by two VTEPs");
}

TEST(FloodUnderlayVlanToVtepListTest, DirectoryStoresACopyAndThereIsNoStringConstructor) {
   auto dir = floodUnderlayVlanToVtepListDirFactory("flood");
   ChangeLog log(*dir);
   FloodUnderlayVlanToVtepList list;
   list.vtepIpListIs(ip("10.0.0.2"));
   list.vtepIpListIs(ip("10.0.0.1"));
   dir->floodUnderlayVlanToVtepListIs(VlanId(10), list);
   list.vtepIpListIs(ip("10.0.0.3"));
   const auto stored = dir->floodUnderlayVlanToVtepList(VlanId(10));
   ASSERT_TRUE(stored.has_value());
   EXPECT_EQ(stored->toString(), "{10.0.0.1, 10.0.0.2}");
   dir->floodUnderlayVlanToVtepListIs(VlanId(10), *stored);  // unchanged: no notification
   dir->floodUnderlayVlanToVtepListIs(VlanId(10), list);
   EXPECT_EQ(dir->floodUnderlayVlanToVtepList(VlanId(10))->size(), 3u);
   EXPECT_EQ(log.names.size(), 2u);
   EXPECT_EQ(failureOf([] { FloodUnderlayVlanToVtepList::fromString("{10.0.0.1}"); }),
             "No String constructor for FloodUnderlayVlanToVtepList - has collection");
}

TEST(VtepToVtepBridgingTest, StatusAcknowledgesTheConfiguration) {
   auto config = vtepToVtepBridgingConfigFactory("bridging");
   auto status = vtepToVtepBridgingStatusFactory();
   config->vtepToVtepBridgingIs(true);
   config->vtepSetForSourcePruningIs(ip("10.0.0.1"));
   config->vtepSetForSourcePruningIs(ip("10.0.0.2"));
   ChangeLog log(*status);
   status->ackConfig(*config);
   status->ackConfig(*config);
   EXPECT_TRUE(status->vtepToVtepBridging());
   EXPECT_EQ(log.names, (Names{"vtepToVtepBridging", "vtepSetForSourcePruning"}));
   config->vtepSetForSourcePruningDel(ip("10.0.0.1"));
   status->ackConfig(*config);
   EXPECT_EQ(status->vtepSetForSourcePruning(), std::set<IpGenAddr>{ip("10.0.0.2")});
}

}  // namespace
}  // namespace VexloL3Common
