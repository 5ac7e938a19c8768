// The emulator's trie of prefixes and the tree its key-holding nodes form, with the aggregate
// that tree keeps (TcamEmulatorIndex.h owns the keys). Shared by the emulator's own source files
// only.
#pragma once

#include <algorithm>
#include <type_traits>
#include <vector>

#include "VexloL3Common/internal/FlatHashMap.h"
#include "sim/TcamEmulatorKeys.h"

namespace VexloL3Common::sim::internal {

// Per domain a path-compressed binary trie over the keys' bits. Trie nodes that hold keys are
// linked into a tree of their own: `up` is the nearest ancestor holding a key, and the aggregate
// `below` (the largest first rank of an installed route strictly below the node) is kept over
// that tree only. Which keys a node holds and what they contribute is the owner's (KeyIndex):
// it keeps `own`, `firstHeld`, `keys` and `keyCount` and calls propagate.
template <class Key>
struct PrefixTrie {
   // A node of the path-compressed trie: every node that holds keys, every branch point, and
   // the domain's root (depth 0). What a descent reads is kept apart and packed: for IPv4 a
   // node's 32 bits, children and depth take 16 bytes, four nodes to a cache line.
   struct NoBits {};
   struct Link {
      using Word = std::conditional_t<std::is_same_v<Key, Ipv4UcastKey>, uint32_t, uint64_t>;
      static constexpr unsigned wordShift = sizeof(Word) == 4 ? 32 : 0;

      Word hi = 0;  // the leading bits of the prefix the node stands for, as in Bits
      [[no_unique_address]] std::conditional_t<isV6<Key>, uint64_t, NoBits> lo{};
      uint32_t child[2] = {0, 0};
      uint8_t depth = 0;
      bool hasKeys = false;

      void bitsIs(const Bits& b) {
         hi = Word(b.hi >> wordShift);
         if constexpr (isV6<Key>) lo = b.lo;
         depth = b.depth;
      }
      Bits bits() const {
         Bits b;
         b.hi = uint64_t(hi) << wordShift;
         if constexpr (isV6<Key>) b.lo = lo;
         return b;
      }
      unsigned bit(unsigned i) const { return bits().bit(i); }
      unsigned commonPrefix(const Bits& b, unsigned limit) const {
         return bits().commonPrefix(b, limit);
      }
   };
   // What the checks and the aggregates read of a node holding keys, half a cache line.
   struct alignas(32) Node {
      uint32_t up = 0;     // among nodes holding keys, the nearest ancestor
      uint32_t below = 0;  // largest contribution strictly below, 0 for none (nodes with keys)
      uint32_t own = 0;    // largest contribution of the keys here
      // The earliest first rank of the keys here that some entry holds, npos for none: a climb
      // reads the keys themselves only where this lies early enough to shadow.
      uint32_t firstHeld = npos;
      uint32_t keys = 0;  // slot id of the first key here
      uint32_t keyCount = 0;
   };
   // The rest: the trie parent and domain, and the nodes whose `up` this is.
   struct Ties {
      uint32_t parent = 0;
      uint32_t domain = 0;
      uint32_t firstKid = 0;
      uint32_t nextKid = 0;
      uint32_t prevKid = 0;
   };

   std::vector<Link> trie = std::vector<Link>(1);  // node 0 stands for "none"
   std::vector<Node> nodes = std::vector<Node>(1);
   std::vector<Ties> ties = std::vector<Ties>(1);
   std::vector<uint32_t> freeNodes;
   VexloL3Common::internal::FlatHashMap<uint32_t, uint32_t> roots;
   std::vector<uint32_t> stack;  // scratch for descents

   uint32_t allocNode(uint32_t parent, const Bits& bits) {
      uint32_t n;
      if (!freeNodes.empty()) {
         n = freeNodes.back();
         freeNodes.pop_back();
      } else {
         n = uint32_t(nodes.size());
         nodes.emplace_back();
         ties.emplace_back();
         trie.emplace_back();
      }
      ties[n].parent = parent;
      ties[n].domain = bits.domain;
      trie[n].bitsIs(bits);
      return n;
   }
   void setChild(uint32_t parent, uint32_t n) {
      trie[parent].child[trie[n].bit(trie[parent].depth)] = n;
      ties[n].parent = parent;
   }

   // The node of the bits, created when missing (with a branch point where the new node's path
   // leaves an existing edge); up: the nearest strict ancestor that holds keys.
   uint32_t pathTo(const Bits& b, uint32_t& up) {
      auto [root, fresh] = roots.tryEmplace(b.domain, 0u);
      if (fresh) *root = allocNode(0, b.truncated(0));
      uint32_t n = *root;
      while (trie[n].depth < b.depth) {
         if (trie[n].hasKeys) up = n;
         const uint32_t next = trie[n].child[b.bit(trie[n].depth)];
         if (!next) {
            const uint32_t leaf = allocNode(n, b);
            setChild(n, leaf);
            return leaf;
         }
         const unsigned nextDepth = trie[next].depth;
         const unsigned common = trie[next].commonPrefix(b, std::min<unsigned>(nextDepth, b.depth));
         if (common == nextDepth) {
            n = next;
            continue;
         }
         // b leaves the edge to `next` at depth `common`: b itself, or a branch point, goes there.
         const uint32_t mid = allocNode(n, b.truncated(common));
         setChild(n, mid);
         setChild(mid, next);
         if (common == b.depth) return mid;
         const uint32_t leaf = allocNode(mid, b);
         setChild(mid, leaf);
         return leaf;
      }
      return n;
   }

   // Takes out a node that holds no keys and no longer branches (a domain's root only once
   // empty), then its parent if that no longer branches either.
   void prune(uint32_t n) {
      while (n && !trie[n].hasKeys && !(trie[n].child[0] && trie[n].child[1])) {
         const uint32_t p = ties[n].parent;
         const uint32_t only = trie[n].child[0] | trie[n].child[1];
         if (!p) {
            if (only) return;
            roots.erase(ties[n].domain);
         } else if (only) {
            setChild(p, only);
         } else {
            trie[p].child[trie[p].child[1] == n] = 0;
         }
         nodes[n] = Node{};
         ties[n] = Ties{};
         trie[n] = Link{};
         freeNodes.push_back(n);
         n = p;
      }
   }

   // ---- the tree of nodes holding keys ----
   void linkKid(uint32_t parent, uint32_t n) {
      Ties& t = ties[n];
      nodes[n].up = parent;
      t.prevKid = 0;
      t.nextKid = 0;
      if (!parent) return;
      t.nextKid = ties[parent].firstKid;
      if (t.nextKid) ties[t.nextKid].prevKid = n;
      ties[parent].firstKid = n;
   }
   void unlinkKid(uint32_t n) {
      Ties& t = ties[n];
      const uint32_t up = nodes[n].up;
      if (!up) return;
      if (t.prevKid) {
         ties[t.prevKid].nextKid = t.nextKid;
      } else {
         ties[up].firstKid = t.nextKid;
      }
      if (t.nextKid) ties[t.nextKid].prevKid = t.prevKid;
      nodes[n].up = t.prevKid = t.nextKid = 0;
   }

   // The largest contribution in the node's subtree, the node included.
   uint32_t subMax(uint32_t n) const { return std::max(nodes[n].below, nodes[n].own); }

   // Node n receives its first key: it takes over, from `up`, the nearest key-holding nodes below
   // it. Its own keys contribute nothing yet, so no aggregate above changes.
   void holdKeys(uint32_t n, uint32_t up) {
      uint32_t below = 0;
      stack.clear();
      for (uint32_t c : trie[n].child)
         if (c) stack.push_back(c);
      while (!stack.empty()) {
         uint32_t c = stack.back();
         stack.pop_back();
         if (trie[c].hasKeys) {
            unlinkKid(c);
            linkKid(n, c);
            below = std::max(below, subMax(c));
            continue;
         }
         for (uint32_t g : trie[c].child)
            if (g) stack.push_back(g);
      }
      nodes[n].below = below;
      linkKid(up, n);
   }

   // Node n lost its last key (which contributed nothing): its kids go to its own `up`.
   void dropKeys(uint32_t n) {
      const uint32_t up = nodes[n].up;
      unlinkKid(n);
      for (uint32_t k = ties[n].firstKid; k;) {
         uint32_t next = ties[k].nextKid;
         linkKid(up, k);
         k = next;
      }
      ties[n].firstKid = 0;
      nodes[n].below = 0;
   }

   // The subtree maximum of n went from `before` to `after`: the ancestors holding keys follow,
   // and the climb stops at the first whose `below` stays.
   void propagate(uint32_t n, uint32_t before, uint32_t after) {
      while (before != after) {
         const uint32_t a = nodes[n].up;
         if (!a) return;
         Node& anc = nodes[a];
         const uint32_t own = anc.own;
         const uint32_t ancBefore = std::max(anc.below, own);
         if (after > anc.below) {
            anc.below = after;
         } else if (before == anc.below) {
            uint32_t v = 0;  // n held the maximum: the kids decide
            for (uint32_t k = ties[a].firstKid; k; k = ties[k].nextKid)
               v = std::max(v, subMax(k));
            if (v == anc.below) return;
            anc.below = v;
         } else {
            return;
         }
         n = a;
         before = ancBefore;
         after = std::max(anc.below, own);
      }
   }
};

}  // namespace VexloL3Common::sim::internal
