// The placement check that verify() and verifyEntries share. Not part of the public interface.
#pragma once

#include <cstdint>

#include "VexloL3Common/tcam/L3TcamBlock.h"
#include "VexloL3Common/types/L3RouteTypes.h"

namespace VexloL3Common::internal {

// The route's slot is marked used in its block and lies inside its length's range.
void verifyPlacement(RouteType t, const TcamBlock& blk, uint32_t index, uint32_t len);

}  // namespace VexloL3Common::internal
