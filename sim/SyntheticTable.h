// Deterministic Internet-like route tables, for trying a TCAM configuration before a real table
// is at hand.
//
// Synopsis
//   SyntheticMix mix;  mix.v4 = 28000;  mix.v6 = 2000;  mix.seed = 7;
//   std::vector<Route> table = syntheticTable(mix);
//
// IPv4 prefix lengths follow a full Internet table: about 60 % /24, 12 % /22, 10 % /23, 6 % /21,
// 5 % /20, the rest spread over /8-/19 and a few longer than /24. IPv6: about 45 % /48, 13 % /32,
// the rest over /29-/64 and a small share longer than /64. Routes nest the way real tables do:
// address space is handed out in covering blocks, many of which are announced themselves, and
// more-specifics sit inside them; the rest stand alone.
//
// The same mix gives the same table, in the same order, on every machine (no std::
// distribution whose output the standard leaves to the library). Every route is distinct;
// unicast routes are in `vrf`, multicast routes in VRF index `vrf`, table 0. The order is a
// shuffle, as routes arrive from a peer, not sorted by length.
//
// Plain functions; nothing is shared between threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/Route.h"

namespace VexloL3Common::sim {

struct SyntheticMix {
   size_t v4 = 0;
   size_t v6 = 0;
   size_t mcast = 0;  // (S,G) and (*,G) entries of the source-specific and any-source ranges
   uint64_t seed = 1;
   uint32_t vrf = 0;
};

std::vector<Route> syntheticTable(const SyntheticMix& mix);

}  // namespace VexloL3Common::sim
