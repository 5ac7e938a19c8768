// The hardware image of an emulated TCAM, in the form a context is rebuilt from after a restart.
//
// Synopsis
//   std::vector<TcamHardwareEntry> image = sim::imageOf(emu);
//   ctx->rebuildFromHardware(image, border);
//   image = sim::imageOf(ctx);             what the model says the hardware holds
//
// One entry per non-empty emulator entry, in ascending index; the second entry of a double-size
// IPv6 pair is listed as such, with its pair's key. The image is taken as the table holds it:
// whatever a writer left behind is part of it. The model's own image is the one a faithful writer
// would have left: a copy of the context is rebuilt from it far faster than by replaying the
// operations that made it.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <vector>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "sim/TcamEmulator.h"

namespace VexloL3Common::sim {

std::vector<TcamHardwareEntry> imageOf(const TcamEmulator& emu);
std::vector<TcamHardwareEntry> imageOf(const L3TcamManagerContext& ctx);

}  // namespace VexloL3Common::sim
