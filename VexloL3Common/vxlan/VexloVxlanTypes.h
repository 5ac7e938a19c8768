// VXLAN state and configuration records shared by the forwarding agents.
//
// Synopsis
//   VexloVxlanState            local VTEP addresses, UDP ports, TTL, tunnel indices, init flags;
//                              getLocalVtep(af) / setLocalVtep(addr) pick the field by family
//   VexloVxlanBootStatus       boot progress flags on top of the central VxlanBootStatus
//   VexloVxlanConfig / VexloVxlanStatus   handles to the VLAN-mapping and L3-status directories
//   VxlanTunnelKey             value: (vti, sip, dstPort, srcPortValid, srcPort, ttl), ttl 1..64
//   VxlanDvpToVtepMap, VxlanTunnelIndexToVtepMap, VxlanMrouteHitbitAction, VxlanClearHitBitConfig
//   EncapId                    value: an encapsulation identifier
//   VexloVxlanVtepNextHop, VexloVxlanBumVtepConfig(Dir)      BUM replication per remote VTEP
//   EncapIdToBumVtepIpConfig(Dir)                           reverse index: encapId -> VTEP;
//                              syncReverseConfig() rebuilds it from the forward directory
//   FloodUnderlayVlanToVtepList(Dir)                        flood list per underlay VLAN
//   VtepToVtepBridgingConfig / VtepToVtepBridgingStatus
//
// Entities follow one pattern: attribute `x()` / `xIs(v)`, where the writer notifies `changed()`
// with the attribute's name only when the value changes; collection `c()` (iteration, hash order),
// `c(k)` (lookup: the value, or null for entities), `cIs(k, ...)` (insert or overwrite; for
// entities find-or-create and return the entity), `cDel(k)` (no-op when absent), `cDelAll()`.
// Collections notify with their name when their content changes. Factories `<type>Factory(name)`.
//
// The records are split by concern: VexloVxlanKeys.h (VxlanTunnelKey, EncapId),
// VexloVxlanEntity.h (the base of the entities), VexloVxlanState.h (local VTEP state, boot status,
// configuration and status directories, index maps, hit bits, bridging), VexloVxlanBum.h (BUM
// replication and flood lists). This header includes them all.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include "VexloL3Common/vxlan/VexloVxlanBum.h"
#include "VexloL3Common/vxlan/VexloVxlanEntity.h"
#include "VexloL3Common/vxlan/VexloVxlanKeys.h"
#include "VexloL3Common/vxlan/VexloVxlanState.h"
