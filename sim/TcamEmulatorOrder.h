// Whether the keys of one family stand in order of length, kept entry by entry, so that the
// emulator knows without any prefix search when no route can be shadowed. Shared by the
// emulator's own source files only.
//
// The argument. Take the entries holding keys of the family in search order and, for each, its
// shortest and longest key (their depths, as the tries count them). If no entry holds a key
// shorter than a key of the next such entry, then along any two entries the earlier one's
// shortest key is at least as long as the later one's longest: no key has a strictly shorter key
// in an earlier entry, so no route is shadowed, whatever the prefixes. Counting the neighbouring
// pairs out of order therefore certifies a table whenever the count is zero; a move changes the
// pairs around its two entries only.
#pragma once

#include <bit>
#include <cstdint>
#include <vector>

namespace VexloL3Common::sim::internal {

// A set of ranks that finds the nearest member before or after any rank in a few word
// operations: a bit per rank and, level by level above, a bit per non-empty word below.
class RankSet {
 public:
   static constexpr uint32_t none = 0xFFFFFFFF;

   explicit RankSet(uint32_t size) {
      size_t words = size;
      do {
         words = (words + 63) / 64;
         start_.push_back(uint32_t(words_.size()));
         words_.resize(words_.size() + words, 0);
      } while (words > 1);
   }

   // The levels above change only when a word goes between empty and not.
   void insert(uint32_t r) {
      uint64_t& w = words_[r >> 6];
      const bool wasEmpty = w == 0;
      w |= uint64_t(1) << (r & 63);
      if (wasEmpty) insertAbove(r);
   }
   void erase(uint32_t r) {
      uint64_t& w = words_[r >> 6];
      w &= ~(uint64_t(1) << (r & 63));
      if (w == 0) eraseAbove(r);
   }
   bool contains(uint32_t r) const { return (words_[r >> 6] >> (r & 63)) & 1; }

   // The largest member below r, none when there is none. The word of r itself first: in a
   // table worth the name the neighbour is there.
   uint32_t before(uint32_t r) const {
      const uint64_t w = words_[r >> 6] & ((uint64_t(1) << (r & 63)) - 1);
      if (w != 0) return (r & ~63u) | uint32_t(63 - std::countl_zero(w));
      for (size_t k = 1; k < start_.size(); ++k) {
         r >>= 6;
         const uint64_t v = words_[start_[k] + (r >> 6)] & ((uint64_t(1) << (r & 63)) - 1);
         if (v == 0) continue;
         uint32_t i = (r & ~63u) | uint32_t(63 - std::countl_zero(v));
         while (k-- > 0)
            i = i * 64 + uint32_t(63 - std::countl_zero(words_[start_[k] + i]));
         return i;
      }
      return none;
   }
   // The smallest member above r, none when there is none.
   uint32_t after(uint32_t r) const {
      auto above = [](uint32_t x) { return (x & 63) == 63 ? 0 : ~uint64_t(0) << ((x & 63) + 1); };
      const uint64_t w = words_[r >> 6] & above(r);
      if (w != 0) return (r & ~63u) | uint32_t(std::countr_zero(w));
      for (size_t k = 1; k < start_.size(); ++k) {
         r >>= 6;
         const uint64_t v = words_[start_[k] + (r >> 6)] & above(r);
         if (v == 0) continue;
         uint32_t i = (r & ~63u) | uint32_t(std::countr_zero(v));
         while (k-- > 0)
            i = i * 64 + uint32_t(std::countr_zero(words_[start_[k] + i]));
         return i;
      }
      return none;
   }

 private:
   void insertAbove(uint32_t r) {
      for (size_t k = 1; k < start_.size(); ++k) {
         r >>= 6;
         uint64_t& w = words_[start_[k] + (r >> 6)];
         const bool wasEmpty = w == 0;
         w |= uint64_t(1) << (r & 63);
         if (!wasEmpty) return;
      }
   }
   void eraseAbove(uint32_t r) {
      for (size_t k = 1; k < start_.size(); ++k) {
         r >>= 6;
         uint64_t& w = words_[start_[k] + (r >> 6)];
         w &= ~(uint64_t(1) << (r & 63));
         if (w != 0) return;
      }
   }

   std::vector<uint64_t> words_;  // level by level, the ranks' own bits first
   std::vector<uint32_t> start_;  // where each level starts in words_
};

// What an entry holds of a family: whether any key, and the depths of its shortest and longest.
struct Span {
   bool held = false;
   uint8_t shortest = 0;
   uint8_t longest = 0;
};

// The entries of one family by rank, and how many neighbouring pairs of them are out of order.
struct LengthOrder {
   explicit LengthOrder(uint32_t ranks) : held(ranks) {}

   RankSet held;
   uint64_t inversions = 0;
   uint64_t changes = 0;  // entries changed since the owner last reset it

   // a before b out of order: a holds a key shorter than one b holds.
   static bool inverted(const Span& a, const Span& b) {
      return a.held && b.held && a.shortest < b.longest;
   }

   // The entry at rank r held `was` and holds `now`; spanAt(rank) is what another entry of the
   // family holds.
   template <class SpanAt>
   void change(uint32_t r, const Span& was, const Span& now, SpanAt&& spanAt) {
      ++changes;
      if (was.held == now.held && was.shortest == now.shortest && was.longest == now.longest)
         return;
      const uint32_t p = held.before(r), n = held.after(r);
      const Span ps = p == RankSet::none ? Span{} : spanAt(p);
      const Span ns = n == RankSet::none ? Span{} : spanAt(n);
      auto around = [&](const Span& mid) -> uint64_t {
         return mid.held ? uint64_t(inverted(ps, mid)) + inverted(mid, ns) : inverted(ps, ns);
      };
      inversions = inversions + around(now) - around(was);
      if (was.held != now.held) {
         if (now.held) {
            held.insert(r);
         } else {
            held.erase(r);
         }
      }
   }
};

}  // namespace VexloL3Common::sim::internal
