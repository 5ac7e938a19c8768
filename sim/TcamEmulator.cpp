#include "sim/TcamEmulator.h"

#include <algorithm>
#include <stdexcept>
#include <type_traits>
#include <unordered_map>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common::sim {

namespace {

Ulo::TraceHandle th("TcamEmulator");

constexpr uint32_t npos = 0xFFFFFFFF;
constexpr uint32_t maxSize = 1u << 30;  // ranks of single-size IPv6 entries are size + index

constexpr const char* writerErrorText = "TcamEmulator: writer error";
constexpr const char* inconsistentText = "TcamEmulator: table inconsistent";

uint64_t topBits(unsigned n) {
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

Bits bitsOf(const Ipv4UcastKey& k) {
   return Bits{k.vrfId.value(), k.prefix.len(), uint64_t(k.prefix.addr()) << 32, 0};
}

Bits bitsOf(const Ipv6UcastKey& k) {
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
Bits bitsOf(const IpMcastPrefixKey& k) {
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
constexpr bool isV6 = std::is_same_v<Key, Ipv6UcastKey>;

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

   // (a) then (b) for one installed route, by walking its ancestors.
   void evaluate(Slot& r, uint64_t stamp, const std::vector<TcamEntry>& entries,
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

   void checkDirty(uint64_t stamp, const std::vector<TcamEntry>& entries,
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
   void checkAll(const std::vector<TcamEntry>& entries, std::vector<Violation>& out) const {
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
};

}  // namespace

struct TcamEmulator::Index {
   explicit Index(uint32_t size) : v4(size), v6(size), mcast(size) {}

   KeyIndex<Ipv4UcastKey> v4;
   KeyIndex<Ipv6UcastKey> v6;
   KeyIndex<IpMcastPrefixKey> mcast;
   uint64_t stamp = 0;

   template <class Key>
   void uninstallAt(KeyIndex<Key>& idx, uint32_t pos) {
      while (auto* s = idx.homeHead[pos])
         idx.homeIs(*s, 0);
   }
   void uninstallAt(uint32_t pos) {
      uninstallAt(v4, pos);
      uninstallAt(v6, pos);
      uninstallAt(mcast, pos);
   }

   KeyIndex<Ipv4UcastKey>& of(const Ipv4UcastKey&) { return v4; }
   KeyIndex<Ipv6UcastKey>& of(const Ipv6UcastKey&) { return v6; }
   KeyIndex<IpMcastPrefixKey>& of(const IpMcastPrefixKey&) { return mcast; }
   const KeyIndex<Ipv4UcastKey>& of(const Ipv4UcastKey&) const { return v4; }
   const KeyIndex<Ipv6UcastKey>& of(const Ipv6UcastKey&) const { return v6; }
   const KeyIndex<IpMcastPrefixKey>& of(const IpMcastPrefixKey&) const { return mcast; }
};

std::string_view toString(EntryKind kind) {
   switch (kind) {
      case EntryKind::empty:
         return "empty";
      case EntryKind::v4:
         return "v4";
      case EntryKind::v6Single:
         return "v6Single";
      case EntryKind::v6DoubleFirst:
         return "v6DoubleFirst";
      case EntryKind::v6DoubleSecond:
         return "v6DoubleSecond";
      case EntryKind::mcast:
         return "mcast";
   }
   return "unknown";
}

std::string TcamEntry::toString() const {
   switch (kind) {
      case EntryKind::v4:
         return fmt::format("v4 right: {} left: {}", v4.right, v4.left);
      case EntryKind::v6Single:
      case EntryKind::v6DoubleFirst:
      case EntryKind::v6DoubleSecond:
         return fmt::format("{} {}", sim::toString(kind), v6);
      case EntryKind::mcast:
         return fmt::format("mcast {}", mcast);
      case EntryKind::empty:
         break;
   }
   return "empty";
}

TcamEmulator::TcamEmulator(uint32_t size, uint32_t pairGap) : pairGap_(pairGap) {
   if (size < 2 || size > maxSize) {
      throw std::range_error(fmt::format("TcamEmulator size {} outside 2..{}", size, maxSize));
   }
   entries_.resize(size);
   index_ = std::make_unique<Index>(size);
}

TcamEmulator::~TcamEmulator() = default;

// ---- writer role ------------------------------------------------------------------------------

void TcamEmulator::attach(RouteMove& move, RouteMove& moveStatus, RouteMerge& merge,
                          RouteMerge& mergeStatus) {
   detach();
   moveStatus_ = &moveStatus;
   mergeStatus_ = &mergeStatus;
   moveSub_ = move.changed().subscribe([this](const RoutePosition& p) { onMove(p); });
   mergeSub_ = merge.changed().subscribe([this](const RouteMergeInfo& m) { onMerge(m); });
}

void TcamEmulator::detach() {
   moveSub_.reset();
   mergeSub_.reset();
   moveStatus_ = nullptr;
   mergeStatus_ = nullptr;
}

void TcamEmulator::onMove(const RoutePosition& p) {
   applyMove(p);
   if (acknowledges_) moveStatus_->posIs(p);
}

void TcamEmulator::onMerge(const RouteMergeInfo& m) {
   applyMerge(m);
   if (acknowledges_) mergeStatus_->mergeIs(m);
}

bool TcamEmulator::posValid(uint32_t pos, bool doubleSize) const {
   if (pos == 0 || pos >= size()) return false;
   return !doubleSize || (pairGap_ != 0 && pairGap_ < size() && pos < size() - pairGap_);
}

uint32_t TcamEmulator::rankOf(uint32_t pos, EntryKind kind) const {
   return kind == EntryKind::v6Single ? size() + pos : pos;
}

void TcamEmulator::applyMove(const RoutePosition& p) {
   TRACE(th, 6, "move ", p);
   const uint32_t src = p.oldRouteId;
   const uint32_t dst = p.newRouteId;
   auto fail = [&](std::string_view why) {
      report(writerErrorText, fmt::format("move {}: {}", p, why));
   };
   if (!posValid(src, false) || !posValid(dst, false)) return fail("position outside the table");
   const TcamEntry from = entries_[src];
   bool matches = false;
   if (p.v4) {
      bool right = !from.v4.right.isNull(), left = !from.v4.left.isNull();
      matches = from.kind == EntryKind::v4 && ((p.type == EntryType::v4Right && right && !left) ||
                                               (p.type == EntryType::v4Left && left && !right) ||
                                               (p.type == EntryType::v4Both && left && right));
   } else if (p.type == EntryType::v6) {
      matches = from.kind == EntryKind::v6Single || from.kind == EntryKind::v6DoubleFirst;
   } else if (p.type == EntryType::mcastV4) {
      matches = from.kind == EntryKind::mcast;
   }
   if (!matches) return fail(fmt::format("the source holds {}", from));
   // An IPv6 route takes the size of the region it lands in when the writer knows the regions.
   TcamEntry to = from;
   if (p.type == EntryType::v6 && doubleSizeAt_) {
      to.kind = doubleSizeAt_(dst) ? EntryKind::v6DoubleFirst : EntryKind::v6Single;
   }
   if (to.kind == EntryKind::v6DoubleFirst && !posValid(dst, true)) {
      return fail("the destination's partner lies outside the table");
   }
   // A stale copy means the model and the hardware disagree about where a route lives.
   const uint32_t srcRank = rankOf(src, from.kind);
   std::string stale;
   visitKeys(from, src, size(), [&](const auto& k, uint32_t) {
      const auto* s = index_->of(k).find(k);
      if (!s || !s->installed()) {
         stale += fmt::format(" {} is not installed;", k);
      } else if (s->homeRank != srcRank) {
         stale += fmt::format(" {} lives at {};", k,
                              where<std::decay_t<decltype(k)>>(s->homeRank, size()));
      }
   });
   if (!stale.empty()) return fail(fmt::format("the source holds a stale copy:{}", stale));

   store(dst, to);
   const uint32_t dstRank = rankOf(dst, to.kind);
   visitKeys(from, src, size(), [&](const auto& k, uint32_t) {
      auto& idx = index_->of(k);
      if (auto* s = idx.find(k); s && s->homeRank == srcRank) idx.homeIs(*s, dstRank);
   });
   // The contents now belong at the destination: the source is invalidated, so that a route
   // moved out of an entry that nothing reuses cannot outlive its deletion there.
   if (entries_[src] == from) vacate(src);
   ++moves_;
   afterChange();
}

void TcamEmulator::applyMerge(const RouteMergeInfo& m) {
   TRACE(th, 6, "merge ", m);
   auto fail = [&](std::string_view why) {
      report(writerErrorText, fmt::format("merge {}: {}", m, why));
   };
   auto isHalf = [](EntryType t) { return t == EntryType::v4Left || t == EntryType::v4Right; };
   if (!posValid(m.srcRouteId, false) || !posValid(m.dstRouteId, false)) {
      return fail("position outside the table");
   }
   if (m.srcRouteId == m.dstRouteId) return fail("source and destination are the same entry");
   if (!isHalf(m.srcRouteType) || !isHalf(m.dstRouteType)) return fail("not a half of an entry");
   const TcamEntry& from = entries_[m.srcRouteId];
   const Ipv4UcastKey& key = m.srcRouteType == EntryType::v4Left ? from.v4.left : from.v4.right;
   if (from.kind != EntryKind::v4 || key.isNull()) {
      return fail(fmt::format("the source half is empty; the source holds {}", from));
   }
   TcamEntry to = entries_[m.dstRouteId];
   Ipv4UcastKey& half = m.dstRouteType == EntryType::v4Left ? to.v4.left : to.v4.right;
   if (to.kind != EntryKind::v4 || !half.isNull()) {
      return fail(fmt::format("the destination half is not free; the destination holds {}", to));
   }
   auto* slot = index_->v4.find(key);
   if (!slot || slot->homeRank != m.srcRouteId) {
      return fail(fmt::format("the source half holds a stale copy of {}", key));
   }
   half = key;
   setRaw(m.dstRouteId, to);
   index_->v4.homeIs(*index_->v4.find(key), m.dstRouteId);
   ++merges_;
   afterChange();
}

void TcamEmulator::afterChange() {
   if (!checkEveryMove_) return;
   for (auto& v : checkAfterMove())
      report(inconsistentText, std::move(v.message));
}

void TcamEmulator::report(const char* text, std::string message) {
   ++errorCount_;
   TRACE(th, 1, text, ": ", message);
   if (errors_.size() < maxKeptErrors) errors_.push_back(message);
   if (onError_ == OnError::fatal) Ulo::assertFailed(text, message, __FILE__, __LINE__);
}

void TcamEmulator::errorsDelAll() {
   errorCount_ = 0;
   errors_.clear();
}

// ---- the table --------------------------------------------------------------------------------

void TcamEmulator::setRaw(uint32_t pos, const TcamEntry& e) {
   visitKeys(entries_[pos], pos, size(),
             [&](const auto& k, uint32_t rank) { index_->of(k).removeRank(k, rank); });
   entries_[pos] = e;
   visitKeys(e, pos, size(), [&](const auto& k, uint32_t rank) { index_->of(k).addRank(k, rank); });
}

// Empties an entry; a double-size pair does not survive losing either of its two entries.
void TcamEmulator::vacate(uint32_t pos) {
   const EntryKind kind = entries_[pos].kind;
   if (kind == EntryKind::v6DoubleFirst) {
      setRaw(pos + pairGap_, TcamEntry{});
   } else if (kind == EntryKind::v6DoubleSecond) {
      setRaw(pos - pairGap_, TcamEntry{});
   }
   if (kind != EntryKind::empty) setRaw(pos, TcamEntry{});
}

void TcamEmulator::store(uint32_t pos, const TcamEntry& e) {
   vacate(pos);
   if (e.kind == EntryKind::v6DoubleFirst) {
      vacate(pos + pairGap_);
      setRaw(pos, e);
      TcamEntry second = e;
      second.kind = EntryKind::v6DoubleSecond;
      setRaw(pos + pairGap_, second);
   } else {
      setRaw(pos, e);
   }
}

void TcamEmulator::checkPos(const char* what, uint32_t pos, bool doubleSize) const {
   if (!posValid(pos, doubleSize)) {
      throw std::range_error(fmt::format("TcamEmulator::{}: entry {}{} outside 1..{}", what, pos,
                                         doubleSize ? " with its partner" : "", size() - 1));
   }
}

// The routes that lived at pos and are not written again were deleted by the agent (even one
// that a move had already overwritten there: the agent deletes it where it believes it is); the
// routes written now live here.
void TcamEmulator::callerWrite(uint32_t pos, const TcamEntry& e) {
   store(pos, e);
   index_->uninstallAt(pos);
   visitKeys(e, pos, size(), [&](const auto& k, uint32_t rank) {
      auto& idx = index_->of(k);
      idx.homeIs(idx.get(k), rank);
   });
}

void TcamEmulator::writeV4(uint32_t pos, const Ipv4Keys& keys) {
   checkPos("writeV4", pos, false);
   TcamEntry e;
   if (keys) {
      e.kind = EntryKind::v4;
      e.v4 = keys;
   }
   callerWrite(pos, e);
}

void TcamEmulator::writeV6(uint32_t pos, const Ipv6UcastKey& key, bool doubleSize) {
   checkPos("writeV6", pos, doubleSize);
   TcamEntry e;
   e.kind = doubleSize ? EntryKind::v6DoubleFirst : EntryKind::v6Single;
   e.v6 = key;
   callerWrite(pos, e);
}

void TcamEmulator::writeMcast(uint32_t pos, const IpMcastPrefixKey& key) {
   checkPos("writeMcast", pos, false);
   TcamEntry e;
   e.kind = EntryKind::mcast;
   e.mcast = key;
   callerWrite(pos, e);
}

void TcamEmulator::clear(uint32_t pos) {
   checkPos("clear", pos, false);
   callerWrite(pos, TcamEntry{});
}

uint32_t TcamEmulator::home(const Ipv4UcastKey& key) const {
   const auto* s = index_->v4.find(key);
   return s ? s->homeRank : 0;
}

uint32_t TcamEmulator::home(const Ipv6UcastKey& key) const {
   const auto* s = index_->v6.find(key);
   return s ? posOfRank<Ipv6UcastKey>(s->homeRank, size()) : 0;
}

uint32_t TcamEmulator::home(const IpMcastPrefixKey& key) const {
   const auto* s = index_->mcast.find(key);
   return s ? s->homeRank : 0;
}

size_t TcamEmulator::installedRoutes() const {
   return index_->v4.installedCount + index_->v6.installedCount + index_->mcast.installedCount;
}

// ---- lookups ----------------------------------------------------------------------------------

std::optional<Hit4> TcamEmulator::lookup4(VrfId vrf, uint32_t addr) const {
   auto matches = [&](const Ipv4UcastKey& k) { return k.vrfId == vrf && k.prefix.contains(addr); };
   for (uint32_t pos = 1; pos < size(); ++pos) {
      const TcamEntry& e = entries_[pos];
      if (e.kind != EntryKind::v4) continue;
      if (matches(e.v4.right)) return Hit4{pos, e.v4.right, true};
      if (matches(e.v4.left)) return Hit4{pos, e.v4.left, false};
   }
   return std::nullopt;
}

std::optional<Hit6> TcamEmulator::lookup6(VrfId vrf, const Ulo::IpGenAddr::Bytes& addr) const {
   for (EntryKind kind : {EntryKind::v6DoubleFirst, EntryKind::v6Single}) {
      for (uint32_t pos = 1; pos < size(); ++pos) {
         const TcamEntry& e = entries_[pos];
         if (e.kind == kind && e.v6.vrfId == vrf && e.v6.prefix.contains(addr)) {
            return Hit6{pos, e.v6, kind == EntryKind::v6DoubleFirst};
         }
      }
   }
   return std::nullopt;
}

std::optional<HitMcast> TcamEmulator::lookupMcast(uint16_t vrfIndex, uint16_t tableId,
                                                  uint32_t group, uint32_t source) const {
   const uint64_t bits = (uint64_t(group) << 32) | source;
   for (uint32_t pos = 1; pos < size(); ++pos) {
      const TcamEntry& e = entries_[pos];
      if (e.kind != EntryKind::mcast || e.mcast.vrfIndex != vrfIndex ||
          e.mcast.tableId != tableId) {
         continue;
      }
      Bits k = bitsOf(e.mcast);
      if ((bits & topBits(std::min<unsigned>(e.mcast.len, 64))) == k.hi)
         return HitMcast{pos, e.mcast};
   }
   return std::nullopt;
}

// ---- consistency ------------------------------------------------------------------------------

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

// ---- image ------------------------------------------------------------------------------------

const TcamEntry& TcamEmulator::entry(uint32_t pos) const {
   if (pos >= size()) {
      throw std::range_error(fmt::format("TcamEmulator::entry: {} outside 0..{}", pos, size() - 1));
   }
   return entries_[pos];
}

void TcamEmulator::forEachEntry(const std::function<void(uint32_t, const TcamEntry&)>& f) const {
   for (uint32_t pos = 0; pos < size(); ++pos) {
      if (entries_[pos].kind != EntryKind::empty) f(pos, entries_[pos]);
   }
}

}  // namespace VexloL3Common::sim
