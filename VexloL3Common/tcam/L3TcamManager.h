// The TCAM manager: the object an agent holds. It owns two TCAM contexts, the main one and the
// low one, and hands every route operation to the context that the route's VRF selects.
//
// Synopsis
//   L3TcamManager mgr;
//   mgr.tcamManagerCtxIs(cfg);                      the main context (kept when cfg is unchanged)
//   mgr.tcamManagerLowCtxIs(size, mode, ...);       the low context, positional or from a Config
//   mgr.lowCtxVrfIdIs(VrfId(7));                    routes of VRF 7 go to the low context
//   mgr.tcamManagerCtx()->handleInitialized(true);  the agent brings each context up
//   RouteReturnCode rc = mgr.addRoute4(key, false); handled by the selected context
//
// Keep or replace. Setting a context when one exists keeps it, with all its routes, when the new
// configuration differs from its own only in tcamMode, numUcastDefipBlocks, pairGap and
// requestedTableMode: those four are written into it in place and take effect at its next layout
// (a uRPF switch). Any other difference (handles are compared by identity, not by content) builds
// a new context from the configuration, not yet initialised, and drops the old one with all its
// state. Both contexts follow this rule. A unicast configuration with numUcastDefipBlocks 0
// raises std::range_error and changes nothing.
//
// Selection. A key whose VRF is lowCtxVrfId goes to the low context, every other key to the main
// one; a multicast key's VRF is its vrfIndex. lowCtxVrfId is VrfId::invalidVrfId() until it is
// set, and then nothing selects the low context. A selected context that does not exist is a
// fatal assertion ("tcamManagerCtx()" or "tcamManagerLowCtx()").
//
// Every forwarded call holds a counted reference to its context for its whole length: a reactor
// that replaces the context while a move is being published cannot destroy it under the call.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

class L3TcamManager {
 public:
   L3TcamManager() = default;
   L3TcamManager(const L3TcamManager&) = delete;
   L3TcamManager& operator=(const L3TcamManager&) = delete;

   // ---- contexts
   const Ulo::Ptr<L3TcamManagerContext>& tcamManagerCtx() const { return tcamManagerCtx_; }
   void tcamManagerCtxIs(const L3TcamManagerContext::Config& config);
   const Ulo::Ptr<L3TcamManagerContext>& tcamManagerLowCtx() const { return tcamManagerLowCtx_; }
   void tcamManagerLowCtxIs(const L3TcamManagerContext::Config& config);
   // The arguments in the order of the context's positional constructor.
   void tcamManagerLowCtxIs(
       uint32_t tcamSize, uint32_t tcamMode, bool twoV4RoutesPerEntry, bool supportsDefipPairing,
       bool dynamicV4V6Boundary, uint8_t numUcastDefipBlocks, uint32_t pairGap,
       Ulo::Ptr<const Ulo::RoutingStatus> globalRoutingStatus, uint32_t requestedTableMode,
       uint32_t currentTableMode, bool reAddAllowed, VrfId fallbackVrfId, uint32_t platformType,
       Ulo::Ptr<const Ulo::SegmentSecurityStatus> segmentSecurityStatus,
       Ulo::Ptr<RouteMove> routeMove, Ulo::Ptr<const RouteMove> routeMoveStatus,
       Ulo::Ptr<RouteMerge> routeMerge, Ulo::Ptr<const RouteMerge> routeMergeStatus,
       uint32_t invalidEntryManagerType, bool v4Mcast, bool softwareOnly,
       bool v4V6InterleavingDisabled);

   // The VRF whose routes the low context holds.
   VrfId lowCtxVrfId() const { return lowCtxVrfId_; }
   void lowCtxVrfIdIs(VrfId vrf) { lowCtxVrfId_ = vrf; }

   // ---- selection: the context of a VRF, as a counted reference
   Ulo::Ptr<L3TcamManagerContext> selectTcamManagerCtx(VrfId vrf) const;
   Ulo::Ptr<L3TcamManagerContext> selectTcamManagerCtx(const Ipv4UcastKey& key) const {
      return selectTcamManagerCtx(key.vrfId);
   }
   Ulo::Ptr<L3TcamManagerContext> selectTcamManagerCtx(const Ipv6UcastKey& key) const {
      return selectTcamManagerCtx(key.vrfId);
   }
   Ulo::Ptr<L3TcamManagerContext> selectTcamManagerCtx(const IpMcastPrefixKey& key) const {
      return selectTcamManagerCtx(VrfId(key.vrfIndex));
   }

   // ---- route operations, each handed unchanged to the selected context
   RouteReturnCode addRoute4(const Ipv4UcastKey& key, bool useSwapArea);
   RouteReturnCode addRoute6(const Ipv6UcastKey& key, bool useSwapArea);
   RouteReturnCode addMroute4(const IpMcastPrefixKey& key, bool useSwapArea);
   RouteReturnCode deleteRoute4(const Ipv4UcastKey& key, bool merge, uint64_t sequence);
   RouteReturnCode deleteRoute6(const Ipv6UcastKey& key);
   RouteReturnCode deleteMroute4(const IpMcastPrefixKey& key);
   void mergeRoute4(const Ipv4UcastKey& key, uint32_t pos, uint32_t halfFullPos, uint64_t sequence);
   uint32_t verifyRoute4(const Ipv4UcastKey& key) const;
   Ipv4UcastKey pairedKey(const Ipv4UcastKey& key, uint32_t pos, uint32_t otherPos) const;
   bool rightKey(const Ipv4UcastKey& key, uint32_t pos) const;
   uint32_t getKeyV4ToEntryId(const Ipv4UcastKey& key) const;
   RouteType v6RouteTypeFromKey(const Ipv6UcastKey& key) const;
   // The show output of the table that holds the routes of `vrf`.
   void showSoftwareTcamTable(VrfId vrf, int fd, bool detail) const;

 private:
   // Keeps ctx (writing the in-place attributes) or replaces it, as described at the top.
   static void contextIs(const char* name, Ulo::Ptr<L3TcamManagerContext>& ctx,
                         const L3TcamManagerContext::Config& config);

   Ulo::Ptr<L3TcamManagerContext> tcamManagerCtx_;
   Ulo::Ptr<L3TcamManagerContext> tcamManagerLowCtx_;
   VrfId lowCtxVrfId_ = VrfId::invalidVrfId();
};

}  // namespace VexloL3Common
