// TCAM blocks and the invalid-entry manager.
//
// Synopsis
//   TcamBlock(prefixLenMin, prefixLenMax)   the part of a TCAM that one route type may use
//     start()/end()                         inclusive block range; start or end 0 = empty block
//     lengthRange(len)                      the sub-range owned by one prefix length
//     bitmap()                              the entries this route type uses
//   LpmInvalidEntryManager                  entries a chip must never use; platforms subclass it
//   LpmInvalidEntryManagerDefault           knows no invalid entries
//
// Length ranges are kept in a flat array indexed by prefix length with a presence mask, so the
// walks of insertion and deletion (ascending or descending length) cost a few word operations
// per step and never allocate. Index 0 is always reserved, so a range whose start is 0 is absent.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <optional>
#include <unordered_set>

#include "VexloL3Common/types/HBitmap.h"
#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

class TcamBlock {
 public:
   static constexpr uint32_t none = 0xFFFFFFFF;
   static constexpr uint32_t maxLengths = 256;  // prefix lengths 0..255

   TcamBlock(uint32_t prefixLenMin, uint32_t prefixLenMax)
       : prefixLenMin_(prefixLenMin), prefixLenMax_(prefixLenMax) {}

   uint32_t prefixLenMin() const { return prefixLenMin_; }
   uint32_t prefixLenMax() const { return prefixLenMax_; }
   uint32_t start() const { return start_; }
   uint32_t end() const { return end_; }
   void startIs(uint32_t s) { start_ = s; }
   void endIs(uint32_t e) { end_ = e; }
   bool isValid() const { return start_ != 0 && end_ != 0; }

   // ---- length ranges
   void lengthRangeIs(uint32_t len, const IndexRange& range) {
      ranges_[len] = range;
      present_[len >> 6] |= uint64_t{1} << (len & 63);
   }
   void lengthRangeDel(uint32_t len) {
      ranges_[len] = IndexRange();
      present_[len >> 6] &= ~(uint64_t{1} << (len & 63));
   }
   void lengthRangeDelAll() {
      ranges_.fill(IndexRange());
      present_.fill(0);
   }
   bool lengthRangeHas(uint32_t len) const {
      return len < maxLengths && ((present_[len >> 6] >> (len & 63)) & 1);
   }
   // The range of a length; a default range (0/0) when absent.
   IndexRange lengthRange(uint32_t len) const {
      return len < maxLengths ? ranges_[len] : IndexRange();
   }
   std::optional<IndexRange> lengthRangeGet(uint32_t len) const {
      if (!lengthRangeHas(len)) return std::nullopt;
      return ranges_[len];
   }
   // Smallest length with a range that is >= from; none when there is none.
   uint32_t nextLength(uint32_t from) const;
   // Greatest length with a range that is <= from; none when there is none.
   uint32_t prevLength(uint32_t from) const;
   // Number of lengths with a range.
   uint32_t lengthRangeCount() const;
   // The greatest length with a range; none when there are none.
   uint32_t findLengthRangeMax() const { return prevLength(maxLengths - 1); }
   uint32_t lengthRangeMax() const { return lengthRangeMax_; }
   void lengthRangeMaxIs(uint32_t len) { lengthRangeMax_ = len; }
   // Calls f(len, const IndexRange&) in ascending order of length.
   template <class F>
   void forEachLengthRange(F&& f) const {
      for (uint32_t len = nextLength(0); len != none;
           len = len + 1 < maxLengths ? nextLength(len + 1) : none) {
         f(len, ranges_[len]);
      }
   }

   // ---- bitmap: which entries of the block this route type uses
   const Ulo::Ptr<HBitmap>& bitmap() const { return bitmap_; }
   // A new bitmap of `size` bits in `initialBitState`, unless the current one already has the
   // same start, size and initial state.
   void bitmapIs(uint32_t start, uint32_t size, bool initialBitState);
   void bitmapDel() { bitmap_.reset(); }
   uint32_t bitmapStart() const { return bitmapStart_; }

   bool operator==(const TcamBlock& o) const;

 private:
   uint32_t prefixLenMin_;
   uint32_t prefixLenMax_;
   std::array<IndexRange, maxLengths> ranges_{};
   std::array<uint64_t, maxLengths / 64> present_{};
   Ulo::Ptr<HBitmap> bitmap_;
   uint32_t bitmapStart_ = 0;
   uint32_t lengthRangeMax_ = none;
   uint32_t start_ = 0;
   uint32_t end_ = 0;
};

struct InvalidEntryRange {
   uint32_t start = 0;
   uint32_t end = 0;
   bool operator==(const InvalidEntryRange&) const = default;
};

struct InvalidEntryRangeHash {
   size_t operator()(const InvalidEntryRange& r) const noexcept {
      return Ulo::hashMix(Ulo::hashMix(0, r.start), r.end);
   }
};

// Entries that must never hold a route: the layout sets their bits so that insertion and moves
// never pick them. A platform that has such entries derives from this class, sets their bits in
// the bitmap it is handed, records their ranges and counts them.
class LpmInvalidEntryManager {
 public:
   using RangeSet = std::unordered_set<InvalidEntryRange, InvalidEntryRangeHash>;

   virtual ~LpmInvalidEntryManager() = default;

   virtual void allocateInvalidEntries(bool urpf, const Ulo::Ptr<HBitmap>& bitmap) = 0;
   virtual void allocateInvalidEntriesPair(bool urpf, const Ulo::Ptr<HBitmap>& bitmapPair) = 0;

   // True when some single-width range holds the index; the pair set is not consulted.
   bool isEntryInvalid(uint32_t index) const;

   const RangeSet& invalidEntryRange() const { return invalidEntryRange_; }
   void invalidEntryRangeIs(const InvalidEntryRange& r) { invalidEntryRange_.insert(r); }
   void invalidEntryRangeDel(const InvalidEntryRange& r) { invalidEntryRange_.erase(r); }
   void invalidEntryRangeDelAll() { invalidEntryRange_.clear(); }
   const RangeSet& invalidEntryRangePair() const { return invalidEntryRangePair_; }
   void invalidEntryRangePairIs(const InvalidEntryRange& r) { invalidEntryRangePair_.insert(r); }
   void invalidEntryRangePairDel(const InvalidEntryRange& r) { invalidEntryRangePair_.erase(r); }
   void invalidEntryRangePairDelAll() { invalidEntryRangePair_.clear(); }

   uint32_t numInvalidEntriesBitmap() const { return numInvalidEntriesBitmap_; }
   void numInvalidEntriesBitmapInc(uint32_t n) { numInvalidEntriesBitmap_ += n; }
   uint32_t numInvalidEntriesBitmapPair() const { return numInvalidEntriesBitmapPair_; }
   void numInvalidEntriesBitmapPairInc(uint32_t n) { numInvalidEntriesBitmapPair_ += n; }

 private:
   RangeSet invalidEntryRange_;
   RangeSet invalidEntryRangePair_;
   uint32_t numInvalidEntriesBitmap_ = 0;
   uint32_t numInvalidEntriesBitmapPair_ = 0;
};

class LpmInvalidEntryManagerDefault : public LpmInvalidEntryManager {
 public:
   void allocateInvalidEntries(bool urpf, const Ulo::Ptr<HBitmap>& bitmap) override {
      nothing(urpf, bitmap);
   }
   void allocateInvalidEntriesPair(bool urpf, const Ulo::Ptr<HBitmap>& bitmapPair) override {
      nothing(urpf, bitmapPair);
   }

 private:
   static void nothing(bool, const Ulo::Ptr<HBitmap>&) {}
};

}  // namespace VexloL3Common
