// The border moved range by range: each entry in the way moves at most once, the result is the
// one the entry-by-entry move reaches (the same routes, verified, every move checked by the
// emulator), for both placement policies.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <vector>

#include "TcamFixture.h"
#include "platform/Trace.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

using Config = L3TcamManagerContext::Config;

// 512 entries, pairs 16 apart: the border moves 64 entries at a time.
Config moving(bool inRanges, PlacementPolicy policy) {
   auto c = layout(512, 2, 8, false);
   c.supportsDefipPairing = true;
   c.dynamicV4V6Boundary = true;
   c.pairGap = 16;
   c.requestedTableMode = 9;
   c.borderMoveInRanges = inRanges;
   c.placementPolicy = policy;
   return c;
}

Ipv6UcastKey k6n(uint32_t i, uint32_t len) {
   Ulo::Ip6Prefix::Bytes b{};
   b[0] = 0x20, b[1] = 0x01, b[4] = uint8_t(i >> 8), b[5] = uint8_t(i), b[15] = uint8_t(i);
   for (uint32_t bit = len; bit < 128; ++bit)
      b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
   return Ipv6UcastKey(VrfId(1), Ulo::Ip6Prefix(b, uint8_t(len)));
}

// The moves a harness publishes, and whether any entry moved twice (a move from where an earlier
// move of the same operation put something).
struct MoveLog {
   explicit MoveLog(TcamHarness& h)
       : sub(h.move().changed().subscribe([this](const RoutePosition& p) {
            twice += landed.count(p.oldRouteId);
            landed[p.newRouteId] = true;
            ++moves;
         })) {}
   Ulo::Subscription sub;
   std::map<uint32_t, bool> landed;
   uint32_t moves = 0, twice = 0;
};

// IPv4 routes of several lengths, spread over the partition (the border at 0).
void loadIpv4(TcamHarness& h) {
   for (uint32_t i = 0; i < 150; ++i) {
      const uint32_t len = 16 + i % 17;
      const uint32_t addr = (10u << 24) | (i << 16);
      ASSERT_NE(
          h.add4(Ipv4UcastKey(VrfId(1), Ulo::Prefix(addr & (~0u << (32 - len)), len))).routeId, 0u);
   }
}

uint32_t lengthsWithRanges(const TcamBlock& blk) {
   uint32_t n = 0;
   blk.forEachLengthRange([&](uint32_t, const IndexRange&) { ++n; });
   return n;
}

}  // namespace

TEST(TcamBorderMove, RaisingTheBorderMovesEachIpv4EntryInTheWayAtMostOnce) {
   for (PlacementPolicy policy : {PlacementPolicy::classic, PlacementPolicy::weighted}) {
      SCOPED_TRACE(toString(policy));
      TcamHarness byEntry(moving(false, policy)), inRanges(moving(true, policy));
      loadIpv4(byEntry);
      loadIpv4(inRanges);
      const TcamBlock& v4 = *inRanges.ctx().block(RouteType::v4);
      const uint32_t inTheWay = v4.bitmap()->count(v4.start(), v4.end());
      const uint32_t lengths = lengthsWithRanges(v4);
      ASSERT_GT(v4.bitmap()->count(1, 63), 0u) << "IPv4 must make way";

      MoveLog entryLog(byEntry), rangeLog(inRanges);
      ASSERT_TRUE(byEntry.ctx().reallocate(64, false));
      ASSERT_TRUE(inRanges.ctx().reallocate(64, false));
      inRanges.check(true);
      EXPECT_EQ(rangeLog.twice, 0u);
      EXPECT_LE(rangeLog.moves, inTheWay + lengths);
      EXPECT_LE(rangeLog.moves, entryLog.moves);
      EXPECT_EQ(inRanges.emu().installedRoutes(), byEntry.emu().installedRoutes());
      EXPECT_EQ(inRanges.ctx().v4V6Border(), 64u);
      EXPECT_NE(inRanges.add6(k6n(1, 100)).routeId, 0u) << "the new partition takes IPv6";
   }
}

TEST(TcamBorderMove, LoweringTheBorderMovesEachPairInTheWayAtMostOnce) {
   for (PlacementPolicy policy : {PlacementPolicy::classic, PlacementPolicy::weighted}) {
      SCOPED_TRACE(toString(policy));
      TcamHarness h(moving(true, policy));
      for (uint32_t i = 0; i < 40; ++i)
         ASSERT_NE(h.add6(k6n(i, 65 + i)).routeId, 0u);
      ASSERT_TRUE(h.ctx().reallocate(320, false));
      // Shorter lengths go above the ones in place, into pairs past 64; half of the first routes
      // leave room below.
      for (uint32_t i = 40; i < 65; ++i)
         ASSERT_NE(h.add6(k6n(i, i)).routeId, 0u);
      for (uint32_t i = 0; i < 40; i += 2)
         h.del6(k6n(i, 65 + i));
      const TcamBlock& full = *h.ctx().block(RouteType::v6Full);
      const uint32_t inTheWay = full.bitmap()->count(64, 159);
      const uint32_t routes = full.bitmap()->count(1, 159);
      ASSERT_GT(inTheWay, 0u);
      MoveLog log(h);
      ASSERT_TRUE(h.ctx().reallocate(128, false));
      h.check(true);
      EXPECT_EQ(log.twice, 0u);
      EXPECT_GE(log.moves, inTheWay);
      EXPECT_LE(log.moves, routes);
      EXPECT_EQ(full.bitmap()->count(1, 63), routes);
      EXPECT_EQ(h.emu().installedRoutes(), 45u);
   }
}

namespace {

// 64 entries, pairs 8 apart: the border moves 16 entries at a time.
Config small(bool inRanges) {
   auto c = layout(64, 4, 8, false);
   c.supportsDefipPairing = true;
   c.dynamicV4V6Boundary = true;
   c.pairGap = 8;
   c.borderMoveInRanges = inRanges;
   return c;
}

Ipv4UcastKey k4n(uint32_t i, uint32_t len) {
   const uint32_t addr = (10u << 24) | (i << 8) | i;
   return Ipv4UcastKey(VrfId(1), Ulo::Prefix(len == 0 ? 0 : addr & (~0u << (32 - len)), len));
}

// One border move made both ways on the same table, `build` bringing it to where the border
// moves; the move in ranges must find its room (the count allowed the move), move each entry at
// most once and end where the entry-by-entry move ends.
void moveBothWays(uint32_t from, uint32_t to, const std::function<void(TcamHarness&)>& build) {
   TcamHarness byEntry(small(false)), inRanges(small(true));
   for (TcamHarness* h : {&byEntry, &inRanges}) {
      ASSERT_TRUE(h->ctx().reallocate(from, true));
      build(*h);
   }
   const RouteType t = to > from ? RouteType::v4 : RouteType::v6Full;
   const TcamBlock& blk = *inRanges.ctx().block(t);
   const uint32_t entries = blk.bitmap()->count(blk.start(), blk.end());
   const uint32_t lengths = lengthsWithRanges(blk);
   MoveLog entryLog(byEntry), rangeLog(inRanges);
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 7, 7);
   ASSERT_TRUE(byEntry.ctx().reallocate(to, true));
   ASSERT_TRUE(inRanges.ctx().reallocate(to, true));
   inRanges.check(true);
   EXPECT_TRUE(cap.contains("reallocate: in ranges")) << "the plan found no room";
   EXPECT_EQ(rangeLog.twice, 0u);
   EXPECT_LE(rangeLog.moves, entries + lengths);
   EXPECT_LE(rangeLog.moves, entryLog.moves);
   EXPECT_EQ(inRanges.emu().installedRoutes(), byEntry.emu().installedRoutes());
}

}  // namespace

// The ranges the push reaches have holes (routes deleted) and the room past them ends at the
// table's edge: the holes inside a range are room too, or the plan runs out of it before the
// count does.
TEST(TcamBorderMove, LoweringTheBorderFillsTheHolesInsideTheRangesItReaches) {
   for (bool sameLength : {true, false}) {
      SCOPED_TRACE(sameLength ? "one length" : "three lengths");
      moveBothWays(48, 16, [&](TcamHarness& h) {
         // Pairs 1..7 full (/120, /96 three times, /80 three times, or /80 throughout), the
         // border raised, four more /80 past pair 8; then the /80 below pair 8 and a /96 go.
         ASSERT_TRUE(h.ctx().reallocate(16, true));
         for (uint32_t i = 0; i < 7; ++i) {
            const uint32_t len = sameLength || i >= 4 ? 80 : i == 0 ? 120 : 96;
            ASSERT_NE(h.add6(k6n(i, len), true).routeId, 0u);
         }
         ASSERT_TRUE(h.ctx().reallocate(48, true));
         for (uint32_t i = 10; i < 14; ++i)
            ASSERT_NE(h.add6(k6n(i, 80), true).routeId, 0u);
         for (uint32_t i : {2u, 4u, 5u, 6u})
            h.del6(k6n(i, sameLength || i >= 4 ? 80 : 96));
      });
   }
}

TEST(TcamBorderMove, RaisingTheBorderFillsTheHolesInsideTheRangesItReaches) {
   for (bool sameLength : {true, false}) {
      SCOPED_TRACE(sameLength ? "one length" : "three lengths");
      moveBothWays(16, 48, [&](TcamHarness& h) {
         // Entries 48..63 full (/30 twelve times, /24 three times, /8 at the end, or /30
         // throughout), the border lowered, four more /30 below 48; then three /30 past 48 and
         // a /24 go.
         ASSERT_TRUE(h.ctx().reallocate(48, true));
         auto len = [&](uint32_t i) { return sameLength || i < 12 ? 30u : i == 15 ? 8u : 24u; };
         for (uint32_t i = 0; i < 16; ++i)
            ASSERT_NE(h.add4(k4n(i, len(i)), true).routeId, 0u);
         ASSERT_TRUE(h.ctx().reallocate(16, true));
         for (uint32_t i = 20; i < 24; ++i)
            ASSERT_NE(h.add4(k4n(i, 30), true).routeId, 0u);
         for (uint32_t i : {3u, 6u, 9u, 13u})
            h.del4(k4n(i, len(i)));
      });
   }
}
