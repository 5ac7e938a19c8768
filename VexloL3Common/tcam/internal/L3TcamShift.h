// The shift engine of the TCAM model: it opens a hole for a route of a given length from a free
// slot, shifting one entry per intervening prefix length, and relocates entries in the order of
// their lengths. Private to the engine: callers outside it place routes through the context.
//
// Every step is a region mutation (TcamRegion::relocate), so each shifted entry's move is
// published and its mapping, occupancy and length range change together.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>

#include "VexloL3Common/tcam/L3TcamRegion.h"
#include "VexloL3Common/tcam/L3TcamRoute.h"
#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Trace.h"

namespace VexloL3Common::internal {

// The trace handle of the TCAM model.
Ulo::TraceHandle& tcamTrace();

// Traces "<name>, key: <key> (vrf <vrf>)<rest...>" for the route's key.
template <class... Rest>
void traceRoute(unsigned level, const char* name, const TcamRoute& r, const Rest&... rest) {
   Ulo::TraceHandle& th = tcamTrace();
   if (!th.enabled(level)) return;
   switch (r.type()) {
      case RouteType::v4:
         th.emit(level, name, ", key: ", r.v4Key().prefix, " (vrf ", r.v4Key().vrfId, ")", rest...);
         break;
      case RouteType::v6Half:
      case RouteType::v6Full:
         th.emit(level, name, ", key: ", r.v6Key().prefix, " (vrf ", r.v6Key().vrfId, ")", rest...);
         break;
      case RouteType::v4Mcast:
         th.emit(level, name, ", key: ", r.mcastKey(), rest...);
         break;
   }
}

// Opens a hole for a route of length len from the free slot freeEntry toward the end of the
// block (down: each shorter length's range that starts before the hole gives up its lowest entry)
// or toward its start (up: each longer length's range that ends after the hole gives up its
// highest). Returns the hole and sets `ir` to len's range with the hole included; the hole itself
// is left free.
uint32_t openHoleDown(TcamRegion& region, uint32_t len, uint32_t freeEntry, IndexRange& ir);
uint32_t openHoleUp(TcamRegion& region, uint32_t len, uint32_t freeEntry, IndexRange& ir);

// Moves the entry at oldPos of length len, which stays in its region, to a new place in its
// length's order reached from the free slot freeEntry; the new slot.
uint32_t relocateEntry(TcamRegion& region, uint32_t len, uint32_t oldPos, uint32_t freeEntry);

}  // namespace VexloL3Common::internal
