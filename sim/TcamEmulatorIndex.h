// The emulator's index of the keys its entries hold: per family a table of key states (the ranks of
// the entries holding each key, its home when installed) and per domain a path-compressed binary
// trie over the keys' bits (see TcamEmulator.h for the idea). Shared by the emulator's own source
// files only.
#pragma once

#include <algorithm>
#include <type_traits>
#include <vector>

#include "VexloL3Common/internal/FlatHashMap.h"
#include "platform/Assert.h"
#include "sim/TcamEmulator.h"
#include "sim/TcamEmulatorKeys.h"
#include "sim/TcamEmulatorTrie.h"

namespace VexloL3Common::sim::internal {

// Keys of one family, each with the ranks of the entries that hold it and, when installed, its
// home; their prefixes in a PrefixTrie (TcamEmulatorTrie.h), whose key-holding nodes keep the
// aggregates the checks read.
//
// Key states live in a vector and keep their index (their slot id) for as long as the key is
// indexed; a flat hash map finds the id of a key, and each entry remembers the ids of the keys it
// holds (Cell), so that a move hashes nothing. Routes rarely nest more than a few deep, so a rank
// change climbs a few nodes rather than the whole trie, and a climb stops as soon as an
// ancestor's value stays.
template <class Key>
struct KeyIndex : PrefixTrie<Key> {
   using Trie = PrefixTrie<Key>;
   using Trie::dropKeys, Trie::freeNodes, Trie::holdKeys, Trie::nodes, Trie::pathTo,
       Trie::propagate, Trie::prune, Trie::roots, Trie::stack, Trie::subMax, Trie::ties, Trie::trie;
   using typename Trie::Node;
   using KeyType = Key;

   // An IPv4 key's state fills one cache line.
   struct alignas(sizeof(Key) <= 16 ? 64 : 8) Slot {
      Key key;
      uint32_t homeRank = 0;  // 0: not installed
      RankList ranks;         // an entry holding the key in both halves counts twice
      uint32_t node = 0;
      uint32_t nextAtNode = 0;  // slot ids; 0 ends a list
      uint32_t nextAtHome = 0;
      uint32_t dirtyAt = npos;
      uint32_t stamp = 0;   // of the last check that evaluated the route
      bool queued = false;  // in crossCheck
      bool live = false;

      bool installed() const { return homeRank != 0; }
      uint32_t first() const { return ranks.empty() ? 0 : ranks.front(); }
      bool holds(uint32_t rank) const {
         return std::binary_search(ranks.begin(), ranks.end(), rank);
      }
      // What the trie aggregates: the first rank of an installed, held route.
      uint32_t contribution() const { return installed() ? first() : 0; }
      uint8_t depth() const { return depthOf(key); }
   };

   std::vector<Slot> slots = std::vector<Slot>(1);  // slot 0 stands for "none"
   std::vector<uint32_t> freeSlots;
   VexloL3Common::internal::FlatHashMap<Key, uint32_t> ids;
   std::vector<uint32_t> dirty;  // slot ids
   size_t installedCount = 0;
   uint32_t tableSize;
   std::vector<uint32_t> homeHead;  // per entry, the installed keys that live there
   // While the model's view is cross-checked: every key changed since the last cross-check, by
   // value (a route the hardware lost entirely has left the index, and only this list remembers
   // it). The model and the hardware agree only between operations, so the check after each move
   // leaves this list alone.
   std::vector<Key> crossCheck;
   bool crossChecking = false;

   // Whether the keys are in the trie and its aggregates kept. Only the shadowing checks read
   // them, and while the family stands in length order nothing can be shadowed: the owner keeps
   // the trie only while the order is broken (keepTree, dropTree).
   bool treeKept = false;

   explicit KeyIndex(uint32_t size) : tableSize(size), homeHead(size, 0) {}

   uint32_t findId(const Key& k) const {
      const uint32_t* id = ids.find(k);
      return id ? *id : 0;
   }
   Slot* find(const Key& k) {
      uint32_t id = findId(k);
      return id ? &slots[id] : nullptr;
   }
   const Slot* find(const Key& k) const {
      uint32_t id = findId(k);
      return id ? &slots[id] : nullptr;
   }

   // The id of the key's state, created (and placed in the trie) when the key is new.
   uint32_t get(const Key& k) {
      auto [idp, inserted] = ids.tryEmplace(k, 0u);
      if (!inserted) return *idp;
      if (slots.size() == 1) reserveFor(tableSize);
      uint32_t id;
      if (!freeSlots.empty()) {
         id = freeSlots.back();
         freeSlots.pop_back();
      } else {
         id = uint32_t(slots.size());
         slots.emplace_back();
      }
      *idp = id;
      Slot& s = slots[id];
      s.key = k;
      s.live = true;
      if (treeKept) place(id);
      return id;
   }

   // Puts the key into the trie (it contributes nothing yet).
   void place(uint32_t id) {
      Slot& s = slots[id];
      uint32_t up = 0;
      s.node = pathTo(bitsOf(s.key), up);
      if (!trie[s.node].hasKeys) holdKeys(s.node, up);
      trie[s.node].hasKeys = true;
      s.nextAtNode = nodes[s.node].keys;
      nodes[s.node].keys = id;
      ++nodes[s.node].keyCount;
   }

   // Builds the trie and its aggregates from the keys.
   void keepTree() {
      treeKept = true;
      const size_t keys = std::min<size_t>(2 * size_t(tableSize), size_t(1) << 21);
      nodes.reserve(2 * keys + 1);
      ties.reserve(2 * keys + 1);
      trie.reserve(2 * keys + 1);
      for (uint32_t id = 1; id < slots.size(); ++id) {
         if (!slots[id].live) continue;
         place(id);
         settle(id, 0, 0);
      }
   }

   void dropTree() {
      treeKept = false;
      trie.assign(1, typename Trie::Link{});
      nodes.assign(1, Node{});
      ties.assign(1, typename Trie::Ties{});
      freeNodes.clear();
      roots.clear();
      for (Slot& s : slots) {
         s.node = 0;
         s.nextAtNode = 0;
      }
   }

   // Room for a full table's keys (two to an entry) from the first key on, so that the vector
   // never moves while the table fills; only address space until used.
   void reserveFor(uint32_t size) {
      slots.reserve(std::min<size_t>(2 * size_t(size), size_t(1) << 21) + 1);
   }

   // Applies f to the slot and brings the aggregates up to date.
   template <class F>
   void changeSlot(uint32_t id, F&& f) {
      Slot& s = slots[id];
      const uint32_t before = s.contribution(), firstBefore = s.first();
      f(s);
      if (s.node) settle(id, before, firstBefore);
   }

   // The slot's key contributed `before` and was first held at `firstBefore`.
   void settle(uint32_t id, uint32_t before, uint32_t firstBefore) {
      Slot& s = slots[id];
      const uint32_t after = s.contribution(), firstAfter = s.first();
      if (firstBefore != firstAfter) noteFirst(s.node, firstAfter);
      if (before == after) return;
      const uint32_t n = s.node;
      Node& node = nodes[n];
      const uint32_t ownBefore = node.own;
      node.own = after;
      if (node.keyCount > 1) {
         for (uint32_t o = nodes[n].keys; o; o = slots[o].nextAtNode)
            node.own = std::max(node.own, slots[o].contribution());
      }
      propagate(n, std::max(node.below, ownBefore), std::max(node.below, node.own));
   }

   // One key at node n is now first held at `first` (0: nowhere).
   void noteFirst(uint32_t n, uint32_t first) {
      Node& node = nodes[n];
      if (node.keyCount <= 1) {
         node.firstHeld = first ? first : npos;
         return;
      }
      node.firstHeld = npos;
      for (uint32_t o = nodes[n].keys; o; o = slots[o].nextAtNode) {
         if (slots[o].first()) node.firstHeld = std::min(node.firstHeld, slots[o].first());
      }
   }

   void markDirty(uint32_t id) {
      Slot& s = slots[id];
      if (crossChecking && !s.queued) queue(s);
      if (s.dirtyAt != npos) return;
      s.dirtyAt = uint32_t(dirty.size());
      dirty.push_back(id);
   }
   [[gnu::noinline]] void queue(Slot& s) {
      s.queued = true;
      crossCheck.push_back(s.key);
   }

   // A key that no entry holds and nobody installed leaves the index (it can neither be shadowed
   // nor shadow anything), together with the trie nodes that only led to it.
   void releaseIfUnused(uint32_t id) {
      Slot& s = slots[id];
      if (!s.ranks.empty() || s.installed()) return;
      if (s.node) {
         uint32_t* link = &nodes[s.node].keys;
         while (*link != id)
            link = &slots[*link].nextAtNode;
         *link = s.nextAtNode;
         --nodes[s.node].keyCount;
      }
      if (s.dirtyAt != npos) {
         dirty[s.dirtyAt] = dirty.back();
         slots[dirty[s.dirtyAt]].dirtyAt = s.dirtyAt;
         dirty.pop_back();
      }
      uint32_t n = s.node;
      ids.erase(s.key);
      s = Slot{};
      freeSlots.push_back(id);
      if (n && !nodes[n].keys) {
         trie[n].hasKeys = false;
         dropKeys(n);
         prune(n);
      }
   }

   void addRank(uint32_t id, uint32_t rank) {
      changeSlot(id, [&](Slot& s) { s.ranks.insert(rank); });
      markDirty(id);
   }

   void removeRank(uint32_t id, uint32_t rank) {
      VEXLO_ASSERT_MSG(id && slots[id].live, "TcamEmulator: key indexed", "slot: ", id,
                       ", rank: ", rank);
      bool found = true;
      changeSlot(id, [&](Slot& s) { found = s.ranks.erase(rank); });
      VEXLO_ASSERT_MSG(found, "TcamEmulator: rank indexed", "key: ", slots[id].key,
                       ", rank: ", rank);
      markDirty(id);
      releaseIfUnused(id);
   }

   // The lists of installed keys by entry.
   void unlinkHome(uint32_t id) {
      Slot& s = slots[id];
      uint32_t* link = &homeHead[posOfRank<Key>(s.homeRank, tableSize)];
      while (*link != id)
         link = &slots[*link].nextAtHome;
      *link = s.nextAtHome;
   }
   void linkHome(uint32_t id, uint32_t rank) {
      uint32_t& head = homeHead[posOfRank<Key>(rank, tableSize)];
      slots[id].nextAtHome = head;
      head = id;
   }

   void homeIs(uint32_t id, uint32_t rank) {
      Slot& s = slots[id];
      if (s.homeRank == rank) return;
      if (s.installed()) {
         --installedCount;
         unlinkHome(id);
      }
      if (rank != 0) {
         ++installedCount;
         linkHome(id, rank);
      }
      changeSlot(id, [&](Slot& t) { t.homeRank = rank; });
      markDirty(id);
      releaseIfUnused(id);
   }

   // A move of the entry at rank `from` to the empty entry at `to`: the key is held at `to`
   // instead, and lives there if it lived at `from`. One step for what adding the new rank,
   // moving the home and removing the old rank amount to.
   void relocate(uint32_t id, uint32_t from, uint32_t to) {
      VEXLO_ASSERT_MSG(id && slots[id].live, "TcamEmulator: key indexed", "slot: ", id,
                       ", rank: ", from);
      const bool home = slots[id].homeRank == from;
      if (home) {
         unlinkHome(id);
         linkHome(id, to);
      }
      bool found = true;
      Slot& s = slots[id];
      if (!s.node && s.ranks.replaceSole(from, to)) {
         // No trie to keep: the common case, a key held once, is two stores.
         if (home) s.homeRank = to;
      } else {
         changeSlot(id, [&](Slot& t) {
            found = t.ranks.erase(from);
            t.ranks.insert(to);
            if (home) t.homeRank = to;
         });
      }
      VEXLO_ASSERT_MSG(found, "TcamEmulator: rank indexed", "key: ", slots[id].key,
                       ", rank: ", from);
      markDirty(id);
   }

   // Marks the key's slot for the next check, when the key is indexed.
   void touch(const Key& k) {
      if (uint32_t id = findId(k)) markDirty(id);
   }

   // The checks (TcamEmulatorCheck.cpp): evaluate, every check of one installed route in order,
   // the first failure reported; checkDirty, every route the keys changed since the last call may
   // affect, and the routes lost since; checkAll, the whole family from scratch.
   void evaluate(Slot& r, uint32_t stamp, const CheckInput& in, std::vector<Violation>& out);
   void checkDirty(uint32_t stamp, const CheckInput& in, std::vector<Violation>& out);
   // Stamps start over after 2^32 checks.
   void stampsDelAll() {
      for (Slot& s : slots)
         s.stamp = 0;
   }
   // (c) for every key queued since the last call.
   void checkCross(const CheckInput& in, std::vector<Violation>& out);
   void checkAll(const CheckInput& in, std::vector<Violation>& out) const;
};

}  // namespace VexloL3Common::sim::internal
