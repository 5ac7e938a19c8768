#include "VexloL3Common/tcam/L3TcamManager.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "TcamFixture.h"
#include "platform/Trace.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

using Config = L3TcamManagerContext::Config;

// The records of one table with a writer that acknowledges at once, and the agent's status.
struct Table {
   Ulo::Ptr<RouteMove> move = routeMoveFactory(), moveStatus = routeMoveFactory();
   Ulo::Ptr<RouteMerge> merge = routeMergeFactory(), mergeStatus = routeMergeFactory();
   Ulo::Subscription moveAck =
       move->changed().subscribe([s = moveStatus](const RoutePosition& p) { s->posIs(p); });
   Ulo::Subscription mergeAck =
       merge->changed().subscribe([s = mergeStatus](const RouteMergeInfo& m) { s->mergeIs(m); });
   Ulo::Ptr<Ulo::RoutingStatus> routing = std::make_shared<Ulo::RoutingStatus>();
   Ulo::Ptr<Ulo::SegmentSecurityStatus> segSec = std::make_shared<Ulo::SegmentSecurityStatus>();

   Config config(uint32_t size, uint32_t mode = 2, bool mcast = false) const {
      Config c = layout(size, mode, 8);
      c.globalRoutingStatus = routing, c.segmentSecurityStatus = segSec;
      c.routeMove = move, c.routeMoveStatus = moveStatus;
      c.routeMerge = merge, c.routeMergeStatus = mergeStatus;
      c.v4Mcast = mcast;
      return c;
   }
   Ulo::Ptr<L3TcamManagerContext> context(const Config& c) const {
      auto ctx = l3TcamManagerContextFactory(c);
      ctx->handleInitialized(true);
      return ctx;
   }
};

IpMcastPrefixKey mcastKey(uint16_t vrfIndex, int i) {
   return IpMcastPrefixKey(vrfIndex, 0, Ulo::IpGenAddr::v4(0xEF000000u + uint32_t(i)),
                           Ulo::IpGenAddr::v4(0), 32);
}

// A spread of prefix lengths, so that placing enough of them shifts entries.
std::vector<Ipv4UcastKey> routes4(uint32_t vrf, int n) {
   static const int lengths[] = {8, 16, 24, 32, 12, 20, 28, 16, 24};
   std::vector<Ipv4UcastKey> keys;
   for (int i = 0; i < n; ++i) {
      const int len = lengths[i % 9];
      const uint32_t addr = (uint32_t(10 + i) << 24) | (uint32_t(i) << 16) | (uint32_t(i) << 8);
      keys.emplace_back(VrfId(vrf), Ulo::Prefix(addr & (~0u << (32 - len)), uint8_t(len)));
   }
   return keys;
}

// The attributes a context takes in place: mode, blocks, pair gap, requested table mode.
std::string inPlace(const L3TcamManagerContext& ctx) {
   return fmt::format("{} {} {} {}", ctx.tcamMode(), ctx.numUcastDefipBlocks(), ctx.pairGap(),
                      ctx.requestedTableMode());
}

// Invalid entries that overlap the reserved ones (index 0, the pair-gap entry 1024, pair 0) and
// each other.
struct OverlappingInvalid : LpmInvalidEntryManager {
   void allocateInvalidEntries(bool, const Ulo::Ptr<HBitmap>& bm) override {
      for (uint32_t i : {0u, 1024u, 3000u, 3001u, 3002u, 3003u})
         bm->setBit(i);
      for (InvalidEntryRange r :
           {InvalidEntryRange{0, 0}, {1024, 1024}, {3000, 3002}, {3001, 3003}})
         invalidEntryRangeIs(r);
   }
   void allocateInvalidEntriesPair(bool, const Ulo::Ptr<HBitmap>& bm) override {
      bm->setBit(0), bm->setBit(1), bm->setBit(700);
      invalidEntryRangePairIs({0, 1});
      invalidEntryRangePairIs({700, 700});
   }
};

IndexRange blockRange(const L3TcamManagerContext& ctx, RouteType t) {
   return IndexRange(ctx.block(t)->start(), ctx.block(t)->end());
}

}  // namespace

TEST(TcamManager, InPlaceAttributesKeepTheContextAnyOtherChangeReplacesIt) {
   Table t;
   L3TcamManager mgr;
   Config c = t.config(1024);
   mgr.tcamManagerCtxIs(c);
   const auto ctx = mgr.tcamManagerCtx();
   ctx->handleInitialized(true);
   ASSERT_NE(mgr.addRoute4(k4(1, "10.0.0.0/8"), false).routeId, 0u);
   const std::string before = snapshot(*ctx);

   c.tcamMode = 4, c.numUcastDefipBlocks = 4, c.pairGap = 512, c.requestedTableMode = 3;
   mgr.tcamManagerCtxIs(c);
   EXPECT_EQ(mgr.tcamManagerCtx(), ctx);
   EXPECT_EQ(inPlace(*ctx), "4 4 512 3");
   EXPECT_EQ(snapshot(*ctx), before) << "the new values wait for the next layout";

   // Refused before anything is written or replaced.
   c.tcamSize = 2048, c.tcamMode = 2, c.numUcastDefipBlocks = 0;
   EXPECT_THROW(mgr.tcamManagerCtxIs(c), std::range_error);
   EXPECT_EQ(mgr.tcamManagerCtx(), ctx);
   EXPECT_EQ(inPlace(*ctx), "4 4 512 3");

   c.numUcastDefipBlocks = 8;
   mgr.tcamManagerCtxIs(c);
   ASSERT_NE(mgr.tcamManagerCtx(), ctx);
   mgr.tcamManagerCtx()->handleInitialized(true);
   EXPECT_EQ(mgr.tcamManagerCtx()->tcamSize(), 2048u);
   EXPECT_EQ(mgr.getKeyV4ToEntryId(k4(1, "10.0.0.0/8")), 0u) << "a new, empty context";
}

TEST(TcamManager, EveryOtherAttributeIsComparedHandlesByIdentity) {
   const std::vector<std::function<void(Config&)>> changes = {
       [](Config& c) { c.tcamSize = 2048; },
       [](Config& c) { c.twoV4RoutesPerEntry = false; },
       [](Config& c) { c.supportsDefipPairing = true; },
       [](Config& c) { c.dynamicV4V6Boundary = true; },
       [](Config& c) { c.globalRoutingStatus = std::make_shared<Ulo::RoutingStatus>(); },
       [](Config& c) { c.currentTableMode = 1; },
       [](Config& c) { c.reAddAllowed = true; },
       [](Config& c) { c.fallbackVrfId = VrfId(3); },
       [](Config& c) { c.platformType = 9; },
       [](Config& c) { c.segmentSecurityStatus = std::make_shared<Ulo::SegmentSecurityStatus>(); },
       [](Config& c) { c.routeMove = routeMoveFactory(); },
       [](Config& c) { c.routeMoveStatus = routeMoveFactory(); },
       [](Config& c) { c.routeMerge = routeMergeFactory(); },
       [](Config& c) { c.routeMergeStatus = routeMergeFactory(); },
       [](Config& c) { c.invalidEntryManagerType = 1; },
       [](Config& c) { c.v4Mcast = true; },
       [](Config& c) { c.softwareOnly = true; },
       [](Config& c) { c.v4V6InterleavingDisabled = false; },
   };
   for (size_t i = 0; i < changes.size(); ++i) {
      SCOPED_TRACE(i);
      Table t;
      L3TcamManager mgr;
      Config c = t.config(1024);
      mgr.tcamManagerLowCtxIs(c);
      std::weak_ptr<L3TcamManagerContext> old = mgr.tcamManagerLowCtx();
      changes[i](c);
      mgr.tcamManagerLowCtxIs(c);
      EXPECT_TRUE(old.expired()) << "the old context is dropped with its state";
   }
}

TEST(TcamManager, PositionalArgumentsMatchTheConfiguration) {
   Table t;
   Config c = t.config(4096, 4);
   c.twoV4RoutesPerEntry = true, c.supportsDefipPairing = true, c.numUcastDefipBlocks = 16;
   c.pairGap = 256, c.requestedTableMode = 6, c.currentTableMode = 7, c.reAddAllowed = true;
   c.fallbackVrfId = VrfId(11), c.platformType = 12, c.softwareOnly = true;
   c.v4V6InterleavingDisabled = false;
   L3TcamManager mgr;
   mgr.tcamManagerLowCtxIs(4096, 4, true, true, false, 16, 256, t.routing, 6, 7, true, VrfId(11),
                           12, t.segSec, t.move, t.moveStatus, t.merge, t.mergeStatus, 0, false,
                           true, false);
   const auto ctx = mgr.tcamManagerLowCtx();
   // The in-place attributes, read before the same configuration would rewrite them.
   EXPECT_EQ(inPlace(*ctx), "4 16 256 6");
   mgr.tcamManagerLowCtxIs(c);
   EXPECT_EQ(mgr.tcamManagerLowCtx(), ctx) << "every compared attribute landed in its place";
}

TEST(TcamManager, VrfSelectsTheContextAMissingOneIsFatalResultsEqualDirectCalls) {
   Table mainT, lowT, twinT, mcTwinT;
   L3TcamManager mgr;
   EXPECT_EQ(failureOf([&] { mgr.addRoute4(k4(1, "10.0.0.0/8"), false); }), "tcamManagerCtx()");
   mgr.tcamManagerCtxIs(mainT.config(512, 2, true));
   const auto mainCtx = mgr.tcamManagerCtx();
   // Until a low VRF is named nothing reaches the low context, not even the invalid VRF.
   EXPECT_EQ(mgr.selectTcamManagerCtx(VrfId::invalidVrfId()), mainCtx);
   mgr.lowCtxVrfIdIs(VrfId(5));
   EXPECT_EQ(failureOf([&] { mgr.showSoftwareTcamTable(VrfId(5), 1, false); }),
             "tcamManagerLowCtx()");
   mgr.tcamManagerLowCtxIs(lowT.config(128));
   const auto lowCtx = mgr.tcamManagerLowCtx();
   lowCtx->handleInitialized(true);
   EXPECT_EQ(mgr.selectTcamManagerCtx(k6(5, "2001:db8::/48")), lowCtx);
   EXPECT_EQ(mgr.selectTcamManagerCtx(mcastKey(5, 1)), lowCtx);
   EXPECT_EQ(mgr.selectTcamManagerCtx(k6(6, "2001:db8::/48")), mainCtx);
   EXPECT_EQ(mgr.selectTcamManagerCtx(mcastKey(4, 1)), mainCtx);

   const auto twin = twinT.context(twinT.config(128));
   const std::vector<Ipv4UcastKey> keys = routes4(5, 104);  // the last ones shift entries
   for (const Ipv4UcastKey& k : keys)
      ASSERT_EQ(mgr.addRoute4(k, false), twin->addRoute4(k, false)) << k.toString();
   // One route of each pair goes, so that the half-full entries left merge at once or later.
   uint32_t deferred = 0;
   for (size_t i = 0; i < keys.size(); i += 2) {
      const RouteReturnCode rc = mgr.deleteRoute4(keys[i], i % 4 == 0, i);
      ASSERT_EQ(rc, twin->deleteRoute4(keys[i], i % 4 == 0, i)) << keys[i].toString();
      if (rc.canMerge) {
         ++deferred;
         mgr.mergeRoute4(keys[i], rc.routeId, rc.mergePos, i);
         twin->mergeRoute4(keys[i], rc.routeId, rc.mergePos, i);
      }
   }
   EXPECT_GT(deferred, 0u);
   EXPECT_GT(twin->stats()->mergeRoute(RouteType::v4), deferred) << "merged at once too";
   for (size_t i = 1; i < keys.size(); i += 2) {
      const uint32_t pos = mgr.getKeyV4ToEntryId(keys[i]);
      ASSERT_EQ(pos, twin->getKeyV4ToEntryId(keys[i]));
      EXPECT_EQ(mgr.verifyRoute4(keys[i]), pos);
      EXPECT_EQ(mgr.rightKey(keys[i], pos), twin->rightKey(keys[i], pos));
      EXPECT_EQ(mgr.pairedKey(keys[i], pos, 0), twin->pairedKey(keys[i], pos, 0));
   }
   for (int i = 0; i < 6; ++i) {
      const Ipv6UcastKey k = k6(5, fmt::format("2001:{:x}::/{}", i + 1, 40 + 4 * i).c_str());
      ASSERT_EQ(mgr.addRoute6(k, false), twin->addRoute6(k, false)) << k.toString();
      EXPECT_EQ(mgr.v6RouteTypeFromKey(k), twin->v6RouteTypeFromKey(k));
      if (i % 2) {
         EXPECT_EQ(mgr.deleteRoute6(k), twin->deleteRoute6(k));
      }
   }
   EXPECT_GT(twin->stats()->moveRoute(RouteType::v4), 0u);
   EXPECT_EQ(snapshot(*lowCtx), snapshot(*twin));

   // Multicast routes reach the main context, which here models the multicast table.
   mainCtx->handleInitialized(true);
   const auto mcTwin = mcTwinT.context(mcTwinT.config(512, 2, true));
   for (int i = 0; i < 8; ++i) {
      ASSERT_EQ(mgr.addMroute4(mcastKey(2, i), false), mcTwin->addMroute4(mcastKey(2, i), false));
      if (i % 3 == 0) {
         EXPECT_EQ(mgr.deleteMroute4(mcastKey(2, i)), mcTwin->deleteMroute4(mcastKey(2, i)));
      }
   }
   EXPECT_EQ(snapshot(*mainCtx), snapshot(*mcTwin));
}

TEST(TcamUrpf, InstalledRoutesRefuseTheSwitchAndChangeNothing) {
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 1);
   Table t, p;
   t.routing->urpfConfiguredOnAnyIntfIs(true);
   p.routing->urpfConfiguredOnAnyIntfIs(true);
   const auto ctx = t.context(t.config(8192));
   ASSERT_NE(ctx->addRoute4(k4(1, "10.0.0.0/8"), false).routeId, 0u);
   ASSERT_NE(ctx->addRoute6(k6(1, "2001:db8::/48"), false).routeId, 0u);
   Config pc = p.config(8192);
   pc.supportsDefipPairing = true;
   const auto paired = p.context(pc);
   ASSERT_NE(paired->addRoute6(k6(1, "2001:db8::1/128"), false).routeId, 0u);

   for (const auto& c : {ctx, paired}) {
      const std::string before = snapshot(*c);
      EXPECT_FALSE(c->handleUrpf(true));
      EXPECT_EQ(snapshot(*c), before);
   }
   EXPECT_TRUE(cap.contains(" tcam table still in use. v4/v6-64: 2 v6Full: 0"));
   // A double-size route is counted once, as a pair, not as its two entries.
   EXPECT_TRUE(cap.contains(" tcam table still in use. v4/v6-64: 0 v6Full: 1"));
}

TEST(TcamUrpf, EmptyTableIsLaidOutAgainHalved) {
   Table t;
   t.routing->urpfConfiguredOnAnyIntfIs(true);
   Config c = t.config(8192);
   c.invalidEntryManagerType = 1;
   auto ctx = l3TcamManagerContextFactory(c);
   ctx->invalidEntryManagerIs(std::make_shared<OverlappingInvalid>());
   ctx->handleInitialized(true);
   // Emptied by a delete: only the reserved and invalid entries remain set.
   ASSERT_NE(ctx->addRoute4(k4(1, "10.0.0.0/8"), false).routeId, 0u);
   ctx->deleteRoute4(k4(1, "10.0.0.0/8"), true, 1);

   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 1);
   EXPECT_TRUE(ctx->handleUrpf(true));
   EXPECT_TRUE(
       cap.contains("handleUrpf enabled: true routingState: routingEnabled:0 "
                    "routing6Enabled:0 urpfEnabled:0 urpfConfiguredOnAnyIntf:1"));
   EXPECT_TRUE(cap.contains(" urpfConfiguredOnAnyIntf: true segmentSecurityEnabled: false"));
   EXPECT_TRUE(ctx->urpfEnabled());
   EXPECT_EQ(ctx->effectiveSize(), 4096u);
   EXPECT_EQ(blockRange(*ctx, RouteType::v4), IndexRange(1, 4095));
   EXPECT_EQ(blockRange(*ctx, RouteType::v6Full), IndexRange(1, 2047));
   EXPECT_EQ(blockRange(*ctx, RouteType::v6Half), IndexRange(2048, 4095));

   // Back, once no interface asks for uRPF.
   t.routing->urpfConfiguredOnAnyIntfIs(false);
   EXPECT_TRUE(ctx->handleUrpf(false));
   EXPECT_EQ(blockRange(*ctx, RouteType::v6Half), IndexRange(4096, 8191));
}

TEST(TcamUrpf, WrongModeLiveRoutingOrMismatchedStatusIsFatal) {
   Table t1;
   t1.routing->urpfConfiguredOnAnyIntfIs(true);
   const auto mode1 = t1.context(t1.config(8192, 1));
   EXPECT_EQ(failureOf([&] { mode1->handleUrpf(true); }), "tcamMode() == 2 || tcamMode() == 4");

   Table t;
   t.routing->urpfConfiguredOnAnyIntfIs(true);
   const auto ctx = t.context(t.config(8192));
   t.routing->routingEnabledIs(true);
   EXPECT_EQ(failureOf([&] { ctx->handleUrpf(true); }), "!state.routingEnabled()");
   t.routing->routingEnabledIs(false);
   t.routing->routing6EnabledIs(true);
   EXPECT_EQ(failureOf([&] { ctx->handleUrpf(true); }), "!state.routing6Enabled()");
   t.routing->routing6EnabledIs(false);
   const char* const mismatch =
       "( globalRoutingStatus()->urpfConfiguredOnAnyIntf() || segmentSecurityStatus()->enabled() "
       ") == enabled";
   EXPECT_EQ(failureOf([&] { ctx->handleUrpf(false); }), mismatch);
   t.routing->urpfConfiguredOnAnyIntfIs(false);
   EXPECT_EQ(failureOf([&] { ctx->handleUrpf(true); }), mismatch);
}
