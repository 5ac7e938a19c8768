// Free helpers of the route-programming agents: publishing a FIB acknowledgement, and asking
// whether a port has its VXLAN virtual port.
//
// Synopsis
//   ackSequence(vrfL3StatusAll, seq, vrfId, traceLevel, v4)   advance
//   latestProgrammedRouteVersionId uint16_t vp; if (isPortReady(intf, fcsd, vp)) ...         vp is
//   0xFFFF for a port channel
//                                                            that is assigned but not yet mapped
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>

#include "platform/FeatureAgent.h"
#include "platform/NetTypes.h"
#include "platform/VrfL3Status.h"

namespace VexloL3Common {

// The virtual port reported for a port channel whose port is assigned but not yet in the map.
inline constexpr uint16_t unmappedVirtualPort = 0xFFFF;

// Publishes that routes of `vrfId` up to `seq` are programmed, in the IPv4 (v4) or IPv6 status of
// the VRF. Never moves the published version backwards; seq 0, an unnamed VRF or a VRF without
// status are ignored. A reserved seq (see UloPdVersionId) raises its range error, writing nothing.
void ackSequence(Ulo::VrfL3StatusAll& status, uint64_t seq, Ulo::VrfId vrfId, uint32_t traceLevel,
                 bool v4);

// Whether `intf` can be used by VXLAN; on success its virtual port is written to `virtualPort`.
// A port channel is judged by its assignment flag, which its agent sets before the port number is
// known; any other interface by the presence of its port in the map.
bool isPortReady(Ulo::IntfId intf, const VexloCentral::FeatureAgentCommonSmData& fcsd,
                 uint16_t& virtualPort);

}  // namespace VexloL3Common
