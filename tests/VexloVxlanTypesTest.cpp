// VXLAN state and configuration records: defaults, family-keyed VTEP accessors, change
// notifications, the tunnel key's ttl range and text form, find-or-create collections and the
// encapId reverse index.

#include "VexloL3Common/VexloVxlanTypes.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/Assert.h"

namespace VexloL3Common {
namespace {

IpGenAddr ip(const char* text) {
   return IpGenAddr::fromString(text);
}

// Records the names an entity notifies.
struct ChangeLog {
   explicit ChangeLog(VxlanEntity& e)
       : sub(e.changed().subscribe([this](std::string_view a) { names.emplace_back(a); })) {}
   std::vector<std::string> names;
   Ulo::Subscription sub;
};

void expectRangeError(const std::function<void()>& f, const std::string& text) {
   try {
      f();
      FAIL() << "no range error, expected \"" << text << "\"";
   } catch (const std::range_error& e) {
      EXPECT_EQ(e.what(), text);
   }
}

TEST(VexloVxlanStateTest, FreshStateHasDocumentedDefaults) {
   auto s = vexloVxlanStateFactory("vxlanState");
   EXPECT_EQ(s->name(), "vxlanState");
   EXPECT_EQ(s->getLocalVtep(AddressFamily::ipv4).toString(), "0.0.0.0");
   EXPECT_EQ(s->getLocalVtep(AddressFamily::ipv6).toString(), "::");
   EXPECT_EQ(s->vArpVtepAddr(), ip("0.0.0.0"));
   EXPECT_EQ(s->vArpVtepAddr6(), ip("::"));
   EXPECT_EQ(s->mlagVtepAddr(), ip("0.0.0.0"));
   EXPECT_EQ(s->mlagVtepAddr6(), ip("::"));
   EXPECT_EQ(s->udpPort(), 4789);
   EXPECT_EQ(s->udpSrcPort(), 0);
   EXPECT_FALSE(s->udpSrcPortValid());
   EXPECT_EQ(s->ttl(), 64);
   EXPECT_EQ(s->egrL3TunnelIndex(), 0xFFFF);
   EXPECT_EQ(s->egrL3TunnelIndex6(), 0xFFFF);
   EXPECT_EQ(VexloVxlanState::egrL3TunnelIndexInvalid, 0xFFFF);
   EXPECT_FALSE(s->egrL3TunnelDefaultInit());
   EXPECT_FALSE(s->vpDefaultInit());
   EXPECT_FALSE(s->nextHop2DefaultInit());
}

TEST(VexloVxlanStateTest, SetLocalVtepStoresByFamilyWithoutNotifying) {
   VexloVxlanState s("s");
   ChangeLog log(s);
   s.setLocalVtep(ip("2001:db8::1"));
   EXPECT_EQ(s.localVtep(), ip("0.0.0.0"));
   EXPECT_EQ(s.getLocalVtep(AddressFamily::ipv6), ip("2001:db8::1"));
   s.setLocalVtep(ip("10.0.0.1"));
   EXPECT_EQ(s.getLocalVtep(AddressFamily::ipv4), ip("10.0.0.1"));
   EXPECT_EQ(s.localVtep6(), ip("2001:db8::1"));
   EXPECT_TRUE(log.names.empty());
}

TEST(VexloVxlanStateTest, UnknownFamilyIsARangeErrorAndChangesNothing) {
   VexloVxlanState s("s");
   expectRangeError([&] { s.getLocalVtep(AddressFamily::ipunknown); },
                    "Invalid AddressFamily type");
   expectRangeError([&] { s.setLocalVtep(IpGenAddr()); }, "Invalid AddressFamily type");
   EXPECT_EQ(s.localVtep(), ip("0.0.0.0"));
   EXPECT_EQ(s.localVtep6(), ip("::"));
}

TEST(VexloVxlanStateTest, WritersNotifyOnlyWhenTheValueChanges) {
   VexloVxlanState s("s");
   ChangeLog log(s);
   s.ttlIs(64);
   s.udpPortIs(4789);
   s.ttlIs(10);
   s.localVtepIs(ip("10.0.0.1"));
   s.localVtepIs(ip("10.0.0.1"));
   s.egrL3TunnelIndexIs(7);
   EXPECT_EQ(log.names, (std::vector<std::string>{"ttl", "localVtep", "egrL3TunnelIndex"}));
   EXPECT_EQ(s.ttl(), 10);
}

TEST(VexloVxlanStateTest, BootStatusAndConfigRecordsStartEmpty) {
   auto boot = vexloVxlanBootStatusFactory("boot");
   EXPECT_EQ(boot->name(), "boot");
   EXPECT_FALSE(boot->uloTunnelSmInitialized());
   EXPECT_FALSE(boot->hwTunnelStatusInitialized());
   EXPECT_FALSE(boot->vxlanUcTunnelsReconcileStarted());
   boot->hwTunnelStatusInitializedIs(true);
   EXPECT_TRUE(boot->hwTunnelStatusInitialized());

   auto config = vexloVxlanConfigFactory("config");
   EXPECT_EQ(config->vlanMappingDir(), nullptr);
   auto mapping = std::make_shared<VlanMappingDir>("vlanMapping");
   mapping->vlanMappingIs(VlanId(10), 10010);
   config->vlanMappingDirIs(mapping);
   EXPECT_EQ(config->vlanMappingDir()->vlanMapping(VlanId(10)), 10010u);
   EXPECT_EQ(config->vlanMappingDir()->vlanMapping(VlanId(11)), std::nullopt);

   auto status = vexloVxlanStatusFactory();
   EXPECT_EQ(status->vxlanL3StatusEntryDir(), nullptr);
}

TEST(VxlanTunnelKeyTest, TtlOutsideOneToSixtyFourIsRejected) {
   const std::string text = "VexloL3Common::VxlanTunnelKey::ttl < 1 or > 64 not allowed";
   const IntfId vti = IntfId::fromString("Vxlan1");
   EXPECT_EQ(VxlanTunnelKey(vti, ip("10.0.0.1"), 4789, false, 0, 64).ttl(), 64);
   EXPECT_EQ(VxlanTunnelKey(vti, ip("10.0.0.1"), 4789, false, 0, 1).ttl(), 1);
   expectRangeError([&] { VxlanTunnelKey(vti, ip("10.0.0.1"), 4789, false, 0, 0); }, text);
   expectRangeError([&] { VxlanTunnelKey(vti, ip("10.0.0.1"), 4789, false, 0, 65); }, text);
   expectRangeError([] { VxlanTunnelKey::fromString("ttl: 0"); }, text);
   expectRangeError([] { VxlanTunnelKey::fromString("ttl: 300"); }, text);
}

TEST(VxlanTunnelKeyTest, TextFormNamesEveryAttributeAndParsesBack) {
   const VxlanTunnelKey k(IntfId::fromString("Vxlan1"), ip("2001:db8::1"), 4790, true, 5000, 32);
   EXPECT_EQ(k.toString(),
             "vti: Vxlan1, sip: 2001:db8::1, dstPort: 4790, srcPortValid: true, srcPort: 5000, "
             "ttl: 32");
   EXPECT_EQ(VxlanTunnelKey::fromString(k.toString()), k);
   EXPECT_EQ(fmt::format("{}", k), k.toString());
   // Any order; missing attributes take the defaults.
   const auto p = VxlanTunnelKey::fromString("ttl: 8, sip: 10.0.0.1");
   EXPECT_EQ(p, VxlanTunnelKey(IntfId(), ip("10.0.0.1"), 4789, false, 0, 8));
}

TEST(VxlanTunnelKeyTest, MalformedTextIsARangeError) {
   for (const char* bad : {"mtu: 9000", "ttl: 8, ttl: 9", "srcPortValid: yes", "dstPort: 70000",
                           "dstPort 1", "sip: 10.0.0.300", "srcPort: -1"}) {
      EXPECT_THROW(VxlanTunnelKey::fromString(bad), std::range_error) << bad;
   }
}

TEST(VxlanTunnelKeyTest, EqualKeysHashAlikeAndEveryFieldCounts) {
   const IntfId vti = IntfId::fromString("Vxlan1");
   const VxlanTunnelKey base(vti, ip("10.0.0.1"), 4789, false, 0, 64);
   const std::vector<VxlanTunnelKey> variants = {
       VxlanTunnelKey(IntfId::fromString("Vxlan2"), ip("10.0.0.1"), 4789, false, 0, 64),
       VxlanTunnelKey(vti, ip("10.0.0.2"), 4789, false, 0, 64),
       VxlanTunnelKey(vti, ip("10.0.0.1"), 4790, false, 0, 64),
       VxlanTunnelKey(vti, ip("10.0.0.1"), 4789, true, 0, 64),
       VxlanTunnelKey(vti, ip("10.0.0.1"), 4789, false, 1, 64),
       VxlanTunnelKey(vti, ip("10.0.0.1"), 4789, false, 0, 63)};
   std::unordered_set<VxlanTunnelKey> set = {base, base};
   for (const auto& v : variants) {
      EXPECT_NE(v, base);
      set.insert(v);
   }
   EXPECT_EQ(set.size(), 1 + variants.size());
   EXPECT_EQ(std::hash<VxlanTunnelKey>()(VxlanTunnelKey(vti, ip("10.0.0.1"), 4789, false, 0, 64)),
             std::hash<VxlanTunnelKey>()(base));
}

TEST(VxlanTableConstantsTest, DescribeTheHardwareTables) {
   EXPECT_EQ(VnIdTableConstants::sourceTableName(), "VnIdTable-0_4095");
   EXPECT_EQ(VnIdTableConstants::numEntries(), 4095u);
   EXPECT_EQ(EgrVfiTableConstants::sourceTableName(), "EgrVfiTable-0_4095");
   EXPECT_EQ(EgrVfiTableConstants::numEntries(), 4095u);
   EXPECT_EQ(VtepCtrTblConstants::ingSourceTableName(), "SVP");
   EXPECT_EQ(VtepCtrTblConstants::egrSourceTableName(), "EGR_DVP");
   EXPECT_EQ(fmt::format("{}", VtepCtrTblConstants()),
             "ingSourceTableName: SVP egrSourceTableName: EGR_DVP");
}

TEST(VxlanIndexMapsTest, CollectionsInsertOverwriteAndIgnoreAbsentDeletes) {
   VxlanDvpToVtepMap m("dvp");
   ChangeLog log(m);
   m.dvpToVtepMapIs(5, ip("10.0.0.1"));
   m.dvpToVtepMapIs(5, ip("10.0.0.1"));  // same value: no change
   m.dvpToVtepMapIs(5, ip("10.0.0.2"));
   m.dvpToVtepMapIs(6, ip("10.0.0.3"));
   m.dvpToVtepMapDel(99);
   EXPECT_EQ(m.dvpToVtepMap(5), ip("10.0.0.2"));
   EXPECT_EQ(m.dvpToVtepMap().size(), 2u);
   m.dvpToVtepMapDel(5);
   EXPECT_EQ(m.dvpToVtepMap(5), std::nullopt);
   m.dvpToVtepMapDelAll();
   m.dvpToVtepMapDelAll();
   EXPECT_TRUE(m.dvpToVtepMap().empty());
   EXPECT_EQ(log.names.size(), 5u);  // two writes that changed, one add, one delete, one clear

   VxlanTunnelIndexToVtepMap t("tunnels");
   t.tunnelIndexToVtepMapIs(3, ip("2001:db8::3"));
   EXPECT_EQ(t.tunnelIndexToVtepMap(3), ip("2001:db8::3"));
}

TEST(VxlanClearHitBitConfigTest, EachIncrementIsARequestAndTheCounterWraps) {
   VxlanClearHitBitConfig c("clear");
   ChangeLog log(c);
   c.clearReqIdInc(1);
   c.clearReqIdInc(2);
   EXPECT_EQ(c.clearReqId(), 3u);
   c.clearReqIdIs(0xFFFFFFFF);
   c.clearReqIdInc(2);
   EXPECT_EQ(c.clearReqId(), 1u);
   EXPECT_EQ(log.names.size(), 4u);
}

TEST(VexloVxlanBumVtepConfigDirTest, FindOrCreateKeepsEntitiesWithTheSameAttributes) {
   auto dir = vexloVxlanBumVtepConfigDirFactory("bum");
   auto a = dir->bumVtepConfigIs(ip("10.0.0.1"), EncapId(5));
   auto nh =
       a->nextHopsIs(IntfId::vlan(10), ip("10.1.1.2"), EthAddr::fromString("00:00:00:00:00:01"));
   a->versionIs(3);
   EXPECT_EQ(dir->bumVtepConfigIs(ip("10.0.0.1"), EncapId(5)), a);
   EXPECT_EQ(
       a->nextHopsIs(IntfId::vlan(10), ip("10.1.1.2"), EthAddr::fromString("00:00:00:00:00:01")),
       nh);
   // Attributes fixed at construction: a different one makes a new entity in the same slot.
   auto nh2 =
       a->nextHopsIs(IntfId::vlan(10), ip("10.1.1.2"), EthAddr::fromString("00:00:00:00:00:02"));
   EXPECT_NE(nh2, nh);
   EXPECT_EQ(a->nextHops(IntfId::vlan(10)), nh2);
   EXPECT_EQ(a->nextHops().size(), 1u);
   auto b = dir->bumVtepConfigIs(ip("10.0.0.1"), EncapId(6));
   EXPECT_NE(b, a);
   EXPECT_EQ(b->encapId(), EncapId(6));
   EXPECT_TRUE(b->nextHops().empty());
   EXPECT_EQ(dir->bumVtepConfig(ip("10.0.0.9")), nullptr);
}

TEST(EncapIdToBumVtepIpConfigDirTest, ReverseConfigIsFindOrCreate) {
   auto dir = encapIdToBumVtepIpConfigDirFactory("reverse");
   auto first = dir->vxlanReverseConfigIs(EncapId(7));
   EXPECT_EQ(first->encapId(), EncapId(7));
   EXPECT_EQ(first->vtepIp(), IpGenAddr());
   first->vtepIpIs(ip("10.0.0.7"));
   EXPECT_EQ(dir->vxlanReverseConfigIs(EncapId(7)), first);
   EXPECT_EQ(dir->vxlanReverseConfig(EncapId(7))->vtepIp(), ip("10.0.0.7"));
   EXPECT_EQ(dir->vxlanReverseConfig(EncapId(8)), nullptr);
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
}

TEST(EncapIdToBumVtepIpConfigDirTest, EncapIdSharedByTwoVtepsIsFatal) {
   Ulo::ScopedThrowingAssertHandler guard;
   VexloVxlanBumVtepConfigDir forward("bum");
   EncapIdToBumVtepIpConfigDir reverse("reverse");
   forward.bumVtepConfigIs(ip("10.0.0.1"), EncapId(1));
   forward.bumVtepConfigIs(ip("10.0.0.2"), EncapId(1));
   try {
      syncReverseConfig(forward, reverse);
      FAIL() << "no assertion";
   } catch (const Ulo::AssertionFailure& f) {
      EXPECT_EQ(f.text, "encapId used by two VTEPs");
   }
}

TEST(FloodUnderlayVlanToVtepListTest, HasNoStringConstructor) {
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      FloodUnderlayVlanToVtepList::fromString("{10.0.0.1}");
      FAIL() << "no assertion";
   } catch (const Ulo::AssertionFailure& f) {
      EXPECT_EQ(f.text, "No String constructor for FloodUnderlayVlanToVtepList - has collection");
   }
}

TEST(FloodUnderlayVlanToVtepListTest, DirectoryStoresACopy) {
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
   EXPECT_EQ(
       std::hash<FloodUnderlayVlanToVtepList>()(list),
       std::hash<FloodUnderlayVlanToVtepList>()(*dir->floodUnderlayVlanToVtepList(VlanId(10))));
}

TEST(VtepToVtepBridgingTest, StatusAcknowledgesTheConfiguration) {
   auto config = vtepToVtepBridgingConfigFactory("bridging");
   auto status = vtepToVtepBridgingStatusFactory();
   config->vtepToVtepBridgingIs(true);
   config->vtepSetForSourcePruningIs(ip("10.0.0.1"));
   config->vtepSetForSourcePruningIs(ip("10.0.0.2"));
   ChangeLog log(*status);
   status->ackConfig(*config);
   EXPECT_TRUE(status->vtepToVtepBridging());
   EXPECT_FALSE(status->vtepSourcePruningAll());
   EXPECT_TRUE(status->vtepSetForSourcePruning(ip("10.0.0.2")));
   EXPECT_EQ(log.names,
             (std::vector<std::string>{"vtepToVtepBridging", "vtepSetForSourcePruning"}));
   status->ackConfig(*config);
   EXPECT_EQ(log.names.size(), 2u);
   config->vtepSetForSourcePruningDel(ip("10.0.0.1"));
   status->ackConfig(*config);
   EXPECT_EQ(status->vtepSetForSourcePruning().size(), 1u);
}

}  // namespace
}  // namespace VexloL3Common
