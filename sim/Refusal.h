// Why the model refused a route, in an operator's words: read from the context right after the
// refused add (a refused add changes nothing, so what the add saw is still there).
//
// Synopsis
//   Refusal r = refusalOf(ctx, route);    r.reason, r.detail ("12 free entries, all of them the
//                                         reserve of 12 kept for moves")
//   reasonName(r.reason)                  "partition full", ...
//
// Reasons, by what the add found in the block of the entry size the route needs:
//   noEntrySize      the layout has no entry of that size (IPv6 longer than /64 without pairing)
//   partitionFull    no free entry at all
//   swapReserveKept  free entries, but no more than the reserve every region keeps for moves
//   noFreePair       free entries beyond the reserve, but no pair of them a double-size route takes
//   other            free entries beyond the reserve and the model still found no place
// With a moving IPv4/IPv6 border, `border` says why the border could not move to make room
// (empty when the layout's border is fixed).
//
// Plain values and free functions; nothing is shared between threads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "sim/Route.h"

namespace VexloL3Common::sim {

enum class RefusalReason : uint8_t {
   noEntrySize,
   partitionFull,
   swapReserveKept,
   noFreePair,
   other
};
inline constexpr unsigned numRefusalReasons = 5;
std::string_view reasonName(RefusalReason r);

struct Refusal {
   RefusalReason reason = RefusalReason::other;
   std::string detail;  // the figures behind the reason
   std::string border;  // why a moving border did not move; empty when it cannot move at all
};

Refusal refusalOf(const L3TcamManagerContext& c, const Route& r);

}  // namespace VexloL3Common::sim
