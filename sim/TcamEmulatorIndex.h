// The emulator's index of the keys its entries hold: per family a hash of key states (the ranks of
// the entries holding each key, its home when installed) and per domain a binary trie over the
// keys' bits (see TcamEmulator.h for the idea). Shared by the emulator's own source files only.
#pragma once

#include <algorithm>
#include <string>
#include <type_traits>
#include <unordered_map>
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

// Calls f(key, rank) for every route an entry holds. The rank is the entry's place in search
// order: single-size IPv6 entries come after every double-size one.
template <class F>
void visitKeys(const TcamEntry& e, uint32_t pos, uint32_t size, F&& f) {
   switch (e.kind) {
      case EntryKind::v4:
         if (!e.v4.right.isNull()) f(e.v4.right, pos);
         if (!e.v4.left.isNull()) f(e.v4.left, pos);
         break;
      case EntryKind::v6Single:
         f(e.v6, size + pos);
         break;
      case EntryKind::v6DoubleFirst:
         f(e.v6, pos);
         break;
      case EntryKind::mcast:
         f(e.mcast, pos);
         break;
      case EntryKind::empty:
      case EntryKind::v6DoubleSecond:
         break;
   }
}

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
   const std::vector<TcamEntry>& entries;
   uint32_t pairGap;
   const ModelView& model;
   const std::vector<uint32_t>& pendingMergeSources;

   uint32_t size() const { return uint32_t(entries.size()); }
};

// Keys of one family, each with the ranks of the entries that hold it and, when installed, its
// home; and per domain a binary trie over the keys' bits (see the header for the idea).
template <class Key>
struct KeyIndex {
   struct Slot {
      const Key* key = nullptr;
      Bits bits;
      std::vector<uint32_t>
          ranks;              // ascending; an entry holding the key in both halves counts twice
      uint32_t homeRank = 0;  // 0: not installed
      uint32_t node = 0;
      Slot* nextAtNode = nullptr;
      Slot* nextAtHome = nullptr;
      uint32_t dirtyAt = npos;
      uint64_t stamp = 0;
      bool queued = false;  // in crossCheck

      bool installed() const { return homeRank != 0; }
      uint32_t first() const { return ranks.empty() ? 0 : ranks.front(); }
      // What the trie aggregates: the first rank of an installed, held route.
      uint32_t contribution() const { return installed() ? first() : 0; }
   };

   struct Node {
      uint32_t child[2] = {0, 0};
      uint32_t parent = 0;
      uint32_t subMax = 0;  // largest contribution in the subtree, 0 for none
      uint32_t domain = 0;
      uint8_t depth = 0;
      Slot* keys = nullptr;
   };

   std::unordered_map<Key, Slot> slots;
   std::vector<Node> nodes = std::vector<Node>(1);  // node 0 stands for "none"
   std::vector<uint32_t> freeNodes;
   std::unordered_map<uint32_t, uint32_t> roots;
   std::vector<Slot*> dirty;
   std::vector<uint32_t> stack;  // scratch for descents
   size_t installedCount = 0;
   uint32_t tableSize;
   std::vector<Slot*> homeHead;  // per entry, the installed keys that live there
   // While the model's view is cross-checked: every key changed since the last cross-check, by
   // value (a route the hardware lost entirely has left the index, and only this list remembers
   // it). The model and the hardware agree only between operations, so the check after each move
   // leaves this list alone.
   std::vector<Key> crossCheck;
   bool crossChecking = false;

   explicit KeyIndex(uint32_t size) : tableSize(size), homeHead(size, nullptr) {}

   Slot* find(const Key& k) {
      auto it = slots.find(k);
      return it == slots.end() ? nullptr : &it->second;
   }
   const Slot* find(const Key& k) const {
      auto it = slots.find(k);
      return it == slots.end() ? nullptr : &it->second;
   }

   Slot& get(const Key& k) {
      auto [it, inserted] = slots.try_emplace(k);
      Slot& s = it->second;
      if (inserted) {
         s.key = &it->first;
         s.bits = bitsOf(k);
         s.node = pathTo(s.bits);
         s.nextAtNode = nodes[s.node].keys;
         nodes[s.node].keys = &s;
      }
      return s;
   }

   uint32_t allocNode(uint32_t parent, unsigned depth, uint32_t domain) {
      uint32_t n;
      if (!freeNodes.empty()) {
         n = freeNodes.back();
         freeNodes.pop_back();
      } else {
         n = uint32_t(nodes.size());
         nodes.emplace_back();
      }
      nodes[n].parent = parent;
      nodes[n].depth = uint8_t(depth);
      nodes[n].domain = domain;
      return n;
   }

   uint32_t pathTo(const Bits& b) {
      auto it = roots.find(b.domain);
      uint32_t n = it != roots.end() ? it->second : (roots[b.domain] = allocNode(0, 0, b.domain));
      for (unsigned d = 0; d < b.depth; ++d) {
         unsigned c = b.bit(d);
         uint32_t next = nodes[n].child[c];
         if (!next) {
            next = allocNode(n, d + 1, b.domain);
            nodes[n].child[c] = next;
         }
         n = next;
      }
      return n;
   }

   // Recomputes subMax from the node up; ancestors depend only on their children, so the walk
   // stops at the first node whose value stays.
   void update(uint32_t n) {
      while (n) {
         Node& node = nodes[n];
         uint32_t v = std::max(nodes[node.child[0]].subMax, nodes[node.child[1]].subMax);
         for (Slot* s = node.keys; s; s = s->nextAtNode)
            v = std::max(v, s->contribution());
         if (v == node.subMax) return;
         node.subMax = v;
         n = node.parent;
      }
   }

   void markDirty(Slot& s) {
      if (crossChecking && !s.queued) {
         s.queued = true;
         crossCheck.push_back(*s.key);
      }
      if (s.dirtyAt != npos) return;
      s.dirtyAt = uint32_t(dirty.size());
      dirty.push_back(&s);
   }

   // A key that no entry holds and nobody installed leaves the index (it can neither be shadowed
   // nor shadow anything), together with the trie nodes that only led to it.
   void releaseIfUnused(Slot& s) {
      if (!s.ranks.empty() || s.installed()) return;
      Slot** link = &nodes[s.node].keys;
      while (*link != &s)
         link = &(*link)->nextAtNode;
      *link = s.nextAtNode;
      if (s.dirtyAt != npos) {
         dirty[s.dirtyAt] = dirty.back();
         dirty[s.dirtyAt]->dirtyAt = s.dirtyAt;
         dirty.pop_back();
      }
      uint32_t n = s.node;
      slots.erase(slots.find(*s.key));  // not by key: the key lives in the erased node
      while (n && !nodes[n].keys && !nodes[n].child[0] && !nodes[n].child[1]) {
         uint32_t p = nodes[n].parent;
         if (p) {
            nodes[p].child[nodes[p].child[1] == n] = 0;
         } else {
            roots.erase(nodes[n].domain);
         }
         nodes[n] = Node{};
         freeNodes.push_back(n);
         n = p;
      }
   }

   void addRank(const Key& k, uint32_t rank) {
      Slot& s = get(k);
      uint32_t before = s.contribution();
      s.ranks.insert(std::upper_bound(s.ranks.begin(), s.ranks.end(), rank), rank);
      if (s.contribution() != before) update(s.node);
      markDirty(s);
   }

   void removeRank(const Key& k, uint32_t rank) {
      Slot* s = find(k);
      VEXLO_ASSERT_MSG(s, "TcamEmulator: key indexed", "key: ", k, ", rank: ", rank);
      auto it = std::lower_bound(s->ranks.begin(), s->ranks.end(), rank);
      VEXLO_ASSERT_MSG(it != s->ranks.end() && *it == rank, "TcamEmulator: rank indexed",
                       "key: ", k, ", rank: ", rank);
      uint32_t before = s->contribution();
      s->ranks.erase(it);
      if (s->contribution() != before) update(s->node);
      markDirty(*s);
      releaseIfUnused(*s);
   }

   void homeIs(Slot& s, uint32_t rank) {
      if (s.homeRank == rank) return;
      uint32_t before = s.contribution();
      if (s.installed()) {
         --installedCount;
         Slot** link = &homeHead[posOfRank<Key>(s.homeRank, tableSize)];
         while (*link != &s)
            link = &(*link)->nextAtHome;
         *link = s.nextAtHome;
      }
      if (rank != 0) {
         ++installedCount;
         Slot*& head = homeHead[posOfRank<Key>(rank, tableSize)];
         s.nextAtHome = head;
         head = &s;
      }
      s.homeRank = rank;
      if (s.contribution() != before) update(s.node);
      markDirty(s);
      releaseIfUnused(s);
   }

   // Marks the key's slot for the next check, when the key is indexed.
   void touch(const Key& k) {
      if (Slot* s = find(k)) markDirty(*s);
   }

   // The checks (TcamEmulatorCheck.cpp): evaluate, every check of one installed route in order,
   // the first failure reported; checkDirty, every route the keys changed since the last call may
   // affect, and the routes lost since; checkAll, the whole family from scratch.
   void evaluate(Slot& r, uint64_t stamp, const CheckInput& in, std::vector<Violation>& out);
   void checkDirty(uint64_t stamp, const CheckInput& in, std::vector<Violation>& out);
   // (c) for every key queued since the last call.
   void checkCross(const CheckInput& in, std::vector<Violation>& out);
   void checkAll(const CheckInput& in, std::vector<Violation>& out) const;
};

}  // namespace VexloL3Common::sim::internal

namespace VexloL3Common::sim {

struct TcamEmulator::Index {
   explicit Index(uint32_t size) : v4(size), v6(size), mcast(size) {}

   internal::KeyIndex<Ipv4UcastKey> v4;
   internal::KeyIndex<Ipv6UcastKey> v6;
   internal::KeyIndex<IpMcastPrefixKey> mcast;
   uint64_t stamp = 0;

   template <class Key>
   void uninstallAt(internal::KeyIndex<Key>& idx, uint32_t pos) {
      while (auto* s = idx.homeHead[pos])
         idx.homeIs(*s, 0);
   }
   void uninstallAt(uint32_t pos) {
      uninstallAt(v4, pos);
      uninstallAt(v6, pos);
      uninstallAt(mcast, pos);
   }

   internal::KeyIndex<Ipv4UcastKey>& of(const Ipv4UcastKey&) { return v4; }
   internal::KeyIndex<Ipv6UcastKey>& of(const Ipv6UcastKey&) { return v6; }
   internal::KeyIndex<IpMcastPrefixKey>& of(const IpMcastPrefixKey&) { return mcast; }
   const internal::KeyIndex<Ipv4UcastKey>& of(const Ipv4UcastKey&) const { return v4; }
   const internal::KeyIndex<Ipv6UcastKey>& of(const Ipv6UcastKey&) const { return v6; }
   const internal::KeyIndex<IpMcastPrefixKey>& of(const IpMcastPrefixKey&) const { return mcast; }
};

}  // namespace VexloL3Common::sim
