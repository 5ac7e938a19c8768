// The TCAM manager facade, and the context's uRPF switch and IPv4 lookups that it forwards.
#include "VexloL3Common/tcam/L3TcamManager.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("VexloL3CommonTcamTable");

using Config = L3TcamManagerContext::Config;

// Set bits of `bm` inside the union of `ranges` (clipped to the map), except at the positions
// skipA and skipB (HBitmap::npos: none).
uint32_t setBitsIn(const HBitmap& bm, const LpmInvalidEntryManager::RangeSet& ranges,
                   uint32_t skipA, uint32_t skipB) {
   if (ranges.empty() || bm.size() == 0) return 0;
   std::vector<InvalidEntryRange> sorted(ranges.begin(), ranges.end());
   std::sort(
       sorted.begin(), sorted.end(),
       [](const InvalidEntryRange& a, const InvalidEntryRange& b) { return a.start < b.start; });
   uint32_t n = 0;
   uint32_t next = 0;  // first index not yet counted
   for (const InvalidEntryRange& r : sorted) {
      const uint32_t start = std::max(r.start, next);
      const uint32_t end = std::min(r.end, bm.size() - 1);
      if (start > end) continue;
      n += bm.count(start, end);
      for (uint32_t s : {skipA, skipB}) {
         if (s >= start && s <= end && bm.isBitSet(s)) --n;
      }
      next = end + 1;
      if (next == bm.size()) break;
   }
   return n;
}

}  // namespace

// ---- L3TcamManager -----------------------------------------------------------------------

void L3TcamManager::contextIs(const char* name, Ulo::Ptr<L3TcamManagerContext>& ctx,
                              const Config& config) {
   if (!config.v4Mcast && config.numUcastDefipBlocks == 0) {
      throw std::range_error("numUcastDefipBlocks must not be 0");
   }
   if (ctx && ctx->config().fixed() == config.fixed()) {
      ctx->inPlaceConfigIs(config.inPlace());
      TRACE(th, 1, name, " context kept, tcamMode: ", config.tcamMode,
            ", numUcastDefipBlocks: ", config.numUcastDefipBlocks, ", pairGap: ", config.pairGap,
            ", requestedTableMode: ", config.requestedTableMode);
      return;
   }
   // Built before the old one is dropped: a configuration the context refuses leaves the old
   // context in place.
   Ulo::Ptr<L3TcamManagerContext> fresh = l3TcamManagerContextFactory(config);
   TRACE(th, 1, name, ctx ? " context replaced" : " context created",
         ", TcamSize: ", config.tcamSize, ", tcamMode: ", config.tcamMode);
   ctx = std::move(fresh);
}

void L3TcamManager::tcamManagerCtxIs(const Config& config) {
   contextIs("tcamManagerCtxIs", tcamManagerCtx_, config);
}

void L3TcamManager::tcamManagerLowCtxIs(const Config& config) {
   contextIs("tcamManagerLowCtxIs", tcamManagerLowCtx_, config);
}

void L3TcamManager::tcamManagerLowCtxIs(
    uint32_t tcamSize, uint32_t tcamMode, bool twoV4RoutesPerEntry, bool supportsDefipPairing,
    bool dynamicV4V6Boundary, uint8_t numUcastDefipBlocks, uint32_t pairGap,
    Ulo::Ptr<const Ulo::RoutingStatus> globalRoutingStatus, uint32_t requestedTableMode,
    uint32_t currentTableMode, bool reAddAllowed, VrfId fallbackVrfId, uint32_t platformType,
    Ulo::Ptr<const Ulo::SegmentSecurityStatus> segmentSecurityStatus, Ulo::Ptr<RouteMove> routeMove,
    Ulo::Ptr<const RouteMove> routeMoveStatus, Ulo::Ptr<RouteMerge> routeMerge,
    Ulo::Ptr<const RouteMerge> routeMergeStatus, uint32_t invalidEntryManagerType, bool v4Mcast,
    bool softwareOnly, bool v4V6InterleavingDisabled) {
   tcamManagerLowCtxIs(
       Config(tcamSize, tcamMode, twoV4RoutesPerEntry, supportsDefipPairing, dynamicV4V6Boundary,
              numUcastDefipBlocks, pairGap, std::move(globalRoutingStatus), requestedTableMode,
              currentTableMode, reAddAllowed, fallbackVrfId, platformType,
              std::move(segmentSecurityStatus), std::move(routeMove), std::move(routeMoveStatus),
              std::move(routeMerge), std::move(routeMergeStatus), invalidEntryManagerType, v4Mcast,
              softwareOnly, v4V6InterleavingDisabled));
}

Ulo::Ptr<L3TcamManagerContext> L3TcamManager::selectTcamManagerCtx(VrfId vrf) const {
   if (lowCtxVrfId_.isValid() && vrf == lowCtxVrfId_) {
      VEXLO_ASSERT_MSG(tcamManagerLowCtx_, "tcamManagerLowCtx()", "no low TCAM context for vrf ",
                       vrf);
      return tcamManagerLowCtx_;
   }
   VEXLO_ASSERT_MSG(tcamManagerCtx_, "tcamManagerCtx()", "no TCAM context for vrf ", vrf);
   return tcamManagerCtx_;
}

RouteReturnCode L3TcamManager::addRoute4(const Ipv4UcastKey& key, bool useSwapArea) {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->addRoute4(key, useSwapArea);
}

RouteReturnCode L3TcamManager::addRoute6(const Ipv6UcastKey& key, bool useSwapArea) {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->addRoute6(key, useSwapArea);
}

RouteReturnCode L3TcamManager::addMroute4(const IpMcastPrefixKey& key, bool useSwapArea) {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->addMroute4(key, useSwapArea);
}

RouteReturnCode L3TcamManager::deleteRoute4(const Ipv4UcastKey& key, bool merge,
                                            uint64_t sequence) {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->deleteRoute4(key, merge, sequence);
}

RouteReturnCode L3TcamManager::deleteRoute6(const Ipv6UcastKey& key) {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->deleteRoute6(key);
}

RouteReturnCode L3TcamManager::deleteMroute4(const IpMcastPrefixKey& key) {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->deleteMroute4(key);
}

void L3TcamManager::mergeRoute4(const Ipv4UcastKey& key, uint32_t pos, uint32_t halfFullPos,
                                uint64_t sequence) {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   ctx->mergeRoute4(key, pos, halfFullPos, sequence);
}

uint32_t L3TcamManager::verifyRoute4(const Ipv4UcastKey& key) const {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->verifyRoute4(key);
}

Ipv4UcastKey L3TcamManager::pairedKey(const Ipv4UcastKey& key, uint32_t pos,
                                      uint32_t otherPos) const {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->pairedKey(key, pos, otherPos);
}

bool L3TcamManager::rightKey(const Ipv4UcastKey& key, uint32_t pos) const {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->rightKey(key, pos);
}

uint32_t L3TcamManager::getKeyV4ToEntryId(const Ipv4UcastKey& key) const {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->getKeyV4ToEntryId(key);
}

RouteType L3TcamManager::v6RouteTypeFromKey(const Ipv6UcastKey& key) const {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(key);
   return ctx->v6RouteTypeFromKey(key);
}

void L3TcamManager::showSoftwareTcamTable(VrfId vrf, int fd, bool detail) const {
   const Ulo::Ptr<L3TcamManagerContext> ctx = selectTcamManagerCtx(vrf);
   ctx->showSoftwareTcamTable(fd, detail);
}

// ---- L3TcamManagerContext: IPv4 lookups ----------------------------------------------------

Ipv4UcastKey L3TcamManagerContext::pairedKey(const Ipv4UcastKey& key, uint32_t pos,
                                             uint32_t otherPos) const {
   VEXLO_ASSERT(v4_, "v4()");
   return v4_->pairedKey(key, pos, otherPos);
}

bool L3TcamManagerContext::rightKey(const Ipv4UcastKey& key, uint32_t pos) const {
   VEXLO_ASSERT(v4_, "v4()");
   return v4_->rightKey(key, pos);
}

uint32_t L3TcamManagerContext::getKeyV4ToEntryId(const Ipv4UcastKey& key) const {
   VEXLO_ASSERT(v4_, "v4()");
   return v4_->getEntryId(key);
}

// ---- L3TcamManagerContext: uRPF --------------------------------------------------------------

bool L3TcamManagerContext::handleUrpf(bool enabled) {
   // The routing state decides whether the layout may change at all; a unicast context is always
   // given one.
   VEXLO_ASSERT(globalRoutingStatus(), "globalRoutingStatus()");
   const Ulo::RoutingStatus& state = *globalRoutingStatus();
   TRACE(th, 1, "handleUrpf", " enabled: ", enabled, " routingState: ", state);
   VEXLO_ASSERT(!v4Mcast(), "!v4Mcast()");
   VEXLO_ASSERT(layoutDone_, "layoutDone()");
   if (enabled) {
      VEXLO_ASSERT(tcamMode() == 2 || tcamMode() == 4, "tcamMode() == 2 || tcamMode() == 4");
   }

   // What the layout set itself (index 0, the pair-gap entry, the invalid entries) is not a
   // route. Each double-size route takes two physical entries in `bitmap`; they are counted
   // once, from the double-size block's own map (the pair map also marks pairs that IPv4 entries
   // hold a part of, where the regions lie side by side).
   const uint32_t g = occupancy_.gap();
   const uint32_t gapEntry = numReservedEntriesInBitmap_ > 1 && g != 0 ? g : HBitmap::npos;
   const uint32_t layoutSingle =
       numReservedEntriesInBitmap_ +
       setBitsIn(*occupancy_.entries(), invalidEntryManager_->invalidEntryRange(), 0, gapEntry);
   VEXLO_ASSERT_MSG(occupancy_.entries()->count() >= layoutSingle, "layout entries in use",
                    "bitmap: ", occupancy_.entries()->count(), "/", layoutSingle);
   const uint32_t pairs = entries(RouteType::v6Full);
   const uint32_t singleEntries = occupancy_.entries()->count() - layoutSingle;
   VEXLO_ASSERT_MSG(singleEntries >= 2 * pairs, "double-size routes hold two entries",
                    "entries: ", singleEntries, ", pairs: ", pairs);
   const uint32_t singles = singleEntries - 2 * pairs;
   if (singles != 0 || pairs != 0) {
      TRACE(th, 1, " tcam table still in use. v4/v6-64: ", singles, " v6Full: ", pairs);
      return false;
   }

   VEXLO_ASSERT(!state.routingEnabled(), "!state.routingEnabled()");
   VEXLO_ASSERT(!state.routing6Enabled(), "!state.routing6Enabled()");
   // No segment-security status means segment security is off.
   const bool segmentSecurity = segmentSecurityStatus() && segmentSecurityStatus()->enabled();
   TRACE(th, 1, " urpfConfiguredOnAnyIntf: ", state.urpfConfiguredOnAnyIntf(),
         " segmentSecurityEnabled: ", segmentSecurity);
   VEXLO_ASSERT((state.urpfConfiguredOnAnyIntf() || segmentSecurity) == enabled,
                "( globalRoutingStatus()->urpfConfiguredOnAnyIntf() || "
                "segmentSecurityStatus()->enabled() ) == enabled");

   doCreateBlocks(enabled);
   urpfEnabled_ = enabled;
   return true;
}

}  // namespace VexloL3Common
