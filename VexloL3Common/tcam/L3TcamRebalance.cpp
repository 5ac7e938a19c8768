// Rebalancing: moving free entries across length ranges toward the weighted ideal (see
// internal/L3TcamRangeMove.h and L3TcamManagerContext::rebalance).
//
// The free slots of a region are its gaps (before the first range, between two ranges, after the
// last) and the holes inside ranges. A gap past a range serves that range's length at no cost,
// so the ideal gives each gap the share of all free slots that the weights of the lengths growing
// into it ask for (less the holes the length already has). Free slots reach their gap by crossing
// the ranges in between: the flow across a range is what the gaps before it have beyond their
// share. A flow of f across a range of u entries costs min(f, u) moves: fewer than u entries
// each go to one of the f nearest free slots on the other side; otherwise every entry moves once,
// to the far end of those f slots. Flows toward the end of the block are made from the start
// upward, flows toward the start from the end downward, so each gap always has the slots it
// hands on.
#include <algorithm>
#include <array>

#include "VexloL3Common/tcam/L3TcamPlacement.h"
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/tcam/internal/L3TcamRangeMove.h"
#include "VexloL3Common/tcam/internal/L3TcamShift.h"
#include "platform/Assert.h"

namespace VexloL3Common::internal {

namespace {

constexpr uint32_t npos = HBitmap::npos;

class Rebalancer {
 public:
   Rebalancer(TcamRegion& region, std::span<const uint32_t> weights, uint32_t bs, uint32_t be,
              const MoveAllowed& allowed)
       : allowed_(allowed),
         region_(region),
         blk_(region.block()),
         free_(region.freeMap()),
         used_(region.used()),
         w_(weights),
         bs_(bs),
         be_(be) {}

   uint64_t run(uint64_t budget) {
      budget_ = budget;
      for (uint32_t k = blk_.prevLength(TcamBlock::maxLengths - 1); k != TcamBlock::none;
           k = k == 0 ? TcamBlock::none : blk_.prevLength(k - 1)) {
         if (blk_.lengthRange(k).start() != 0) lens_[m_++] = k;
      }
      if (m_ == 0) return 0;
      flows();
      for (uint32_t i = 0; i < m_ && budget_ > 0 && !stopped_; ++i) {
         if (flow_[i] > 0) raise(i, uint32_t(flow_[i]));
      }
      for (uint32_t i = m_; i-- > 0 && budget_ > 0 && !stopped_;) {
         if (flow_[i] < 0) lower(i, uint32_t(-flow_[i]));
      }
      return budget - budget_;
   }

 private:
   uint32_t freeIn(uint32_t a, uint32_t b) const {
      return a > b ? 0 : (b - a + 1) - free_.count(a, b);
   }
   IndexRange range(uint32_t i) const { return blk_.lengthRange(lens_[i]); }
   // The first and last slot of the gap before range i (i == m_: after the last range).
   uint32_t gapFirst(uint32_t i) const { return i == 0 ? bs_ : range(i - 1).end() + 1; }
   uint32_t gapLast(uint32_t i) const { return i == m_ ? be_ : range(i).start() - 1; }

   // flow_[i]: free slots that must cross range i toward the end of the block (negative: toward
   // its start).
   void flows() {
      std::array<uint64_t, TcamBlock::maxLengths + 1> weight{}, holes{};
      std::array<uint32_t, TcamBlock::maxLengths + 1> gap{};
      const uint32_t lo = blk_.prefixLenMin(), hi = blk_.prefixLenMax();
      // Gap j lies past range j - 1 and serves its length and the absent lengths that would be
      // placed in it; gap 0 the absent lengths longer than every present one.
      for (uint32_t k = lens_[0] + 1; k <= hi; ++k)
         weight[0] += weightOf(w_, k);
      uint64_t total = weight[0], freeSlots = 0, gapSlots = 0;
      for (uint32_t j = 0; j <= m_; ++j) {
         gap[j] = freeIn(gapFirst(j), gapLast(j));
         gapSlots += gap[j];
         if (j == 0) continue;
         const uint32_t len = lens_[j - 1];
         const uint32_t shorter = j < m_ ? lens_[j] + 1 : lo;
         for (uint32_t k = shorter; k <= len; ++k)
            weight[j] += weightOf(w_, k);
         holes[j] = freeIn(range(j - 1).start(), range(j - 1).end());
         total += weight[j];
         freeSlots += holes[j];
      }
      freeSlots += gapSlots;
      std::array<uint64_t, TcamBlock::maxLengths + 1> want{};
      uint64_t wanted = 0;
      for (uint32_t j = 0; j <= m_; ++j) {
         const uint64_t share = freeSlots * weight[j] / total;
         want[j] = share > holes[j] ? share - holes[j] : 0;
         wanted += want[j];
      }
      int64_t surplus = 0;
      for (uint32_t i = 0; i < m_; ++i) {
         const uint64_t target = wanted ? gapSlots * want[i] / wanted : gap[i];
         surplus += int64_t(gap[i]) - int64_t(target);
         flow_[i] = surplus;
      }
   }

   // Hands f free slots from the gap before range i to the gap after it.
   void raise(uint32_t i, uint32_t f) {
      const uint32_t len = lens_[i], s0 = range(i).start(), floor = gapFirst(i);
      const uint32_t u = used_.count(s0, range(i).end());
      if (f < u) {
         for (uint32_t c = 0; c < f && budget_ > 0; ++c, --budget_) {
            const uint32_t dst = free_.findLastClear(floor, range(i).start() - 1);
            VEXLO_ASSERT_MSG(dst != npos, "rebalance: free slot below", "len ", len);
            if (!move(len, dst, range(i).end())) return;
         }
         return;
      }
      uint32_t q = s0;
      for (uint32_t c = 0; c < f; ++c) {
         q = free_.findLastClear(floor, q - 1);
         VEXLO_ASSERT_MSG(q != npos, "rebalance: free slot below", "len ", len);
      }
      for (uint32_t c = 0; c < u && budget_ > 0; ++c, --budget_) {
         const uint32_t dst = free_.findFirstClear(q, s0 - 1);
         if (!move(len, dst, range(i).end())) return;
      }
   }

   // Hands f free slots from the gap after range i to the gap before it.
   void lower(uint32_t i, uint32_t f) {
      const uint32_t len = lens_[i], e0 = range(i).end(), ceiling = gapLast(i + 1);
      const uint32_t u = used_.count(range(i).start(), e0);
      if (f < u) {
         for (uint32_t c = 0; c < f && budget_ > 0; ++c, --budget_) {
            const uint32_t dst = free_.findFirstClear(range(i).end() + 1, ceiling);
            VEXLO_ASSERT_MSG(dst != npos, "rebalance: free slot above", "len ", len);
            if (!move(len, dst, range(i).start())) return;
         }
         return;
      }
      uint32_t q = e0;
      for (uint32_t c = 0; c < f; ++c) {
         q = free_.findFirstClear(q + 1, ceiling);
         VEXLO_ASSERT_MSG(q != npos, "rebalance: free slot above", "len ", len);
      }
      for (uint32_t c = 0; c < u && budget_ > 0; ++c, --budget_) {
         const uint32_t dst = free_.findLastClear(e0 + 1, q);
         if (!move(len, dst, range(i).start())) return;
      }
   }

   // One move, unless it would take another partition below its swap reserve: then rebalancing
   // stops here (the callers' loops count a move only once it is made).
   bool move(uint32_t len, uint32_t dst, uint32_t src) {
      if (!allowed_(dst, src)) {
         stopped_ = true;
         return false;
      }
      region_.relocate(len, dst, src);
      return true;
   }

   const MoveAllowed& allowed_;
   bool stopped_ = false;
   TcamRegion& region_;
   const TcamBlock& blk_;
   HBitmap& free_;
   const HBitmap& used_;
   const std::span<const uint32_t> w_;
   const uint32_t bs_, be_;
   uint64_t budget_ = 0;
   uint32_t m_ = 0;
   std::array<uint32_t, TcamBlock::maxLengths> lens_{};
   std::array<int64_t, TcamBlock::maxLengths> flow_{};
};

}  // namespace

uint64_t rebalance(TcamRegion& region, std::span<const uint32_t> weights, uint32_t blkStart,
                   uint32_t blkEnd, uint64_t budget, const MoveAllowed& allowed) {
   return Rebalancer(region, weights, blkStart, blkEnd, allowed).run(budget);
}

}  // namespace VexloL3Common::internal

namespace VexloL3Common {

uint64_t L3TcamManagerContext::rebalance(uint64_t maxMoves) {
   uint64_t moves = 0;
   for (RouteType t : {RouteType::v4, RouteType::v6Half, RouteType::v6Full}) {
      const TcamBlock* blk = block(t).get();
      const std::span<const uint32_t> w = config_.placementWeights.of(t);
      if (!blk || !blk->isValid() || w.empty() || moves >= maxMoves) continue;
      uint32_t start = blk->start(), end = blk->end();
      if (t == RouteType::v6Full)
         start = physicalBoundToPair(start), end = physicalBoundToPair(end);
      const internal::MoveAllowed allowed = [this, t](uint32_t dst, uint32_t src) {
         return keepsOtherReserves(t, dst, src);
      };
      moves += internal::rebalance(regions_[t], w, start, end, maxMoves - moves, allowed);
   }
   TRACE(internal::tcamTrace(), 2, "rebalance", ", maxMoves: ", maxMoves, ", moves: ", moves);
   return moves;
}

// Where blocks overlap (IPv4 over the IPv6 regions), an entry moved within one region may land
// in another's block and leave one outside it: that other partition then has one free entry
// fewer, which must not take it below its swap reserve.
bool L3TcamManagerContext::keepsOtherReserves(RouteType t, uint32_t dstSlot,
                                              uint32_t srcSlot) const {
   const uint32_t g = occupancy_.gap();
   auto entriesOf = [&](uint32_t slot, std::array<uint32_t, 2>& out) {
      if (t != RouteType::v6Full) {
         out = {slot, 0};
         return 1u;
      }
      out = {pairToPhysical(slot), pairToPhysical(slot) + g};
      return 2u;
   };
   std::array<uint32_t, 2> gained{}, lost{};
   const uint32_t n = entriesOf(dstSlot, gained);
   entriesOf(srcSlot, lost);
   for (RouteType o : {RouteType::v4, RouteType::v6Half, RouteType::v6Full}) {
      const TcamBlock* b = block(o).get();
      if (o == t || !b || !b->isValid()) continue;
      int64_t taken = 0;
      for (uint32_t i = 0; i < n; ++i) {
         taken += int64_t(gained[i] >= b->start() && gained[i] <= b->end());
         taken -= int64_t(lost[i] >= b->start() && lost[i] <= b->end());
      }
      if (taken > 0 && int64_t(entriesFree(o)) - taken < int64_t(swapAreaSize(o))) return false;
   }
   return true;
}

}  // namespace VexloL3Common
