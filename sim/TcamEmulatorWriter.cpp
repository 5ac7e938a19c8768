// TcamEmulator: the writer role, carrying out the moves and merges the model publishes, and the
// errors it records.
#include <string_view>
#include <type_traits>

#include "platform/Assert.h"
#include "platform/Trace.h"
#include "sim/TcamEmulator.h"
#include "sim/TcamEmulatorCells.h"

namespace VexloL3Common::sim {

using namespace internal;

namespace {

Ulo::TraceHandle th("TcamEmulator");

constexpr const char* writerErrorText = "TcamEmulator: writer error";
constexpr const char* inconsistentText = "TcamEmulator: table inconsistent";

}  // namespace

// ---- writer role ------------------------------------------------------------------------------

void TcamEmulator::attach(RouteMove& move, RouteMove& moveStatus, RouteMerge& merge,
                          RouteMerge& mergeStatus) {
   detach();
   moveStatus_ = &moveStatus;
   mergeStatus_ = &mergeStatus;
   moveSub_ = move.changed().subscribe([this](const RoutePosition& p) { onMove(p); });
   mergeSub_ = merge.changed().subscribe([this](const RouteMergeInfo& m) { onMerge(m); });
}

void TcamEmulator::detach() {
   moveSub_.reset();
   mergeSub_.reset();
   moveStatus_ = nullptr;
   mergeStatus_ = nullptr;
}

// Every route a publication names is checked afterwards, whatever the writer made of it. A move
// or merge carried out marks its routes by changing their entries; one that a faulty writer drops
// changes none, so the routes the record names are marked here.
void TcamEmulator::onMove(const RoutePosition& p) {
   const bool faulty = faultDue(false, &p);
   if (faulty) {
      touchKeysAt(p.oldRouteId);
      noteFaultRoutes(p.oldRouteId, std::nullopt);
   }
   if (faulty && fault_ != WriterFault::wrongAck) {
      applyFaultyMove(p);
   } else {
      applyMove(p);
   }
   if (acknowledges_)
      moveStatus_->posIs(faulty && fault_ == WriterFault::wrongAck ? lastMoveAck_ : p);
   lastMoveAck_ = p;
}

void TcamEmulator::onMerge(const RouteMergeInfo& m) {
   const bool faulty = faultDue(true, nullptr);
   if (faulty) {
      touchKeysAt(m.srcRouteId);  // both halves: harmless
      noteFaultRoutes(m.srcRouteId, m.srcRouteType);
   }
   if (faulty && fault_ != WriterFault::wrongAck) {
      applyFaultyMerge(m);
   } else {
      applyMerge(m);
   }
   if (acknowledges_)
      mergeStatus_->mergeIs(faulty && fault_ == WriterFault::wrongAck ? lastMergeAck_ : m);
   lastMergeAck_ = m;
}

void TcamEmulator::touchKeysAt(uint32_t pos) {
   if (pos == 0 || pos >= size()) return;
   index_->forHeld(index_->cells[pos], pos,
                   [&](auto& idx, uint32_t id, uint32_t, unsigned) { idx.markDirty(id); });
}

bool TcamEmulator::posValid(uint32_t pos, bool doubleSize) const {
   if (pos == 0 || pos >= size()) return false;
   return !doubleSize || (pairGap_ != 0 && pairGap_ < size() && pos < size() - pairGap_);
}

uint32_t TcamEmulator::rankOf(uint32_t pos, EntryKind kind) const {
   return kind == EntryKind::v6Single ? size() + pos : pos;
}

void TcamEmulator::applyMove(const RoutePosition& p) {
   TRACE(th, 6, "move ", p);
   const uint32_t src = p.oldRouteId;
   const uint32_t dst = p.newRouteId;
   auto fail = [&](std::string_view why) {
      report(writerErrorText, fmt::format("move {}: {}", p, why));
   };
   if (!posValid(src, false) || !posValid(dst, false)) return fail("position outside the table");
   Index& ix = *index_;
   const Cell from = ix.cells[src];
   bool matches = false;
   if (p.v4) {
      bool right = Cell::isKey(from.ids[0]), left = Cell::isKey(from.ids[1]);
      matches = from.kind == EntryKind::v4 && ((p.type == EntryType::v4Right && right && !left) ||
                                               (p.type == EntryType::v4Left && left && !right) ||
                                               (p.type == EntryType::v4Both && left && right));
   } else if (p.type == EntryType::v6) {
      matches = from.kind == EntryKind::v6Single || from.kind == EntryKind::v6DoubleFirst;
   } else if (p.type == EntryType::mcastV4) {
      matches = from.kind == EntryKind::mcast;
   }
   if (!matches) return fail(fmt::format("the source holds {}", ix.entryAt(src)));
   // An IPv6 route takes the size of the region it lands in when the writer knows the regions.
   EntryKind toKind = from.kind;
   if (p.type == EntryType::v6 && doubleSizeAt_) {
      toKind = doubleSizeAt_(dst) ? EntryKind::v6DoubleFirst : EntryKind::v6Single;
   }
   if (toKind == EntryKind::v6DoubleFirst && !posValid(dst, true)) {
      return fail("the destination's partner lies outside the table");
   }
   // A stale copy means the model and the hardware disagree about where a route lives.
   const uint32_t srcRank = rankOf(src, from.kind);
   // The destination lies elsewhere in memory: ask for it before waiting on the key states.
   __builtin_prefetch(&ix.cells[dst]);
   bool isStale = false;
   ix.forHeld(from, src, [&](auto& idx, uint32_t id, uint32_t, unsigned) {
      const auto& s = idx.slots[id];
      if (s.node) __builtin_prefetch(&idx.nodes[s.node]);
      isStale |= s.homeRank != srcRank;  // 0 when not installed
   });
   if (isStale) {
      std::string stale;
      ix.forHeld(from, src, [&](auto& idx, uint32_t id, uint32_t, unsigned) {
         const auto& s = idx.slots[id];
         if (!s.installed()) {
            stale += fmt::format(" {} is not installed;", s.key);
         } else if (s.homeRank != srcRank) {
            using Key = typename std::decay_t<decltype(idx)>::KeyType;
            stale += fmt::format(" {} lives at {};", s.key, where<Key>(s.homeRank, size()));
         }
      });
      return fail(fmt::format("the source holds a stale copy:{}", stale));
   }

   if (toKind == from.kind && toKind != EntryKind::v6DoubleFirst &&
       ix.cells[dst].kind == EntryKind::empty && src != dst) {
      relocate(src, dst);
      ++moves_;
      afterChange();
      return;
   }
   TcamEntry to = ix.entryAt(src);
   to.kind = toKind;
   store(dst, to, &from.ids);
   const uint32_t dstRank = rankOf(dst, toKind);
   ix.forHeld(from, src, [&](auto& idx, uint32_t id, uint32_t, unsigned) {
      if (idx.slots[id].homeRank == srcRank) idx.homeIs(id, dstRank);
   });
   // The contents now belong at the destination: the source is invalidated, so that a route
   // moved out of an entry that nothing reuses cannot outlive its deletion there.
   if (ix.cells[src] == from) vacate(src);
   ++moves_;
   afterChange();
}

void TcamEmulator::applyMerge(const RouteMergeInfo& m) {
   TRACE(th, 6, "merge ", m);
   auto fail = [&](std::string_view why) {
      report(writerErrorText, fmt::format("merge {}: {}", m, why));
   };
   auto isHalf = [](EntryType t) { return t == EntryType::v4Left || t == EntryType::v4Right; };
   if (!posValid(m.srcRouteId, false) || !posValid(m.dstRouteId, false)) {
      return fail("position outside the table");
   }
   if (m.srcRouteId == m.dstRouteId) return fail("source and destination are the same entry");
   if (!isHalf(m.srcRouteType) || !isHalf(m.dstRouteType)) return fail("not a half of an entry");
   Index& ix = *index_;
   const Cell& from = ix.cells[m.srcRouteId];
   const uint32_t id = from.ids[m.srcRouteType == EntryType::v4Left];
   if (from.kind != EntryKind::v4 || !Cell::isKey(id)) {
      return fail(
          fmt::format("the source half is empty; the source holds {}", ix.entryAt(m.srcRouteId)));
   }
   const Cell& to = ix.cells[m.dstRouteId];
   const unsigned half = m.dstRouteType == EntryType::v4Left;
   if (to.kind != EntryKind::v4 || Cell::isKey(to.ids[half])) {
      return fail(fmt::format("the destination half is not free; the destination holds {}",
                              ix.entryAt(m.dstRouteId)));
   }
   if (ix.v4.slots[id].homeRank != m.srcRouteId) {
      return fail(fmt::format("the source half holds a stale copy of {}", ix.v4.slots[id].key));
   }
   Held ids = to.ids;
   ids[half] = id;
   setCell(m.dstRouteId, EntryKind::v4, ids);
   ix.v4.homeIs(id, m.dstRouteId);
   pendingMergeSources_.push_back(m.srcRouteId);
   ++merges_;
   afterChange();
}

void TcamEmulator::afterChange() {
   if (!checkEveryMove_) return;
   for (auto& v : checkChanged(true))
      report(inconsistentText, std::move(v.message));
}

void TcamEmulator::report(const char* text, std::string message) {
   ++errorCount_;
   TRACE(th, 1, text, ": ", message);
   if (errors_.size() < maxKeptErrors) errors_.push_back(message);
   if (onError_ == OnError::fatal) Ulo::assertFailed(text, message, __FILE__, __LINE__);
}

void TcamEmulator::errorsDelAll() {
   errorCount_ = 0;
   errors_.clear();
}

}  // namespace VexloL3Common::sim
