// Placement policies of the TCAM model: where the first route of a prefix length goes, and how
// much free space each length should have beside it.
//
// Synopsis
//   PlacementPolicy::classic    a gap between two neighbouring lengths is shared equally among the
//                               lengths that may still arrive in it (the default)
//   PlacementPolicy::weighted   the gap is shared in proportion to per-length weights, so that the
//                               lengths that grow most find free entries right beside them
//   PlacementWeights            the weights, IPv4 (/0-/32) and IPv6 (/0-/128), any unit
//   PlacementWeights::internetLike()   the built-in default, shaped like a full Internet table
//   weightedTarget(...)         the target of a new length inside a gap under `weighted`
//
// Why weights: an insert into a length's range finds the nearest free entry toward the end of the
// block (shorter prefixes) and moves one entry per non-empty length in between. The free entries
// just past a length's range therefore serve that length for free; free entries anywhere else
// cost a move per length crossed. A length that receives half of all new routes should have half
// of the free space right past its range. A weight of 0 counts as 1: every length gets a share.
//
// Multicast blocks keep the classic split whatever the policy: their lengths have no table-wide
// shape to weigh them by.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "VexloL3Common/types/L3RouteTypes.h"

namespace VexloL3Common {

enum class PlacementPolicy : uint8_t { classic, weighted };

std::string_view toString(PlacementPolicy p);

struct PlacementWeights {
   std::array<uint32_t, 33> v4{};
   std::array<uint32_t, 129> v6{};

   // About 55 % /24, 12 % /22, 10 % /23, 6 % /21, 5 % /20 for IPv4; 45 % /48, 13 % /32 and the
   // rest over /29-/64 with a little above /64 for IPv6.
   static PlacementWeights internetLike();

   // The weights of a route type's lengths; empty for multicast (classic split).
   std::span<const uint32_t> of(RouteType t) const;

   bool operator==(const PlacementWeights&) const = default;
};

// The target for the first route of length len in the gap [start, end] (end > start) between the
// range of the nearest longer length lenStart, which ends at start - 1 (none when
// hasLonger is false), and the nearest shorter one lenEnd, which starts at end + 1. The free
// entries below the target go to lenStart and to the lengths between lenStart and len that may
// still arrive; those above it to len and the shorter ones that may arrive, each side in
// proportion to its weights.
uint32_t weightedTarget(std::span<const uint32_t> weights, uint32_t len, uint32_t start,
                        uint32_t end, uint32_t lenStart, uint32_t lenEnd, bool hasLonger);

// The weight of one length (never 0; 1 beyond the table).
inline uint64_t weightOf(std::span<const uint32_t> weights, uint32_t len) {
   return len < weights.size() && weights[len] != 0 ? weights[len] : 1;
}

}  // namespace VexloL3Common

template <>
struct fmt::formatter<VexloL3Common::PlacementPolicy> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(VexloL3Common::PlacementPolicy p, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(VexloL3Common::toString(p), ctx);
   }
};
