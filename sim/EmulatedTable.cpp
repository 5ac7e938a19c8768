#include "sim/EmulatedTable.h"

#include <string>

#include "platform/RoutingStatus.h"

namespace VexloL3Common::sim {

EmulatedTable::EmulatedTable(L3TcamManagerContext::Config cfg, bool urpf, bool emulate,
                             const std::function<void(L3TcamManagerContext&)>& beforeInit)
    : move_(routeMoveFactory()),
      moveStatus_(routeMoveFactory()),
      merge_(routeMergeFactory()),
      mergeStatus_(routeMergeFactory()),
      routing_(std::make_shared<Ulo::RoutingStatus>()) {
   routing_->urpfEnabledIs(urpf);
   cfg.globalRoutingStatus = routing_;
   cfg.routeMove = move_;
   cfg.routeMoveStatus = moveStatus_;
   cfg.routeMerge = merge_;
   cfg.routeMergeStatus = mergeStatus_;
   ctx_ = l3TcamManagerContextFactory(cfg);
   if (beforeInit) beforeInit(*ctx_);
   ctx_->handleInitialized(true);
   if (emulate) {
      // A gap that reaches past the table pairs nothing.
      const uint32_t gap = ctx_->lpmPairGap() < cfg.tcamSize ? ctx_->lpmPairGap() : 0;
      emu_ = std::make_unique<TcamEmulator>(cfg.tcamSize, gap);
      emu_->attach(*move_, *moveStatus_, *merge_, *mergeStatus_);
      emu_->doubleSizeAtIs([this](uint32_t pos) { return doubleSizeAt(pos); });
   } else {
      ackMove_ =
          move_->changed().subscribe([this](const RoutePosition& p) { moveStatus_->posIs(p); });
      ackMerge_ = merge_->changed().subscribe(
          [this](const RouteMergeInfo& m) { mergeStatus_->mergeIs(m); });
   }
}

// The model's own records, read without tracing: the emulator asks after every move.
ModelView EmulatedTable::modelView() const {
   const L3TcamManagerContext* c = ctx_.get();
   ModelView v;
   v.v4 = [c](const Ipv4UcastKey& k) {
      const V4PrefixToEntryIdMap* r = c->v4() ? c->v4()->keyToEntryId(k) : nullptr;
      if (!r || r->entryIdCount() == 0) return ModelPlace{};
      const uint32_t pos = r->firstEntryId();
      return ModelPlace{pos, c->v4()->keys(pos).right == k};
   };
   v.v6 = [c](const Ipv6UcastKey& k) { return c->v6() ? c->v6()->keyToEntryIdFirst(k) : 0; };
   v.mcast = [c](const IpMcastPrefixKey& k) { return c->mcastV4() ? c->mcastV4()->entryId(k) : 0; };
   v.routes = [c] {
      return (c->v4() ? c->v4()->keyToEntryIdSize() : 0) +
             (c->v6() ? c->v6()->keyToEntryIdSize() : 0) +
             (c->mcastV4() ? c->mcastV4()->entryIdSize() : 0);
   };
   return v;
}

void EmulatedTable::trackTouchedIs(bool on) {
   tracking_ = on;
   touched_.clear();
   if (!on) {
      touchMove_.reset();
      touchMerge_.reset();
      return;
   }
   touchMove_ = move_->changed().subscribe([this](const RoutePosition& p) {
      touched_.push_back(p.oldRouteId);
      touched_.push_back(p.newRouteId);
   });
   touchMerge_ = merge_->changed().subscribe([this](const RouteMergeInfo& m) {
      touched_.push_back(m.srcRouteId);
      touched_.push_back(m.dstRouteId);
   });
}

EmulatedTable::~EmulatedTable() {
   if (emu_) emu_->detach();
}

void EmulatedTable::shareRegions(uint32_t border) {
   L3TcamManagerContext& c = ctx();
   const uint32_t eff = c.effectiveSize();
   auto half = std::make_shared<TcamBlock>(0, 64);
   half->startIs(border);
   half->endIs(eff - 1);
   half->bitmapIs(0, eff, false);
   // The conversion ladder moves routes of any length up to /64 into double-size entries.
   auto full = std::make_shared<TcamBlock>(0, 128);
   full->startIs(1);
   full->endIs(border - 1);
   full->bitmapIs(0, eff / 2, false);
   c.block(RouteType::v4)->startIs(1);
   c.blockIs(RouteType::v6Half, half);
   c.blockIs(RouteType::v6Full, full);
   c.v6()->tcamBorderIs(border);
}

bool EmulatedTable::doubleSizeAt(uint32_t pos) const {
   return ctx_->supportsDefipPairing() && ctx_->v6() &&
          ctx_->v6()->v6RouteTypeFromPos(pos) == RouteType::v6Full;
}

bool EmulatedTable::v6Placeable(uint32_t len) const {
   if (ctx_->supportsDefipPairing()) return true;
   const Ulo::Ptr<TcamBlock>& half = ctx_->block(RouteType::v6Half);
   return half && half->end() != 0 && len <= half->prefixLenMax();
}

bool EmulatedTable::add(const Route& r) {
   switch (r.family) {
      case Route::Family::v4: {
         const uint32_t pos = ctx_->addRoute4(r.v4, false).routeId;
         noteTouched(pos);
         if (pos && emu_) emu_->writeV4(pos, ctx_->v4()->keys(pos));
         return pos != 0;
      }
      case Route::Family::v6: {
         if (!v6Placeable(r.v6.len())) return false;
         const uint32_t pos = ctx_->addRoute6(r.v6, false).routeId;
         noteTouched(pos);
         if (pos && emu_) emu_->writeV6(pos, r.v6, doubleSizeAt(pos));
         return pos != 0;
      }
      case Route::Family::mcast: {
         const uint32_t pos = ctx_->addMroute4(r.mcast, false).routeId;
         noteTouched(pos);
         if (pos && emu_) emu_->writeMcast(pos, r.mcast);
         return pos != 0;
      }
   }
   return false;
}

void EmulatedTable::del(const Route& r) {
   switch (r.family) {
      case Route::Family::v4:
         // Merged at once, as an agent that is not batching does; then the entry the delete
         // names is rewritten with what it still holds.
         {
            const uint32_t pos = ctx_->deleteRoute4(r.v4, /*merge*/ true, ++sequence_).routeId;
            noteTouched(pos);
            rewriteV4(pos);
            return;
         }
      case Route::Family::v6: {
         const uint32_t pos = ctx_->deleteRoute6(r.v6).routeId;
         noteTouched(pos);
         if (emu_) emu_->clear(pos);
         return;
      }
      case Route::Family::mcast: {
         const uint32_t pos = ctx_->deleteMroute4(r.mcast).routeId;
         noteTouched(pos);
         if (emu_) emu_->clear(pos);
         return;
      }
   }
}

void EmulatedTable::rewriteV4(uint32_t pos) {
   if (!emu_ || pos == 0) return;
   if (ctx_->v4()->keysHas(pos)) {
      emu_->writeV4(pos, ctx_->v4()->keys(pos));
   } else {
      emu_->clear(pos);
   }
}

uint64_t EmulatedTable::moves() const {
   uint64_t n = 0;
   for (RouteType t : allRouteTypes)
      n += ctx_->stats()->moveRoute(t);
   return n;
}

uint64_t EmulatedTable::merges() const {
   return ctx_->stats()->mergeRoute(RouteType::v4);
}

uint32_t EmulatedTable::usedEntries() const {
   const L3TcamManagerContext& c = *ctx_;
   if (c.v4Mcast()) return c.entries(RouteType::v4Mcast);
   return c.entries(RouteType::v4) + c.entries(RouteType::v6Half) +
          2 * c.entries(RouteType::v6Full);
}

}  // namespace VexloL3Common::sim
