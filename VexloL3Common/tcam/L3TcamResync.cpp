// Resynchronisation from hardware: routes placed at an index that the caller already knows, and a
// whole context rebuilt from what the hardware table holds after a restart.
//
// Nothing here moves an entry or publishes anything: the hardware already holds every route where
// the model is told it is. What the model adds is its own bookkeeping: mappings, occupancy bitmaps,
// length ranges, the longest installed length, per-length counts and the half-full tracking.
//
// Every placement is checked before anything changes (L3TcamResyncCheck.cpp): input that cannot be
// a valid model raises std::range_error naming the entry. A rebuild checks the whole image first
// and then applies it without checking again.
#include <optional>
#include <string>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/tcam/internal/L3TcamResyncCheck.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

Ulo::TraceHandle th("VexloL3CommonTcamTable");
constexpr uint32_t npos = HBitmap::npos;
using Kind = TcamHardwareEntry::Kind;
using internal::rebuildOp;

// ---- placement without checks ------------------------------------------------------------

// Placement without checks: each region records the route, its occupancy and its length's range
// together.
void place4(TcamStats& stats, TcamRegion& region, const Ipv4UcastKey& key, uint32_t index,
            bool right) {
   region.restore(TcamRoute::v4(key), index, right);
   stats.maskLengthsIpv4Inc(key.len(), 1);
}

void place6(TcamStats& stats, TcamRegion& region, const Ipv6UcastKey& key, uint32_t index) {
   region.restore(TcamRoute::v6(key, region.type()), index, false);
   stats.maskLengthsIpv6Inc(key.len(), 1);
}

void placeMcast(TcamStats& stats, TcamRegion& region, const IpMcastPrefixKey& key, uint32_t index) {
   region.restore(TcamRoute::mcast(key), index, false);
   stats.maskLengthsMcastIpv4Inc(key.len, 1);
}

bool halfFullEntry(const Ipv4Keys& k) {
   return k.left.isNull() != k.right.isNull();
}

// Keeps the lowest half-full entry of a length tracked after `index` changed, as a rebuild of the
// whole cache would.
void trackHalfFull(L3TcamManagerContext& ctx, uint32_t len, uint32_t index) {
   MappingV4Base& v4 = *ctx.v4();
   const uint32_t tracked = v4.halfFull(len);
   if (halfFullEntry(v4.keys(index))) {
      if (tracked == 0 || index < tracked) v4.halfFullIs(len, index);
      return;
   }
   if (tracked != index) return;
   // The tracked entry is now full: the next half-full entry of the length above it takes over.
   const TcamBlock& blk = *ctx.block(RouteType::v4);
   const HBitmap& used = *blk.bitmap();
   const uint32_t end = blk.lengthRange(len).end();
   for (uint32_t p = index < end ? used.findFirstSet(index + 1, end) : npos; p != npos;
        p = p < end ? used.findFirstSet(p + 1, end) : npos) {
      const Ipv4Keys k = v4.keys(p);
      if (halfFullEntry(k) && (k.left.isNull() ? k.right.len() : k.left.len()) == len) {
         v4.halfFullIs(len, p);
         return;
      }
   }
   v4.halfFullDel(len);
}

// Nothing placed yet, in any block or mapping: a rebuild starts from an empty context.
bool contextEmpty(const L3TcamManagerContext& ctx) {
   for (RouteType t : allRouteTypes) {
      const TcamBlock* blk = ctx.block(t).get();
      if (blk && blk->bitmap() && blk->bitmap()->count() != 0) return false;
   }
   if (ctx.v4() && (ctx.v4()->keysSize() != 0 || ctx.v4()->keyToEntryIdSize() != 0)) return false;
   if (ctx.v6() && (ctx.v6()->entryIdToKeySize() != 0 || ctx.v6()->keyToEntryIdSize() != 0)) {
      return false;
   }
   return !ctx.mcastV4() || ctx.mcastV4()->entryIdSize() == 0;
}

}  // namespace

// ---- placement at a known index ----------------------------------------------------------

RouteReturnCode L3TcamManagerContext::addRoute4AtIndex(const Ipv4UcastKey& key, uint32_t index,
                                                       bool right) {
   TRACE(th, 2, "addRoute4AtIndex", ", key: ", key.prefix, " (vrf ", key.vrfId, ")",
         ", index: ", index, ", right: ", right);
   VEXLO_ASSERT(layoutDone_, "layoutDone()");
   internal::checkRoute4AtIndex(*this, key, index, right);
   place4(*stats_, regions_[RouteType::v4], key, index, right);
   if (twoV4RoutesPerEntry()) trackHalfFull(*this, key.len(), index);
   recheckSwapReserve();
   RouteReturnCode rc;
   rc.routeId = index;
   rc.tcamV4RightKey = right;
   return rc;
}

RouteReturnCode L3TcamManagerContext::addRoute6AtIndex(const Ipv6UcastKey& key, uint32_t index) {
   TRACE(th, 3, "addRoute6AtIndex", ", key: ", key.prefix, " (vrf ", key.vrfId, ")",
         ", index: ", index);
   VEXLO_ASSERT(layoutDone_, "layoutDone()");
   const bool doubleSize = internal::checkRoute6AtIndex(*this, key, index);
   place6(*stats_, regions_[doubleSize ? RouteType::v6Full : RouteType::v6Half], key, index);
   recheckSwapReserve();
   RouteReturnCode rc;
   rc.routeId = index;
   return rc;
}

RouteReturnCode L3TcamManagerContext::addMroute4AtIndex(const IpMcastPrefixKey& key,
                                                        uint32_t index) {
   TRACE(th, 2, "addMroute4AtIndex", ", key: ", key, ", index: ", index);
   VEXLO_ASSERT(layoutDone_, "layoutDone()");
   internal::checkMroute4AtIndex(*this, key, index);
   placeMcast(*stats_, regions_[RouteType::v4Mcast], key, index);
   RouteReturnCode rc;
   rc.routeId = index;
   return rc;
}

void L3TcamManagerContext::recheckSwapReserve() {
   // A half-full entry's free half does not count: a later add fills a free right half even when
   // the reserve is short, and the reserve must then still be whole.
   if (v4_ && entriesFree(RouteType::v4) < swapAreaSize(RouteType::v4)) swapReserveKept_ = false;
}

void L3TcamManagerContext::rearmSwapReserve() {
   // Once deletes leave the reserve whole again, placements that keep out of it keep it whole
   // (they are refused at the reserve), so verify() can expect it again.
   if (!swapReserveKept_ && v4_ && entriesFree(RouteType::v4) >= swapAreaSize(RouteType::v4)) {
      swapReserveKept_ = true;
   }
}

// ---- rebuild -----------------------------------------------------------------------------

void L3TcamManagerContext::rebuildFromHardware(const std::vector<TcamHardwareEntry>& image,
                                               std::optional<uint32_t> v4V6Border) {
   TRACE(th, 1, rebuildOp, " entries: ", image.size(),
         ", border: ", v4V6Border ? fmt::format("{}", *v4V6Border) : std::string("none"));
   VEXLO_ASSERT(layoutDone_, "layoutDone()");
   VEXLO_ASSERT(contextEmpty(*this), "rebuildFromHardware: context empty");

   const internal::CheckedImage checked = internal::checkHardwareImage(*this, image, v4V6Border);
   const uint32_t border = checked.border;

   // Apply: the image is a valid model, and nothing is checked again.
   if (borderMoves()) {
      borderIs(border);
      VEXLO_ASSERT_MSG(internal::boundsOf(*this, RouteType::v4) == checked.v4 &&
                           internal::boundsOf(*this, RouteType::v6Full) == checked.v6Full &&
                           v6_->tcamBorder() == border,
                       "rebuildFromHardware: border laid out as checked", "border ", border);
   }
   for (const TcamHardwareEntry& e : image) {
      switch (e.kind) {
         case Kind::v4:
            if (!e.v4.right.isNull())
               place4(*stats_, regions_[RouteType::v4], e.v4.right, e.pos, true);
            if (!e.v4.left.isNull())
               place4(*stats_, regions_[RouteType::v4], e.v4.left, e.pos, false);
            // An empty half keeps the VRF the hardware holds for it.
            v4_->keysIs(e.pos, e.v4);
            break;
         case Kind::v6Single:
         case Kind::v6Double:
            place6(*stats_,
                   regions_[e.kind == Kind::v6Double ? RouteType::v6Full : RouteType::v6Half], e.v6,
                   e.pos);
            break;
         case Kind::mcast:
            placeMcast(*stats_, regions_[RouteType::v4Mcast], e.mcast, e.pos);
            break;
         case Kind::v6DoubleSecond:
            break;
      }
   }
   if (v4_) {
      buildHalfFullCache();
      // Placements before the restart may have taken the IPv4 swap reserve; the model cannot
      // keep what the hardware no longer leaves free.
      recheckSwapReserve();
   }
   TRACE(th, 1, rebuildOp, " done, border: ", border);
}

}  // namespace VexloL3Common
