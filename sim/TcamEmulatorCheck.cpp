// TcamEmulator: the consistency checks, incremental (checkAfterMove) and from scratch (checkAll).
#include <algorithm>
#include <unordered_map>

#include "sim/TcamEmulator.h"
#include "sim/TcamEmulatorIndex.h"

namespace VexloL3Common::sim {

namespace internal {

// Whether the entry at the rank's position holds the key at that rank.
template <class Key>
bool holdsAt(const std::vector<TcamEntry>& entries, const Key& key, uint32_t rank) {
   uint32_t size = uint32_t(entries.size());
   const TcamEntry& e = entries[posOfRank<Key>(rank, size)];
   bool found = false;
   visitKeys(e, posOfRank<Key>(rank, size), size, [&](const auto& k, uint32_t r) {
      if constexpr (std::is_same_v<std::decay_t<decltype(k)>, Key>) found |= r == rank && k == key;
   });
   return found;
}

// The shadowing prefix a violation names: the earliest entry, then the shortest prefix, then the
// smallest key, so that both checks name the same one.
template <class Key>
struct Shadow {
   uint32_t rank = npos;
   uint8_t depth = 0;
   const Key* key = nullptr;

   void offer(uint32_t r, uint8_t d, const Key& k) {
      if (!key || r < rank || (r == rank && (d < depth || (d == depth && k < *key)))) {
         rank = r;
         depth = d;
         key = &k;
      }
   }
};

template <class Key>
Violation notHeld(const Key& key, uint32_t homeRank, const std::vector<TcamEntry>& entries) {
   uint32_t size = uint32_t(entries.size());
   return Violation{
       Violation::Kind::notHeld, key.toString(),
       fmt::format("route {} installed at {} is no longer held there (it holds: {})", key,
                   where<Key>(homeRank, size), entries[posOfRank<Key>(homeRank, size)])};
}

template <class Key>
Violation shadowed(const Key& key, uint32_t first, const Shadow<Key>& s, uint32_t size) {
   return Violation{Violation::Kind::shadowed, key.toString(),
                    fmt::format("route {} first held at {} is shadowed by shorter {} at {}", key,
                                where<Key>(first, size), *s.key, where<Key>(s.rank, size))};
}

// (a) then (b) for one installed route, by walking its ancestors.
template <class Key>
void KeyIndex<Key>::evaluate(Slot& r, uint64_t stamp, const std::vector<TcamEntry>& entries,
                             std::vector<Violation>& out) {
   r.stamp = stamp;
   if (!std::binary_search(r.ranks.begin(), r.ranks.end(), r.homeRank)) {
      out.push_back(notHeld(*r.key, r.homeRank, entries));
      return;
   }
   uint32_t first = r.first();
   Shadow<Key> best;
   for (uint32_t n = nodes[r.node].parent; n; n = nodes[n].parent) {
      for (const Slot* a = nodes[n].keys; a; a = a->nextAtNode) {
         if (a->first() && a->first() < first) best.offer(a->first(), nodes[n].depth, *a->key);
      }
   }
   if (best.key) out.push_back(shadowed(*r.key, first, best, uint32_t(entries.size())));
}

template <class Key>
void KeyIndex<Key>::checkDirty(uint64_t stamp, const std::vector<TcamEntry>& entries,
                               std::vector<Violation>& out) {
   for (Slot* s : dirty) {
      if (s->installed() && s->stamp != stamp) evaluate(*s, stamp, entries, out);
      // Every installed route below that is first held after this key's first entry is
      // shadowed by it; only subtrees whose largest first rank lies beyond are entered.
      uint32_t b = s->first();
      if (!b) continue;
      stack.clear();
      for (uint32_t c : nodes[s->node].child) {
         if (nodes[c].subMax > b) stack.push_back(c);
      }
      while (!stack.empty()) {
         uint32_t n = stack.back();
         stack.pop_back();
         for (Slot* r = nodes[n].keys; r; r = r->nextAtNode) {
            if (r->contribution() > b && r->stamp != stamp) evaluate(*r, stamp, entries, out);
         }
         for (uint32_t c : nodes[n].child) {
            if (nodes[c].subMax > b) stack.push_back(c);
         }
      }
   }
   for (Slot* s : dirty)
      s->dirtyAt = npos;
   dirty.clear();
}

// The straightforward check: everything recomputed from the entries, ancestors found by hash
// lookups of every truncation. Only the installed set and homes come from the index.
template <class Key>
void KeyIndex<Key>::checkAll(const std::vector<TcamEntry>& entries,
                             std::vector<Violation>& out) const {
   uint32_t size = uint32_t(entries.size());
   std::unordered_map<Key, uint32_t> firstRank;
   std::unordered_map<Bits, Shadow<Key>, BitsHash> earliest;
   for (uint32_t pos = 0; pos < size; ++pos) {
      visitKeys(entries[pos], pos, size, [&](const auto& k, uint32_t rank) {
         if constexpr (std::is_same_v<std::decay_t<decltype(k)>, Key>) {
            auto [it, inserted] = firstRank.try_emplace(k, rank);
            if (!inserted) it->second = std::min(it->second, rank);
            Bits b = bitsOf(k);
            earliest[b].offer(rank, b.depth, it->first);
         }
      });
   }
   for (const auto& [key, slot] : slots) {
      if (!slot.installed()) continue;
      if (!holdsAt(entries, key, slot.homeRank)) {
         out.push_back(notHeld(key, slot.homeRank, entries));
         continue;
      }
      uint32_t first = firstRank.at(key);
      Bits b = bitsOf(key);
      Shadow<Key> best;
      for (unsigned d = 0; d < b.depth; ++d) {
         auto it = earliest.find(b.truncated(d));
         if (it != earliest.end() && it->second.rank < first) {
            best.offer(it->second.rank, uint8_t(d), *it->second.key);
         }
      }
      if (best.key) out.push_back(shadowed(key, first, best, size));
   }
}

}  // namespace internal

namespace {
void sortViolations(std::vector<Violation>& v) {
   std::sort(v.begin(), v.end(),
             [](const Violation& a, const Violation& b) { return a.message < b.message; });
}
}  // namespace

std::vector<Violation> TcamEmulator::checkAll() const {
   std::vector<Violation> out;
   index_->v4.checkAll(entries_, out);
   index_->v6.checkAll(entries_, out);
   index_->mcast.checkAll(entries_, out);
   sortViolations(out);
   return out;
}

std::vector<Violation> TcamEmulator::checkAfterMove() {
   std::vector<Violation> out;
   const uint64_t stamp = ++index_->stamp;
   index_->v4.checkDirty(stamp, entries_, out);
   index_->v6.checkDirty(stamp, entries_, out);
   index_->mcast.checkDirty(stamp, entries_, out);
   sortViolations(out);
   return out;
}

}  // namespace VexloL3Common::sim
