// The placement regions and the occupancy they share (see L3TcamRegion.h).
#include "VexloL3Common/tcam/L3TcamRegion.h"

#include <algorithm>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("VexloL3CommonTcamTable");
constexpr uint32_t npos = HBitmap::npos;
}  // namespace

// ---- TcamOccupancy -----------------------------------------------------------------------

void TcamOccupancy::entriesIs(uint32_t start, uint32_t size, bool initialBitState) {
   if (entries_ && entriesStart_ == start && entries_->size() == size &&
       entries_->initialBitState() == initialBitState) {
      return;
   }
   entries_ = std::make_shared<HBitmap>(size, initialBitState);
   entriesStart_ = start;
}

void TcamOccupancy::pairsIs(uint32_t start, uint32_t size, bool initialBitState) {
   if (pairs_ && pairsStart_ == start && pairs_->size() == size &&
       pairs_->initialBitState() == initialBitState) {
      return;
   }
   pairs_ = std::make_shared<HBitmap>(size, initialBitState);
   pairsStart_ = start;
}

uint32_t TcamOccupancy::pairToPhysical(uint32_t logical) const {
   const uint32_t g = gap_;
   VEXLO_ASSERT_MSG(g != 0, "lpmPairGap()", "pair index ", logical, " without a pair gap");
   return logical + (logical / g) * g;
}

uint32_t TcamOccupancy::physicalToPair(uint32_t physical) const {
   const uint32_t g = gap_;
   VEXLO_ASSERT_MSG(g != 0, "lpmPairGap()", "entry ", physical, " without a pair gap");
   const uint32_t bank = physical / g;
   return (bank / 2) * g + physical % g;
}

uint32_t TcamOccupancy::physicalBoundToPair(uint32_t bound) const {
   const uint32_t g = gap_;
   VEXLO_ASSERT_MSG(g != 0, "lpmPairGap()", "bound ", bound, " without a pair gap");
   const uint32_t k = bound / g;
   return (k % 2) ? bound - (k / 2 + 1) * g : bound - (k / 2) * g;
}

bool TcamOccupancy::pairReserved(uint32_t pair) const {
   if (pair == 0) return true;
   if (!invalid_ || !*invalid_) return false;
   for (const InvalidEntryRange& r : (*invalid_)->invalidEntryRangePair()) {
      if (r.start <= pair && pair <= r.end) return true;
   }
   return false;
}

void TcamOccupancy::update(RouteType t, HBitmap& blockMap, uint32_t used, uint32_t freed) {
   HBitmap& entries = *entries_;
   if (t == RouteType::v6Full) {
      const uint32_t g = gap_;
      if (used) {
         const uint32_t p = pairToPhysical(used);
         pairs_->setBit(used);
         blockMap.setBit(used);
         entries.setBit(p);
         entries.setBit(p + g);
      }
      if (freed) {
         const uint32_t p = pairToPhysical(freed);
         pairs_->clearBit(freed);
         blockMap.clearBit(freed);
         entries.clearBit(p);
         entries.clearBit(p + g);
      }
      return;
   }
   if (used) {
      entries.setBit(used);
      blockMap.setBit(used);
   }
   if (freed) {
      entries.clearBit(freed);
      blockMap.clearBit(freed);
   }
   // Where single entries share the double-size region, a pair is taken as soon as either of
   // its two entries is, so that the pair search never hands out a half-occupied pair.
   const TcamBlock* full = pairing_ && pairBlock_ ? pairBlock_->get() : nullptr;
   if (full && full->isValid()) {
      if (used && used >= full->start() && used <= full->end()) markPair(used);
      if (freed && freed >= full->start() && freed <= full->end()) markPair(freed);
   }
}

void TcamOccupancy::markPair(uint32_t physical) {
   const uint32_t g = gap_;
   const uint32_t pair = physicalToPair(physical);
   const uint32_t first = pairToPhysical(pair);
   if (entries_->isBitSet(first) || entries_->isBitSet(first + g)) {
      pairs_->setBit(pair);
      return;
   }
   // Reserved and invalid pairs stay taken whatever their entries hold.
   if (!pairReserved(pair)) pairs_->clearBit(pair);
}

// ---- TcamRegion --------------------------------------------------------------------------

TcamMapping& TcamRegion::mapping() const {
   VEXLO_ASSERT_MSG(mapping_, "region mapping", "no mapping for type ", type_);
   return *mapping_;
}

IndexRange TcamRegion::relocate(uint32_t len, uint32_t newSlot, uint32_t oldSlot) {
   mapping().move(len, physical(newSlot), physical(oldSlot));
   occupancy_->update(type_, *block_->bitmap(), newSlot, oldSlot);
   const HBitmap& usedMap = used();
   const IndexRange cur = block_->lengthRange(len);
   IndexRange moved;
   if (cur.start() == cur.end()) {
      moved = IndexRange(newSlot, newSlot);
   } else if (oldSlot == cur.start()) {
      const uint32_t newStart = usedMap.findFirstSet(cur.start() + 1, cur.end());
      VEXLO_ASSERT_MSG(newStart != npos, "newStart != npos", "len: ", len, ", ir: ", cur);
      moved = IndexRange(std::min(newStart, newSlot), std::max(cur.end(), newSlot));
   } else if (oldSlot == cur.end()) {
      const uint32_t newEnd = usedMap.findLastSet(cur.start(), cur.end() - 1);
      VEXLO_ASSERT_MSG(newEnd != npos, "newEnd != npos", "len: ", len, ", ir: ", cur);
      moved = IndexRange(std::min(newSlot, cur.start()), std::max(newEnd, newSlot));
   } else {
      moved = IndexRange(std::min(newSlot, cur.start()), std::max(newSlot, cur.end()));
   }
   block_->lengthRangeIs(len, moved);
   TRACE(th, 7, "Table range for prefix length ", len, ": ", moved.start(), "/", moved.end());
   return moved;
}

uint32_t TcamRegion::placeNew(const TcamRoute& route, uint32_t slot, const IndexRange& range) {
   const uint32_t len = route.len();
   occupancy_->update(type_, *block_->bitmap(), slot, 0);
   block_->lengthRangeIs(len, range);
   if (block_->lengthRangeMax() == TcamBlock::none || len > block_->lengthRangeMax()) {
      block_->lengthRangeMaxIs(len);
   }
   TRACE(th, 7, "Table range for prefix length ", len, ": ", range.start(), "/", range.end());
   VEXLO_ASSERT(slot >= range.start(), "freeEntry >= ir.start()");
   VEXLO_ASSERT(slot <= range.end(), "freeEntry <= ir.end()");
   const uint32_t pos = physical(slot);
   mapping().insert(route, pos);
   return pos;
}

void TcamRegion::restore(const TcamRoute& route, uint32_t pos, bool right) {
   const uint32_t s = slot(pos);
   if (mapping().restore(route, pos, right)) occupancy_->update(type_, *block_->bitmap(), s, 0);
   extendRange(route.len(), s);
}

void TcamRegion::extendRange(uint32_t len, uint32_t s) {
   const IndexRange cur = block_->lengthRange(len);
   const IndexRange ir = cur.start() == 0
                             ? IndexRange(s, s)
                             : IndexRange(std::min(cur.start(), s), std::max(cur.end(), s));
   block_->lengthRangeIs(len, ir);
   if (block_->lengthRangeMax() == TcamBlock::none || len > block_->lengthRangeMax()) {
      block_->lengthRangeMaxIs(len);
   }
   TRACE(th, 7, "Table range for prefix length ", len, ": ", ir.start(), "/", ir.end());
}

void TcamRegion::release(uint32_t len, uint32_t s) {
   // The entry is still marked used: the range shrinks to the next used entries beside it.
   shrinkRange(len, s);
   occupancy_->update(type_, *block_->bitmap(), 0, s);
}

void TcamRegion::shrinkRange(uint32_t len, uint32_t oldSlot) {
   TcamBlock& blk = *block_;
   const HBitmap& usedMap = used();
   IndexRange ir = blk.lengthRange(len);
   VEXLO_ASSERT_MSG(ir.start() != 0, "ir.start()", " ir: ", ir);
   if (ir.start() == ir.end()) {
      VEXLO_ASSERT_MSG(ir.start() == oldSlot, "ir.start() == pos", " ir: ", ir, ", pos: ", oldSlot);
      blk.lengthRangeDel(len);
      if (len == blk.lengthRangeMax()) blk.lengthRangeMaxIs(blk.findLengthRangeMax());
      ir = IndexRange();
   } else if (oldSlot == ir.start()) {
      const uint32_t newStart = usedMap.findFirstSet(ir.start() + 1, ir.end());
      VEXLO_ASSERT_MSG(newStart != npos, "newStart", " ir: ", ir);
      ir.startIs(newStart);
      blk.lengthRangeIs(len, ir);
   } else if (oldSlot == ir.end()) {
      const uint32_t newEnd = usedMap.findLastSet(ir.start(), ir.end() - 1);
      VEXLO_ASSERT_MSG(newEnd != npos, "newEnd", " ir: ", ir);
      ir.endIs(newEnd);
      blk.lengthRangeIs(len, ir);
   }
   TRACE(th, 7, "Table range for prefix length ", len, ": ", ir.start(), "/", ir.end());
}

void TcamRegion::merge(uint32_t len, uint32_t into, uint32_t from, VrfId vrf, uint64_t sequence) {
   mapping().merge(len, into, from, vrf, sequence);
   occupancy_->update(type_, *block_->bitmap(), into, from);
   TcamBlock& blk = *block_;
   const HBitmap& usedMap = used();
   IndexRange ir = blk.lengthRange(len);
   if (from == ir.start()) {
      const uint32_t newStart = usedMap.findFirstSet(from + 1, ir.end());
      VEXLO_ASSERT_MSG(newStart != npos, "newStart", " ir: ", ir);
      ir.startIs(newStart);
      blk.lengthRangeIs(len, ir);
   } else if (from == ir.end()) {
      const uint32_t newEnd = usedMap.findLastSet(ir.start(), from - 1);
      VEXLO_ASSERT_MSG(newEnd != npos, "newEnd", " ir: ", ir);
      ir.endIs(newEnd);
      blk.lengthRangeIs(len, ir);
   }
   TRACE(th, 7, "Table range for prefix length ", len, " updated: ", ir.start(), "/", ir.end());
}

}  // namespace VexloL3Common
