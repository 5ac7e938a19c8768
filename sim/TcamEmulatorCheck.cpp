// TcamEmulator: the consistency checks, incremental (checkAfterMove) and from scratch (checkAll).
#include <algorithm>
#include <optional>
#include <unordered_map>

#include "platform/Assert.h"

#include "sim/TcamEmulator.h"
#include "sim/TcamEmulatorCells.h"

namespace VexloL3Common::sim {

namespace internal {

// Whether the entry at the rank's position holds the key at that rank.
template <class Key>
bool holdsAt(const CheckInput& in, const Key& key, uint32_t rank) {
   const uint32_t size = in.size();
   const TcamEntry e = in.entry(posOfRank<Key>(rank, size));
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
Violation notHeld(const Key& key, uint32_t homeRank, const CheckInput& in) {
   const uint32_t size = in.size();
   return Violation{
       Violation::Kind::notHeld, key.toString(),
       fmt::format("route {} installed at {} is no longer held there (it holds: {})", key,
                   where<Key>(homeRank, size), in.entry(posOfRank<Key>(homeRank, size)))};
}

template <class Key>
Violation shadowed(const Key& key, uint32_t first, const Shadow<Key>& s, uint32_t size) {
   return Violation{Violation::Kind::shadowed, key.toString(),
                    fmt::format("route {} first held at {} is shadowed by shorter {} at {}", key,
                                where<Key>(first, size), *s.key, where<Key>(s.rank, size))};
}

template <class Key>
std::string modelWhere(uint32_t pos, bool right) {
   if (pos == 0) return "nothing";
   if constexpr (std::is_same_v<Key, Ipv4UcastKey>) {
      return fmt::format("entry {} {} half", pos, right ? "right" : "left");
   } else {
      return fmt::format("entry {}", pos);
   }
}

// (c) Where the model has the route, against where the hardware has it installed (homeRank 0:
// nowhere). False when the view has no answer for this family.
template <class Key>
bool misplaced(const Key& key, uint32_t homeRank, const CheckInput& in,
               std::vector<Violation>& out) {
   const uint32_t pos = homeRank ? posOfRank<Key>(homeRank, in.size()) : 0;
   ModelPlace model, hardware{pos, false};
   if constexpr (std::is_same_v<Key, Ipv4UcastKey>) {
      if (!in.model.v4) return false;
      model = in.model.v4(key);
      hardware.right = pos && in.entry(pos).v4.right == key;
      if (!model.pos) model.right = false;
   } else if constexpr (isV6<Key>) {
      if (!in.model.v6) return false;
      model.pos = in.model.v6(key);
   } else {
      if (!in.model.mcast) return false;
      model.pos = in.model.mcast(key);
   }
   if (model == hardware) return false;
   out.push_back(
       Violation{Violation::Kind::misplaced, key.toString(),
                 fmt::format("route {} stands at {} in the model but at {} in the hardware", key,
                             modelWhere<Key>(model.pos, model.right),
                             modelWhere<Key>(hardware.pos, hardware.right))});
   return true;
}

// (d) A second copy of an installed route outlives the route's deletion; the source of a merge
// keeps one until the agent rewrites it.
template <class Key, class Ranks>
bool copied(const Key& key, const Ranks& ranks, uint32_t homeRank, const CheckInput& in,
            std::vector<Violation>& out) {
   for (uint32_t r : ranks) {
      const uint32_t pos = posOfRank<Key>(r, in.size());
      if (r == homeRank ||
          std::count(in.pendingMergeSources.begin(), in.pendingMergeSources.end(), pos) != 0) {
         continue;
      }
      out.push_back(
          Violation{Violation::Kind::copied, key.toString(),
                    fmt::format("route {} installed at {} is also held at {}", key,
                                where<Key>(homeRank, in.size()), where<Key>(r, in.size()))});
      return true;
   }
   return false;
}

// (e) A double-size route matches only with its second entry at the pair gap.
template <class Key, class Ranks>
bool brokenPair(const Key& key, const Ranks& ranks, const CheckInput& in,
                std::vector<Violation>& out) {
   if constexpr (isV6<Key>) {
      for (uint32_t r : ranks) {
         if (r >= in.size()) break;  // single-size entries rank after every double-size one
         const uint32_t second = r + in.pairGap();
         const std::optional<TcamEntry> e =
             second < in.size() ? std::optional(in.entry(second)) : std::nullopt;
         if (e && e->kind == EntryKind::v6DoubleSecond && e->v6 == key) continue;
         out.push_back(Violation{
             Violation::Kind::brokenPair, key.toString(),
             fmt::format("route {} at entry {} (double) has no second entry at {} (it holds: {})",
                         key, r, second, e ? e->toString() : std::string("nothing"))});
         return true;
      }
   }
   return false;
}

// Every check of one installed route, by walking its ancestors for (b); the first failure is
// reported.
template <class Key>
void KeyIndex<Key>::evaluate(Slot& r, uint32_t stamp, const CheckInput& in,
                             std::vector<Violation>& out) {
   r.stamp = stamp;
   // Held once, at home, with no trie kept (so in length order) and no second entry to check:
   // every check below passes. The common case after a move.
   if (!r.node && r.ranks.end() - r.ranks.begin() == 1 && r.ranks.front() == r.homeRank &&
       (!isV6<Key> || r.homeRank >= in.size())) {
      return;
   }
   if (!r.holds(r.homeRank)) {
      out.push_back(notHeld(r.key, r.homeRank, in));
      return;
   }
   if (brokenPair(r.key, r.ranks, in, out) || copied(r.key, r.ranks, r.homeRank, in, out)) {
      return;
   }
   uint32_t first = r.first();
   Shadow<Key> best;
   // Only nodes that hold keys can shadow: climb those.
   for (uint32_t n = nodes[r.node].up; n; n = nodes[n].up) {
      if (nodes[n].firstHeld >= first) continue;
      for (uint32_t id = nodes[n].keys; id; id = slots[id].nextAtNode) {
         const Slot& a = slots[id];
         if (a.first() && a.first() < first) best.offer(a.first(), trie[n].depth, a.key);
      }
   }
   if (best.key) out.push_back(shadowed(r.key, first, best, in.size()));
}

template <class Key>
void KeyIndex<Key>::checkDirty(uint32_t stamp, const CheckInput& in, std::vector<Violation>& out) {
   for (uint32_t id : dirty) {
      Slot& s = slots[id];
      if (s.installed() && s.stamp != stamp) evaluate(s, stamp, in, out);
      // Every installed route below that is first held after this key's first entry is
      // shadowed by it; only subtrees whose largest first rank lies beyond are entered.
      const uint32_t b = s.first();
      if (!b || nodes[s.node].below <= b) continue;
      stack.clear();
      stack.push_back(s.node);
      while (!stack.empty()) {
         const uint32_t n = stack.back();
         stack.pop_back();
         for (uint32_t k = ties[n].firstKid; k; k = ties[k].nextKid) {
            for (uint32_t rid = nodes[k].keys; rid; rid = slots[rid].nextAtNode) {
               Slot& r = slots[rid];
               if (r.contribution() > b && r.stamp != stamp) evaluate(r, stamp, in, out);
            }
            if (nodes[k].below > b) stack.push_back(k);
         }
      }
   }
   for (uint32_t id : dirty)
      slots[id].dirtyAt = npos;
   dirty.clear();
}

// The straightforward check: everything recomputed from the entries, ancestors found by hash
// lookups of every truncation. Only the installed set and homes come from the index.
template <class Key>
void KeyIndex<Key>::checkCross(const CheckInput& in, std::vector<Violation>& out) {
   // A key left the index and came back between two calls is queued twice.
   std::sort(crossCheck.begin(), crossCheck.end());
   crossCheck.erase(std::unique(crossCheck.begin(), crossCheck.end()), crossCheck.end());
   for (const Key& k : crossCheck) {
      Slot* s = find(k);
      if (s) s->queued = false;
      const uint32_t home = s ? s->homeRank : 0;
      // A route no longer held at its home is reported as such already.
      if (home && !s->holds(home)) continue;
      misplaced(k, home, in, out);
   }
   crossCheck.clear();
}

template <class Key>
void KeyIndex<Key>::checkAll(const CheckInput& in, std::vector<Violation>& out) const {
   const uint32_t size = in.size();
   std::unordered_map<Key, std::vector<uint32_t>> ranksOf;
   std::unordered_map<Bits, Shadow<Key>, BitsHash> earliest;
   for (uint32_t pos = 0; pos < size; ++pos) {
      visitKeys(in.entry(pos), pos, size, [&](const auto& k, uint32_t rank) {
         if constexpr (std::is_same_v<std::decay_t<decltype(k)>, Key>) {
            auto it = ranksOf.try_emplace(k).first;
            it->second.push_back(rank);
            Bits b = bitsOf(k);
            earliest[b].offer(rank, b.depth, it->first);
         }
      });
   }
   for (const Slot& slot : slots) {
      if (!slot.live || !slot.installed()) continue;
      const Key& key = slot.key;
      if (!holdsAt(in, key, slot.homeRank)) {
         out.push_back(notHeld(key, slot.homeRank, in));
         continue;
      }
      std::vector<uint32_t>& ranks = ranksOf.at(key);
      std::sort(ranks.begin(), ranks.end());
      if (misplaced(key, slot.homeRank, in, out) || brokenPair(key, ranks, in, out) ||
          copied(key, ranks, slot.homeRank, in, out)) {
         continue;
      }
      const uint32_t first = ranks.front();
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

// The entries are kept as the ids of their keys' states: every id an entry holds must name a live
// state that records the entry, and the states must record no entry besides, or the entries the
// checks read are not the ones written.
void TcamEmulator::checkImage() const {
   const Index& ix = *index_;
   size_t held = 0, recorded = 0;
   for (uint32_t pos = 0; pos < size(); ++pos) {
      const internal::Cell& c = ix.cells[pos];
      ix.forHeld(c, pos, [&](const auto& idx, uint32_t id, uint32_t rank, unsigned) {
         VEXLO_ASSERT_MSG(id < idx.slots.size() && idx.slots[id].live && idx.slots[id].holds(rank),
                          "TcamEmulator: entry and index agree", "entry: ", pos, ", slot: ", id);
         ++held;
      });
      VEXLO_ASSERT_MSG(
          (c.kind == EntryKind::v6DoubleSecond) == (ix.secondKeys.find(pos) != nullptr),
          "TcamEmulator: entry and index agree", "entry: ", pos, ", second of a pair");
   }
   auto count = [&](const auto& idx) {
      for (const auto& s : idx.slots)
         recorded += size_t(s.ranks.end() - s.ranks.begin());
   };
   count(ix.v4);
   count(ix.v6);
   count(ix.mcast);
   VEXLO_ASSERT_MSG(held == recorded, "TcamEmulator: entry and index agree", "keys held: ", held,
                    ", recorded: ", recorded);
   // The length orders, counted again entry by entry in search order.
   auto recount = [&](const auto& idx, const internal::LengthOrder& order, uint32_t ranks) {
      uint64_t inversions = 0;
      internal::Span last;
      for (uint32_t rank = 0; rank < ranks; ++rank) {
         const uint32_t pos = rank < size() ? rank : rank - size();
         internal::Span here;
         ix.forHeld(ix.cells[pos], pos, [&](const auto& other, uint32_t id, uint32_t r, unsigned) {
            if constexpr (!std::is_same_v<decltype(&other), decltype(&idx)>) {
               return;
            } else if (r != rank) {
               return;
            }
            const uint8_t d = other.slots[id].depth();
            here.shortest = here.held ? std::min(here.shortest, d) : d;
            here.longest = here.held ? std::max(here.longest, d) : d;
            here.held = true;
         });
         VEXLO_ASSERT_MSG(here.held == order.held.contains(rank) &&
                              (!here.held || (here.shortest == ix.cells[pos].shortest &&
                                              here.longest == ix.cells[pos].longest)),
                          "TcamEmulator: entry and index agree", "rank: ", rank, ", length order");
         if (!here.held) continue;
         inversions += internal::LengthOrder::inverted(last, here);
         last = here;
      }
      VEXLO_ASSERT_MSG(inversions == order.inversions, "TcamEmulator: entry and index agree",
                       "pairs out of length order: ", order.inversions, ", counted: ", inversions);
   };
   recount(ix.v4, ix.v4Order, size());
   recount(ix.v6, ix.v6Order, 2 * size());
   recount(ix.mcast, ix.mcastOrder, size());
}

std::vector<Violation> TcamEmulator::checkAll() const {
   checkImage();
   std::vector<Violation> out;
   const internal::CheckInput in{*this, model_, pendingMergeSources_};
   index_->v4.checkAll(in, out);
   index_->v6.checkAll(in, out);
   index_->mcast.checkAll(in, out);
   // A route the hardware lost entirely is in no index; the count tells.
   if (model_.routes && model_.routes() != installedRoutes()) {
      out.push_back(Violation{Violation::Kind::misplaced, "",
                              fmt::format("the model has placed {} routes but the hardware has {} "
                                          "installed",
                                          model_.routes(), installedRoutes())});
   }
   sortViolations(out);
   return out;
}

std::vector<Violation> TcamEmulator::checkChanged(bool withinOperation) {
   std::vector<Violation> out;
   if (++index_->stamp == 0) {
      index_->v4.stampsDelAll();
      index_->v6.stampsDelAll();
      index_->mcast.stampsDelAll();
      index_->stamp = 1;
   }
   const uint32_t stamp = index_->stamp;
   treesFollowOrder();
   const internal::CheckInput in{*this, model_, pendingMergeSources_};
   if (!index_->v4.dirty.empty()) index_->v4.checkDirty(stamp, in, out);
   if (!index_->v6.dirty.empty()) index_->v6.checkDirty(stamp, in, out);
   if (!index_->mcast.dirty.empty()) index_->mcast.checkDirty(stamp, in, out);
   if (!withinOperation) {
      index_->v4.checkCross(in, out);
      index_->v6.checkCross(in, out);
      index_->mcast.checkCross(in, out);
   }
   sortViolations(out);
   return out;
}

// A family whose entries stand in length order needs no trie: nothing there can be shadowed.
// Once the order breaks, the trie is built from the keys, so that the check finds what it would
// have found with the trie kept all along (the table was in order at the last check, so every
// route shadowed now involves a key changed since, which the check starts from). It is dropped
// again once the order holds and the family has changed as many times as it has keys, so that
// building it costs a constant per change.
void TcamEmulator::treesFollowOrder() {
   auto follow = [&](auto& idx, internal::LengthOrder& order) {
      if (!idx.treeKept && (order.inversions != 0 || keepsTrees_)) {
         idx.keepTree();
         order.changes = 0;
         ++treeBuilds_;
      } else if (idx.treeKept && order.inversions == 0 && !keepsTrees_ &&
                 order.changes >= idx.ids.size()) {
         idx.dropTree();
         ++treeDrops_;
      }
   };
   follow(index_->v4, index_->v4Order);
   follow(index_->v6, index_->v6Order);
   follow(index_->mcast, index_->mcastOrder);
}

std::vector<Violation> TcamEmulator::checkAfterMove() {
   return checkChanged(false);
}

void TcamEmulator::modelViewIs(ModelView view) {
   model_ = std::move(view);
   index_->v4.crossChecking = bool(model_.v4);
   index_->v6.crossChecking = bool(model_.v6);
   index_->mcast.crossChecking = bool(model_.mcast);
}

}  // namespace VexloL3Common::sim
