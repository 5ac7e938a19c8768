// HBitmap.h - hierarchical bitmap over TCAM positions
//
// Synopsis
//
//   HBitmap bm(8192);                       // 8192 bits, all clear
//   HBitmap used(8192, true);               // 8192 bits, all set
//   bm.setBit(p); bm.clearBit(p); bm.isBitSet(p);
//   bm.count();                             // O(1)
//   bm.count(a, b);                         // set bits in [a, b], O(size / 32768 + 64)
//   bm.findFirstSet(a, b)  bm.findLastSet(a, b)
//   bm.findFirstClear(a, b)  bm.findLastClear(a, b)     // HBitmap::npos when nothing found
//
// Every range is inclusive. An end beyond the last bit is clamped to size()-1; a start beyond
// the (clamped) end, or an empty map, finds npos and counts 0. Positions >= size() do not exist:
// a clear-bit search never returns one. setBit/clearBit/isBitSet on a position >= size() is a
// programming error and fatal. Setting a set bit or clearing a clear bit does nothing.
//
// Layout
//
// Level 0 holds the bits themselves, 64 to a uint64_t word; bit p lives in word p/64 at bit p%64.
// Level 0 padding (bits at positions >= size() in the last word) is always 0.
//
// Each level k >= 1 holds two summary bitmaps with one bit per word of level k-1:
//
//   anySet[k] bit i   == 1  iff  word i of anySet[k-1] is non-zero (k == 1: word i of the bits)
//                           iff  some position in [i * 64^k, (i+1) * 64^k) is set;
//   anyClear[k] bit i == 1  iff  word i of anyClear[k-1] is non-zero (k == 1: word i of the bits
//                                has a clear bit at a position < size())
//                           iff  some position in [i * 64^k, min((i+1) * 64^k, size())) is clear.
//
// Summary bits for words that do not exist (i >= the number of words of level k-1) are 0 in
// both bitmaps. Levels are added until one word covers the whole map; a map of at most 64 bits
// has level 0 only.
//
// Beside the levels, running counts of set bits per chunk of 512 positions (8 words) and per
// superchunk of 32768 positions (64 chunks), kept by setBit/clearBit, make a range count the
// difference of two prefix counts: whole superchunks, then whole chunks, then at most eight
// words popcounted. Range counts sit on the insert path (free entries of a region), and a
// word-by-word count there would be linear in the region.
//
// setBit/clearBit touch level 1 only when the level-0 word changes between zero and non-zero
// (anySet) or between full and not full (anyClear), and climb further only while the summary
// word they changed goes between zero and non-zero, so most updates write one word. A search
// tests the word it starts in, then climbs to the first level whose summary word shows a
// candidate further along, and descends with countr_zero/countl_zero: a search across a long
// used run costs a few word operations per level.
//
// Not thread-safe: one event-loop thread owns a map; there are no locks.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace VexloL3Common {

class HBitmap {
 public:
   static constexpr uint32_t npos = 0xFFFFFFFFu;

   HBitmap();
   explicit HBitmap(uint32_t size, bool initialBitState = false);

   uint32_t size() const { return size_; }
   bool initialBitState() const { return initialBitState_; }

   void setBit(uint32_t pos) {
      checkPos(pos);
      uint64_t& word = bits_[pos >> 6];
      const uint64_t old = word;
      const uint64_t now = old | (uint64_t{1} << (pos & 63));
      if (now == old) return;
      word = now;
      ++count_;
      ++chunkCount_[pos >> kChunkShift];
      ++superCount_[pos >> kSuperShift];
      if (old == 0 || now == fullMask(pos >> 6)) noteSet(pos >> 6, old, now);
   }

   void clearBit(uint32_t pos) {
      checkPos(pos);
      uint64_t& word = bits_[pos >> 6];
      const uint64_t old = word;
      const uint64_t now = old & ~(uint64_t{1} << (pos & 63));
      if (now == old) return;
      word = now;
      --count_;
      --chunkCount_[pos >> kChunkShift];
      --superCount_[pos >> kSuperShift];
      if (now == 0 || old == fullMask(pos >> 6)) noteClear(pos >> 6, old, now);
   }

   bool isBitSet(uint32_t pos) const {
      checkPos(pos);
      return (bits_[pos >> 6] >> (pos & 63)) & 1;
   }

   uint32_t count() const { return count_; }
   uint32_t count(uint32_t start, uint32_t end) const;

   uint32_t findFirstSet(uint32_t start, uint32_t end) const;
   uint32_t findLastSet(uint32_t start, uint32_t end) const;
   uint32_t findFirstClear(uint32_t start, uint32_t end) const;
   uint32_t findLastClear(uint32_t start, uint32_t end) const;

   bool operator==(const HBitmap& other) const;

 private:
   // 2^32 positions take 2^26 level-0 words, then 2^20, 2^14, 2^8, 4 and 1 summary words:
   // level 0 plus at most five summary levels.
   static constexpr unsigned kMaxLevels = 6;
   static constexpr unsigned kChunkShift = 9;   // 512 positions: a count fits 16 bits
   static constexpr unsigned kSuperShift = 15;  // 32768 positions, 64 chunks

   void checkPos(uint32_t pos) const {
      if (pos >= size_) [[unlikely]] {
         positionOutOfRange(pos);
      }
   }
   [[noreturn]] void positionOutOfRange(uint32_t pos) const;

   // All valid bits of level-0 word w.
   uint64_t fullMask(uint32_t w) const { return w == lastWord_ ? lastMask_ : ~uint64_t{0}; }

   // Summary upkeep after word w of level 0 changed from `old` to `now`; called only when the
   // word crossed zero / non-zero or full / not full.
   void noteSet(uint32_t w, uint64_t old, uint64_t now);
   void noteClear(uint32_t w, uint64_t old, uint64_t now);

   void buildSummaries();
   bool clampRange(uint32_t start, uint32_t& end) const;
   void buildCounts();
   // Set bits at positions below pos (pos <= size()).
   uint32_t countBelow(uint32_t pos) const;

   template <bool kClear>
   uint32_t findForward(uint32_t start, uint32_t end) const;
   template <bool kClear>
   uint32_t findBackward(uint32_t start, uint32_t end) const;

   // Level-0 word w as the search sees it: the bits, or their complement. The complement shows
   // the padding of the last word as clear, but no search returns it: a search that tests the
   // last word directly is bounded by end <= size()-1; a forward descent reaches the last word
   // only when it holds a real clear position, which lies below the padding; a backward descent
   // only enters words before the one it started in.
   template <bool kClear>
   uint64_t level0(uint32_t w) const {
      return kClear ? ~bits_[w] : bits_[w];
   }
   template <bool kClear>
   const uint64_t* summary(unsigned level) const {
      return (kClear ? anyClear_.data() : anySet_.data()) + levelOffset_[level];
   }

   uint32_t size_ = 0;
   uint32_t count_ = 0;
   bool initialBitState_ = false;
   unsigned levels_ = 0;         // number of levels including level 0; 0 for an empty map
   uint32_t lastWord_ = 0;       // index of the last level-0 word
   uint64_t lastMask_ = 0;       // valid bits of the last level-0 word
   std::vector<uint64_t> bits_;  // level 0
   // Summary words of every level >= 1, level k starting at levelOffset_[k]; both summaries
   // share the offsets.
   std::vector<uint64_t> anySet_;
   std::vector<uint64_t> anyClear_;
   std::array<uint32_t, kMaxLevels> levelOffset_{};
   std::vector<uint16_t> chunkCount_;
   std::vector<uint32_t> superCount_;
};

}  // namespace VexloL3Common
