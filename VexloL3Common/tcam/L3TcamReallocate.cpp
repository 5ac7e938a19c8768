// Partition reallocation: moving the border between the double-size IPv6 partition and the IPv4
// partition of a paired table whose border moves (supportsDefipPairing, dynamicV4V6Boundary,
// v4V6InterleavingDisabled).
//
// Layout for a border B (0 at first: no IPv6 partition at all):
//   v6Full block  [1, B - 1]            (start 0, end 0 when B is 0): pairs below the border
//   IPv4 block    [max(B, 1), last]
//   v4V6Border = B, and the IPv6 mapping's border = B (every IPv6 route is double-size there)
// B is always a multiple of 2 * lpmPairGap, so that no pair straddles it, and below the
// effective size, so that the IPv4 block is never empty.
//
// reallocate(newBorder, useSwapArea):
//   Preconditions, else false with a trace and nothing changed: a unicast context laid out with a
//   moving border; newBorder differs from the border, is a multiple of 2 * lpmPairGap and lies
//   below the effective size; the side that receives the region R between the two borders has
//   room for every route standing in R, and unless useSwapArea is set keeps its swap reserve
//   afterwards (IPv4: free entries >= swapAreaSize(v4); IPv6: free entries of the v6Full block
//   >= swapAreaSize(v6Full)).
//   What moves: growing the IPv6 partition, each IPv4 entry in R (highest first) is moved above
//   newBorder; shrinking it, each pair in R (lowest first) is moved below newBorder. Each move is
//   made by the shifting engine: from the nearest free entry on the receiving side the hole
//   travels one entry per intervening prefix length to the moved entry's length, so every length
//   keeps its order at every step and each step leaves R with one route fewer.
//   With borderMoveInRanges set, the way is cleared range by range instead
//   (internal/L3TcamRangeMove.h): the ranges from the border outward each give up the entries that
//   the push overruns, from their far end to the holes of their part that stays and then to the
//   free entries just past their near end, so each entry moves at most once and a range the push
//   does not reach moves nothing. The bound is the number of entries in the way, where the
//   entry-by-entry move makes one move per intervening length for each of them.
//   What is published: every move, in the order made, each acknowledged by the writer before the
//   next; nothing else (the new border is the model's business: the hardware only ever sees
//   routes at valid places).
//   Then the block bounds, v4V6Border and the IPv6 mapping's border change together and
//   TcamStats::reallocation is counted.
//   A failure is decided before the first move, so a refused reallocation changes nothing.
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/tcam/internal/L3TcamRangeMove.h"
#include "VexloL3Common/tcam/internal/L3TcamShift.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("VexloL3CommonTcamTable");
constexpr uint32_t npos = HBitmap::npos;
}  // namespace

uint32_t L3TcamManagerContext::reallocationStep() const {
   // Four blocks at a time; the gap in force is the block size (the configured pairGap, unless
   // the table size was forced).
   return 4 * occupancy_.gap();
}

bool L3TcamManagerContext::borderMoves() const {
   return supportsDefipPairing() && dynamicV4V6Boundary() && v4V6InterleavingDisabled() &&
          !v4Mcast();
}

void L3TcamManagerContext::borderIs(uint32_t border) {
   VEXLO_ASSERT_MSG(borderMoves(), "borderMoves()", "the border of this layout is fixed");
   VEXLO_ASSERT_MSG(
       occupancy_.gap() != 0 && border % (2 * occupancy_.gap()) == 0 && border < effectiveSize_,
       "border % ( 2 * lpmPairGap() ) == 0 && border < effectiveSize()", "border ", border,
       ", gap ", occupancy_.gap(), ", effective size ", effectiveSize_);
   TcamBlock& v4 = *block(RouteType::v4);
   TcamBlock& full = *block(RouteType::v6Full);
   v4.startIs(border == 0 ? 1 : border);
   full.startIs(border == 0 ? 0 : 1);
   full.endIs(border == 0 ? 0 : border - 1);
   v4V6Border_ = border;
   v6_->tcamBorderIs(border);
   TRACE(th, 1, "borderIs", ", border: ", border, ", v4: ", v4.start(), "/", v4.end(),
         ", v6Full: ", full.start(), "/", full.end());
}

bool L3TcamManagerContext::reallocate(uint32_t newBorder, bool useSwapArea) {
   TRACE(th, 2, "reallocate", ", border: ", v4V6Border_, ", newBorder: ", newBorder,
         ", useSwapArea: ", useSwapArea);
   if (useSwapArea) swapReserveKept_ = false;
   if (!layoutDone_ || !borderMoves()) {
      TRACE(th, 2, "reallocate: the border of this layout does not move");
      return false;
   }
   const uint32_t g = occupancy_.gap();
   const uint32_t border = v4V6Border_;
   if (newBorder == border || g == 0 || newBorder % (2 * g) != 0 || newBorder >= effectiveSize_) {
      TRACE(th, 2, "reallocate: border ", newBorder, " is not a possible border");
      return false;
   }
   const uint32_t last = effectiveSize_ - 1;
   TcamBlock& v4 = *block(RouteType::v4);
   TcamBlock& full = *block(RouteType::v6Full);
   const HBitmap& used4 = *v4.bitmap();
   const HBitmap& usedFull = *full.bitmap();

   if (newBorder > border) {
      // The IPv6 partition grows over R = [max(border, 1), newBorder - 1].
      const uint32_t first = std::max(border, 1u);
      const uint32_t routes = used4.count(first, newBorder - 1);
      const uint32_t room = (last - newBorder + 1) - occupancy_.entries()->count(newBorder, last);
      const uint32_t reserve = useSwapArea ? 0 : swapAreaSize(RouteType::v4);
      TRACE(th, 7, "reallocate: ", routes, " IPv4 entries to move, ", room, " free above, ",
            reserve, " reserved");
      if (room < routes || room - routes < reserve) {
         TRACE(th, 2, "reallocate: no room for the IPv4 entries");
         return false;
      }
      clearForPartition(RouteType::v4, first, newBorder - 1, routes);
      VEXLO_ASSERT_MSG(used4.count(first, newBorder - 1) == 0, "reallocate: region empty",
                       "IPv4 entries left in ", first, "/", newBorder - 1);
   } else {
      // The IPv6 partition shrinks: its pairs in R = [newBorder, border - 1] move below newBorder.
      const uint32_t pairFirst = newBorder / 2;  // the first pair of R
      const uint32_t pairLast = border / 2 - 1;
      const uint32_t routes = usedFull.count(pairFirst, pairLast);
      uint32_t room = 0, freeEntries = 0;
      if (newBorder > 0) {
         room = pairFirst - 1 - occupancy_.pairs()->count(1, pairFirst - 1);
         freeEntries = (newBorder - 1) - occupancy_.entries()->count(1, newBorder - 1);
      }
      // With no partition left there is no reserve to keep in it.
      const uint32_t reserve = useSwapArea || newBorder == 0 ? 0 : swapAreaSize(RouteType::v6Full);
      TRACE(th, 7, "reallocate: ", routes, " pairs to move, ", room, " free pairs below, ", reserve,
            " reserved");
      if (room < routes || freeEntries < 2 * routes || freeEntries - 2 * routes < reserve) {
         TRACE(th, 2, "reallocate: no room for the IPv6 pairs");
         return false;
      }
      clearForPartition(RouteType::v6Full, pairFirst, pairLast, routes);
      VEXLO_ASSERT_MSG(usedFull.count(pairFirst, pairLast) == 0, "reallocate: region empty",
                       "pairs left in ", pairFirst, "/", pairLast);
   }
   borderIs(newBorder);
   stats_->reallocationInc(1);
   TRACE(th, 2, "reallocate", " done, border: ", newBorder);
   return true;
}

void L3TcamManagerContext::clearForPartition(RouteType t, uint32_t first, uint32_t last,
                                             uint32_t routes) {
   TcamRegion& region = regions_[t];
   const uint32_t end = effectiveSize_ - 1;
   if (borderMoveInRanges()) {
      // Each entry in the way moves at most once; see internal/L3TcamRangeMove.h. The plan
      // takes every free entry the count above took, so it always finds the room.
      const uint64_t moves = t == RouteType::v4
                                 ? internal::clearSpan(region, first, last, true, end)
                                 : internal::clearSpan(region, first, last, false, 1);
      TRACE(th, 7, "reallocate: in ranges, ", routes, " routes, ", moves, " moves");
      return;
   }
   if (t == RouteType::v4) {
      const HBitmap& used4 = region.used();
      for (uint32_t n = 0; n < routes; ++n) {
         const uint32_t pos = used4.findLastSet(first, last);
         const uint32_t freeEntry = occupancy_.entries()->findFirstClear(last + 1, end);
         VEXLO_ASSERT_MSG(pos != npos && freeEntry != npos, "reallocate: entry and room", "pos ",
                          pos, ", free ", freeEntry);
         internal::relocateEntry(region, region.mapping().routeAt(pos).len(), pos, freeEntry);
      }
      return;
   }
   const HBitmap& usedFull = region.used();
   for (uint32_t n = 0; n < routes; ++n) {
      const uint32_t pair = usedFull.findFirstSet(first, last);
      const uint32_t freePair = occupancy_.pairs()->findLastClear(1, first - 1);
      VEXLO_ASSERT_MSG(pair != npos && freePair != npos, "reallocate: pair and room", "pair ", pair,
                       ", free ", freePair);
      const uint32_t len = region.mapping().routeAt(region.physical(pair)).len();
      internal::relocateEntry(region, len, pair, freePair);
   }
}

}  // namespace VexloL3Common
