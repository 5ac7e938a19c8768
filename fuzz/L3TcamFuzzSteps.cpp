// The fuzz target's operations: route adds and deletes with their checks, fills and drains,
// border moves, uRPF switches, restarts and re-adds.
#include <algorithm>
#include <stdexcept>
#include <utility>

#include "fuzz/L3TcamFuzzRun.h"
#include "platform/Assert.h"
#include "sim/TcamImage.h"

namespace VexloL3Common::fuzz {

Run::Run(const Layout& l)
    : layout_(l), segmentSecurity_(std::make_shared<Ulo::SegmentSecurityStatus>()) {
   segmentSecurity_->enabledIs(l.urpf);
   layout_.unicast.segmentSecurityStatus = segmentSecurity_;
   uc_ = unicastTable(l.urpf);
   if (l.sharedRegions) shared_ = shareRegions();
   if (l.hasMcast) mc_ = mcastTable();
}

bool Run::add4(const Ipv4UcastKey& key, bool useSwapArea) {
   if (in4_.has(key)) return false;
   const RouteReturnCode rc = ctx().addRoute4(key, useSwapArea);
   if (rc.routeId)
      emu().writeV4(rc.routeId, ctx().v4()->keys(rc.routeId));
   else
      refusedWithRoomIsAnError(RouteType::v4, useSwapArea);
   VEXLO_ASSERT_MSG(!rc.routeId || ctx().rightKey(key, rc.routeId) == rc.tcamV4RightKey,
                    "fuzz: IPv4 half as the add said", key, " at ", rc.routeId);
   VEXLO_ASSERT_MSG(ctx().verifyRoute4(key) == rc.routeId, "fuzz: the route verifies", key);
   return added(key, rc, 0);
}

bool Run::add6(uint16_t x, bool useSwapArea) {
   // A length the layout has no entries for is a broken caller: take /64 instead, or nothing.
   uint32_t len = len6Of(x);
   if (!uc_->v6Placeable(len)) len = 64;
   if (!uc_->v6Placeable(len)) return false;
   const Ipv6UcastKey key = key6(x, len);
   if (in6_.has(key)) return false;
   const RouteReturnCode rc = ctx().addRoute6(key, useSwapArea);
   if (rc.routeId)
      emu().writeV6(rc.routeId, key, uc_->doubleSizeAt(rc.routeId));
   else
      refusedWithRoomIsAnError(RouteType::v6Full, useSwapArea);
   return added(key, rc, 1);
}

bool Run::addMcast(const IpMcastPrefixKey& key) {
   if (inM_.has(key)) return false;
   const RouteReturnCode rc = mc_->ctx().addMroute4(key, false);
   if (rc.routeId) mc_->emu()->writeMcast(rc.routeId, key);
   return added(key, rc, 2);
}

template <class Key>
bool Run::added(const Key& key, const RouteReturnCode& rc, size_t family) {
   tableOf(key).noteTouched(rc.routeId);
   if (rc.routeId) shadow(key).add(key);
   ++(rc.routeId ? tally_.placed : tally_.refused)[family];
   checkRoute(key, rc.routeId);
   return rc.routeId != 0;
}

void Run::del4(Ipv4UcastKey key, bool mergeAtOnce) {
   const uint64_t seq = ++sequence_;
   const RouteReturnCode rc = ctx().deleteRoute4(key, mergeAtOnce, seq);
   uc_->noteTouched(rc.routeId);
   in4_.remove(key);
   uc_->rewriteV4(rc.routeId);
   if (rc.canMerge) {
      // The model is consistent again only once the caller has merged.
      VEXLO_ASSERT_MSG(!mergeAtOnce && rc.mergePos && rc.mergePos != rc.routeId,
                       "fuzz: a merge offered only when not made", key, " ", rc.toString());
      ctx().mergeRoute4(key, rc.routeId, rc.mergePos, seq);
      ++tally_.mergedAfterwards;
      uc_->rewriteV4(rc.routeId);
   }
   VEXLO_ASSERT_MSG(ctx().verifyRoute4(key) == 0, "fuzz: the route verifies", key);
   checkRoute(key, 0);
}

void Run::del6(Ipv6UcastKey key) {
   const uint32_t pos = ctx().deleteRoute6(key).routeId;
   uc_->noteTouched(pos);
   emu().clear(pos);
   in6_.remove(key);
   checkRoute(key, 0);
}

void Run::delMcast(IpMcastPrefixKey key) {
   const uint32_t pos = mc_->ctx().deleteMroute4(key).routeId;
   mc_->noteTouched(pos);
   mc_->emu()->clear(pos);
   inM_.remove(key);
   checkRoute(key, 0);
}

template <class Key>
void Run::checkRoute(const Key& key, uint32_t pos) {
   sim::EmulatedTable& t = tableOf(key);
   const bool thorough = afterStep(t);
   VEXLO_ASSERT_MSG(modelPos(key) == pos && t.emu()->home(key) == pos,
                    "fuzz: route where the operation said", key, " at ", pos, ", model ",
                    modelPos(key), ", hardware ", t.emu()->home(key));
   if (thorough) probe(key);
}

void Run::refusedWithRoomIsAnError(RouteType t, bool useSwapArea) {
   const L3TcamManagerContext& c = ctx();
   if (!c.borderMoves()) return;
   const uint32_t free = c.entriesFree(t), reserve = c.swapAreaSize(t);
   const uint32_t pairs = t == RouteType::v4 ? 0 : freePairs(c);
   VEXLO_ASSERT_MSG(
       t == RouteType::v4 ? free <= reserve : pairs == 0 || (!useSwapArea && free <= reserve),
       "fuzz: refused with room in its partition", toString(t), ", free ", free, " entries, ",
       pairs, " pairs, reserve ", reserve, ", may use it ", useSwapArea);
}

uint32_t Run::freePairs(const L3TcamManagerContext& c) {
   const TcamBlock* full = c.block(RouteType::v6Full).get();
   if (!full || !full->isValid()) return 0;
   const uint32_t first = c.physicalBoundToPair(full->start());
   const uint32_t last = c.physicalBoundToPair(full->end());
   return last - first + 1 - c.bitmapPair()->count(first, last);
}

void Run::fill(uint8_t op, uint8_t count, uint8_t seed, uint8_t shape) {
   if (op == 10 && !mc_) return;
   const uint64_t base = uint64_t(seed) << 32 | uint64_t(++fills_) << 8 | op;
   const uint32_t lenIndex = shape & 7;  // 0: from the key bits
   const bool useSwapArea = shape & 8, oneVrf = shape & 16;
   uint32_t refusedInARow = 0;
   for (uint32_t j = 0; j <= count && steps_ < maxSteps && refusedInARow < 8; ++j) {
      uint16_t x = uint16_t(mix(base + (uint64_t(j) << 40)));
      if (oneVrf) x &= uint16_t(~1u);
      const bool v6 = op == 6 || (op == 15 && j % 2 == 1);
      if (lenIndex && v6)
         x = uint16_t((x & ~(15u << 1)) | ((lenIndex - 1) * 2 + (x >> 1 & 1)) << 1);
      else if (lenIndex)
         x = uint16_t((x & ~(7u << 1)) | (lenIndex - 1) << 1);
      bool placed = false;
      if (v6) {
         placed = add6(x, useSwapArea);
      } else if (op == 10) {
         if (inM_.has(keyMcast(x))) continue;
         placed = addMcast(keyMcast(x));
      } else {
         if (in4_.has(key4(x))) continue;
         placed = add4(key4(x), useSwapArea);
      }
      refusedInARow = placed ? 0 : refusedInARow + 1;
   }
}

void Run::drain(uint8_t count, uint8_t seed, uint32_t which) {
   for (uint32_t j = 0; j <= count && steps_ < maxSteps; ++j) {
      const uint32_t r = uint32_t(mix(uint64_t(seed) << 32 | j));
      uint32_t family = which;
      if (family == 3) family = (in6_.size() && (r & 1)) || !in4_.size() ? 1 : 0;
      if (family == 0 && in4_.size()) {
         del4(in4_.pick(r >> 1), r & 0x100);
      } else if (family == 1 && in6_.size()) {
         del6(in6_.pick(r >> 1));
      } else if (family == 2 && mc_ && inM_.size()) {
         delMcast(inM_.pick(r >> 1));
      } else {
         return;
      }
   }
}

void Run::moveBorder(uint8_t sel) {
   L3TcamManagerContext& c = ctx();
   if (!c.borderMoves() || c.lpmPairGap() == 0) return;
   const uint32_t step = 2 * c.lpmPairGap();
   // One step past the last possible border, which must be refused.
   const uint32_t border = (sel & 0x7f) % (c.effectiveSize() / step + 2) * step;
   const uint32_t before = c.v4V6Border();
   const uint64_t reallocations = c.stats()->reallocation();
   const uint32_t used4 = c.entries(RouteType::v4), usedFull = c.entries(RouteType::v6Full);
   const uint64_t moves = emu().moves();
   const bool moved = c.reallocate(border, sel & 0x80);
   ++(moved ? tally_.borderMoves : tally_.borderRefusals);
   charge(moved ? layoutChangeCost() : 1);
   check(*uc_, true);
   VEXLO_ASSERT_MSG(c.v4V6Border() == (moved ? border : before) &&
                        c.v6()->tcamBorder() == c.v4V6Border() &&
                        c.stats()->reallocation() == reallocations + (moved ? 1 : 0),
                    "fuzz: the border is where the reallocation said", "asked ", border, ", was ",
                    before, ", is ", c.v4V6Border(), ", done ", moved);
   VEXLO_ASSERT_MSG((moved || emu().moves() == moves) && c.entries(RouteType::v4) == used4 &&
                        c.entries(RouteType::v6Full) == usedFull,
                    "fuzz: a reallocation keeps every route, a refused one moves nothing",
                    "border ", border, ", moves ", emu().moves() - moves);
   if (moved) fullCheck();
}

void Run::switchUrpf(bool drainFirst) {
   L3TcamManagerContext& c = ctx();
   const bool enable = !c.urpfEnabled();
   // uRPF needs mode 2 or 4 and no fallback VRF; fixed pairing borders refuse it (range error).
   if (enable && (c.tcamMode() % 2 == 1 || c.fallbackVrfId() != VrfId::invalidVrfId())) return;
   while (drainFirst && steps_ < maxSteps && in4_.size() + in6_.size()) {
      if (in4_.size())
         del4(in4_.keys.back(), true);
      else
         del6(in6_.keys.back());
   }
   const bool empty = in4_.size() + in6_.size() == 0;
   segmentSecurity_->enabledIs(enable);
   bool switched = false, refused = false;
   try {
      switched = c.handleUrpf(enable);
   } catch (const std::range_error&) {
      refused = true;
   }
   if (!switched) segmentSecurity_->enabledIs(!enable);
   VEXLO_ASSERT_MSG(switched == (empty && !refused) && c.urpfEnabled() == (enable == switched),
                    "fuzz: uRPF switches exactly on an empty table", "enable ", enable, ", empty ",
                    empty, ", refused ", refused, ", switched ", switched);
   ++(switched ? tally_.urpfSwitches : tally_.urpfRefusals);
   if (switched && shared_) shared_ = shareRegions();
   charge(switched ? layoutChangeCost() : 1);
   check(*uc_, true);
}

void Run::restartUnicast(uint8_t how) {
   // Entry by entry only where a fresh context already has the border the image needs.
   const bool entryByEntry = (how & 4) && !ctx().borderMoves();
   std::unique_ptr<sim::EmulatedTable> next = unicastTable(ctx().urpfEnabled());
   // The platform that reshaped the layout before does so again before the rebuild.
   if (shared_) next->shareRegions(ctx().v6()->tcamBorder());
   // Once placed entry by entry, the model's empty halves may name another VRF than the
   // hardware's (which keeps what was written before the restart), for good.
   emptyHalvesMayDiffer_ = emptyHalvesMayDiffer_ || entryByEntry;
   restart(uc_, std::move(next), entryByEntry, how, ctx().v4V6Border(), emptyHalvesMayDiffer_);
}

void Run::restart(std::unique_ptr<sim::EmulatedTable>& t, std::unique_ptr<sim::EmulatedTable> next,
                  bool entryByEntry, uint8_t how, std::optional<uint32_t> border,
                  bool anyEmptyHalf) {
   const std::vector<TcamHardwareEntry> image = sim::imageOf(*t->emu());
   if (entryByEntry)
      placeAtIndex(next->ctx(), image, how >> 3);
   else
      next->ctx().rebuildFromHardware(image, border);
   sameModel(t->ctx(), next->ctx(), anyEmptyHalf);
   install(*t->emu(), *next->emu());
   t = std::move(next);
   ++tally_.restarts;
   charge(layoutChangeCost());
   fullCheck();
}

void Run::reAdd(uint16_t sel, bool v6) {
   L3TcamManagerContext& c = ctx();
   if (!c.reAddAllowed() || (v6 ? in6_.size() : in4_.size()) == 0) return;
   const uint64_t moves = emu().moves() + emu().merges();
   if (v6) {
      const Ipv6UcastKey& key = in6_.pick(sel);
      const uint32_t pos = modelPos(key);
      VEXLO_ASSERT_MSG(c.addRoute6(key, false).routeId == pos, "fuzz: re-add reports the entry",
                       key, " at ", pos);
   } else {
      const Ipv4UcastKey& key = in4_.pick(sel);
      const uint32_t pos = modelPos(key);
      const RouteReturnCode rc = c.addRoute4(key, false);
      VEXLO_ASSERT_MSG(rc.routeId == pos && rc.tcamV4RightKey == c.rightKey(key, pos),
                       "fuzz: re-add reports the entry", key, " at ", pos, ": ", rc.toString());
   }
   afterStep(*uc_);
   VEXLO_ASSERT_MSG(emu().moves() + emu().merges() == moves, "fuzz: re-add moves nothing", "");
}

void Run::rebalance(uint32_t maxMoves) {
   const uint64_t before = emu().moves();
   const uint64_t made = ctx().rebalance(maxMoves);
   VEXLO_ASSERT_MSG(made <= maxMoves && emu().moves() - before == made,
                    "fuzz: rebalance makes the moves it reports, at most those it is given", made,
                    " moves reported, ", emu().moves() - before, " carried out, ", maxMoves,
                    " allowed");
   ++tally_.rebalances;
   tally_.rebalanceMoves += made;
   charge(layoutChangeCost());
   fullCheck();
}

bool Run::shareRegions() {
   L3TcamManagerContext& c = ctx();
   const uint32_t eff = c.effectiveSize(), g = c.lpmPairGap();
   if (g == 0 || eff % (4 * g) != 0) return false;
   uc_->shareRegions(eff / 2);
   c.verify();
   return true;
}

std::unique_ptr<sim::EmulatedTable> Run::unicastTable(bool urpf) const {
   const uint8_t invalid = layout_.invalidEntries;
   return crossChecked(std::make_unique<sim::EmulatedTable>(
       layout_.unicast, urpf, /*emulate*/ true, [invalid](L3TcamManagerContext& c) {
          if (invalid & 15) c.invalidEntryManagerIs(std::make_shared<InvalidEntries>(invalid));
       }));
}

std::unique_ptr<sim::EmulatedTable> Run::mcastTable() const {
   return crossChecked(std::make_unique<sim::EmulatedTable>(layout_.mcast, false, true));
}

std::unique_ptr<sim::EmulatedTable> Run::crossChecked(std::unique_ptr<sim::EmulatedTable> t) {
   t->emu()->modelViewIs(t->modelView());
   t->trackTouchedIs(true);
   return t;
}

}  // namespace VexloL3Common::fuzz
