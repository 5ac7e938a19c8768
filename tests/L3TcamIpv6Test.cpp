// The IPv6 conversion ladder and the moving IPv4/IPv6 border, on the emulator-backed harness:
// after every operation the model verifies itself and the emulator has checked every move.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "TcamFixture.h"
#include "platform/Trace.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

// 256 entries, blocks of 32 (so pairs (p, p + 32)), no swap area: every entry can be used.
L3TcamManagerContext::Config sharedCfg() {
   auto c = layout(256, 2, 8, false);
   c.supportsDefipPairing = true;
   c.v4V6InterleavingDisabled = false;
   c.requestedTableMode = 9;
   return c;
}

// A shared table: double-size region [1, 127], single-size region [128, 255], IPv4 over both.
struct Shared : TcamHarness {
   Shared() : TcamHarness(sharedCfg()) { shareRegions(128); }

   uint32_t v4In(uint32_t first, uint32_t last) {
      return ctx().block(RouteType::v4)->bitmap()->count(first, last);
   }
};

Ipv4UcastKey k24(uint32_t i) {
   return k4(1, fmt::format("10.{}.{}.0/24", i / 256, i % 256).c_str());
}

// Fills every free entry with IPv4 /24s (one per entry); the keys placed.
std::vector<Ipv4UcastKey> fillV4(TcamHarness& h) {
   std::vector<Ipv4UcastKey> keys;
   for (uint32_t i = 0; h.add4(k24(i)).routeId != 0; ++i)
      keys.push_back(k24(i));
   return keys;
}

// Deletes the IPv4 routes whose entries the predicate picks.
template <class Pick>
void clearV4(TcamHarness& h, const std::vector<Ipv4UcastKey>& keys, Pick pick) {
   for (const Ipv4UcastKey& k : keys) {
      if (pick(h.ctx().v4()->getEntryId(k))) h.del4(k);
   }
}

Ipv6UcastKey k6n(uint32_t i, uint32_t len) {
   Ulo::Ip6Prefix::Bytes b{};
   b[0] = 0x20;
   b[1] = 0x01;
   b[4] = uint8_t(i >> 8);
   b[5] = uint8_t(i);
   if (len > 64) b[15] = uint8_t(i);  // host part differs too, within the prefix
   for (uint32_t bit = len; bit < 128; ++bit)
      b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
   return Ipv6UcastKey(VrfId(1), Ulo::Ip6Prefix(b, uint8_t(len)));
}

// 512 entries, pair gap 16: the border moves 64 entries at a time; no swap area.
L3TcamManagerContext::Config movingCfg() {
   auto c = layout(512, 2, 8, false);
   c.supportsDefipPairing = true;
   c.dynamicV4V6Boundary = true;
   c.pairGap = 16;
   c.requestedTableMode = 9;
   return c;
}

// Pair 5 invalid, as a platform declares it.
struct InvalidPair5 : LpmInvalidEntryManager {
   void allocateInvalidEntries(bool, const Ulo::Ptr<HBitmap>&) override {}
   void allocateInvalidEntriesPair(bool, const Ulo::Ptr<HBitmap>& bm) override {
      bm->setBit(5);
      invalidEntryRangePairIs({5, 5});
      numInvalidEntriesBitmapPairInc(1);
   }
};

}  // namespace

TEST(TcamIpv6, FullSingleRegionMovesOneIpv4EntryIntoTheDoubleRegion) {
   Shared h;
   clearV4(h, fillV4(h), [](uint32_t pos) { return pos <= 127; });
   ASSERT_EQ(h.v4In(1, 127), 0u);
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 3);
   const auto rc = h.add6(k6(1, "2001:db8::/48"));
   EXPECT_EQ(h.v4In(1, 127), 1u);
   EXPECT_TRUE(cap.contains("Try moving an IPv4 entry to the full size block"));
   EXPECT_TRUE(cap.contains("convertV4Entry, source: /64 block, destination: /128 block"));
   EXPECT_TRUE(cap.contains("EntryId IPv4: " + std::to_string(rc.routeId)))
       << "the freed entry is the one the route takes";
   EXPECT_EQ(h.ctx().stats()->conversion(RouteType::v4), 1u);
}

TEST(TcamIpv6, FullDoubleRegionMovesTwoIpv4EntriesOutAndFreesAPair) {
   Shared h;  // no double-size route of /64 or less: IPv4 entries make way
   clearV4(h, fillV4(h), [](uint32_t pos) { return pos >= 128; });
   const uint32_t below = h.v4In(1, 127);
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 3);
   const auto rc = h.add6(k6(1, "2001:db8::1:0/112"));
   ASSERT_NE(rc.routeId, 0u);
   EXPECT_TRUE(cap.contains("Try moving another IPv4 entry in the half size block"));
   // Two conversions, and unless they freed partners, one more IPv4 entry made way for the pair.
   const uint32_t moved = below - h.v4In(1, 127);
   EXPECT_TRUE(moved == 2 || (moved == 3 && cap.contains("freeV6PairEntry")));
   EXPECT_EQ(h.ctx().stats()->conversion(RouteType::v4), 2u) << "a freed partner is no conversion";
}

TEST(TcamIpv6, LongestSingleRouteMovesToADoublePairForAShorterOne) {
   Shared h;
   for (uint32_t i = 0; h.ctx().entriesFree(RouteType::v6Half) > 0; ++i)
      ASSERT_NE(h.add6(k6n(i, 64)).routeId, 0u);
   EXPECT_EQ(h.moves(), 0u) << "with room, a route takes a single entry without conversion";
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 3, 3);
   ASSERT_NE(h.add6(k6(1, "2001:db8::/48")).routeId, 0u);
   EXPECT_TRUE(cap.contains("Move entry of prefix 64 to full size block"));
   EXPECT_TRUE(cap.contains("Now insert the new entry in the half size block"));
   const TcamStats& st = *h.ctx().stats();
   EXPECT_EQ(st.conversion(RouteType::v6Half), 1u);
   EXPECT_EQ(st.conversion(RouteType::v6Full) + st.conversion(RouteType::v4), 0u);
}

// Double-size entries are searched before every single-size one: once a /56 went double-size, a
// /64 inside it must go double-size too, or the /56 answers for the /64's addresses.
TEST(TcamIpv6, RouteInsideAShorterDoubleSizeRouteGoesDoubleSize) {
   Shared h;
   uint32_t n = 0;
   while (h.ctx().entriesFree(RouteType::v6Half) > 0)
      ASSERT_NE(h.add6(k6n(n++, 56)).routeId, 0u);
   ASSERT_NE(h.add6(k6(1, "2001:db8::/48")).routeId, 0u);  // a /56 makes way, double-size
   uint32_t moved = n;
   for (uint32_t i = 0; i < n; ++i)
      if (h.ctx().v6RouteTypeFromKey(k6n(i, 56)) == RouteType::v6Full) moved = i;
   ASSERT_LT(moved, n);
   h.del6(k6n(moved == 0 ? 1 : 0, 56));  // room among the singles
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 7, 7);
   const auto rc = h.add6(k6n(moved, 64));
   ASSERT_NE(rc.routeId, 0u);
   EXPECT_TRUE(cap.contains("len: 64, fullMin: 56, halfMax: 56"));
   EXPECT_EQ(h.ctx().v6RouteTypeFromKey(k6n(moved, 64)), RouteType::v6Full);
   const auto hit = h.emu().lookup6(VrfId(1), k6n(moved, 64).prefix.bytes());
   ASSERT_TRUE(hit.has_value());
   EXPECT_EQ(hit->pos, rc.routeId);
   h.check(true);
}

// No way around that order: a conversion of any other length than the edge of its block is a
// caller fault, and a hardware image that breaks it is refused.
TEST(TcamIpv6, ConversionsAndImagesKeepDoubleSizeRoutesNoShorterThanSingleSize) {
   Shared h;
   const Ipv6UcastKey outer = k6(1, "2001:db8:100::/56"), inner = k6(1, "2001:db8:100::/64");
   ASSERT_NE(h.add6(outer).routeId, 0u);
   ASSERT_NE(h.add6(inner).routeId, 0u);
   EXPECT_EQ(failureOf([&] { h.ctx().convertV6Entry(RouteType::v6Full, 56, false); }),
             "convertV6Entry: the longest single-size or shortest double-size length");
   // With a destination block to go to, a length that no single-size entry may hold, or that
   // the source block does not hold, is the caller's fault too.
   EXPECT_EQ(failureOf([&] { h.ctx().convertV6Entry(RouteType::v6Full, 100, false); }),
             "prefixLen < 65");
   EXPECT_EQ(failureOf([&] { h.ctx().convertV6Entry(RouteType::v6Half, 40, false); }),
             "ir.start() && ir.end()");

   std::vector<TcamHardwareEntry> image(3);
   image[0].kind = TcamHardwareEntry::Kind::v6Double;
   image[0].pos = 2;
   image[0].v6 = outer;
   image[1] = image[0];
   image[1].kind = TcamHardwareEntry::Kind::v6DoubleSecond;
   image[1].pos = 2 + h.ctx().lpmPairGap();
   image[2].kind = TcamHardwareEntry::Kind::v6Single;
   image[2].pos = 200;
   image[2].v6 = inner;
   Shared fresh;
   try {
      fresh.ctx().rebuildFromHardware(image);
      ADD_FAILURE() << "the image was taken";
   } catch (const std::range_error& e) {
      EXPECT_THAT(e.what(), ::testing::HasSubstr(
                                "entry 200, key 2001:db8:100::/64(vrf1): single-size, but longer "
                                "than double-size routes of length 56"));
   }
}

TEST(TcamIpv6, FullDoubleRegionSendsItsShortestRouteToASingleEntry) {
   Shared h;
   // Singles until their region is full; the next /64 goes double.
   uint32_t i = 0;
   while (h.ctx().entries(RouteType::v6Full) == 0)
      ASSERT_NE(h.add6(k6n(i++, 64)).routeId, 0u);
   const Ipv6UcastKey wentDouble = k6n(i - 1, 64);
   while (h.add6(k6n(1000 + i, 100)).routeId != 0)
      ++i;
   for (uint32_t j = 0; j < 8; ++j)
      h.del6(k6n(j, 64));  // room among the singles
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 3, 3);
   while (h.add6(k6n(1000 + i, 100)).routeId != 0)
      ++i;
   EXPECT_TRUE(cap.contains("Try moving a full size entry in the half size block"));
   EXPECT_EQ(h.ctx().v6RouteTypeFromKey(wentDouble), RouteType::v6Half);
   EXPECT_EQ(h.ctx().block(RouteType::v6Full)->lengthRangeGet(64), std::nullopt);
   EXPECT_EQ(h.ctx().stats()->conversion(RouteType::v6Full), 1u);
}

// The pair map marks pairs that IPv4 entries hold a part of; the uRPF switch must count those
// entries as IPv4 entries, not as double-size routes.
TEST(TcamIpv6, UrpfSwitchCountsIpv4EntriesInTheDoubleRegionOnce) {
   Shared h;
   fillV4(h);
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 1);
   EXPECT_FALSE(h.ctx().handleUrpf(true));
   EXPECT_TRUE(cap.contains(fmt::format(" tcam table still in use. v4/v6-64: {} v6Full: 0",
                                        h.ctx().entries(RouteType::v4))));
}

// ---- a refused route: every rung tried, in order, each once --------------------------------
//
// Levels 2 and 3 hold the ladder's rungs, the conversions and the placements they try. A
// placement that the swap-region check turns away says so at level 7 only, so here it shows as its
// opening line alone. A refused route leaves the model exactly as it was.

namespace {

std::vector<std::string> refusedAdd6(TcamHarness& h, const Ipv6UcastKey& key) {
   const std::string before = snapshot(h.ctx());
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 3);
   EXPECT_EQ(h.add6(key).routeId, 0u);
   EXPECT_EQ(snapshot(h.ctx()), before);
   return cap.texts();
}

std::string opening(const Ipv6UcastKey& k) {
   return fmt::format("addRoute6, key: {} (vrf {}), useSwapArea: false", k.prefix, k.vrfId);
}
std::string placing(const Ipv6UcastKey& k) {
   return fmt::format("addRoute, key: {} (vrf {}) useSwapArea: false", k.prefix, k.vrfId);
}
std::string converting(RouteType to, uint32_t len) {
   return fmt::format("convertV6Entry, routeType: {}, prefixLen: {}, useSwapArea: false", to, len);
}
// The trace line that names the route a conversion takes from its source block.
std::string taking(const L3TcamManagerContext& ctx, RouteType from, const Ipv6UcastKey& k) {
   return fmt::format("IndexRange: {}, old entry: {}, key: {} (vrf {})",
                      ctx.block(from)->lengthRange(k.len()), ctx.v6()->getEntryId(k), k.prefix,
                      k.vrfId);
}

// Every free pair of the double-size region [1, 127] of a Shared table taken by a /100 route.
void fillDouble(Shared& h) {
   for (uint32_t i = 0; h.add6(k6n(1000 + i, 100)).routeId != 0; ++i) {
   }
}

}  // namespace

TEST(TcamIpv6Ladder, NoIpv4EntryCanLeaveForTheDoubleRegionAndNoPairIsFree) {
   Shared h;
   fillV4(h);
   const Ipv6UcastKey key = k6(1, "2001:db8::/48");
   EXPECT_EQ(refusedAdd6(h, key),
             (std::vector<std::string>{
                 opening(key), placing(key), "Try moving an IPv4 entry to the full size block",
                 "convertV4Entry, source: /64 block, destination: /128 block",
                 "No space available in the destination partition, conversion failed",
                 "Try inserting entry in full size block", placing(key)}));
}

TEST(TcamIpv6Ladder, LongestSingleRouteFindsNoPair) {
   Shared h;
   const Ipv6UcastKey key = k6(1, "2001:db8::/48"), longest = k6n(0, 64);
   ASSERT_NE(h.add6(longest).routeId, 0u);
   for (uint32_t i = 1; h.ctx().entriesFree(RouteType::v6Half) > 0; ++i)
      ASSERT_NE(h.add6(k6n(i, 56)).routeId, 0u);
   fillDouble(h);
   EXPECT_EQ(refusedAdd6(h, key),
             (std::vector<std::string>{
                 opening(key), placing(key), "Full tcam table",
                 "Try moving an IPv4 entry to the full size block",
                 "convertV4Entry, source: /64 block, destination: /128 block",
                 "No IPv4 entries in the source partition, conversion failed",
                 "Move entry of prefix 64 to full size block", converting(RouteType::v6Full, 64),
                 taking(h.ctx(), RouteType::v6Half, longest), placing(longest)}));
}

// Interleaved with pairing, every IPv6 route is single-size (up to /128) and the double-size
// block has no entries: the longest route cannot make way.
TEST(TcamIpv6Ladder, LongestSingleRouteHasNoDoubleBlockToGoTo) {
   TcamHarness h(sharedCfg());
   ASSERT_FALSE(h.ctx().block(RouteType::v6Full)->isValid());
   for (uint32_t i = 0; h.add6(k6n(i, 100)).routeId != 0; ++i) {
   }
   const Ipv6UcastKey key = k6(1, "2001:db8::/48");
   EXPECT_EQ(
       refusedAdd6(h, key),
       (std::vector<std::string>{
           opening(key), placing(key), "Try moving an IPv4 entry to the full size block",
           "convertV4Entry, source: /64 block, destination: /128 block",
           "No IPv4 entries in the source partition, conversion failed",
           "Move entry of prefix 100 to full size block", converting(RouteType::v6Full, 100)}));
}

TEST(TcamIpv6Ladder, NoIpv4EntryInTheDoubleRegionToMoveOut) {
   Shared h;
   fillDouble(h);
   const Ipv6UcastKey key = k6(1, "2001:db8::1/128");
   // Entry 32 is free, but its pair (with reserved entry 0) is not.
   EXPECT_EQ(
       refusedAdd6(h, key),
       (std::vector<std::string>{opening(key), placing(key), "2: Full tcam table",
                                 "Try moving an IPv4 entry in the half size block",
                                 "convertV4Entry, source: /128 block, destination: /64 block",
                                 "No IPv4 entries in the source partition, conversion failed"}));

   Shared full;  // IPv4 entries below the border, but no room above it
   fillV4(full);
   EXPECT_EQ(refusedAdd6(full, key),
             (std::vector<std::string>{
                 opening(key), placing(key), "Try moving an IPv4 entry in the half size block",
                 "convertV4Entry, source: /128 block, destination: /64 block",
                 "No space available in the destination partition, conversion failed"}));
}

// One IPv4 entry leaves, the second finds no room, the pair stays half taken: the second
// conversion and the last placement are both tried, and the one move made stays made.
TEST(TcamIpv6Ladder, SecondIpv4EntryFindsNoRoomAndThePairStaysHalfTaken) {
   Shared h;
   const std::vector<Ipv4UcastKey> keys = fillV4(h);
   clearV4(h, keys, [](uint32_t pos) { return pos <= 127 && pos != 1 && pos != 33; });
   fillDouble(h);
   const uint32_t freed = 200;
   clearV4(h, keys, [&](uint32_t pos) { return pos == freed; });
   const Ipv6UcastKey key = k6(1, "2001:db8::1/128");
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 3);
   EXPECT_EQ(h.add6(key).routeId, 0u);
   EXPECT_EQ(cap.texts(),
             (std::vector<std::string>{
                 opening(key), placing(key), "Try moving an IPv4 entry in the half size block",
                 "convertV4Entry, source: /128 block, destination: /64 block",
                 fmt::format("Space found. Old entry: 33, new entry: {}", freed),
                 "Try moving another IPv4 entry in the half size block",
                 "convertV4Entry, source: /128 block, destination: /64 block",
                 "No space available in the destination partition, conversion failed",
                 "Now try inserting the new entry in the full size block", placing(key)}));
   EXPECT_EQ(h.v4In(1, 127), 1u);
}

TEST(TcamIpv6Ladder, ShortestDoubleRouteFindsNoSingleEntry) {
   Shared h;
   clearV4(h, fillV4(h), [](uint32_t pos) { return pos <= 127; });
   const Ipv6UcastKey shortest = k6(1, "2001:db8::/48");
   // The shortest double-size route: a /48 in the first free pair of the double-size block.
   const TcamBlock& full = *h.ctx().block(RouteType::v6Full);
   h.add6At(shortest, h.ctx().pairToPhysical(h.ctx().bitmapPair()->findFirstClear(
                          h.ctx().physicalBoundToPair(full.start()),
                          h.ctx().physicalBoundToPair(full.end()))));
   fillDouble(h);
   const Ipv6UcastKey key = k6(1, "2001:db8::1/128");
   EXPECT_EQ(refusedAdd6(h, key),
             (std::vector<std::string>{
                 opening(key), placing(key), "Try moving a full size entry in the half size block",
                 converting(RouteType::v6Half, 48), taking(h.ctx(), RouteType::v6Full, shortest),
                 placing(shortest), "Full tcam table"}));
}

// With pairing on a separate layout the single-size block has no entries at all.
TEST(TcamIpv6Ladder, ShortestDoubleRouteHasNoSingleBlockToGoTo) {
   auto c = layout(256, 2, 8, false);
   c.supportsDefipPairing = true;
   c.requestedTableMode = 9;
   TcamHarness h(c);
   ASSERT_EQ(h.ctx().block(RouteType::v6Half)->end(), 0u);
   ASSERT_NE(h.add6(k6(1, "2001:db8::/48")).routeId, 0u);
   for (uint32_t i = 0; h.add6(k6n(i, 100)).routeId != 0; ++i) {
   }
   const Ipv6UcastKey key = k6(1, "2001:db8::1/128");
   EXPECT_EQ(refusedAdd6(h, key),
             (std::vector<std::string>{opening(key), placing(key),
                                       "Try moving a full size entry in the half size block",
                                       converting(RouteType::v6Half, 48)}));
}

TEST(TcamIpv6Ladder, WithoutPairingAFullSingleBlockEndsTheLadder) {
   auto c = layout(256, 2, 8, false);
   c.requestedTableMode = 9;
   TcamHarness h(c);
   uint32_t i = 0;
   while (h.add6(k6n(i, 48)).routeId != 0)
      ++i;
   EXPECT_EQ(i, 128u) << "the single-size block [128, 255]";
   const Ipv6UcastKey key = k6(1, "2001:db8::/32");
   EXPECT_EQ(refusedAdd6(h, key),
             (std::vector<std::string>{opening(key), placing(key), "Full tcam table",
                                       " No space left in /64 block. returning"}));
   EXPECT_EQ(failureOf([&] { h.ctx().addRoute6(k6n(998, 100), false); }), "supportsDefipPairing()");
   // Interleaved, the single-size block is laid out from index 0 and used from entry 1.
   c.v4V6InterleavingDisabled = false;
   TcamHarness mixed(c);
   EXPECT_NE(mixed.add6(k6n(1, 48)).routeId, 0u);
}

// ---- the moving border --------------------------------------------------------------------

TEST(TcamBorder, FirstIpv6RouteGrowsThePartitionOnceAndMovesIpv4EntriesAbove) {
   TcamHarness h(movingCfg());
   EXPECT_EQ(h.ctx().v4V6Border(), 0u);
   for (uint32_t i = 0; i < 150; ++i) {
      ASSERT_NE(h.add4(k24(i)).routeId, 0u);
      ASSERT_NE(h.add4(k4(1, fmt::format("11.0.{}.1/32", i).c_str())).routeId, 0u);
   }
   ASSERT_GT(h.ctx().block(RouteType::v4)->bitmap()->count(1, 63), 0u) << "IPv4 must make way";
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 3, 3);
   ASSERT_NE(h.add6(k6(1, "2001:db8::/48")).routeId, 0u);
   EXPECT_EQ(h.ctx().v4V6Border(), 64u);
   EXPECT_EQ(h.ctx().stats()->reallocation(), 1u);
   uint32_t asked = 0;
   for (const std::string& t : cap.texts())
      asked += t == "Route allocation failed, attempting to expand v6 partition";
   EXPECT_EQ(asked, 1u);
}

TEST(TcamBorder, FullIpv4PartitionLowersTheBorderByMovingPairsDown) {
   TcamHarness h(movingCfg());
   for (uint32_t i = 0; i < 20; ++i)
      ASSERT_NE(h.add6(k6n(i, 100)).routeId, 0u);
   ASSERT_EQ(h.ctx().v4V6Border(), 64u);
   ASSERT_TRUE(h.ctx().reallocate(192, false));  // room to give back
   for (uint32_t i = 20; i < 60; ++i)
      ASSERT_NE(h.add6(k6n(i, 100)).routeId, 0u);
   for (uint32_t i = 0; i < 40; ++i)
      h.del6(k6n(i, 100));
   uint32_t added = 0;
   while (h.ctx().v4V6Border() == 192) {
      ASSERT_NE(h.add4(k24(added++)).routeId, 0u);
   }
   EXPECT_EQ(h.ctx().v4V6Border(), 128u);
   EXPECT_EQ(h.ctx().stats()->reallocation(), 3u);
}

TEST(TcamBorder, RefusedReallocationChangesNothingIpv6GrowsUntilTheTableIsFull) {
   TcamHarness h(movingCfg());
   uint32_t i = 0;
   for (; i < 40; ++i)
      ASSERT_NE(h.add6(k6n(i, 100)).routeId, 0u);
   ASSERT_EQ(h.ctx().v4V6Border(), 128u);
   std::string before = snapshot(h.ctx());
   EXPECT_FALSE(h.ctx().reallocate(64, false)) << "40 pairs do not fit below 64";
   EXPECT_FALSE(h.ctx().reallocate(150, false)) << "not a whole number of double banks";
   EXPECT_FALSE(h.ctx().reallocate(128, false));
   EXPECT_EQ(snapshot(h.ctx()), before);

   while (h.add6(k6n(i, 100)).routeId != 0)
      ++i;
   // Up to the last border below 512 that leaves IPv4 a block: 448, pairs 1..223 minus reserved;
   // then the ladder fails softly.
   EXPECT_EQ(h.ctx().v4V6Border(), 448u);
   EXPECT_EQ(h.ctx().stats()->reallocation(), 7u);
   before = snapshot(h.ctx());
   EXPECT_EQ(h.add6(k6n(9999, 100)).routeId, 0u);
   EXPECT_EQ(snapshot(h.ctx()), before);

   // A fixed layout has no border to move.
   auto fixed = layout(512, 2, 8, false);
   fixed.supportsDefipPairing = true;
   TcamHarness f(fixed);
   EXPECT_FALSE(f.ctx().reallocate(128, false));
}

// A reserve kept by one partition never blocks the other: the two share no entry. (A full IPv6
// partition used to turn IPv4 away with hundreds of IPv4 entries free, and a border grown for an
// IPv6 route could leave the route refused.)
TEST(TcamBorder, EachPartitionKeepsOnlyItsOwnReserve) {
   auto c = movingCfg();
   c.requestedTableMode = c.currentTableMode;  // swap area of 32 on every region
   TcamHarness h(c);
   ASSERT_NE(h.add4(k4(1, "10.0.0.0/24")).routeId, 0u);
   for (uint32_t i = 0; i < 15; ++i)
      ASSERT_NE(h.add6(k6n(i, 100)).routeId, 0u);
   ASSERT_EQ(h.ctx().entriesFree(RouteType::v6Full), h.ctx().swapAreaSize(RouteType::v6Full));
   EXPECT_NE(h.add4(k4(1, "10.0.1.0/24")).routeId, 0u);

   TcamHarness g(c);
   for (uint32_t i = 0; i < 100; ++i)
      ASSERT_NE(g.add4(k4(1, fmt::format("11.0.{}.1/32", i).c_str())).routeId, 0u);
   for (uint32_t i = 0; i < 314; ++i)
      ASSERT_NE(g.add4(k24(i)).routeId, 0u);
   EXPECT_NE(g.add6(k6n(1, 100)).routeId, 0u) << "the border grew for it";
   EXPECT_EQ(g.ctx().stats()->reallocation(), 1u);
}

// An invalid pair whose free entry has an IPv4 partner is passed over; another pair is freed.
TEST(TcamIpv6, AnInvalidPairIsPassedOverForAnotherOne) {
   auto c = sharedCfg();
   c.invalidEntryManagerType = 1;
   TcamHarness h(c, false, [](L3TcamManagerContext& ctx) {
      ctx.invalidEntryManagerIs(std::make_shared<InvalidPair5>());
   });
   h.shareRegions(128);
   clearV4(h, fillV4(h),
           [](uint32_t pos) { return pos == 5 || pos == 100 || (pos >= 200 && pos < 204); });
   EXPECT_NE(h.add6(k6n(7, 100)).routeId, 0u);
}
