// Route insertion: target choice, free-entry search and shifting.
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/tcam/internal/L3TcamShift.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

Ulo::TraceHandle th("VexloL3CommonTcamTable");
constexpr uint32_t npos = HBitmap::npos;

unsigned traceLevel(RouteType t) {
   return (t == RouteType::v6Half || t == RouteType::v6Full) ? 3 : 2;
}

}  // namespace

uint32_t L3TcamManagerContext::addRoute(RouteType t, const Ipv4UcastKey& key4,
                                        const Ipv6UcastKey& key6, const IpMcastPrefixKey& keyMcast,
                                        bool useSwapArea) {
   return addRoute(TcamRoute::of(t, key4, key6, keyMcast), useSwapArea);
}

uint32_t L3TcamManagerContext::addRoute(const TcamRoute& route, bool useSwapArea) {
   const RouteType t = route.type();
   if (t == RouteType::v6Full) {
      VEXLO_ASSERT_MSG(supportsDefipPairing(), "supportsDefipPairing()",
                       "DefipPairing is not supported");
   }
   const uint32_t len = route.len();
   const unsigned level = traceLevel(t);
   internal::traceRoute(level, "addRoute", route, " useSwapArea: ", useSwapArea);

   const TcamBlock* blk = block(t).get();
   VEXLO_ASSERT_MSG(blk, "blk", "no block for type ", t);
   VEXLO_ASSERT_MSG(len <= blk->prefixLenMax(), "len <= blk->prefixLenMax()", "len: ", len,
                    ", prefixLenMax: ", blk->prefixLenMax());
   if (useSwapArea) swapReserveKept_ = false;
   if (!useSwapArea && swapRegionFull(t)) {
      TRACE(th, 7, "Swap area allocation blocked");
      return 0;
   }
   HBitmap& entries = *occupancy_.entries();
   const uint32_t first = entries.findFirstClear(blk->start(), blk->end());
   if (first == npos) {
      TRACE(th, level, "Full tcam table");
      return 0;
   }
   uint32_t blkStart = blk->start(), blkEnd = blk->end();
   if (t == RouteType::v6Full) {
      // A pair needs two free physical entries in the block.
      entries.setBit(first);
      const uint32_t second = entries.findFirstClear(blk->start(), blk->end());
      entries.clearBit(first);
      if (second == npos) {
         TRACE(th, level, "2: Full tcam table");
         return 0;
      }
      blkStart = physicalBoundToPair(blkStart);
      blkEnd = physicalBoundToPair(blkEnd);
   }
   const IndexRange target = targetRange(t, *blk, len, blkStart, blkEnd);
   const uint32_t start = target.start(), end = target.end();
   TRACE(th, 7, "BlkRange: ", blkStart, "/", blkEnd, ", indexRange: ", start, "/", end);

   if (t == RouteType::v6Full && occupancy_.pairs()->findFirstClear(blkStart, blkEnd) == npos &&
       !freeAPair(blkStart, blkEnd, level, useSwapArea)) {
      return 0;
   }

   HBitmap& freeBits = regions_[t].freeMap();
   if (start <= blkEnd) {
      TRACE(th, level, "Search toward end. Start: ", start, ", end: ", blkEnd);
      uint32_t freeEntry = npos;
      if (t == RouteType::v4 && placementPolicy() == PlacementPolicy::weighted) {
         freeEntry = freeEntrySparingIpv6(start, blkEnd);
      }
      if (freeEntry == npos) freeEntry = freeBits.findFirstClear(start, blkEnd);
      if (freeEntry != npos) {
         internal::traceRoute(6, "shiftDownAndInsert", route, ", entry: ", freeEntry);
         return shiftAndInsert(route, freeEntry, true);
      }
   }
   VEXLO_ASSERT_MSG(end >= blkStart, "end >= blkRange.start()", "0");
   TRACE(th, level, "Search toward begin. Start: ", blkStart, ", end: ", end);
   const uint32_t freeEntry = freeBits.findLastClear(blkStart, end);
   VEXLO_ASSERT_MSG(freeEntry != npos, "freeEntry != npos", "no free entry in ", blkStart, "/",
                    end);
   internal::traceRoute(6, "shiftUpAndInsert", route, ", entry: ", freeEntry);
   return shiftAndInsert(route, freeEntry, false);
}

IndexRange L3TcamManagerContext::targetRange(RouteType t, const TcamBlock& blk, uint32_t len,
                                             uint32_t blkStart, uint32_t blkEnd) const {
   if (blk.lengthRangeHas(len) && blk.lengthRange(len).start() != 0) return blk.lengthRange(len);
   // The gap between the nearest longer length (below) and the nearest shorter one (above).
   uint32_t lenEnd = blk.prefixLenMin(), lenStart = blk.prefixLenMax() + 1;
   uint32_t start = blkStart, end = blkEnd;
   for (uint32_t k = blk.nextLength(0); k != TcamBlock::none; k = blk.nextLength(k + 1)) {
      const IndexRange& ir = blk.lengthRange(k);
      if (ir.start() == 0) continue;
      if (k < len) {
         lenEnd = k;
         end = ir.start() - 1;
         continue;
      }
      VEXLO_ASSERT_MSG(k > len, "iter.key() > len", "key: ", k, ", len: ", len);
      lenStart = k;
      start = ir.end() + 1;
      break;
   }
   TRACE(th, 7, "start: ", start, ", end: ", end, ", lenStart: ", lenStart, ", lenEnd: ", lenEnd,
         ", ir: ", start, "/", end);
   if (end > start && start <= blkEnd && end >= blkStart) {
      uint32_t target;
      const std::span<const uint32_t> weights = placementPolicy() == PlacementPolicy::weighted
                                                    ? placementWeights().of(t)
                                                    : std::span<const uint32_t>();
      if (len <= blk.prefixLenMin()) {
         target = end;
      } else if (!weights.empty()) {
         target = weightedTarget(weights, len, start, end, lenStart, lenEnd,
                                 lenStart <= blk.prefixLenMax());
      } else {
         // Share the gap equally among the lengths that may still arrive between the two
         // neighbours and aim at the middle of this length's share.
         const uint32_t per = (end + 1 - start) / (lenStart - 1 - lenEnd);
         target = start + (lenStart - len - 1) * per + per / 2;
      }
      start = end = target;
   }
   return IndexRange(start, end);
}

// Where the IPv4 block overlaps the single-size IPv6 region the two share its free entries. A
// free entry inside an IPv6 length's range is where that length's next route goes at no cost;
// once the length has none left, its next route shifts one entry per IPv6 length crossed to the
// next free entry beyond, and under churn those lengths are as short of free entries as it is.
// The IPv4 route gains nothing from that entry over another free one in its own range, and going
// beyond its range costs a move per IPv4 length crossed, paid once. So the IPv4 search passes over
// an IPv6 range that is down to its last few free entries.
uint32_t L3TcamManagerContext::freeEntrySparingIpv6(uint32_t from, uint32_t to) const {
   // Free entries an IPv6 length keeps for its own next routes.
   constexpr uint32_t kept = 2;
   const TcamBlock* half = block(RouteType::v6Half).get();
   const HBitmap& entries = *occupancy_.entries();
   uint32_t x = entries.findFirstClear(from, to);
   const uint32_t longest = half ? half->findLengthRangeMax() : TcamBlock::none;
   if (x == npos || longest == TcamBlock::none) return x;
   // The ranges lie in order of position, the longest length lowest.
   if (x < half->lengthRange(longest).start() || x > half->lengthRange(half->nextLength(0)).end()) {
      return x;
   }
   for (uint32_t k = longest; k != TcamBlock::none && x != npos;
        k = k == 0 ? TcamBlock::none : half->prevLength(k - 1)) {
      const IndexRange r = half->lengthRange(k);
      if (r.start() == 0 || r.end() < x) continue;
      if (r.start() > x) return x;
      if (r.size() - entries.count(r.start(), r.end()) > kept) return x;
      TRACE(th, 7, "Free entries of IPv6 prefix length ", k, " kept: ", r.start(), "/", r.end());
      x = r.end() < to ? entries.findFirstClear(r.end() + 1, to) : npos;
   }
   return x;
}

bool L3TcamManagerContext::freeAPair(uint32_t blkStart, uint32_t blkEnd, unsigned level,
                                     bool useSwapArea) {
   HBitmap& entries = *occupancy_.entries();
   const uint32_t g = occupancy_.gap();
   const uint32_t firstEntry = pairToPhysical(blkStart);
   const uint32_t lastEntry = pairToPhysical(blkEnd) + g;
   TRACE(th, 7, "Full blkRange: ", firstEntry, "/", lastEntry);
   // Free entries that form no free pair: either the pair is invalid (nothing to be done), or
   // the partner holds an IPv4 entry that could be moved out of the way.
   const HBitmap& v4Used = *block(RouteType::v4)->bitmap();
   uint32_t freeEntry = entries.findFirstClear(firstEntry, lastEntry);
   VEXLO_ASSERT_MSG(freeEntry != npos, "freeEntry != npos", "no free entry in ", firstEntry, "/",
                    lastEntry);
   for (; freeEntry != npos; freeEntry = freeEntry < lastEntry
                                             ? entries.findFirstClear(freeEntry + 1, lastEntry)
                                             : npos) {
      const uint32_t partner = (freeEntry / g) % 2 ? freeEntry - g : freeEntry + g;
      if (partner < v4Used.size() && v4Used.isBitSet(partner) &&
          !pairReserved(physicalToPair(freeEntry))) {
         break;
      }
   }
   if (freeEntry == npos) {
      TRACE(th, level, "Full tcam table");
      return false;
   }
   freeV6PairEntry(freeEntry, useSwapArea);
   return true;
}

uint32_t L3TcamManagerContext::shiftDownAndInsert(RouteType t, const Ipv4UcastKey& key4,
                                                  const Ipv6UcastKey& key6,
                                                  const IpMcastPrefixKey& keyMcast,
                                                  uint32_t freeEntry) {
   const TcamRoute route = TcamRoute::of(t, key4, key6, keyMcast);
   internal::traceRoute(6, "shiftDownAndInsert", route, ", entry: ", freeEntry);
   return shiftAndInsert(route, freeEntry, true);
}

uint32_t L3TcamManagerContext::shiftUpAndInsert(RouteType t, const Ipv4UcastKey& key4,
                                                const Ipv6UcastKey& key6,
                                                const IpMcastPrefixKey& keyMcast,
                                                uint32_t freeEntry) {
   const TcamRoute route = TcamRoute::of(t, key4, key6, keyMcast);
   internal::traceRoute(6, "shiftUpAndInsert", route, ", entry: ", freeEntry);
   return shiftAndInsert(route, freeEntry, false);
}

uint32_t L3TcamManagerContext::shiftAndInsert(const TcamRoute& route, uint32_t freeEntry,
                                              bool down) {
   TcamRegion& region = regions_[route.type()];
   if (route.type() == RouteType::v6Full) {
      VEXLO_ASSERT_MSG(supportsDefipPairing(), "supportsDefipPairing()",
                       "DefipPairing is not supported");
   }
   const uint32_t len = route.len();
   IndexRange ir;
   freeEntry = down ? internal::openHoleDown(region, len, freeEntry, ir)
                    : internal::openHoleUp(region, len, freeEntry, ir);
   return region.placeNew(route, freeEntry, ir);
}

RouteReturnCode L3TcamManagerContext::addRoute4(const Ipv4UcastKey& key, bool useSwapArea) {
   TRACE(th, 2, "addRoute4", ", key: ", key.prefix, " (vrf ", key.vrfId, ")",
         ", useSwapArea: ", useSwapArea);
   RouteReturnCode rc;
   if (v4_->getEntryIdCount(key) != 0) {
      if (!reAddAllowed()) {
         TRACE(th, 2, "Found exisiting IPv4 route ", key);
         VEXLO_ASSERT(false, "0");
      }
      // A replayed add changes nothing and reports where the route already is.
      rc.routeId = v4_->getEntryId(key);
      rc.tcamV4RightKey = v4_->rightKey(key, rc.routeId);
      return rc;
   }
   const uint32_t len = key.len();
   uint32_t entry = 0;
   bool isRight = false;
   if (const uint32_t halfFullEntry = v4_->halfFull(len)) {
      // Filling the free half of an entry needs no free entry. A free right half is always
      // taken; a free left half only while the IPv4 swap region is not exhausted.
      isRight = v4_->isHalfEmptyRight(halfFullEntry, key);
      entry = v4_->insertSecondEntry(key, halfFullEntry, isRight, swapRegionFull(RouteType::v4));
      VEXLO_ASSERT_MSG(entry != 0 || !isRight, "entryId", "len: ", len,
                       ", halfFull: ", halfFullEntry);
   } else {
      entry = addRoute(TcamRoute::v4(key), useSwapArea);
      if (entry == 0 && dynamicV4V6Boundary() && v4V6Border_ != 0) {
         TRACE(th, 2, "Route allocation failed, attempting to expand v4 partition");
         // The IPv4 partition lies above the border: growing it lowers the border.
         const uint32_t step = reallocationStep();
         if (reallocate(v4V6Border_ > step ? v4V6Border_ - step : 0, useSwapArea)) {
            entry = addRoute(TcamRoute::v4(key), useSwapArea);
         } else {
            TRACE(th, 2, "Reallocation failed");
         }
      }
      if (entry != 0) {
         const Ipv4Keys k = v4_->keys(entry);
         TRACE(th, 2, "addRoute4", " right: ", k.right, " left: ", k.left);
         isRight = key == k.right;
      }
   }
   TRACE(th, 7, "EntryId: ", entry, " isRight: ", isRight);
   rc.routeId = entry;
   rc.tcamV4RightKey = isRight;
   if (entry != 0) stats_->maskLengthsIpv4Inc(len, 1);
   return rc;
}

RouteReturnCode L3TcamManagerContext::addMroute4(const IpMcastPrefixKey& key, bool useSwapArea) {
   TRACE(th, 3, "addMroute4", ", key: ", key, " useSwapArea: ", useSwapArea);
   if (const uint32_t existing = mcastV4_->entryId(key)) {
      TRACE(th, 3, "Found exisiting IPv4 mcast route at index ", existing);
      VEXLO_ASSERT(false, "0");
   }
   const TcamBlock& blk = *block(RouteType::v4Mcast);
   TRACE(th, 7, "len: ", key.len, ", Min: ", blk.prefixLenMin(), ", Max: ", blk.prefixLenMax());
   RouteReturnCode rc;
   rc.routeId = addRoute(TcamRoute::mcast(key), useSwapArea);
   TRACE(th, 7, "EntryId: ", rc.routeId);
   if (rc.routeId != 0) stats_->maskLengthsMcastIpv4Inc(key.len, 1);
   return rc;
}

}  // namespace VexloL3Common
