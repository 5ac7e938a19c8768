#include "sim/Refusal.h"

#include <fmt/format.h>

namespace VexloL3Common::sim {

namespace {

// The entry size the model looks for first, which is where it last found no room.
RouteType typeOf(const L3TcamManagerContext& c, const Route& r) {
   switch (r.family) {
      case Route::Family::v4:
         return RouteType::v4;
      case Route::Family::mcast:
         return RouteType::v4Mcast;
      case Route::Family::v6:
         break;
   }
   const Ulo::Ptr<TcamBlock>& half = c.block(RouteType::v6Half);
   const bool halfTakes = half && half->end() != 0 && r.len() <= half->prefixLenMax();
   return !halfTakes || c.borderMoves() ? RouteType::v6Full : RouteType::v6Half;
}

// Whether an add of type t is stopped by the swap reserve, as the context's swapRegionFull decides
// it, read from the counts alone: the context's own check traces, and a diagnosis must not add
// lines to the trace of the run it explains.
bool reserveReached(const L3TcamManagerContext& c, RouteType t) {
   if (c.v4Mcast() || c.borderMoves()) return c.entriesFree(t) <= c.swapAreaSize(t);
   uint32_t v4Reserve = c.swapAreaSize(RouteType::v4);
   if (t == RouteType::v6Full) v4Reserve += 4;
   if (t == RouteType::v6Half) v4Reserve += 2;
   if (v4Reserve >= c.entriesFree(RouteType::v4)) return true;
   return c.entriesFree(RouteType::v6Half) <= c.swapAreaSize(RouteType::v6Half) &&
          c.entriesFree(RouteType::v6Full) <= c.swapAreaSize(RouteType::v6Full);
}

// Free entries of the block that no route of the type could use as a pair: a double-size route
// needs a free entry and a free partner a gap further on.
uint32_t freePairs(const L3TcamManagerContext& c, const TcamBlock& blk) {
   if (!c.bitmapPair() || blk.end() == 0) return 0;
   const uint32_t first = c.physicalBoundToPair(blk.start());
   const uint32_t last = c.physicalBoundToPair(blk.end());
   if (first == 0 || last < first) return 0;
   return (last - first + 1) - c.bitmapPair()->count(first, last);
}

// Why a full IPv6 partition could not take the next four blocks from IPv4.
std::string whyV6CannotGrow(const L3TcamManagerContext& c) {
   const uint32_t border = c.v4V6Border(), to = border + c.reallocationStep();
   const uint32_t last = c.effectiveSize() - 1;
   if (to >= c.effectiveSize()) {
      return fmt::format(
          "it moves {} entries (four blocks) at a time, and the next step, from {} to {}, would "
          "leave no IPv4 partition in a table of {} entries",
          c.reallocationStep(), border, to, c.effectiveSize());
   }
   const HBitmap& used4 = *c.block(RouteType::v4)->bitmap();
   const uint32_t routes = used4.count(std::max(border, 1u), to - 1);
   const uint32_t room = (last - to + 1) - c.bitmap()->count(to, last);
   const uint32_t reserve = c.swapAreaSize(RouteType::v4);
   if (room < routes) {
      return fmt::format("moving it to {} needs room for {} IPv4 entries above, and {} are free",
                         to, routes, room);
   }
   if (room - routes < reserve) {
      return fmt::format(
          "moving it to {} would move {} IPv4 entries into the {} free above and leave fewer "
          "than the IPv4 swap reserve of {}",
          to, routes, room, reserve);
   }
   return fmt::format("it moved to {}, and the route still found no pair", to);
}

// Why a full IPv4 partition could not take the top four blocks back from IPv6.
std::string whyV4CannotGrow(const L3TcamManagerContext& c) {
   const uint32_t border = c.v4V6Border(), step = c.reallocationStep();
   if (border == 0) return "there is no IPv6 partition to take entries from";
   const uint32_t to = border > step ? border - step : 0;
   const uint32_t routes = c.block(RouteType::v6Full)->bitmap()->count(to / 2, border / 2 - 1);
   uint32_t room = 0;
   if (to > 0) room = (to / 2 - 1) - c.bitmapPair()->count(1, to / 2 - 1);
   return fmt::format(
       "moving it down to {} would move {} double-size routes into {} free pairs "
       "below (the IPv6 swap reserve of {} kept)",
       to, routes, room, c.swapAreaSize(RouteType::v6Full));
}

}  // namespace

std::string_view reasonName(RefusalReason r) {
   switch (r) {
      case RefusalReason::noEntrySize:
         return "no entry of this size";
      case RefusalReason::partitionFull:
         return "partition full";
      case RefusalReason::swapReserveKept:
         return "swap reserve kept";
      case RefusalReason::noFreePair:
         return "no free double-size pair";
      case RefusalReason::other:
         return "no place found";
   }
   return "?";
}

Refusal refusalOf(const L3TcamManagerContext& c, const Route& r) {
   Refusal out;
   const RouteType t = typeOf(c, r);
   const Ulo::Ptr<TcamBlock>& blk = c.block(t);
   if (!blk || (r.family == Route::Family::v6 && r.len() > 64 && !c.supportsDefipPairing())) {
      out.reason = RefusalReason::noEntrySize;
      out.detail = "IPv6 routes longer than /64 need double-size entries (--pairing)";
      return out;
   }
   const uint32_t free = c.entriesFree(t), reserve = c.swapAreaSize(t);
   if (free == 0) {
      out.reason = RefusalReason::partitionFull;
      out.detail = fmt::format("no free entry in entries {}-{}", blk->start(), blk->end());
   } else if (free <= reserve || reserveReached(c, t)) {
      out.reason = RefusalReason::swapReserveKept;
      out.detail = fmt::format("{} free entries, no more than the reserve of {} kept for moves",
                               free, reserve);
   } else if (t == RouteType::v6Full && freePairs(c, *blk) == 0) {
      out.reason = RefusalReason::noFreePair;
      out.detail = fmt::format("{} free entries, none with a free partner", free);
   } else {
      out.detail = fmt::format("{} free entries, reserve {}", free, reserve);
   }
   if (c.borderMoves() && t != RouteType::v4Mcast)
      out.border = t == RouteType::v4 ? whyV4CannotGrow(c) : whyV6CannotGrow(c);
   return out;
}

}  // namespace VexloL3Common::sim
