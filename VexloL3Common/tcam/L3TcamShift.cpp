// The shift engine (see internal/L3TcamShift.h).
#include "VexloL3Common/tcam/internal/L3TcamShift.h"

#include <algorithm>

#include "platform/Assert.h"

namespace VexloL3Common::internal {

namespace {
Ulo::TraceHandle th("VexloL3CommonTcamTable");
}  // namespace

Ulo::TraceHandle& tcamTrace() {
   return th;
}

uint32_t openHoleDown(TcamRegion& region, uint32_t len, uint32_t freeEntry, IndexRange& ir) {
   const TcamBlock& blk = region.block();
   bool extend = false;
   IndexRange own;
   // Shortest prefixes (highest indices) first: each range that starts before the hole gives up
   // its lowest entry, so the hole climbs one length at a time toward the new route's place.
   for (uint32_t k = blk.nextLength(0); k != TcamBlock::none; k = blk.nextLength(k + 1)) {
      const IndexRange cur = blk.lengthRange(k);
      if (cur.start() == 0) continue;
      if (k > len) {
         VEXLO_ASSERT_MSG(freeEntry > cur.end(), "freeEntry > ir.end()", "freeEntry: ", freeEntry,
                          ", ir: ", cur);
         break;
      }
      if (k == len) {
         extend = true;
         own = cur;
         break;
      }
      if (cur.start() >= freeEntry) continue;
      const uint32_t s = cur.start();
      const IndexRange moved = region.relocate(k, freeEntry, s);
      VEXLO_ASSERT(freeEntry >= moved.start(),
                   "freeEntry >= blk->lengthRange( iter.key() ).start()");
      VEXLO_ASSERT(freeEntry <= moved.end(), "freeEntry <= blk->lengthRange( iter.key() ).end()");
      freeEntry = s;
   }
   ir = extend ? IndexRange(std::min(own.start(), freeEntry), std::max(own.end(), freeEntry))
               : IndexRange(freeEntry, freeEntry);
   return freeEntry;
}

uint32_t openHoleUp(TcamRegion& region, uint32_t len, uint32_t freeEntry, IndexRange& ir) {
   const TcamBlock& blk = region.block();
   // Longest prefixes (lowest indices) first: each range that ends after the hole gives up its
   // highest entry, so the hole sinks one length at a time toward the new route's place.
   for (uint32_t k = blk.prevLength(blk.prefixLenMax()); k != TcamBlock::none;
        k = k == 0 ? TcamBlock::none : blk.prevLength(k - 1)) {
      const IndexRange cur = blk.lengthRange(k);
      if (cur.start() == 0) continue;
      if (k == len) {
         ir = IndexRange(std::min(cur.start(), freeEntry), cur.end());
         return freeEntry;
      }
      if (k < len) {
         if (cur.start() > freeEntry) {
            ir = IndexRange(freeEntry, freeEntry);
            return freeEntry;
         }
         VEXLO_ASSERT_MSG(freeEntry < cur.start(), "freeEntry < ir.start()",
                          "freeEntry: ", freeEntry, ", ir: ", cur);
      }
      const uint32_t e = cur.end();
      if (e <= freeEntry) continue;
      const IndexRange moved = region.relocate(k, freeEntry, e);
      VEXLO_ASSERT(freeEntry >= moved.start(),
                   "freeEntry >= blk->lengthRange( prefixLen ).start()");
      VEXLO_ASSERT(freeEntry <= moved.end(), "freeEntry <= blk->lengthRange( prefixLen ).end()");
      freeEntry = e;
   }
   ir = IndexRange(freeEntry, freeEntry);
   return freeEntry;
}

uint32_t relocateEntry(TcamRegion& region, uint32_t len, uint32_t oldPos, uint32_t freeEntry) {
   const RouteType t = region.type();
   TRACE(th, 6, "relocateEntry", ", type: ", t, ", len: ", len, ", old: ", oldPos,
         ", entry: ", freeEntry);
   VEXLO_ASSERT_MSG(freeEntry != oldPos && region.block().lengthRange(len).contains(oldPos),
                    "relocateEntry: entry inside its length's range", "type ", t, " len ", len,
                    " old ", oldPos, " free ", freeEntry);
   IndexRange ir;
   const uint32_t hole = freeEntry > oldPos ? openHoleDown(region, len, freeEntry, ir)
                                            : openHoleUp(region, len, freeEntry, ir);
   region.relocate(len, hole, oldPos);
   return hole;
}

}  // namespace VexloL3Common::internal
