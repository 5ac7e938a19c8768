// Placement through the context. The fixture verifies the model and the emulated writer checks
// every route after every step, so what is left here is what those cannot see: where a hole comes
// from, the swap reserve, when a free half is used, and the refusals.
#include <gtest/gtest.h>

#include <vector>

#include "TcamFixture.h"
#include "platform/Trace.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

// Records every published move.
struct MoveLog {
   explicit MoveLog(RouteMove& m)
       : sub(m.changed().subscribe([this](const RoutePosition& p) { moves.push_back(p); })) {}
   std::vector<RoutePosition> moves;
   Ulo::Subscription sub;
};

// A tiny table: entries 1..7 in one IPv4 block, no reserved entry besides 0, no swap area.
L3TcamManagerContext::Config tiny(bool twoV4 = false) {
   auto c = layout(8, 4, 1, twoV4);  // mode 4 on a table that is not 8 blocks: border = size
   c.requestedTableMode = 9;         // differs from currentTableMode: no swap area
   return c;
}

}  // namespace

TEST(TcamInsert, FullBlockReturnsZeroAndChangesNothingAFreedLowerEntryIsFoundUpward) {
   TcamHarness h(tiny());
   for (uint32_t vrf = 1; vrf <= 7; ++vrf)
      h.add4(k4(vrf, "10.1.1.0/24"));
   const std::string before = snapshot(h.ctx());
   {
      Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 7);
      // Without the swap area an empty IPv4 reserve already blocks; with it the block is full.
      EXPECT_EQ(h.add4(k4(1, "10.0.0.0/8")).routeId, 0u);
      EXPECT_TRUE(cap.contains("Swap area allocation blocked"));
      EXPECT_EQ(h.add4(k4(1, "10.0.0.0/8"), true).routeId, 0u);
      EXPECT_TRUE(cap.contains("Full tcam table"));
      EXPECT_EQ(snapshot(h.ctx()), before);
   }
   h.del4(k4(1, "10.1.1.0/24"));  // frees entry 1
   MoveLog log(h.move());
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 2);
   // /8 belongs after every /24; nothing is free there, so the hole comes from below.
   EXPECT_EQ(h.add4(k4(1, "10.0.0.0/8")).routeId, 7u);
   EXPECT_TRUE(cap.contains("Search toward begin. Start: 1, end: 7"));
   ASSERT_EQ(log.moves.size(), 1u);
   EXPECT_EQ(std::pair(log.moves[0].oldRouteId, log.moves[0].newRouteId), std::pair(7u, 1u));
}

TEST(TcamInsert, SwapRegionTestWeighsEachRegionsReserve) {
   // Entries 1..63; IPv6 double size [1, 31], single size [32, 63]; 0 and 8 reserved.
   TcamHarness h(layout(64, 2, 8, false));
   for (uint32_t i = 0; i < 50; ++i)
      h.add4(k4(1, fmt::format("10.{}.0.0/16", i).c_str()), true);
   L3TcamManagerContext& c = h.ctx();
   ASSERT_EQ(c.entriesFree(RouteType::v4), 12u);
   c.swapAreaSizeIs(RouteType::v4, 10);
   c.swapAreaSizeIs(RouteType::v6Half, 0);
   c.swapAreaSizeIs(RouteType::v6Full, 0);
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 7, 7);
   // An IPv6 placement holds back 2 (single size) or 4 (double size) more IPv4 entries.
   EXPECT_TRUE(c.swapRegionFull(RouteType::v6Half));  // 10 + 2 >= 12
   EXPECT_TRUE(c.swapRegionFull(RouteType::v6Full));  // 10 + 4 >= 12
   EXPECT_TRUE(cap.contains(" free v4: 12/0/14, v6Half: "));
   EXPECT_TRUE(cap.contains(" v4 no space"));
   EXPECT_FALSE(c.swapRegionFull(RouteType::v4));  // 10 < 12 and both IPv6 regions have room
   h.del4(k4(1, "10.0.0.0/16"));                   // 13 free
   EXPECT_FALSE(c.swapRegionFull(RouteType::v6Half));
   EXPECT_TRUE(c.swapRegionFull(RouteType::v6Full));
   // With IPv4 room to spare, the answer is true only when both IPv6 regions are at their reserve.
   c.swapAreaSizeIs(RouteType::v6Half, 64);
   EXPECT_FALSE(c.swapRegionFull(RouteType::v4));
   c.swapAreaSizeIs(RouteType::v6Full, 64);
   cap.sink().clear();
   EXPECT_TRUE(c.swapRegionFull(RouteType::v4));
   EXPECT_TRUE(cap.contains(" v6 no space"));
}

TEST(TcamInsert, AFreeLeftHalfWaitsForTheSwapRegionAFreeRightHalfDoesNot) {
   auto cfg = layout(64, 2, 8, true);
   cfg.requestedTableMode =
       7;  // no swap area: the IPv4 region is "full" only when no entry is free
   for (bool rightFree : {false, true}) {
      TcamHarness h(cfg);
      const uint32_t a = h.add4(k4(1, "10.1.1.0/24")).routeId;
      ASSERT_EQ(h.add4(k4(1, "10.1.2.0/24")).routeId, a);
      h.del4(k4(1, rightFree ? "10.1.1.0/24" : "10.1.2.0/24"));
      for (uint32_t i = 0; i < 250 && h.ctx().entriesFree(RouteType::v4) > 0; ++i) {
         h.add4(k4(1, fmt::format("10.{}.0.0/16", i).c_str()));
      }
      const uint32_t half = h.ctx().v4()->halfFull(24);  // moved along by the fill
      ASSERT_NE(half, 0u);
      ASSERT_TRUE(h.ctx().swapRegionFull(RouteType::v4));
      const std::string before = snapshot(h.ctx());
      RouteReturnCode rc = h.add4(k4(2, "10.1.3.0/24"), true);
      if (rightFree) {
         EXPECT_EQ(rc.routeId, half) << "a free right half is always taken";
         EXPECT_TRUE(rc.tcamV4RightKey);
      } else {
         EXPECT_EQ(rc.routeId, 0u) << "a free left half waits while the IPv4 region is full";
         EXPECT_EQ(snapshot(h.ctx()), before);
      }
   }
}

// (Where re-adding is allowed, the fuzz target re-adds installed routes of both families.)
TEST(TcamInsert, DuplicatesAreFatal) {
   auto c = layout(1024, 2, 8);
   c.supportsDefipPairing = true;
   TcamHarness h(c);
   h.add4(k4(1, "10.0.0.0/8"));
   h.add6(k6(1, "2001:db8::/48"));
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 2);
   EXPECT_EQ(failureOf([&] { h.ctx().addRoute4(k4(1, "10.0.0.0/8"), false); }), "0");
   EXPECT_TRUE(cap.contains("Found exisiting IPv4 route 10.0.0.0/8(vrf1)"));
   EXPECT_EQ(failureOf([&] { h.ctx().addRoute6(k6(1, "2001:db8::/48"), false); }), "0");
}

TEST(TcamInsert, MulticastDuplicatesAbsentRoutesAndOverlongKeysAreFatal) {
   auto c = layout(256, 0, 0);
   c.v4Mcast = true;
   TcamHarness h(c);
   auto g = [](const char* group, const char* src, uint8_t len) {
      return IpMcastPrefixKey(1, 0, Ulo::IpGenAddr::fromString(group),
                              Ulo::IpGenAddr::fromString(src), len);
   };
   h.addM(g("239.1.1.1", "10.0.0.1", 64));
   EXPECT_EQ(failureOf([&] { h.ctx().addMroute4(g("239.1.1.1", "10.0.0.1", 64), false); }), "0");
   EXPECT_EQ(failureOf([&] { h.ctx().deleteMroute4(g("239.9.9.9", "0.0.0.0", 32)); }), "pos");
   EXPECT_EQ(failureOf([&] { h.ctx().addMroute4(g("239.1.1.1", "0.0.0.0", 91), false); }),
             "len <= blk->prefixLenMax()");
}
