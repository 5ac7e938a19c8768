// Flat storage behind the TCAM mappings (L3TcamMapping.h). Not for use outside the mappings.
//
// Synopsis
//   PositionArray<T>      position -> T; a dense array grown on demand plus a presence bitmap
//   Ipv4KeyHash           packs an IPv4 key's 64 bits of content into one word (injective)
//   RecordKeyOf           key extractor for records that carry their own key()
//   V6KeyRecord           the positions of one IPv6 key, kept inline
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Assert.h"

namespace VexloL3Common::internal {

// Fatal for position 0, which is never a route's position.
inline void assertPos(uint32_t pos) {
   VEXLO_ASSERT_MSG(pos != 0, "pos", "pos: ", pos);
}

// TCAM positions are far below this; a larger one is a null index (0xFFFFFFFF) passed by mistake,
// which would otherwise make the array try to grow to gigabytes.
inline constexpr uint32_t maxMappingPosition = 1u << 24;

// Values indexed by TCAM position. Lookups cost one bounds check and one bit test; a position
// that was never written reads as absent. The array grows to the power of two above the highest
// position written (at least one bitmap word) and never shrinks, so a table that has reached its
// size allocates nothing more. forEach visits present positions in ascending order, scanning the
// presence bitmap a word at a time: O(highest position / 64 + present positions).
template <class T>
class PositionArray {
 public:
   size_t size() const { return size_; }
   bool has(uint32_t pos) const {
      return pos < values_.size() && ((words_[pos >> 6] >> (pos & 63)) & 1u);
   }
   const T* find(uint32_t pos) const { return has(pos) ? &values_[pos] : nullptr; }
   T* find(uint32_t pos) { return has(pos) ? &values_[pos] : nullptr; }

   void set(uint32_t pos, const T& value) {
      if (pos >= values_.size()) grow(pos);
      uint64_t& w = words_[pos >> 6];
      const uint64_t bit = uint64_t{1} << (pos & 63);
      if (!(w & bit)) {
         w |= bit;
         ++size_;
      }
      values_[pos] = value;
   }

   // False when the position was absent.
   bool erase(uint32_t pos) {
      if (!has(pos)) return false;
      words_[pos >> 6] &= ~(uint64_t{1} << (pos & 63));
      values_[pos] = T();
      --size_;
      return true;
   }

   // Empties the array and keeps its capacity.
   void clear() {
      forEach([this](uint32_t pos, const T&) { values_[pos] = T(); });
      std::fill(words_.begin(), words_.end(), 0);
      size_ = 0;
   }

   // Calls f(pos, const T&) for each present position in ascending order; f must not modify the
   // array.
   template <class F>
   void forEach(F&& f) const {
      for (size_t w = 0; w < words_.size(); ++w) {
         for (uint64_t bits = words_[w]; bits != 0; bits &= bits - 1) {
            const uint32_t pos = uint32_t(w * 64 + unsigned(std::countr_zero(bits)));
            f(pos, values_[pos]);
         }
      }
   }

   size_t memoryBytes() const {
      return values_.capacity() * sizeof(T) + words_.capacity() * sizeof(uint64_t);
   }

 private:
   void grow(uint32_t pos) {
      VEXLO_ASSERT_MSG(pos < maxMappingPosition, "pos < maxMappingPosition", "pos: ", pos);
      // The next power of two: the size depends on the highest position alone, not on the order
      // in which positions were reached (a first route placed high must not leave the array
      // twice the table).
      const size_t n = std::max<size_t>(std::bit_ceil(size_t(pos) + 1), 64);
      values_.resize(n);
      words_.resize(n / 64, 0);
   }

   std::vector<T> values_;
   std::vector<uint64_t> words_;
   size_t size_ = 0;
};

// VRF (24 bits), address (32) and length (8) fill one word exactly, so equal words mean equal
// keys; the table mixes the word before using it.
struct Ipv4KeyHash {
   uint64_t operator()(const Ipv4UcastKey& k) const {
      return (uint64_t(k.vrfId.value()) << 40) | (uint64_t(k.prefix.addr()) << 8) | k.prefix.len();
   }
};

struct RecordKeyOf {
   template <class R>
   const auto& operator()(const R& r) const {
      return r.key();
   }
};

// The positions of one IPv6 key, as a set. Outside a move a key has one position, so two are
// kept inline; position 0 marks a free slot (it is never a route's position).
class V6KeyRecord {
 public:
   V6KeyRecord() = default;
   explicit V6KeyRecord(const Ipv6UcastKey& key) : key_(key) {}

   const Ipv6UcastKey& key() const { return key_; }
   bool has(uint32_t pos) const { return pos != 0 && (pos_[0] == pos || pos_[1] == pos); }
   uint16_t count() const { return uint16_t((pos_[0] != 0) + (pos_[1] != 0)); }
   // The lowest position, 0 when none.
   uint32_t first() const {
      if (pos_[0] == 0) return pos_[1];
      if (pos_[1] == 0) return pos_[0];
      return std::min(pos_[0], pos_[1]);
   }
   void add(uint32_t pos) {
      if (has(pos)) return;
      const int free = pos_[0] == 0 ? 0 : (pos_[1] == 0 ? 1 : -1);
      VEXLO_ASSERT_MSG(free >= 0, "an IPv6 key holds at most two positions", "key: ", key_,
                       " positions: ", pos_[0], ", ", pos_[1], " adding: ", pos);
      pos_[free] = pos;
   }
   void del(uint32_t pos) {
      if (pos == 0) return;
      if (pos_[0] == pos) pos_[0] = 0;
      if (pos_[1] == pos) pos_[1] = 0;
   }

 private:
   Ipv6UcastKey key_;
   uint32_t pos_[2] = {0, 0};
};

}  // namespace VexloL3Common::internal
