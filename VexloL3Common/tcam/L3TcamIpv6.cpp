// IPv6 insertion and conversion between the two entry sizes.
//
// A route of up to /64 prefers a single-size entry (v6Half block), a longer one needs a
// double-size pair (v6Full block). When the region it needs is full, a fixed ladder of rungs makes
// room, each tried at most once per call: move one IPv4 entry across the IPv6 border, or move one
// IPv6 route between the two sizes. Only when the whole ladder fails does a layout whose border
// moves grow the IPv6 partition, once, and try the ladder again.
//
// Every relocation is a move published to the hardware writer (the route is copied to its new
// place and its old entry invalidated), so the hardware never lacks a route, and an IPv6 route
// that changes size is written in the size of the region it lands in. A rung that has nothing to
// move or nowhere to put it fails softly and leaves the model unchanged.
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/tcam/internal/L3TcamShift.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

Ulo::TraceHandle th("VexloL3CommonTcamTable");
constexpr uint32_t npos = HBitmap::npos;

bool usable(const Ulo::Ptr<TcamBlock>& blk) {
   return blk && blk->isValid();
}

// A single-size block laid out from index 0 (an interleaved table without pairing) is usable from
// entry 1: index 0 is always reserved.
bool usableHalf(const Ulo::Ptr<TcamBlock>& blk) {
   return blk && blk->end() != 0;
}

// The shortest length held double-size; -1 when no double-size block holds a route. The hardware
// searches every double-size entry before any single-size one, so a route may take a single-size
// entry only if no shorter double-size route could cover it.
int64_t shortestHeld(const Ulo::Ptr<TcamBlock>& full) {
   const uint32_t len = usable(full) ? full->nextLength(0) : TcamBlock::none;
   return len == TcamBlock::none ? -1 : int64_t(len);
}

}  // namespace

RouteReturnCode L3TcamManagerContext::addRoute6(const Ipv6UcastKey& key, bool useSwapArea) {
   TRACE(th, 3, "addRoute6", ", key: ", key.prefix, " (vrf ", key.vrfId, ")",
         ", useSwapArea: ", useSwapArea);
   RouteReturnCode rc = addRoute6Internal(key, useSwapArea);
   if (rc.routeId == 0 && dynamicV4V6Boundary() && tcamSize() > v4V6Border_) {
      TRACE(th, 3, "Route allocation failed, attempting to expand v6 partition");
      // The IPv6 partition lies below the border: growing it raises the border.
      if (reallocate(v4V6Border_ + reallocationStep(), useSwapArea)) {
         return addRoute6Internal(key, useSwapArea);
      }
      TRACE(th, 2, "Reallocation failed");
   }
   return rc;
}

RouteReturnCode L3TcamManagerContext::addRoute6Internal(const Ipv6UcastKey& key, bool useSwapArea) {
   RouteReturnCode rc;
   if (v6_->getEntryIdCount(key) != 0) {
      const uint32_t existing = v6_->getEntryId(key);
      if (!reAddAllowed()) {
         TRACE(th, 3, "Found exisiting IPv6 route at index ", existing);
         VEXLO_ASSERT(false, "0");
      }
      // A replayed add changes nothing and reports where the route already is.
      rc.routeId = existing;
      return rc;
   }
   const uint32_t len = key.len();
   const Ulo::Ptr<TcamBlock>& half = block(RouteType::v6Half);
   const int64_t fullMin = shortestHeld(block(RouteType::v6Full));
   const uint32_t halfMax = half ? half->lengthRangeMax() : TcamBlock::none;
   TRACE(th, 7, "len: ", len, ", fullMin: ", fullMin, ", halfMax: ", halfMax);

   const auto placed = [&](uint32_t entry) {
      if (entry != 0) stats_->maskLengthsIpv6Inc(len, 1);
      rc.routeId = entry;
      return rc;
   };
   const auto addHalf = [&] {
      return addRoute(TcamRoute::v6(key, RouteType::v6Half), useSwapArea);
   };

   bool doubleSize = false;  // skip to the double-size placement for the new route
   if (usableHalf(half) && len <= half->prefixLenMax() && (fullMin == -1 || fullMin >= len)) {
      // Single size first.
      if (const uint32_t entry = addHalf()) {
         TRACE(th, 7, "EntryId: ", entry);
         return placed(entry);
      }
      if (!supportsDefipPairing()) {
         TRACE(th, 3, " No space left in /64 block. returning");
         return rc;
      }
      TRACE(th, 3, "Try moving an IPv4 entry to the full size block");
      if (const uint32_t freed = convertV4Entry(false)) {
         TRACE(th, 3, "EntryId IPv4: ", freed);
         const uint32_t entry = addHalf();
         TRACE(th, 3, "EntryId IPv6: ", entry);
         if (entry != 0) return placed(entry);
         // With the swap area open the entry just freed must be usable.
         VEXLO_ASSERT_MSG(!useSwapArea, "entryId", "key: ", key, ", freed: ", freed);
      }
      // With no single-size route to make way, the new route takes a double-size pair.
      if (halfMax == TcamBlock::none || len >= halfMax) {
         TRACE(th, 3, "Try inserting entry in full size block");
         doubleSize = true;
      } else {
         // The new route is shorter than the longest single-size one: that one makes way.
         TRACE(th, 3, "Move entry of prefix ", halfMax, " to full size block");
         if (convertV6Entry(RouteType::v6Full, halfMax, useSwapArea) == 0) return rc;
         TRACE(th, 3, "Now insert the new entry in the half size block");
         const uint32_t entry = addHalf();
         VEXLO_ASSERT_MSG(entry != 0, "entryId", "key: ", key);
         return placed(entry);
      }
   }

   if (!doubleSize) {
      VEXLO_ASSERT_MSG(supportsDefipPairing(), "supportsDefipPairing()",
                       "DefipPairing not supported");
      if (const uint32_t entry = addRoute(TcamRoute::v6(key, RouteType::v6Full), useSwapArea)) {
         return placed(entry);
      }
      if (!makeRoomForPair(fullMin, useSwapArea)) return rc;
      TRACE(th, 3, "Now try inserting the new entry in the full size block");
   }
   const uint32_t entry = addRoute(TcamRoute::v6(key, RouteType::v6Full), useSwapArea);
   TRACE(th, 7, "EntryId: ", entry);
   return placed(entry);
}

bool L3TcamManagerContext::makeRoomForPair(int64_t fullMin, bool useSwapArea) {
   if (fullMin == -1 || fullMin > 64) {
      TRACE(th, 3, "Try moving an IPv4 entry in the half size block");
      if (convertV4Entry(true) == 0) return false;
      // A pair needs two single entries; the second is tried whatever it gives.
      TRACE(th, 3, "Try moving another IPv4 entry in the half size block");
      convertV4Entry(true);
      return true;
   }
   TRACE(th, 3, "Try moving a full size entry in the half size block");
   // The shortest double-size route makes way: single-size, it still covers nothing longer that
   // is searched after it.
   return convertV6Entry(RouteType::v6Half, uint32_t(fullMin), useSwapArea) != 0;
}

uint32_t L3TcamManagerContext::convertV4Entry(bool toHalf) {
   if (v4V6InterleavingDisabled()) return 0;
   const TcamBlock& blk = *block(RouteType::v4);
   const HBitmap& used4 = *blk.bitmap();
   const uint32_t b = v6_->tcamBorder();
   // The part of the IPv4 block below the border (the double-size region) and above it.
   const bool hasBelow = b > blk.start() && blk.isValid();
   const bool hasAbove = b <= blk.end() && blk.isValid();
   const uint32_t belowLast = std::min(b - 1, blk.end());
   const uint32_t aboveFirst = std::max(b, blk.start());
   uint32_t source = npos, destination = npos;
   if (toHalf) {
      TRACE(th, 2, "convertV4Entry", ", source: /128 block, destination: /64 block");
      if (hasBelow) source = used4.findLastSet(blk.start(), belowLast);
      if (hasAbove) destination = occupancy_.entries()->findFirstClear(aboveFirst, blk.end());
   } else {
      TRACE(th, 2, "convertV4Entry", ", source: /64 block, destination: /128 block");
      if (hasAbove) source = used4.findFirstSet(aboveFirst, blk.end());
      if (hasBelow) destination = occupancy_.entries()->findLastClear(blk.start(), belowLast);
   }
   if (source == npos) {
      TRACE(th, 2, "No IPv4 entries in the source partition, conversion failed");
      return 0;
   }
   if (destination == npos) {
      TRACE(th, 2, "No space available in the destination partition, conversion failed");
      return 0;
   }
   TRACE(th, 2, "Space found. Old entry: ", source, ", new entry: ", destination);
   TcamRegion& v4Region = regions_[RouteType::v4];
   const uint32_t len = v4Region.mapping().routeAt(source).len();
   // The whole entry (both halves) travels; the move is published and counted as one.
   internal::relocateEntry(v4Region, len, source, destination);
   stats_->conversionInc(RouteType::v4);
   return source;
}

uint32_t L3TcamManagerContext::convertV6Entry(RouteType routeType, uint32_t prefixLen,
                                              bool useSwapArea) {
   VEXLO_ASSERT_MSG(routeType == RouteType::v6Half || routeType == RouteType::v6Full,
                    "routeType == L3Common::v6Half_ || routeType == L3Common::v6Full_",
                    "routeType: ", routeType);
   const RouteType sourceType =
       routeType == RouteType::v6Half ? RouteType::v6Full : RouteType::v6Half;
   TRACE(th, 3, "convertV6Entry", ", routeType: ", routeType, ", prefixLen: ", prefixLen,
         ", useSwapArea: ", useSwapArea);
   // A destination block with no entries is a layout without that region (no single-size block
   // on a paired table, no double-size block on an interleaved one): no room, not a caller fault.
   // It is checked before the length, since an interleaved single-size block holds lengths up to
   // /128 and its longest one may be offered here.
   const Ulo::Ptr<TcamBlock>& destination = block(routeType);
   if (!(routeType == RouteType::v6Half ? usableHalf(destination) : usable(destination))) return 0;
   VEXLO_ASSERT_MSG(prefixLen < 65, "prefixLen < 65", "prefixLen: ", prefixLen);
   const IndexRange ir = block(sourceType)->lengthRange(prefixLen);
   VEXLO_ASSERT_MSG(ir.start() && ir.end(), "ir.start() && ir.end()", "prefixLen: ", prefixLen,
                    ", type: ", sourceType);
   // Only the longest single-size length may go double-size, and only the shortest double-size
   // length single-size: anything else leaves a shorter double-size route ahead of a longer
   // single-size one that it covers.
   const uint32_t edge = routeType == RouteType::v6Full ? block(RouteType::v6Half)->lengthRangeMax()
                                                        : block(RouteType::v6Full)->nextLength(0);
   VEXLO_ASSERT_MSG(
       prefixLen == edge, "convertV6Entry: the longest single-size or shortest double-size length",
       "prefixLen: ", prefixLen, ", type: ", routeType, ", edge of the source block: ", edge);
   // The range's first route: any route of the length would do.
   const uint32_t oldPos =
       sourceType == RouteType::v6Full ? pairToPhysical(ir.start()) : ir.start();
   const Ipv6UcastKey key = v6_->getEntryKey(oldPos);
   TRACE(th, 3, "IndexRange: ", ir, ", old entry: ", oldPos, ", key: ", key.prefix, " (vrf ",
         key.vrfId, ")");
   const uint32_t newPos = addRoute(TcamRoute::v6(key, routeType), useSwapArea);
   if (newPos == 0) return 0;
   // The route changes size: published as a move from its old entry, counted under its old size.
   publisher_->move(sourceType, oldPos, newPos, EntryType::v6, notifyMoves());
   stats_->conversionInc(sourceType);
   v6_->clearEntryId(key, oldPos);
   deleteRoute(sourceType, oldPos, prefixLen);
   return oldPos;
}

bool L3TcamManagerContext::convertV6Range(uint32_t prefixLen, const IndexRange& range,
                                          bool useSwapArea) {
   TRACE_FMT(th, 6, "Range/{} start {} end {} size {}", prefixLen, range.start(), range.end(),
             range.size());
   if (range.start() == 0) return true;
   const uint32_t n = block(RouteType::v6Half)->bitmap()->count(range.start(), range.end());
   for (uint32_t i = 0; i < n; ++i) {
      if (convertV6Entry(RouteType::v6Full, prefixLen, useSwapArea) == 0) {
         TRACE(th, 6, "V6Full partition is full, nothing more to do");
         return false;
      }
   }
   return true;
}

// The IPv4 entry moves within its own block and takes no entry from any reserve, so the swap-area
// flag has nothing to decide here.
void L3TcamManagerContext::freeV6PairEntry(uint32_t entryId, bool /*useSwapArea*/) {
   const uint32_t g = occupancy_.gap();
   const uint32_t pairedEntry = (entryId / g) % 2 ? entryId - g : entryId + g;
   VEXLO_ASSERT_MSG(!occupancy_.entries()->isBitSet(entryId), "!bitmap()->isBitSet( entryId )",
                    "entryId: ", entryId);
   VEXLO_ASSERT_MSG(occupancy_.entries()->isBitSet(pairedEntry),
                    "bitmap()->isBitSet( pairedEntry )", "pairedEntry: ", pairedEntry);
   TRACE(th, 3, "freeV6PairEntry", ", entryId: ", entryId, ", paired: ", pairedEntry);
   TcamRegion& v4Region = regions_[RouteType::v4];
   const uint32_t len = v4Region.mapping().routeAt(pairedEntry).len();
   // A free entry for the IPv4 entry: above the double-size region if there is one, else
   // anywhere in the IPv4 block but the entry whose pair is being freed.
   const TcamBlock& blk = *block(RouteType::v4);
   const uint32_t b = v6_->tcamBorder();
   uint32_t freeEntry = npos;
   if (b <= blk.end())
      freeEntry = occupancy_.entries()->findFirstClear(std::max(b, blk.start()), blk.end());
   if (freeEntry == npos) {
      freeEntry = occupancy_.entries()->findFirstClear(blk.start(), blk.end());
      if (freeEntry == entryId) {
         freeEntry = entryId < blk.end()
                         ? occupancy_.entries()->findFirstClear(entryId + 1, blk.end())
                         : npos;
      }
   }
   VEXLO_ASSERT_MSG(freeEntry != npos, "freeEntry != npos", "no entry for the IPv4 entry at ",
                    pairedEntry);
   const bool tracked = v4_->halfFull(len) == pairedEntry;
   const uint32_t newPos = internal::relocateEntry(v4Region, len, pairedEntry, freeEntry);
   // A tracked half-full entry is still tracked where it went.
   VEXLO_ASSERT_MSG(!tracked || v4_->halfFull(len) == newPos, "v4()->halfFull( len ) == newPos",
                    "len: ", len, ", newPos: ", newPos);
}

}  // namespace VexloL3Common
