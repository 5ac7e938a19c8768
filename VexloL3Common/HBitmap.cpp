// HBitmap.cpp - hierarchical bitmap over TCAM positions; see HBitmap.h for the summary invariant.

#include "VexloL3Common/HBitmap.h"

#include <bit>

#include "platform/Assert.h"

namespace VexloL3Common {

namespace {

constexpr uint64_t kAllOnes = ~uint64_t{0};

uint64_t bitAt(uint64_t i) {
   return uint64_t{1} << (i & 63);
}

// Bits lo..hi (inclusive) of a word.
uint64_t rangeMask(uint32_t lo, uint32_t hi) {
   return (kAllOnes << lo) & (kAllOnes >> (63 - hi));
}

}  // namespace

HBitmap::HBitmap() = default;

HBitmap::HBitmap(uint32_t size, bool initialBitState)
    : size_(size), count_(initialBitState ? size : 0), initialBitState_(initialBitState) {
   if (size_ == 0) return;
   const auto words = static_cast<uint32_t>((uint64_t{size_} + 63) / 64);
   lastWord_ = words - 1;
   lastMask_ = (size_ & 63) ? (uint64_t{1} << (size_ & 63)) - 1 : kAllOnes;
   bits_.assign(words, initialBitState ? kAllOnes : 0);
   bits_[lastWord_] &= lastMask_;
   buildSummaries();
}

void HBitmap::buildSummaries() {
   std::array<uint32_t, kMaxLevels> words{};
   words[0] = lastWord_ + 1;
   levels_ = 1;
   uint32_t total = 0;
   while (words[levels_ - 1] > 1) {
      words[levels_] = (words[levels_ - 1] + 63) / 64;
      levelOffset_[levels_] = total;
      total += words[levels_];
      ++levels_;
   }
   anySet_.assign(total, 0);
   anyClear_.assign(total, 0);
   for (unsigned k = 1; k < levels_; ++k) {
      uint64_t* set = anySet_.data() + levelOffset_[k];
      uint64_t* clear = anyClear_.data() + levelOffset_[k];
      for (uint32_t i = 0; i < words[k - 1]; ++i) {
         const bool hasSet = k == 1 ? bits_[i] != 0 : anySet_[levelOffset_[k - 1] + i] != 0;
         const bool hasClear =
             k == 1 ? (~bits_[i] & fullMask(i)) != 0 : anyClear_[levelOffset_[k - 1] + i] != 0;
         if (hasSet) set[i >> 6] |= bitAt(i);
         if (hasClear) clear[i >> 6] |= bitAt(i);
      }
   }
}

// Out of line so that the inline check in setBit/clearBit/isBitSet stays one compare.
void HBitmap::positionOutOfRange(uint32_t pos) const {
   VEXLO_ASSERT_MSG(pos < size_, "HBitmap position out of range", "position ", pos, ", size ",
                    size_);
   VEXLO_UNREACHABLE("HBitmap position check failed for a position inside the map");
}

// A summary bit changes only when the word it describes crosses zero / non-zero, and the
// level above it changes only when that summary word itself crosses zero / non-zero, so each
// walk up stops at the first word that stays on the same side.
void HBitmap::noteSet(uint32_t w, uint64_t old, uint64_t now) {
   if (old == 0) {
      uint64_t idx = w;
      for (unsigned k = 1; k < levels_; ++k, idx >>= 6) {
         uint64_t& s = anySet_[levelOffset_[k] + (idx >> 6)];
         const bool wasEmpty = s == 0;
         s |= bitAt(idx);
         if (!wasEmpty) break;
      }
   }
   if (now == fullMask(w)) {
      uint64_t idx = w;
      for (unsigned k = 1; k < levels_; ++k, idx >>= 6) {
         uint64_t& c = anyClear_[levelOffset_[k] + (idx >> 6)];
         c &= ~bitAt(idx);
         if (c != 0) break;
      }
   }
}

void HBitmap::noteClear(uint32_t w, uint64_t old, uint64_t now) {
   if (now == 0) {
      uint64_t idx = w;
      for (unsigned k = 1; k < levels_; ++k, idx >>= 6) {
         uint64_t& s = anySet_[levelOffset_[k] + (idx >> 6)];
         s &= ~bitAt(idx);
         if (s != 0) break;
      }
   }
   if (old == fullMask(w)) {
      uint64_t idx = w;
      for (unsigned k = 1; k < levels_; ++k, idx >>= 6) {
         uint64_t& c = anyClear_[levelOffset_[k] + (idx >> 6)];
         const bool wasEmpty = c == 0;
         c |= bitAt(idx);
         if (!wasEmpty) break;
      }
   }
}

bool HBitmap::clampRange(uint32_t start, uint32_t& end) const {
   if (size_ == 0) return false;
   if (end >= size_) end = size_ - 1;
   return start <= end;
}

// Test the word holding `start`; if it has nothing at or after start, climb while the summary
// word at the current level has no candidate after the one already ruled out, then descend
// along the lowest candidate. Index idx at level k covers the positions from idx << (6 * k),
// so a candidate starting beyond `end` ends the search (this also keeps idx inside the level).
template <bool kClear>
uint32_t HBitmap::findForward(uint32_t start, uint32_t end) const {
   if (!clampRange(start, end)) return npos;
   const uint32_t w = start >> 6;
   const uint64_t word = level0<kClear>(w) & (kAllOnes << (start & 63));
   if (word != 0) {
      const uint64_t pos = (uint64_t{w} << 6) + std::countr_zero(word);
      return pos <= end ? static_cast<uint32_t>(pos) : npos;
   }
   uint64_t idx = uint64_t{w} + 1;
   for (unsigned k = 1; k < levels_; ++k) {
      if ((idx << (6 * k)) > end) return npos;
      const uint64_t bits = summary<kClear>(k)[idx >> 6] & (kAllOnes << (idx & 63));
      if (bits != 0) {
         uint64_t j = ((idx >> 6) << 6) + std::countr_zero(bits);
         for (unsigned l = k - 1; l >= 1; --l) {
            j = (j << 6) + std::countr_zero(summary<kClear>(l)[j]);
         }
         const uint64_t pos = (j << 6) + std::countr_zero(level0<kClear>(static_cast<uint32_t>(j)));
         return pos <= end ? static_cast<uint32_t>(pos) : npos;
      }
      idx = (idx >> 6) + 1;
   }
   return npos;
}

// Mirror image of findForward: index idx at level k covers positions up to
// ((idx + 1) << (6 * k)) - 1.
template <bool kClear>
uint32_t HBitmap::findBackward(uint32_t start, uint32_t end) const {
   if (!clampRange(start, end)) return npos;
   const uint32_t w = end >> 6;
   const uint64_t word = level0<kClear>(w) & (kAllOnes >> (63 - (end & 63)));
   if (word != 0) {
      const uint64_t pos = (uint64_t{w} << 6) + 63 - std::countl_zero(word);
      return pos >= start ? static_cast<uint32_t>(pos) : npos;
   }
   if (w == 0) return npos;
   uint64_t idx = uint64_t{w} - 1;
   for (unsigned k = 1; k < levels_; ++k) {
      if (((idx + 1) << (6 * k)) <= start) return npos;
      const uint64_t bits = summary<kClear>(k)[idx >> 6] & (kAllOnes >> (63 - (idx & 63)));
      if (bits != 0) {
         uint64_t j = ((idx >> 6) << 6) + 63 - std::countl_zero(bits);
         for (unsigned l = k - 1; l >= 1; --l) {
            j = (j << 6) + 63 - std::countl_zero(summary<kClear>(l)[j]);
         }
         const uint64_t pos =
             (j << 6) + 63 - std::countl_zero(level0<kClear>(static_cast<uint32_t>(j)));
         return pos >= start ? static_cast<uint32_t>(pos) : npos;
      }
      if ((idx >> 6) == 0) return npos;
      idx = (idx >> 6) - 1;
   }
   return npos;
}

uint32_t HBitmap::findFirstSet(uint32_t start, uint32_t end) const {
   return findForward<false>(start, end);
}
uint32_t HBitmap::findLastSet(uint32_t start, uint32_t end) const {
   return findBackward<false>(start, end);
}
uint32_t HBitmap::findFirstClear(uint32_t start, uint32_t end) const {
   return findForward<true>(start, end);
}
uint32_t HBitmap::findLastClear(uint32_t start, uint32_t end) const {
   return findBackward<true>(start, end);
}

// Popcounts the two edge words and lets countWords do the whole words between them. That is
// linear in the range for maps with set and clear bits mixed in every word; if range counts
// over such maps get hot, keep a running count per level-1 word (4096 positions), updated in
// setBit/clearBit, so a count sums block counts (or a Fenwick tree over them for O(log n)).
uint32_t HBitmap::count(uint32_t start, uint32_t end) const {
   if (!clampRange(start, end)) return 0;
   const uint32_t first = start >> 6;
   const uint32_t last = end >> 6;
   if (first == last) return std::popcount(bits_[first] & rangeMask(start & 63, end & 63));
   uint32_t total = std::popcount(bits_[first] & (kAllOnes << (start & 63))) +
                    std::popcount(bits_[last] & (kAllOnes >> (63 - (end & 63))));
   if (first + 1 < last) total += countWords(first + 1, last - 1);
   return total;
}

// Set bits in the whole level-0 words first..last. The level-1 summaries tell empty words
// (skipped) and full words (64 each) apart from mixed ones, so only mixed words are
// popcounted; a clustered map pays for its few boundary words only. The last level-0 word, the only
// one that may be partial, is never passed in: count() always handles it as an edge word.
uint32_t HBitmap::countWords(uint32_t first, uint32_t last) const {
   uint32_t total = 0;
   const uint64_t* bits = bits_.data();
   const uint64_t* set = anySet_.data() + levelOffset_[1];
   const uint64_t* clear = anyClear_.data() + levelOffset_[1];
   for (uint32_t c = first >> 6; c <= last >> 6; ++c) {
      const uint32_t lo = c == (first >> 6) ? (first & 63) : 0;
      const uint32_t hi = c == (last >> 6) ? (last & 63) : 63;
      const uint64_t mask = rangeMask(lo, hi);
      const uint64_t s = set[c] & mask;
      const uint64_t cl = clear[c] & mask;
      const uint64_t mixed = s & cl;
      if (mixed != 0 && std::popcount(mixed) >= 32) {
         // Mostly mixed words, as in a uniformly random fill: picking them out costs more than
         // popcounting the lot.
         for (uint32_t w = (c << 6) + lo; w <= (c << 6) + hi; ++w) {
            total += std::popcount(bits[w]);
         }
         continue;
      }
      total += 64 * std::popcount(s & ~cl);
      for (uint64_t m = mixed; m != 0; m &= m - 1) {
         total += std::popcount(bits[(c << 6) + std::countr_zero(m)]);
      }
   }
   return total;
}

bool HBitmap::operator==(const HBitmap& other) const {
   return size_ == other.size_ && bits_ == other.bits_;
}

}  // namespace VexloL3Common
