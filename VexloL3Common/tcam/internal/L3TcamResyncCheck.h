// The checks of resynchronisation from hardware, shared by its two halves: L3TcamResyncCheck.cpp
// decides whether a placement at a known index, or a whole hardware image, can be a valid model;
// L3TcamResync.cpp then applies it without checking again. Private to the engine.
//
// Synopsis
//   checkRoute4AtIndex(ctx, key, index, right)   a single placement into the live context
//   checkRoute6AtIndex(ctx, key, index)          ... returns whether the route is double-size
//   checkMroute4AtIndex(ctx, key, index)
//   checkHardwareImage(ctx, image, border)       the whole image against a shadow of the context;
//                                                the border and the bounds the rebuild must lay out
//
// Every check raises std::range_error naming the entry (index and key) and what is wrong with it,
// before anything changes; none of them changes the context.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "VexloL3Common/tcam/L3TcamTable.h"

namespace VexloL3Common::internal {

// The operation name of a rebuild, in its traces and refusals.
inline constexpr const char* rebuildOp = "rebuildFromHardware";

// The block bounds a placement is checked against.
struct Bounds {
   uint32_t start = 0;
   uint32_t end = 0;
   // Index 0 is never a route's entry, also in a block laid out from 0.
   bool contains(uint32_t i) const { return end != 0 && i != 0 && i >= start && i <= end; }
   bool operator==(const Bounds&) const = default;
};

inline Bounds boundsOf(const L3TcamManagerContext& ctx, RouteType t) {
   const TcamBlock* blk = ctx.block(t).get();
   return blk ? Bounds{blk->start(), blk->end()} : Bounds{};
}

void checkRoute4AtIndex(const L3TcamManagerContext& ctx, const Ipv4UcastKey& key, uint32_t index,
                        bool right);
// Whether the route is double-size, which its position decides.
bool checkRoute6AtIndex(const L3TcamManagerContext& ctx, const Ipv6UcastKey& key, uint32_t index);
void checkMroute4AtIndex(const L3TcamManagerContext& ctx, const IpMcastPrefixKey& key,
                         uint32_t index);

// What a checked image asks of the rebuild: the IPv6 border, and the IPv4 and double-size IPv6
// block bounds it was checked against (those that setting the border lays out).
struct CheckedImage {
   uint32_t border = 0;
   Bounds v4;
   Bounds v6Full;
};

// Checks the whole image, in ascending index, and refuses the first entry that cannot stand where
// it is. v4V6Border as for rebuildFromHardware.
CheckedImage checkHardwareImage(const L3TcamManagerContext& ctx,
                                const std::vector<TcamHardwareEntry>& image,
                                std::optional<uint32_t> v4V6Border);

}  // namespace VexloL3Common::internal
