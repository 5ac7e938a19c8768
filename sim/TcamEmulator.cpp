// TcamEmulator: the emulated table (the entries and the index of the keys they hold), the
// caller's writes, lookups, and the printed form of an entry.
#include "sim/TcamEmulator.h"

#include <algorithm>
#include <stdexcept>

#include "sim/TcamEmulatorCells.h"

namespace VexloL3Common::sim {

using namespace internal;

namespace {

constexpr uint32_t maxSize = 1u << 30;  // ranks of single-size IPv6 entries are size + index

}  // namespace

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

TcamEmulator::TcamEmulator(uint32_t size, uint32_t pairGap) : size_(size), pairGap_(pairGap) {
   if (size < 2 || size > maxSize) {
      throw std::range_error(fmt::format("TcamEmulator size {} outside 2..{}", size, maxSize));
   }
   index_ = std::make_unique<Index>(size);
}

TcamEmulator::~TcamEmulator() = default;

// ---- the table --------------------------------------------------------------------------------

// The entry at pos becomes one of `kind` holding the keys of these states (they are indexed
// already). The new keys are added before the old ones are removed: a key in both stays indexed.
void TcamEmulator::setCell(uint32_t pos, EntryKind kind, const Held& ids) {
   Index& ix = *index_;
   const Cell old = ix.cells[pos];
   Cell c;
   c.kind = kind;
   c.ids = ids;
   ix.cellIs(pos, c);
   ix.forHeld(c, pos,
              [&](auto& idx, uint32_t id, uint32_t rank, unsigned) { idx.addRank(id, rank); });
   ix.forHeld(old, pos,
              [&](auto& idx, uint32_t id, uint32_t rank, unsigned) { idx.removeRank(id, rank); });
}

// ids: the key states of e's keys by half where the caller knows them (a move knows them from its
// source; 0: look the key up), so that nothing is hashed.
void TcamEmulator::setRaw(uint32_t pos, const TcamEntry& e, const Held* ids) {
   Index& ix = *index_;
   Held held{};
   if (e.kind == EntryKind::v4) {
      held = {Cell::nullOf(e.v4.right), Cell::nullOf(e.v4.left)};
   }
   visitHeldKeys(e, pos, size(), [&](const auto& k, uint32_t, unsigned half) {
      held[half] = ids && Cell::isKey((*ids)[half]) ? (*ids)[half] : ix.of(k).get(k);
   });
   if (e.kind == EntryKind::v6DoubleSecond) {
      *ix.secondKeys.tryEmplace(pos).first = e.v6;
   } else if (ix.cells[pos].kind == EntryKind::v6DoubleSecond) {
      ix.secondKeys.erase(pos);
   }
   setCell(pos, e.kind, held);
}

// Empties an entry; a double-size pair does not survive losing either of its two entries.
void TcamEmulator::vacate(uint32_t pos) {
   const EntryKind kind = index_->cells[pos].kind;
   if (kind == EntryKind::v6DoubleFirst) {
      setRaw(pos + pairGap_, TcamEntry{});
   } else if (kind == EntryKind::v6DoubleSecond) {
      setRaw(pos - pairGap_, TcamEntry{});
   }
   if (kind != EntryKind::empty) setRaw(pos, TcamEntry{});
}

void TcamEmulator::store(uint32_t pos, const TcamEntry& e, const Held* ids) {
   settleMergeSource(pos);
   vacate(pos);
   if (e.kind == EntryKind::v6DoubleFirst) {
      vacate(pos + pairGap_);
      setRaw(pos, e, ids);
      TcamEntry second = e;
      second.kind = EntryKind::v6DoubleSecond;
      setRaw(pos + pairGap_, second);
   } else {
      setRaw(pos, e, ids);
   }
}

// The common move: an entry that is not half of a pair into an empty one. What store, the homes
// and vacate amount to here, one step per key.
void TcamEmulator::relocate(uint32_t src, uint32_t dst) {
   settleMergeSource(dst);
   Index& ix = *index_;
   const Cell c = ix.cells[src];
   ix.moveCell(src, dst);
   const uint32_t from = rankOf(src, c.kind), to = rankOf(dst, c.kind);
   ix.forHeld(c, dst,
              [&](auto& idx, uint32_t id, uint32_t, unsigned) { idx.relocate(id, from, to); });
}

// The agent rewriting an IPv4 entry (or emptying one): what callerWrite does, with the keys the
// entry keeps left in place instead of taken out and put back. False when either entry is of
// another kind.
bool TcamEmulator::rewriteV4(uint32_t pos, const TcamEntry& e) {
   auto plain = [](EntryKind k) { return k == EntryKind::v4 || k == EntryKind::empty; };
   Index& ix = *index_;
   const Cell cur = ix.cells[pos];
   if (!plain(cur.kind) || !plain(e.kind)) return false;
   auto& idx = ix.v4;
   auto keyAt = [](const TcamEntry& x, unsigned half) -> const Ipv4UcastKey& {
      return half ? x.v4.left : x.v4.right;
   };
   auto curHolds = [&](unsigned half) {
      return cur.kind == EntryKind::v4 && Cell::isKey(cur.ids[half]);
   };
   Held ids{};
   bool kept[2] = {false, false};  // by half of cur
   for (unsigned h = 0; h < 2 && e.kind == EntryKind::v4; ++h) {
      const Ipv4UcastKey& k = keyAt(e, h);
      if (k.isNull()) {
         ids[h] = Cell::nullOf(k);
         continue;
      }
      for (unsigned c = 0; c < 2; ++c) {
         if (curHolds(c) && !kept[c] && idx.slots[cur.ids[c]].key == k) {
            kept[c] = true;
            ids[h] = cur.ids[c];
            break;
         }
      }
   }
   settleMergeSource(pos);
   // New keys first, so that a key the entry gives up and takes back stays indexed.
   for (unsigned h = 0; h < 2 && e.kind == EntryKind::v4; ++h) {
      if (ids[h]) continue;
      ids[h] = idx.get(keyAt(e, h));
      idx.addRank(ids[h], pos);
   }
   Cell now;
   now.kind = e.kind;
   now.ids = ids;
   ix.cellIs(pos, now);
   for (unsigned c = 0; c < 2; ++c) {
      if (curHolds(c) && !kept[c]) idx.removeRank(cur.ids[c], pos);
   }
   // The routes that lived here and are not written again were deleted by the agent.
   for (uint32_t id = idx.homeHead[pos]; id;) {
      const uint32_t next = idx.slots[id].nextAtHome;
      if (id != ids[0] && id != ids[1]) idx.homeIs(id, 0);
      id = next;
   }
   ix.uninstallAt(ix.v6, pos);
   ix.uninstallAt(ix.mcast, pos);
   for (unsigned h = 0; h < 2; ++h) {
      if (!Cell::isKey(ids[h])) continue;
      idx.homeIs(ids[h], pos);
      idx.markDirty(ids[h]);
   }
   return true;
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
   if (rewriteV4(pos, e)) return;
   // A key the entry holds already and that is installed keeps its state through the store (an
   // agent rewriting one half of an entry keeps the other): no need to look it up.
   Index& ix = *index_;
   Held ids{};
   const Cell cur = ix.cells[pos];
   visitHeldKeys(e, pos, size(), [&](const auto& k, uint32_t, unsigned half) {
      ix.forHeld(cur, pos, [&](auto& idx, uint32_t id, uint32_t, unsigned) {
         if constexpr (std::is_same_v<typename std::decay_t<decltype(idx)>::KeyType,
                                      std::decay_t<decltype(k)>>) {
            if (!ids[half] && idx.slots[id].key == k && idx.slots[id].installed()) ids[half] = id;
         }
      });
   });
   store(pos, e, &ids);
   ix.uninstallAt(pos);
   // The keys just written are held here, so their states outlived the uninstalling.
   const Held held = ix.cells[pos].ids;
   visitHeldKeys(e, pos, size(), [&](const auto& k, uint32_t rank, unsigned half) {
      ix.of(k).homeIs(held[half], rank);
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

// An entry written again no longer holds what a merge left there for the agent to rewrite.
void TcamEmulator::settleMergeSource(uint32_t pos) {
   auto& v = pendingMergeSources_;
   if (!v.empty()) v.erase(std::remove(v.begin(), v.end(), pos), v.end());
}

// ---- lookups ----------------------------------------------------------------------------------

std::optional<Hit4> TcamEmulator::lookup4(VrfId vrf, uint32_t addr) const {
   auto matches = [&](const Ipv4UcastKey& k) { return k.vrfId == vrf && k.prefix.contains(addr); };
   for (uint32_t pos = 1; pos < size(); ++pos) {
      if (index_->cells[pos].kind != EntryKind::v4) continue;
      const TcamEntry e = index_->entryAt(pos);
      if (matches(e.v4.right)) return Hit4{pos, e.v4.right, true};
      if (matches(e.v4.left)) return Hit4{pos, e.v4.left, false};
   }
   return std::nullopt;
}

std::optional<Hit6> TcamEmulator::lookup6(VrfId vrf, const Ulo::IpGenAddr::Bytes& addr) const {
   for (EntryKind kind : {EntryKind::v6DoubleFirst, EntryKind::v6Single}) {
      for (uint32_t pos = 1; pos < size(); ++pos) {
         if (index_->cells[pos].kind != kind) continue;
         const Ipv6UcastKey& k = index_->v6.slots[index_->cells[pos].ids[0]].key;
         if (k.vrfId == vrf && k.prefix.contains(addr)) {
            return Hit6{pos, k, kind == EntryKind::v6DoubleFirst};
         }
      }
   }
   return std::nullopt;
}

std::optional<HitMcast> TcamEmulator::lookupMcast(uint16_t vrfIndex, uint16_t tableId,
                                                  uint32_t group, uint32_t source) const {
   const uint64_t bits = (uint64_t(group) << 32) | source;
   for (uint32_t pos = 1; pos < size(); ++pos) {
      if (index_->cells[pos].kind != EntryKind::mcast) continue;
      const IpMcastPrefixKey& k = index_->mcast.slots[index_->cells[pos].ids[0]].key;
      if (k.vrfIndex != vrfIndex || k.tableId != tableId) continue;
      if ((bits & topBits(std::min<unsigned>(k.len, 64))) == bitsOf(k).hi) return HitMcast{pos, k};
   }
   return std::nullopt;
}
// ---- image ------------------------------------------------------------------------------------

TcamEntry TcamEmulator::entry(uint32_t pos) const {
   if (pos >= size()) {
      throw std::range_error(fmt::format("TcamEmulator::entry: {} outside 0..{}", pos, size() - 1));
   }
   return index_->entryAt(pos);
}

void TcamEmulator::forEachEntry(const std::function<void(uint32_t, const TcamEntry&)>& f) const {
   for (uint32_t pos = 0; pos < size(); ++pos) {
      if (index_->cells[pos].kind != EntryKind::empty) f(pos, index_->entryAt(pos));
   }
}

}  // namespace VexloL3Common::sim
