// Clearing a span of a region range by range (see internal/L3TcamRangeMove.h).
#include <algorithm>
#include <array>

#include "VexloL3Common/tcam/internal/L3TcamRangeMove.h"
#include "VexloL3Common/tcam/internal/L3TcamShift.h"
#include "platform/Assert.h"

namespace VexloL3Common::internal {

namespace {

constexpr uint32_t npos = HBitmap::npos;

// One range's share of the push: its `count` entries at the far end go to the free slots that
// follow `from` in the direction of the push.
struct Push {
   uint32_t len = 0;
   uint32_t count = 0;
   uint32_t from = 0;
};

class SpanClearer {
 public:
   SpanClearer(TcamRegion& region, bool up, uint32_t bound)
       : region_(region),
         blk_(region.block()),
         free_(region.freeMap()),
         used_(region.used()),
         up_(up),
         bound_(bound) {}

   // Works out every range's share, from the span outward, then moves the entries from the
   // outermost range inward. `edge` is the first slot past the span.
   uint64_t run(uint32_t edge) {
      std::array<Push, TcamBlock::maxLengths> plan;
      uint32_t n = 0;
      for (uint32_t k = firstLength(); k != TcamBlock::none; k = nextLength(k)) {
         const IndexRange ir = blk_.lengthRange(k);
         if (ir.start() == 0) continue;
         const uint32_t far = up_ ? ir.start() : ir.end();
         const uint32_t near = up_ ? ir.end() : ir.start();
         if (!before(far, edge)) break;
         const uint32_t lastIn = up_ ? std::min(near, edge - 1) : std::max(near, edge + 1);
         const uint32_t count = up_ ? used_.count(far, lastIn) : used_.count(lastIn, far);
         // The overrun entries take the first slots the push reaches past the edge: the holes of
         // the range's own part that stays, then whatever lies past its near end.
         const uint32_t from = up_ ? edge - 1 : edge + 1;
         uint32_t p = from;
         for (uint32_t c = 0; c < count; ++c) {
            do {
               VEXLO_ASSERT_MSG(p != bound_, "clearSpan: room past the span", "len ", k, ": ",
                                count - c, " of ", count, " entries without a slot, bound ",
                                bound_);
               p = up_ ? p + 1 : p - 1;
            } while (!available(p, near));
         }
         plan[n++] = Push{k, count, from};
         const uint32_t newNear = up_ ? std::max(near, p) : std::min(near, p);
         edge = up_ ? newNear + 1 : newNear - 1;
      }
      uint64_t moves = 0;
      while (n > 0) {
         const Push& push = plan[--n];
         uint32_t cursor = push.from;
         for (uint32_t c = 0; c < push.count; ++c, ++moves) {
            const IndexRange ir = blk_.lengthRange(push.len);
            const uint32_t old = up_ ? ir.start() : ir.end();
            const uint32_t dst = up_ ? free_.findFirstClear(cursor + 1, bound_)
                                     : free_.findLastClear(bound_, cursor - 1);
            VEXLO_ASSERT_MSG(dst != npos, "clearSpan: planned slot free", "len ", push.len,
                             ", after ", cursor);
            region_.relocate(push.len, dst, old);
            cursor = dst;
         }
      }
      return moves;
   }

 private:
   // Toward the push: the lengths in the order their ranges lie from the span outward (longest
   // first going up, since longer prefixes sit at lower slots).
   uint32_t firstLength() const {
      return up_ ? blk_.prevLength(TcamBlock::maxLengths - 1) : blk_.nextLength(0);
   }
   uint32_t nextLength(uint32_t k) const {
      if (up_) return k == 0 ? TcamBlock::none : blk_.prevLength(k - 1);
      return k + 1 < TcamBlock::maxLengths ? blk_.nextLength(k + 1) : TcamBlock::none;
   }
   bool before(uint32_t slot, uint32_t edge) const { return up_ ? slot < edge : slot > edge; }
   // Free, or past the near end of the range being pushed and held by one of the region's own
   // entries, which a range further out gives up in turn. Within the range, an entry of its own
   // stays where it is.
   bool available(uint32_t slot, uint32_t near) const {
      if (!free_.isBitSet(slot)) return true;
      return before(near, slot) && used_.isBitSet(slot);
   }

   TcamRegion& region_;
   const TcamBlock& blk_;
   HBitmap& free_;
   const HBitmap& used_;
   const bool up_;
   const uint32_t bound_;
};

}  // namespace

uint64_t clearSpan(TcamRegion& region, uint32_t first, uint32_t last, bool up, uint32_t bound) {
   TRACE(tcamTrace(), 6, "clearSpan", ", type: ", region.type(), ", span: ", first, "/", last,
         ", up: ", up, ", bound: ", bound);
   const uint64_t moves = SpanClearer(region, up, bound).run(up ? last + 1 : first - 1);
   VEXLO_ASSERT_MSG(region.used().count(first, last) == 0, "clearSpan: span empty", "type ",
                    region.type(), ", span ", first, "/", last);
   return moves;
}

}  // namespace VexloL3Common::internal
