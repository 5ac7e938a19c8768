// The placement regions of a TCAM context and the occupancy they share.
//
// Synopsis
//   TcamOccupancy            the table's entry map (any route type, reserved and invalid entries)
//                            and pair map (double-size pairs), and the pair geometry
//   TcamRegion               one route type's region: its block (bounds, per-length ranges, used
//                            entries), its mapping and its swap reserve
//     relocate(len, new, old)      move an entry within the region
//     placeNew(route, slot, range) record a new route where the shift engine opened a hole
//     restore(route, pos, right)   record a route found in the hardware
//     release(len, slot)           free an entry whose mapping no longer holds a route
//     merge(len, into, from, ...)  fold an IPv4 half into another half-full entry
//
// A region addresses its entries in slots: physical entries, except for the double-size IPv6
// region (v6Full), whose slots are logical pairs (pair l stands for physical entry
// l + floor(l / G) * G and its partner G further on, G = the pair gap). Its block's ranges and
// bitmap are in slots; its mapping and the published moves use physical entries.
//
// Each mutator keeps the four records of a placement consistent in one call: the mapping (key
// <-> entry, published to the hardware writer when it moves), the block's bitmap, the table's
// entry and pair maps, and the per-length range. Nothing else changes those pieces one by one.
// Invariants kept (and checked by the context's verify()):
//   - a slot is set in the block's bitmap exactly when the mapping holds a route there;
//   - an entry is set in the entry map when any route type holds it (or it is reserved);
//   - a pair is set in the pair map when either of its entries is taken (or it is reserved);
//   - each length's range runs from its lowest to its highest used slot; ranges of different
//     lengths do not overlap, longer lengths below shorter ones.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>

#include "VexloL3Common/tcam/L3TcamBlock.h"
#include "VexloL3Common/tcam/L3TcamMapping.h"
#include "VexloL3Common/tcam/L3TcamRoute.h"
#include "VexloL3Common/types/HBitmap.h"
#include "VexloL3Common/types/L3RouteTypes.h"

namespace VexloL3Common {

class TcamOccupancy {
 public:
   // One bit per physical entry: taken by a route of any type, reserved or invalid.
   const Ulo::Ptr<HBitmap>& entries() const { return entries_; }
   void entriesIs(uint32_t start, uint32_t size, bool initialBitState);
   void entriesDel() { entries_.reset(); }
   // One bit per logical pair of the double-size region: either entry taken, or reserved.
   const Ulo::Ptr<HBitmap>& pairs() const { return pairs_; }
   void pairsIs(uint32_t start, uint32_t size, bool initialBitState);
   void pairsDel() { pairs_.reset(); }

   // The owner's handles that the occupancy reads when it changes: whether the table pairs
   // entries at all, the double-size region's block (single entries inside it take their pair
   // too) and the manager of the pairs set aside. Both handles may be replaced by the owner.
   void bind(bool pairing, const Ulo::Ptr<TcamBlock>* pairBlock,
             const Ulo::Ptr<LpmInvalidEntryManager>* invalid) {
      pairing_ = pairing;
      pairBlock_ = pairBlock;
      invalid_ = invalid;
   }
   // The pair gap in force (0: no pairs).
   uint32_t gap() const { return gap_; }
   void gapIs(uint32_t g) { gap_ = g; }

   uint32_t pairToPhysical(uint32_t pair) const;
   uint32_t physicalToPair(uint32_t physical) const;
   // A physical bound of the double-size region in pairs.
   uint32_t physicalBoundToPair(uint32_t bound) const;
   // Pair 0 and the pairs the invalid-entry manager set aside.
   bool pairReserved(uint32_t pair) const;

   // Marks `used` as taken and `freed` as free for route type t in the block's bitmap and the
   // table's maps (0: none); for v6Full both are pairs and both physical entries change.
   void update(RouteType t, HBitmap& blockMap, uint32_t used, uint32_t freed);

 private:
   // Sets or clears the pair bit of a physical entry of the double-size region from the
   // occupancy of the pair's two entries.
   void markPair(uint32_t physical);

   Ulo::Ptr<HBitmap> entries_;
   Ulo::Ptr<HBitmap> pairs_;
   uint32_t entriesStart_ = 0;
   uint32_t pairsStart_ = 0;
   uint32_t gap_ = 0;
   bool pairing_ = false;
   const Ulo::Ptr<TcamBlock>* pairBlock_ = nullptr;
   const Ulo::Ptr<LpmInvalidEntryManager>* invalid_ = nullptr;
};

class TcamRegion {
 public:
   void init(RouteType type, TcamOccupancy* occupancy) {
      type_ = type;
      occupancy_ = occupancy;
   }

   RouteType type() const { return type_; }
   const Ulo::Ptr<TcamBlock>& blockPtr() const { return block_; }
   TcamBlock& block() const { return *block_; }
   void blockIs(Ulo::Ptr<TcamBlock> b) { block_ = std::move(b); }
   TcamMapping& mapping() const;
   void mappingIs(TcamMapping* m) { mapping_ = m; }
   // Free entries the region keeps in reserve so that moves can always be made.
   uint32_t swapReserve() const { return swapReserve_; }
   void swapReserveIs(uint32_t n) { swapReserve_ = n; }

   bool pairs() const { return type_ == RouteType::v6Full; }
   uint32_t physical(uint32_t slot) const {
      return pairs() ? occupancy_->pairToPhysical(slot) : slot;
   }
   uint32_t slot(uint32_t physical) const {
      return pairs() ? occupancy_->physicalToPair(physical) : physical;
   }
   // Where free slots are searched: the pair map for v6Full, else the entry map.
   HBitmap& freeMap() const { return pairs() ? *occupancy_->pairs() : *occupancy_->entries(); }
   // The slots this region's routes hold.
   const HBitmap& used() const { return *block_->bitmap(); }

   // ---- mutators
   // Moves the entry at oldSlot, of prefix length len, to the free newSlot (the move is published);
   // len's range drops oldSlot (shrunk to the used slots at its ends) and takes newSlot. Returns
   // len's new range.
   IndexRange relocate(uint32_t len, uint32_t newSlot, uint32_t oldSlot);
   // Records a new route at the free slot, which the shift engine opened inside `range`, the
   // route's length's range from now on. Returns the route's physical entry.
   uint32_t placeNew(const TcamRoute& route, uint32_t slot, const IndexRange& range);
   // Records a route that the hardware holds at physical entry pos (an IPv4 route in half
   // `right`), widening its length's range to take it. Publishes nothing.
   void restore(const TcamRoute& route, uint32_t pos, bool right);
   // Frees the slot of an entry whose mapping no longer holds any route of prefix length len;
   // len's range shrinks to the used slots at its ends, or goes when it held only this slot.
   void release(uint32_t len, uint32_t slot);
   // IPv4 only: the lone route at `from` moves into the free half of `into` (published as a
   // merge); `from` is freed and len's range shrinks.
   void merge(uint32_t len, uint32_t into, uint32_t from, VrfId vrf, uint64_t sequence);

 private:
   // Takes slot into len's range, which grows to hold it; len becomes the longest when it is.
   void extendRange(uint32_t len, uint32_t slot);
   // Drops slot from len's range after its entry left or is leaving.
   void shrinkRange(uint32_t len, uint32_t slot);

   RouteType type_ = RouteType::v4;
   TcamOccupancy* occupancy_ = nullptr;
   Ulo::Ptr<TcamBlock> block_;
   TcamMapping* mapping_ = nullptr;
   uint32_t swapReserve_ = 0;
};

}  // namespace VexloL3Common
