// Moves made range by range rather than entry by entry: clearing a span of a region for a border
// that moves, and moving free entries across length ranges to where the weights want them.
// Private to the engine.
//
// clearSpan(region, first, last, up, bound)
//   Every entry of the region in the slots [first, last] leaves the span: up, to slots after last
//   (up to bound); down, to slots before first (down to bound). The ranges are handled from the
//   span outward: each range in the way gives up the entries that the one before it (or the span)
//   overruns, taking them from its far end to the free slots just past its near end, which the
//   next range in turn makes room in. A range the push reaches only in part first fills the holes
//   of its part that stays (slots whose routes were deleted), so the plan takes every free slot
//   between the span and the slot where it ends, and finds the room whenever the free slots past
//   the span number at least the entries in it. Each entry moves at most once, and a range that
//   the push does not reach moves nothing. The moves are made from the outermost range inward, so
//   every move lands on a slot that is already free and every length keeps its order at every step.
//   Returns the moves made. The caller has checked that the room past the span holds every
//   entry in it, and the span lies at the start of the region (up) or its end (down), so that no
//   range lies wholly before it.
//
// rebalance(region, weights, budget)
//   Moves free slots across ranges, one entry per slot and range crossed, so that the free slots
//   past each length's range (with the holes inside it) approach the length's share of all free
//   slots by weight. At most `budget` moves; returns the moves made.
//
// Every move is a region mutation (TcamRegion::relocate): published, with mapping, occupancy and
// ranges kept together.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "VexloL3Common/tcam/L3TcamRegion.h"

namespace VexloL3Common::internal {

uint64_t clearSpan(TcamRegion& region, uint32_t first, uint32_t last, bool up, uint32_t bound);

// Whether a move from slot src to slot dst of the region may be made; rebalancing stops at the
// first that may not.
using MoveAllowed = std::function<bool(uint32_t dst, uint32_t src)>;

uint64_t rebalance(TcamRegion& region, std::span<const uint32_t> weights, uint32_t blkStart,
                   uint32_t blkEnd, uint64_t budget, const MoveAllowed& allowed);

}  // namespace VexloL3Common::internal
