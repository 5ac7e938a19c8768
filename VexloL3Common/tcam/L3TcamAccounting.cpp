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
   if (!blk || !occupancy_.entries()) return 0;
   const int64_t size = int64_t(blk->end()) - int64_t(blk->start()) + 1;
   const int64_t free = size - int64_t(occupancy_.entries()->count(blk->start(), blk->end()));
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
   occupancy_.update(t, *block(t)->bitmap(), used, freed);
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
