// Small tables and routes shared by the simulation tests.
#pragma once

#include <cstdint>
#include <vector>

#include "TcamFixture.h"
#include "sim/Simulation.h"

namespace VexloL3Common::sim::testing_support {

// A 1 024-entry mode-2 table checked by the emulator after every move.
inline SimulationConfig small(uint32_t mcastSize = 0) {
   SimulationConfig c;
   c.unicast = VexloL3Common::testing::layout(1024, 2, 8);
   c.mcastSize = mcastSize;
   c.check = true;
   return c;
}

// n consecutive IPv4 prefixes of one length in VRF 1, from the first-th on.
inline std::vector<Route> v4Routes(uint32_t n, uint32_t len, uint32_t first = 0) {
   std::vector<Route> out;
   for (uint32_t i = first; i < first + n; ++i)
      out.push_back(Route::of(Ipv4UcastKey(VrfId(1), Ulo::Prefix(i << (32 - len), uint8_t(len)))));
   return out;
}

}  // namespace VexloL3Common::sim::testing_support
