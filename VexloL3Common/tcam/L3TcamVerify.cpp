// Consistency verification of a whole TCAM context. Every check is fatal: a model that fails one
// can no longer be trusted to place routes.
#include <algorithm>
#include <array>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/tcam/internal/L3TcamVerifyChecks.h"
#include "platform/Assert.h"

namespace VexloL3Common {

namespace {

// The range of every length lies inside the block, ends on used entries, and longer lengths sit
// strictly below shorter ones.
void verifyRanges(RouteType t, const TcamBlock& blk, uint32_t first, uint32_t last) {
   const HBitmap& used = *blk.bitmap();
   uint32_t shorterStart = 0xFFFFFFFF;  // start of the previous (shorter) length's range
   uint32_t shorterLen = TcamBlock::none;
   for (uint32_t k = blk.nextLength(0); k != TcamBlock::none; k = blk.nextLength(k + 1)) {
      const IndexRange ir = blk.lengthRange(k);
      VEXLO_ASSERT_MSG(ir.start() != 0 && ir.start() <= ir.end(), "verify: range well formed",
                       "type ", t, " len ", k, " range ", ir);
      VEXLO_ASSERT_MSG(ir.start() >= first && ir.end() <= last, "verify: range inside block",
                       "type ", t, " len ", k, " range ", ir, " block ", first, "/", last);
      VEXLO_ASSERT_MSG(used.isBitSet(ir.start()) && used.isBitSet(ir.end()),
                       "verify: range ends on used entries", "type ", t, " len ", k, " range ", ir);
      VEXLO_ASSERT_MSG(shorterLen == TcamBlock::none || ir.end() < shorterStart,
                       "verify: longer prefixes below shorter ones", "type ", t, " len ", k,
                       " range ", ir, " below len ", shorterLen, " starting at ", shorterStart);
      shorterStart = ir.start();
      shorterLen = k;
   }
   VEXLO_ASSERT_MSG(blk.lengthRangeMax() == blk.findLengthRangeMax(), "verify: lengthRangeMax",
                    "type ", t, " cached ", blk.lengthRangeMax(), " actual ",
                    blk.findLengthRangeMax());
}

// Marks an entry as expected in use; an entry claimed twice holds two routes at once.
void claim(HBitmap& expected, uint32_t index, const char* what) {
   VEXLO_ASSERT_MSG(index < expected.size() && !expected.isBitSet(index),
                    "verify: one claim per entry", what, " at ", index,
                    " stands on an entry that is reserved or already holds a route");
   expected.setBit(index);
}

}  // namespace

namespace internal {

void verifyPlacement(RouteType t, const TcamBlock& blk, uint32_t index, uint32_t len) {
   VEXLO_ASSERT_MSG(blk.bitmap()->isBitSet(index), "verify: route entry marked used", "type ", t,
                    " index ", index);
   VEXLO_ASSERT_MSG(blk.lengthRange(len).contains(index), "verify: route inside its length range",
                    "type ", t, " index ", index, " len ", len, " range ", blk.lengthRange(len));
}

}  // namespace internal

using internal::verifyPlacement;

void L3TcamManagerContext::verify() const {
   if (!layoutDone_) return;
   // Expected occupancy: the reserved and invalid entries, then every route's entries.
   HBitmap expected(occupancy_.entries()->size());
   HBitmap expectedPair(occupancy_.pairs()->size());
   expectReserved(expected, expectedPair);
   verifyBlockRanges();
   if (v4Mcast()) {
      verifyMulticast(expected);
      verifyOccupancy(expected, expectedPair);
      return;
   }
   verifyBorders();
   verifyV4PerLength(verifyV4Entries(expected, expectedPair));
   verifySwapReserve();
   verifyV6Entries(expected, expectedPair);
   verifyOccupancy(expected, expectedPair);
}

void L3TcamManagerContext::expectReserved(HBitmap& expected, HBitmap& expectedPair) const {
   const uint32_t g = occupancy_.gap();
   expected.setBit(0);
   expectedPair.setBit(0);
   if (v4Mcast()) {
      if (g != 0) expected.setBit(g);
      return;
   }
   if (v4V6InterleavingDisabled() && g < expected.size()) expected.setBit(g);
   for (const InvalidEntryRange& r : invalidEntryManager_->invalidEntryRange()) {
      for (uint32_t i = r.start; i <= r.end && i < expected.size(); ++i)
         expected.setBit(i);
   }
   for (const InvalidEntryRange& r : invalidEntryManager_->invalidEntryRangePair()) {
      for (uint32_t i = r.start; i <= r.end && i < expectedPair.size(); ++i) {
         expectedPair.setBit(i);
      }
   }
   // A reserved or invalid entry takes its pair.
   if (supportsDefipPairing() && g != 0) {
      for (uint32_t b = expected.findFirstSet(0, expected.size() - 1); b != HBitmap::npos;
           b = b + 1 < expected.size() ? expected.findFirstSet(b + 1, expected.size() - 1)
                                       : HBitmap::npos) {
         if (physicalToPair(b) < expectedPair.size()) expectedPair.setBit(physicalToPair(b));
      }
   }
}

void L3TcamManagerContext::verifyBlockRanges() const {
   for (RouteType t : allRouteTypes) {
      const TcamBlock* blk = block(t).get();
      if (!blk) continue;
      if (t == RouteType::v6Full && blk->isValid()) {
         verifyRanges(t, *blk, physicalBoundToPair(blk->start()), physicalBoundToPair(blk->end()));
      } else {
         verifyRanges(t, *blk, blk->start(), blk->end());
      }
   }
}

void L3TcamManagerContext::verifyMulticast(HBitmap& expected) const {
   const TcamBlock& blk = *block(RouteType::v4Mcast);
   uint32_t routes = 0;
   std::array<uint32_t, 256> perLen{};
   mcastV4_->forEachKey([&](uint32_t pos, const IpMcastPrefixKey& key) {
      mcastV4_->verifyEntry(key, pos);
      verifyPlacement(RouteType::v4Mcast, blk, pos, key.len);
      claim(expected, pos, "multicast route");
      ++perLen[key.len];
      ++routes;
   });
   VEXLO_ASSERT_MSG(routes == blk.bitmap()->count(), "verify: multicast entries counted", routes,
                    " routes, ", blk.bitmap()->count(), " used entries");
   for (uint32_t len = 0; len < perLen.size(); ++len) {
      VEXLO_ASSERT_MSG(perLen[len] == stats_->maskLengthsMcastIpv4(len),
                       "verify: multicast routes per length", "len ", len, ": ", perLen[len],
                       " routes, counted ", stats_->maskLengthsMcastIpv4(len));
   }
}

// A moving border keeps both blocks and the IPv6 mapping's border in step; a fixed pairing border
// starts the IPv4 block.
void L3TcamManagerContext::verifyBorders() const {
   const uint32_t g = occupancy_.gap();
   const TcamBlock& blkFull = *block(RouteType::v6Full);
   if (borderMoves()) {
      const uint32_t b = v4V6Border_;
      VEXLO_ASSERT_MSG(g != 0 && b % (2 * g) == 0 && b < effectiveSize_, "verify: border",
                       "border ", b, " gap ", g, " effective size ", effectiveSize_);
      VEXLO_ASSERT_MSG(block(RouteType::v4)->start() == std::max(b, 1u) &&
                           blkFull.start() == (b ? 1 : 0) && blkFull.end() == (b ? b - 1 : 0) &&
                           v6_->tcamBorder() == b,
                       "verify: blocks follow the border", "border ", b, " v4 start ",
                       block(RouteType::v4)->start(), " v6Full ", blkFull.start(), "/",
                       blkFull.end(), " IPv6 border ", v6_->tcamBorder());
   } else if (supportsDefipPairing() && v4V6InterleavingDisabled()) {
      VEXLO_ASSERT_MSG(block(RouteType::v4)->start() == v4V6Border_, "verify: pairing border",
                       "border ", v4V6Border_, " v4 start ", block(RouteType::v4)->start());
   }
}

// IPv4: both halves of an entry hold one length; a route never stands in the left half alone
// unless two routes share entries. Returns the routes per length.
std::array<uint32_t, 33> L3TcamManagerContext::verifyV4Entries(HBitmap& expected,
                                                               HBitmap& expectedPair) const {
   // Single entries inside the double-size region take their pair.
   const TcamBlock& blkFull = *block(RouteType::v6Full);
   const bool sharedPairs = supportsDefipPairing() && blkFull.isValid() && occupancy_.gap() != 0;
   const TcamBlock& blk4 = *block(RouteType::v4);
   uint32_t entries4 = 0, routes4 = 0;
   std::array<uint32_t, 33> perLen4{};
   v4_->forEachKeys([&](uint32_t pos, const Ipv4Keys& k) {
      const bool hasLeft = !k.left.isNull(), hasRight = !k.right.isNull();
      const uint32_t len = hasRight ? k.right.len() : k.left.len();
      verifyRoute4Entry(pos, k);
      claim(expected, pos, "IPv4 entry");
      if (sharedPairs && pos >= blkFull.start() && pos <= blkFull.end()) {
         expectedPair.setBit(physicalToPair(pos));
      }
      ++entries4;
      routes4 += uint32_t(hasLeft) + uint32_t(hasRight);
      perLen4[len] += uint32_t(hasLeft) + uint32_t(hasRight);
   });
   VEXLO_ASSERT_MSG(entries4 == blk4.bitmap()->count(), "verify: IPv4 entries counted", entries4,
                    " entries, ", blk4.bitmap()->count(), " used");
   VEXLO_ASSERT_MSG(routes4 == v4_->keyToEntryIdSize(), "verify: IPv4 keys counted", routes4,
                    " routes, ", v4_->keyToEntryIdSize(), " keys");
   return perLen4;
}

// The half-full tracking names exactly the half-full entries, and the statistics count the routes
// of each length.
void L3TcamManagerContext::verifyV4PerLength(const std::array<uint32_t, 33>& perLen4) const {
   size_t tracked = 0;
   for (uint32_t len = 0; len <= 32; ++len) {
      if (const uint32_t hf = v4_->halfFull(len)) {
         const Ipv4Keys k = v4_->keys(hf);
         VEXLO_ASSERT_MSG(k.left.isNull() != k.right.isNull() &&
                              (k.left.isNull() ? k.right.len() : k.left.len()) == len,
                          "verify: tracked half-full entry", "len ", len, " pos ", hf, " keys ", k);
         ++tracked;
      }
      VEXLO_ASSERT_MSG(perLen4[len] == stats_->maskLengthsIpv4(len),
                       "verify: IPv4 routes per length", "len ", len, ": ", perLen4[len],
                       " routes, counted ", stats_->maskLengthsIpv4(len));
   }
   VEXLO_ASSERT_MSG(tracked == v4_->halfFullSize(), "verify: half-full count", tracked, " vs ",
                    v4_->halfFullSize());
}

// Placements that kept out of the swap reserve leave it whole.
void L3TcamManagerContext::verifySwapReserve() const {
   if (!swapReserveKept_) return;
   const uint32_t v4Free = entriesFree(RouteType::v4);
   const size_t v4HalfUsed = v4_->halfFullSize();
   const uint32_t v4Swap = swapAreaSize(RouteType::v4);
   VEXLO_ASSERT_MSG((v4Free + v4HalfUsed) >= v4Swap, "( v4Free + v4HalfUsed ) >= v4Swap", "v4Free ",
                    v4Free, " v4HalfUsed ", v4HalfUsed, " v4Swap ", v4Swap);
}

// IPv6: the border decides the size; a double-size route stands on the first entry of a pair.
void L3TcamManagerContext::verifyV6Entries(HBitmap& expected, HBitmap& expectedPair) const {
   const uint32_t g = occupancy_.gap();
   uint32_t routesHalf = 0, routesFull = 0, longestHalf = 0, shortestFull = 129;
   std::array<uint32_t, 129> perLen6{};
   v6_->forEachEntryIdToKey([&](uint32_t pos, const Ipv6UcastKey& key) {
      v6_->verifyEntry(key, pos);
      VEXLO_ASSERT_MSG(v6_->getEntryId(key) == pos, "verify: key at one position", key);
      if (v6_->v6RouteTypeFromPos(pos) == RouteType::v6Full) {
         const uint32_t pair = physicalToPair(pos);
         VEXLO_ASSERT_MSG(pairToPhysical(pair) == pos, "verify: double-size route on a first entry",
                          "pos ", pos);
         verifyPlacement(RouteType::v6Full, *block(RouteType::v6Full), pair, key.len());
         claim(expected, pos, "double-size IPv6 route");
         claim(expected, pos + g, "partner of a double-size IPv6 route");
         VEXLO_ASSERT_MSG(!expectedPair.isBitSet(pair), "verify: one claim per pair",
                          "double-size IPv6 route at ", pos, " shares its pair");
         claim(expectedPair, pair, "double-size IPv6 pair");
         shortestFull = std::min(shortestFull, key.len());
         ++routesFull;
      } else {
         verifyPlacement(RouteType::v6Half, *block(RouteType::v6Half), pos, key.len());
         claim(expected, pos, "single-size IPv6 route");
         longestHalf = std::max(longestHalf, key.len());
         ++routesHalf;
      }
      ++perLen6[key.len()];
   });
   VEXLO_ASSERT_MSG(routesHalf == entries(RouteType::v6Half), "verify: single-size entries counted",
                    routesHalf, " vs ", entries(RouteType::v6Half));
   VEXLO_ASSERT_MSG(routesFull == entries(RouteType::v6Full), "verify: double-size entries counted",
                    routesFull, " vs ", entries(RouteType::v6Full));
   // The hardware searches double-size entries first: a shorter double-size route would answer
   // for the addresses of a longer single-size one.
   VEXLO_ASSERT_MSG(longestHalf <= shortestFull,
                    "verify: no double-size route shorter than a single-size one",
                    "longest single-size /", longestHalf, ", shortest double-size /", shortestFull);
   for (uint32_t len = 0; len <= 128; ++len) {
      VEXLO_ASSERT_MSG(perLen6[len] == stats_->maskLengthsIpv6(len),
                       "verify: IPv6 routes per length", "len ", len, ": ", perLen6[len],
                       " routes, counted ", stats_->maskLengthsIpv6(len));
   }
}

// The occupancy bitmaps hold exactly the reserved entries and the routes' entries (a multicast
// table has no pairs).
void L3TcamManagerContext::verifyOccupancy(const HBitmap& expected,
                                           const HBitmap& expectedPair) const {
   VEXLO_ASSERT_MSG(*occupancy_.entries() == expected, "verify: bitmap", "used entries ",
                    occupancy_.entries()->count(), ", expected ", expected.count());
   if (v4Mcast()) return;
   VEXLO_ASSERT_MSG(*occupancy_.pairs() == expectedPair, "verify: bitmapPair", "used pairs ",
                    occupancy_.pairs()->count(), ", expected ", expectedPair.count());
}

uint32_t L3TcamManagerContext::verifyRoute4(const Ipv4UcastKey& key) const {
   const uint32_t pos = v4_->getEntryId(key);
   if (pos == 0) return 0;
   v4_->verifyEntry(key, pos);
   const Ipv4Keys k = v4_->keys(pos);
   const bool right = v4_->rightKey(key, pos);
   VEXLO_ASSERT_MSG((right ? k.right : k.left) == key, "verifyRoute4: key in its half", "key ", key,
                    " pos ", pos, " keys ", k);
   const Ipv4UcastKey& other = right ? k.left : k.right;
   VEXLO_ASSERT_MSG(other.isNull() || other.len() == key.len(),
                    "verifyRoute4: halves of one length", "key ", key, " pos ", pos, " keys ", k);
   const TcamBlock& blk = *block(RouteType::v4);
   VEXLO_ASSERT_MSG(occupancy_.entries()->isBitSet(pos) && blk.bitmap()->isBitSet(pos),
                    "verifyRoute4: entry marked used", "key ", key, " pos ", pos);
   VEXLO_ASSERT_MSG(blk.lengthRange(key.len()).contains(pos), "verifyRoute4: inside its range",
                    "key ", key, " pos ", pos, " range ", blk.lengthRange(key.len()));
   // A half-full entry of a two-route table is tracked (or waits for a merge with the tracked one).
   VEXLO_ASSERT_MSG(!twoV4RoutesPerEntry() || !other.isNull() || v4_->halfFull(key.len()) != 0,
                    "verifyRoute4: half-full tracked", "key ", key, " pos ", pos);
   return pos;
}

}  // namespace VexloL3Common
