// The keys of the emulator's entries as its index sees them: a key's bits, the keys an entry holds
// with their ranks in search order, and the small rank lists of the key states. Shared by the
// emulator's own source files only.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/Assert.h"
#include "sim/TcamEmulator.h"

namespace VexloL3Common::sim::internal {

inline constexpr uint32_t npos = 0xFFFFFFFF;

inline uint64_t topBits(unsigned n) {
   return n == 0 ? 0 : n >= 64 ? ~0ull : ~0ull << (64 - n);
}

// A key as a bit string for the tries: the leading `depth` bits of hi:lo are significant, the rest
// are zero. `domain` separates VRFs (and the multicast vrfIndex:tableId pairs).
struct Bits {
   uint32_t domain = 0;
   uint8_t depth = 0;
   uint64_t hi = 0;
   uint64_t lo = 0;

   unsigned bit(unsigned i) const {
      return unsigned(i < 64 ? (hi >> (63 - i)) & 1 : (lo >> (127 - i)) & 1);
   }
   Bits truncated(unsigned d) const {
      Bits r = *this;
      r.depth = uint8_t(d);
      r.hi &= topBits(std::min(d, 64u));
      r.lo &= topBits(d > 64 ? d - 64 : 0);
      return r;
   }
   // How many leading bits the two share, at most `limit`.
   unsigned commonPrefix(const Bits& o, unsigned limit) const {
      const uint64_t h = hi ^ o.hi, l = lo ^ o.lo;
      const unsigned n = h ? unsigned(std::countl_zero(h)) : 64 + unsigned(std::countl_zero(l));
      return std::min(n, limit);
   }
   bool operator==(const Bits&) const = default;
};

struct BitsHash {
   size_t operator()(const Bits& b) const {
      size_t s = Ulo::hashMix(0, (uint64_t(b.domain) << 8) | b.depth);
      return Ulo::hashMix(Ulo::hashMix(s, b.hi), b.lo);
   }
};

inline Bits bitsOf(const Ipv4UcastKey& k) {
   return Bits{k.vrfId.value(), k.prefix.len(), uint64_t(k.prefix.addr()) << 32, 0};
}

inline Bits bitsOf(const Ipv6UcastKey& k) {
   uint64_t hi = 0, lo = 0;
   const auto& b = k.prefix.bytes();
   for (unsigned i = 0; i < 8; ++i) {
      hi = (hi << 8) | b[i];
      lo = (lo << 8) | b[i + 8];
   }
   return Bits{k.vrfId.value(), k.prefix.len(), hi, lo};
}

// Group then source; the key constrains min(len, 64) bits and is as deep as its length, so keys
// longer than 64 with the same 64 bits form a chain, the longer one the more specific.
inline Bits bitsOf(const IpMcastPrefixKey& k) {
   unsigned constrained = std::min<unsigned>(k.len, 64);
   uint64_t hi = (uint64_t(k.group.v4Addr()) << 32) | k.source.v4Addr();
   return Bits{(uint32_t(k.vrfIndex) << 16) | k.tableId, uint8_t(std::min<unsigned>(k.len, 128)),
               hi & topBits(constrained), 0};
}

// A key's depth in the trie: its length, a multicast key's up to 128.
inline uint8_t depthOf(const Ipv4UcastKey& k) {
   return k.prefix.len();
}
inline uint8_t depthOf(const Ipv6UcastKey& k) {
   return k.prefix.len();
}
inline uint8_t depthOf(const IpMcastPrefixKey& k) {
   return uint8_t(std::min<unsigned>(k.len, 128));
}

// Calls f(key, rank, half) for every route an entry holds. The rank is the entry's place in
// search order: single-size IPv6 entries come after every double-size one. half is 1 for the left
// half of an IPv4 entry, 0 otherwise (where the entry's key states are kept, see Held).
template <class F>
void visitHeldKeys(const TcamEntry& e, uint32_t pos, uint32_t size, F&& f) {
   switch (e.kind) {
      case EntryKind::v4:
         if (!e.v4.right.isNull()) f(e.v4.right, pos, 0u);
         if (!e.v4.left.isNull()) f(e.v4.left, pos, 1u);
         break;
      case EntryKind::v6Single:
         f(e.v6, size + pos, 0u);
         break;
      case EntryKind::v6DoubleFirst:
         f(e.v6, pos, 0u);
         break;
      case EntryKind::mcast:
         f(e.mcast, pos, 0u);
         break;
      case EntryKind::empty:
      case EntryKind::v6DoubleSecond:
         break;
   }
}

// Calls f(key, rank) for every route an entry holds.
template <class F>
void visitKeys(const TcamEntry& e, uint32_t pos, uint32_t size, F&& f) {
   visitHeldKeys(e, pos, size, [&](const auto& k, uint32_t rank, unsigned) { f(k, rank); });
}

// The key states (KeyIndex slot ids) of the keys an entry holds, by half (see visitHeldKeys).
using Held = std::array<uint32_t, 2>;

// One entry as the emulator stores it: its kind and the states of the keys it holds, 16 bytes
// where the entry's printed form takes 92, so that a move reads and writes a quarter of a cache
// line and hashes nothing; the keys themselves are read from their states, which keep them for
// as long as some entry holds them. For IPv4 by half (0 right, 1 left); an empty half holds
// `nullHalf | vrf`, the VRF of its null key. The other kinds use ids[0], except the second entry
// of a double-size pair, which holds no id (the emulator keeps its key apart).
struct alignas(16) Cell {
   static constexpr uint32_t nullHalf = 0x80000000;

   EntryKind kind = EntryKind::empty;
   uint8_t shortest = 0;  // the depths of the shortest and the longest key held, for the
   uint8_t longest = 0;   // length order (TcamEmulatorOrder.h); set by the index
   Held ids{};

   static bool isKey(uint32_t id) { return id != 0 && (id & nullHalf) == 0; }
   static uint32_t nullOf(const Ipv4UcastKey& k) { return nullHalf | k.vrfId.value(); }
   bool operator==(const Cell&) const = default;
};

// The ascending ranks of the entries holding one key: almost always one or two, kept inline; a
// key held more often keeps them all behind one pointer, so that a key state fits a cache line.
class RankList {
 public:
   RankList() = default;
   RankList(RankList&&) = default;
   RankList& operator=(RankList&&) = default;
   RankList(const RankList& o) { *this = o; }
   RankList& operator=(const RankList& o) {
      if (this == &o) return *this;
      n_ = o.n_;
      std::copy(o.inline_, o.inline_ + inlineCap, inline_);
      spill_.reset(o.spill_ ? new std::vector<uint32_t>(*o.spill_) : nullptr);
      return *this;
   }

   const uint32_t* begin() const { return n_ > inlineCap ? spill_->data() : inline_; }
   const uint32_t* end() const { return begin() + n_; }
   bool empty() const { return n_ == 0; }
   uint32_t front() const { return *begin(); }

   void insert(uint32_t r) {
      if (n_ < inlineCap) {
         uint32_t i = n_++;
         for (; i > 0 && inline_[i - 1] > r; --i)
            inline_[i] = inline_[i - 1];
         inline_[i] = r;
         return;
      }
      if (n_ == inlineCap) spill_.reset(new std::vector<uint32_t>(inline_, inline_ + inlineCap));
      spill_->insert(std::upper_bound(spill_->begin(), spill_->end(), r), r);
      ++n_;
   }
   // When the list is {from} alone it becomes {to}; false (and unchanged) otherwise.
   bool replaceSole(uint32_t from, uint32_t to) {
      if (n_ != 1 || inline_[0] != from) return false;
      inline_[0] = to;
      return true;
   }
   // False when r is not in the list.
   bool erase(uint32_t r) {
      uint32_t* b = n_ > inlineCap ? spill_->data() : inline_;
      uint32_t* it = std::lower_bound(b, b + n_, r);
      if (it == b + n_ || *it != r) return false;
      std::copy(it + 1, b + n_, it);
      if (--n_ == inlineCap) {
         std::copy(spill_->begin(), spill_->begin() + inlineCap, inline_);
         spill_.reset();
      } else if (n_ > inlineCap) {
         spill_->pop_back();
      }
      return true;
   }

 private:
   static constexpr uint32_t inlineCap = 2;
   uint32_t inline_[inlineCap] = {};
   uint32_t n_ = 0;
   std::unique_ptr<std::vector<uint32_t>> spill_;  // all of them once there are more than inlineCap
};

template <class Key>
inline constexpr bool isV6 = std::is_same_v<Key, Ipv6UcastKey>;

template <class Key>
uint32_t posOfRank(uint32_t rank, uint32_t size) {
   return isV6<Key> && rank >= size ? rank - size : rank;
}

template <class Key>
std::string where(uint32_t rank, uint32_t size) {
   if constexpr (isV6<Key>) {
      return rank >= size ? fmt::format("entry {} (single)", rank - size)
                          : fmt::format("entry {} (double)", rank);
   } else {
      return fmt::format("entry {}", rank);
   }
}

// What the checks read besides the index: the entries, the pair geometry, the model's view (its
// functions may be empty) and the merge sources the agent has yet to rewrite.
struct CheckInput {
   const TcamEmulator& emu;
   const ModelView& model;
   const std::vector<uint32_t>& pendingMergeSources;

   uint32_t size() const { return emu.size(); }
   uint32_t pairGap() const { return emu.pairGap(); }
   TcamEntry entry(uint32_t pos) const { return emu.entry(pos); }
};

}  // namespace VexloL3Common::sim::internal
