// HBitmap.cpp - hierarchical bitmap over TCAM positions; see HBitmap.h for the summary invariant.

#include "VexloL3Common/types/HBitmap.h"

#include <algorithm>
#include <bit>

#include "platform/Assert.h"

namespace VexloL3Common {

namespace {

constexpr uint64_t kAllOnes = ~uint64_t{0};

uint64_t bitAt(uint64_t i) {
   return uint64_t{1} << (i & 63);
}

// Without the popcnt instruction std::popcount is a library call; this inline form is a dozen
// arithmetic instructions.
inline uint32_t popcount64(uint64_t x) {
#if defined(__POPCNT__)
   return uint32_t(std::popcount(x));
#else
   x -= (x >> 1) & 0x5555555555555555u;
   x = (x & 0x3333333333333333u) + ((x >> 2) & 0x3333333333333333u);
   x = (x + (x >> 4)) & 0x0f0f0f0f0f0f0f0fu;
   return uint32_t((x * 0x0101010101010101u) >> 56);
#endif
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
   buildCounts();
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

// A new map is uniform: its counts are its sizes or zero, no popcount needed.
void HBitmap::buildCounts() {
   chunkCount_.assign((size_t{size_} + (1u << kChunkShift) - 1) >> kChunkShift, 0);
   superCount_.assign((size_t{size_} + (1u << kSuperShift) - 1) >> kSuperShift, 0);
   if (!initialBitState_) return;
   for (size_t c = 0; c < chunkCount_.size(); ++c) {
      chunkCount_[c] = uint16_t(std::min<size_t>(size_ - (c << kChunkShift), 1u << kChunkShift));
   }
   for (size_t s = 0; s < superCount_.size(); ++s) {
      superCount_[s] = uint32_t(std::min<size_t>(size_ - (s << kSuperShift), 1u << kSuperShift));
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

uint32_t HBitmap::count(uint32_t start, uint32_t end) const {
   if (!clampRange(start, end)) return 0;
   return countBelow(end + 1) - countBelow(start);
}

uint32_t HBitmap::countBelow(uint32_t pos) const {
   uint32_t total = 0;
   const uint32_t super = pos >> kSuperShift;
   for (uint32_t s = 0; s < super; ++s)
      total += superCount_[s];
   const uint32_t chunk = pos >> kChunkShift;
   for (uint32_t c = super << (kSuperShift - kChunkShift); c < chunk; ++c)
      total += chunkCount_[c];
   const uint32_t word = pos >> 6;
   for (uint32_t w = chunk << (kChunkShift - 6); w < word; ++w)
      total += popcount64(bits_[w]);
   // pos == size() may name the word past the last one; it has no bits below pos to count.
   if (pos & 63) total += popcount64(bits_[word] & ~(kAllOnes << (pos & 63)));
   return total;
}

bool HBitmap::operator==(const HBitmap& other) const {
   return size_ == other.size_ && bits_ == other.bits_;
}

}  // namespace VexloL3Common
