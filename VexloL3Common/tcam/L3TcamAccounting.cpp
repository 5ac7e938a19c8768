// Occupancy bitmaps and free-space accounting of a TCAM context.
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("VexloL3CommonTcamTable");
}  // namespace

uint32_t L3TcamManagerContext::entries(RouteType t) const {
   const Ulo::Ptr<TcamBlock>& blk = block(t);
   return blk && blk->bitmap() ? blk->bitmap()->count() : 0;
}

uint32_t L3TcamManagerContext::entriesFree(RouteType t) const {
   const Ulo::Ptr<TcamBlock>& blk = block(t);
   if (!blk || !bitmap_) return 0;
   const int64_t size = int64_t(blk->end()) - int64_t(blk->start()) + 1;
   const int64_t free = size - int64_t(bitmap_->count(blk->start(), blk->end()));
   VEXLO_ASSERT_MSG(free >= 0, "free >= 0", "type: ", t, ", free: ", free);
   return uint32_t(free);
}

bool L3TcamManagerContext::swapRegionFull(RouteType t) const {
   TRACE(th, 7, "swapRegionFull, type: ", t);
   if (v4Mcast()) {
      if (entriesFree(t) <= swapAreaSize(t)) {
         TRACE(th, 7, " mcast no space");
         return true;
      }
      return false;
   }
   if (borderMoves()) {
      // The two partitions never share an entry: each keeps its own reserve, and a full one
      // grows by moving the border instead of blocking the other.
      const uint32_t free = entriesFree(t);
      const uint32_t swap = swapAreaSize(t);
      TRACE(th, 7, " free: ", free, "/", swap);
      if (free > swap) return false;
      TRACE(th, 7, t == RouteType::v4 ? " v4 no space" : " v6 no space");
      return true;
   }
   const uint32_t v4Free = entriesFree(RouteType::v4);
   const size_t v4HalfUsed = v4_ ? v4_->halfFullSize() : 0;
   uint32_t v4Swap = swapAreaSize(RouteType::v4);
   if (t == RouteType::v6Full) v4Swap += 4;
   if (t == RouteType::v6Half) v4Swap += 2;
   const uint32_t v6HalfFree = entriesFree(RouteType::v6Half);
   const uint32_t v6HalfSwap = swapAreaSize(RouteType::v6Half);
   const uint32_t v6FullFree = entriesFree(RouteType::v6Full);
   const uint32_t v6FullSwap = swapAreaSize(RouteType::v6Full);
   TRACE(th, 7, " free v4: ", v4Free, "/", v4HalfUsed, "/", v4Swap, ", v6Half: ", v6HalfFree, "/",
         v6HalfSwap, ", v6Full: ", v6FullFree, "/", v6FullSwap);
   if (v4Swap >= v4Free) {
      TRACE(th, 7, " v4 no space");
      return true;
   }
   if (v6HalfFree > v6HalfSwap || v6FullFree > v6FullSwap) return false;
   TRACE(th, 7, " v6 no space");
   return true;
}

RouteType L3TcamManagerContext::v6RouteTypeFromPos(uint32_t pos) const {
   VEXLO_ASSERT_MSG(pos < tcamSize(), "tcamId < tcamSize()", " tcam id ", pos, " size ",
                    tcamSize());
   return v6_->v6RouteTypeFromPos(pos);
}

RouteType L3TcamManagerContext::v6RouteTypeFromKey(const Ipv6UcastKey& key) const {
   return v6RouteTypeFromPos(v6_->getEntryId(key));
}

void L3TcamManagerContext::updateBitmaps(RouteType t, uint32_t used, uint32_t freed) {
   HBitmap& blockMap = *block(t)->bitmap();
   if (t == RouteType::v6Full) {
      const uint32_t g = lpmPairGap_;
      if (used) {
         const uint32_t p = pairToPhysical(used);
         bitmapPair_->setBit(used);
         blockMap.setBit(used);
         bitmap_->setBit(p);
         bitmap_->setBit(p + g);
      }
      if (freed) {
         const uint32_t p = pairToPhysical(freed);
         bitmapPair_->clearBit(freed);
         blockMap.clearBit(freed);
         bitmap_->clearBit(p);
         bitmap_->clearBit(p + g);
      }
      return;
   }
   if (used) {
      bitmap_->setBit(used);
      blockMap.setBit(used);
   }
   if (freed) {
      bitmap_->clearBit(freed);
      blockMap.clearBit(freed);
   }
   // Where single entries share the double-size region, a pair is taken as soon as either of
   // its two entries is, so that the pair search never hands out a half-occupied pair.
   if (supportsDefipPairing()) {
      const TcamBlock* full = blocks_[RouteType::v6Full].get();
      if (full && full->isValid()) {
         if (used && used >= full->start() && used <= full->end()) markPair(used);
         if (freed && freed >= full->start() && freed <= full->end()) markPair(freed);
      }
   }
}

void L3TcamManagerContext::markPair(uint32_t physical) {
   const uint32_t g = lpmPairGap_;
   const uint32_t pair = physicalToPair(physical);
   const uint32_t first = pairToPhysical(pair);
   if (bitmap_->isBitSet(first) || bitmap_->isBitSet(first + g)) {
      bitmapPair_->setBit(pair);
      return;
   }
   // Reserved and invalid pairs stay taken whatever their entries hold.
   if (!pairReserved(pair)) bitmapPair_->clearBit(pair);
}

bool L3TcamManagerContext::pairReserved(uint32_t pair) const {
   if (pair == 0) return true;
   for (const InvalidEntryRange& r : invalidEntryManager_->invalidEntryRangePair()) {
      if (r.start <= pair && pair <= r.end) return true;
   }
   return false;
}

void L3TcamManagerContext::buildHalfFullCache() {
   v4_->halfFullDelAll();
   if (!twoV4RoutesPerEntry()) return;
   // The lowest half-full entry of each length is tracked; a model that holds two half-full
   // entries of one length is merged by the caller before it is verified.
   v4_->forEachKeys([&](uint32_t pos, const Ipv4Keys& k) {
      const bool leftEmpty = k.left.isNull(), rightEmpty = k.right.isNull();
      if (leftEmpty == rightEmpty) return;
      const uint32_t len = leftEmpty ? k.right.len() : k.left.len();
      if (v4_->halfFull(len) == 0) v4_->halfFullIs(len, pos);
   });
}

}  // namespace VexloL3Common
