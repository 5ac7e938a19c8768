// Key-to-position bookkeeping of a TCAM context.
//
// Synopsis
//   MappingV4Base / MappingV4     IPv4 unicast keys; two routes of one prefix length may share an
//                                 entry (right half first), one tracked half-full entry per length
//   MappingV6Base / MappingV6     IPv6 unicast keys; a double-size route is recorded at the first
//                                 entry of its pair; `tcamBorder` splits double from single size
//   MappingMcastV4                IPv4 multicast keys
//   TcamMapping                   what the placement engine needs of any of them: insert a route,
//                                 move an entry, erase a route, the route at a position
//
// The mappings decide nothing about where routes go: the context chooses positions and calls
// these operations. What a mapping owns is its bookkeeping rules and the assertions that guard
// them, and it carries out moves and merges on its own records and hands each to the context's
// TcamPublisher, which counts it and publishes it (when asked) to the hardware writer.
//
// Position 0 is never a route's position: operations that take one assert it is non-zero and
// operations that return one use 0 for "none". Lookups of a missing member yield an empty value.
//
// Hot path: the records are flat (position-indexed arrays and an open-addressing key table);
// nothing allocates per operation once the tables have grown, and no trace line is formatted
// unless its level is on.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <utility>

#include "VexloL3Common/internal/FlatHashMap.h"
#include "VexloL3Common/tcam/L3Stats.h"
#include "VexloL3Common/tcam/L3TcamPublisher.h"
#include "VexloL3Common/tcam/L3TcamRoute.h"
#include "VexloL3Common/tcam/internal/L3TcamMappingImpl.h"
#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

class L3TcamManagerContext;

// The mapping of one route type as the placement engine sees it. Positions are physical entries.
class TcamMapping {
 public:
   virtual ~TcamMapping() = default;
   // Records a new route at the free position pos.
   virtual void insert(const TcamRoute& route, uint32_t pos) = 0;
   // Moves the whole entry at oldPos (both halves of an IPv4 entry) of prefix length len to the
   // free position newPos; the move is counted and published.
   virtual void move(uint32_t len, uint32_t newPos, uint32_t oldPos) = 0;
   // Forgets the route at pos; true when the entry is now empty (an IPv4 entry may keep its
   // other half).
   virtual bool erase(const TcamRoute& route, uint32_t pos) = 0;
   // The route at pos (the right half first for IPv4), valid until the mapping next changes.
   // Fatal when pos holds nothing.
   virtual TcamRoute routeAt(uint32_t pos) const = 0;
   // Records a route that the hardware holds at pos (an IPv4 route in half `right`, its other
   // half kept); true when pos held nothing before.
   virtual bool restore(const TcamRoute& route, uint32_t pos, bool right) = 0;
   // IPv4 only: the lone route of the half-full entry oldPos moves into the free half of newPos;
   // the merge is counted and published.
   virtual void merge(uint32_t len, uint32_t newPos, uint32_t oldPos, VrfId vrf, uint64_t sequence);
};

// ---- IPv4 --------------------------------------------------------------------------------

// The positions that hold one IPv4 key, each with a reference count. Outside a move a key has
// exactly one position, so the record keeps its first position inline.
class V4PrefixToEntryIdMap {
 public:
   V4PrefixToEntryIdMap() = default;
   explicit V4PrefixToEntryIdMap(const Ipv4UcastKey& key) : key_(key) {}

   const Ipv4UcastKey& key() const { return key_; }
   // Count recorded for pos, 0 when absent.
   uint32_t entryId(uint32_t pos) const;
   bool entryIdHas(uint32_t pos) const;
   void entryIdIs(uint32_t pos, uint32_t count);
   void entryIdInc(uint32_t pos, uint32_t n = 1);
   void entryIdDec(uint32_t pos, uint32_t n = 1);
   void entryIdDel(uint32_t pos);
   void entryIdDelAll();
   // Number of positions recorded.
   uint32_t entryIdCount() const;
   // The lowest recorded position, 0 when none.
   uint32_t firstEntryId() const;

 private:
   // Two inline (position, count) slots; position 0 marks a free slot, since it is never a
   // route's position. A third position is a broken invariant and asserts. Counts are 16 bits:
   // a key stands at most twice in one entry. 24 bytes in all, which keeps the key table's slots
   // small.
   int slotOf(uint32_t pos) const {
      return pos == 0 ? -1 : pos_[0] == pos ? 0 : pos_[1] == pos ? 1 : -1;
   }
   int addSlot(uint32_t pos);

   Ipv4UcastKey key_;
   uint32_t pos_[2] = {0, 0};
   uint16_t count_[2] = {0, 0};
};

class MappingV4Base {
 public:
   explicit MappingV4Base(bool twoV4RoutesPerEntry);
   virtual ~MappingV4Base();

   bool twoV4RoutesPerEntry() const { return twoV4RoutesPerEntry_; }
   bool initialized() const { return initialized_; }
   void handleInitialized();

   // Collections.
   const V4PrefixToEntryIdMap* keyToEntryId(const Ipv4UcastKey& key) const;  // null when absent
   V4PrefixToEntryIdMap& keyToEntryIdIs(const Ipv4UcastKey& key);            // find or create
   void keyToEntryIdDel(const Ipv4UcastKey& key);
   void keyToEntryIdDelAll();
   size_t keyToEntryIdSize() const;

   Ipv4Keys keys(uint32_t pos) const;  // all-zero Ipv4Keys when absent
   bool keysHas(uint32_t pos) const;
   void keysIs(uint32_t pos, const Ipv4Keys& k);
   void keysDel(uint32_t pos);
   void keysDelAll();
   size_t keysSize() const;
   // Calls f(pos, const Ipv4Keys&) for every present position in ascending order.
   template <class F>
   void forEachKeys(F&& f) const;

   uint32_t halfFull(uint32_t len) const;  // 0 when none
   void halfFullIs(uint32_t len, uint32_t pos);
   void halfFullDel(uint32_t len);
   void halfFullDelAll();
   size_t halfFullSize() const;  // number of tracked half-full entries
   // Bytes of heap held by the records (key table and position array).
   size_t memoryBytes() const;

   // Operations.
   uint16_t getEntryIdCount(const Ipv4UcastKey& key) const;
   uint32_t getEntryId(const Ipv4UcastKey& key) const;
   void setEntryKey(const Ipv4UcastKey& key, uint32_t pos);
   bool hasEntryKey(const Ipv4UcastKey& key, uint32_t pos) const;
   void clearEntryKey(const Ipv4UcastKey& key, uint32_t pos);
   bool isHalfEmptyRight(uint32_t pos, const Ipv4UcastKey& key) const;
   void insertFirstEntry(const Ipv4UcastKey& key, uint32_t pos);
   uint32_t insertSecondEntry(const Ipv4UcastKey& key, uint32_t entryId, bool useSwapArea,
                              bool swapRegionFull);
   void insertEntry(const Ipv4UcastKey& key, uint32_t pos, bool right, bool trackHalf);
   bool deleteEntry(const Ipv4UcastKey& key, uint32_t pos, bool right);
   void deleteEntries(uint32_t pos);
   void verifyEntry(const Ipv4UcastKey& key, uint32_t pos) const;
   Ipv4UcastKey pairedKey(const Ipv4UcastKey& key, uint32_t pos, uint32_t otherPos) const;
   bool rightKey(const Ipv4UcastKey& key, uint32_t pos) const;
   Ipv4UcastKey getKey(uint32_t pos, bool right) const;

   virtual void moveEntry(uint32_t len, uint32_t newPos, uint32_t oldPos, bool notify) = 0;
   virtual void mergeEntries(uint32_t prefixLength, uint32_t newPos, uint32_t oldPos, bool notify,
                             VrfId delVrfId, uint64_t sequence) = 0;

 protected:
   // An entry's keys and, per half, the key-table slot of that key's record when it was last
   // seen there. A hint only: slots move when the table grows or erases, so it is checked
   // against the key before use. Kept beside the keys so that a move reads both in one line.
   struct KeysAndHints {
      Ipv4Keys keys;
      uint32_t hint[2] = {~0u, ~0u};  // [0] left, [1] right
   };
   KeysAndHints keysAndHints(uint32_t pos) const;  // default when absent
   // The keys stored at pos, null when absent; valid until the mapping next changes.
   const Ipv4Keys* keysAt(uint32_t pos) const {
      const KeysAndHints* k = keys_.find(pos);
      return k ? &k->keys : nullptr;
   }
   // Moves an entry's keys and hints from oldPos to newPos; returns them where they now are
   // (valid until keys are added elsewhere).
   const KeysAndHints& moveKeys(uint32_t newPos, uint32_t oldPos);

   // clearEntryKey(key, oldPos) then setEntryKey(key, newPos), for a key that lands in half
   // `newRight` of newPos. With the key traces off the record is reached through `hint`, the
   // slot hint its old half carried, and the key is looked up only when the hint is stale.
   void relocateKey(const Ipv4UcastKey& key, uint32_t oldPos, uint32_t newPos, uint32_t hint,
                    bool newRight);

 private:
   static constexpr uint32_t maxLen = 32;
   using KeyTable = internal::FlatHashTable<V4PrefixToEntryIdMap, internal::RecordKeyOf,
                                            internal::Ipv4KeyHash, std::equal_to<Ipv4UcastKey>>;

   // The key's record when it holds pos, else null; traces as hasEntryKey does.
   V4PrefixToEntryIdMap* recordAt(const Ipv4UcastKey& key, uint32_t pos);
   const V4PrefixToEntryIdMap* recordAt(const Ipv4UcastKey& key, uint32_t pos) const;

   void hintIs(uint32_t pos, bool right, const V4PrefixToEntryIdMap* r);
   V4PrefixToEntryIdMap* recordEntryKey(const Ipv4UcastKey& key, uint32_t pos);

   bool twoV4RoutesPerEntry_;
   bool initialized_ = false;
   uint32_t halfFullCount_ = 0;
   std::array<uint32_t, maxLen + 1> halfFull_{};  // by prefix length; 0: none
   KeyTable keyToEntryId_;
   internal::PositionArray<KeysAndHints> keys_;
};

class MappingV4 : public MappingV4Base, public TcamMapping {
 public:
   MappingV4(bool twoV4RoutesPerEntry, Ulo::Ptr<TcamStats> tcamStats, Ulo::Ptr<RouteMove> routeMove,
             Ulo::Ptr<const RouteMove> routeMoveStatus, Ulo::Ptr<RouteMerge> routeMerge,
             Ulo::Ptr<const RouteMerge> routeMergeStatus);
   MappingV4(bool twoV4RoutesPerEntry, Ulo::Ptr<TcamPublisher> publisher);

   const Ulo::Ptr<TcamStats>& tcamStats() const { return publisher_->stats(); }
   const Ulo::Ptr<RouteMove>& routeMove() const { return publisher_->routeMove(); }
   const Ulo::Ptr<const RouteMove>& routeMoveStatus() const {
      return publisher_->routeMoveStatus();
   }
   const Ulo::Ptr<RouteMerge>& routeMerge() const { return publisher_->routeMerge(); }
   const Ulo::Ptr<const RouteMerge>& routeMergeStatus() const {
      return publisher_->routeMergeStatus();
   }

   void moveEntry(uint32_t len, uint32_t newPos, uint32_t oldPos, bool notify) override;
   void mergeEntries(uint32_t prefixLength, uint32_t newPos, uint32_t oldPos, bool notify,
                     VrfId delVrfId, uint64_t sequence) override;

   // TcamMapping: a new route takes the right half of a new entry (insertFirstEntry).
   void insert(const TcamRoute& route, uint32_t pos) override;
   void move(uint32_t len, uint32_t newPos, uint32_t oldPos) override;
   bool erase(const TcamRoute& route, uint32_t pos) override;
   TcamRoute routeAt(uint32_t pos) const override;
   bool restore(const TcamRoute& route, uint32_t pos, bool right) override;
   void merge(uint32_t len, uint32_t newPos, uint32_t oldPos, VrfId vrf,
              uint64_t sequence) override;

 private:
   Ulo::Ptr<TcamPublisher> publisher_;
};

// ---- IPv6 --------------------------------------------------------------------------------

class MappingV6Base {
 public:
   MappingV6Base();
   virtual ~MappingV6Base();

   bool initialized() const { return initialized_; }
   void handleInitialized();

   // Positions below the border hold double-size routes, the others single-size ones.
   uint32_t tcamBorder() const { return tcamBorder_; }
   void tcamBorderIs(uint32_t border) { tcamBorder_ = border; }

   // Collections. A key's positions are kept as a set (no counts).
   bool keyToEntryIdHas(const Ipv6UcastKey& key) const;
   // The key's first position, 0 when absent; untraced, for checks that ask about every move.
   uint32_t keyToEntryIdFirst(const Ipv6UcastKey& key) const;
   void keyToEntryIdIs(const Ipv6UcastKey& key, uint32_t pos);  // adds pos to the key's set
   void keyToEntryIdDel(const Ipv6UcastKey& key);
   void keyToEntryIdDelAll();
   size_t keyToEntryIdSize() const;

   const Ipv6UcastKey* entryIdToKey(uint32_t pos) const;  // null when absent
   void entryIdToKeyIs(uint32_t pos, const Ipv6UcastKey& key);
   void entryIdToKeyDel(uint32_t pos);
   void entryIdToKeyDelAll();
   size_t entryIdToKeySize() const;
   // Calls f(pos, const Ipv6UcastKey&) for every present position in ascending order.
   template <class F>
   void forEachEntryIdToKey(F&& f) const;
   // Bytes of heap held by the records.
   size_t memoryBytes() const;

   // Operations.
   uint16_t getEntryIdCount(const Ipv6UcastKey& key) const;
   uint32_t getEntryId(const Ipv6UcastKey& key) const;
   void setEntryId(const Ipv6UcastKey& key, uint32_t pos);
   void insertEntry(const Ipv6UcastKey& key, uint32_t pos);
   bool hasEntryId(const Ipv6UcastKey& key, uint32_t pos) const;
   void clearEntryId(const Ipv6UcastKey& key, uint32_t pos);
   void deleteEntry(const Ipv6UcastKey& key, uint32_t pos);
   bool hasEntryKey(uint32_t pos) const;
   Ipv6UcastKey getEntryKey(uint32_t pos) const;
   RouteType v6RouteTypeFromPos(uint32_t pos) const {
      return pos < tcamBorder_ ? RouteType::v6Full : RouteType::v6Half;
   }
   void verifyEntry(const Ipv6UcastKey& key, uint32_t pos) const;

   virtual void moveEntry(uint32_t len, uint32_t newPos, uint32_t oldPos, uint32_t pairPos,
                          bool notify) = 0;

 private:
   using KeyTable = internal::FlatHashTable<internal::V6KeyRecord, internal::RecordKeyOf,
                                            std::hash<Ipv6UcastKey>, std::equal_to<Ipv6UcastKey>>;

   bool initialized_ = false;
   uint32_t tcamBorder_ = 0;
   KeyTable keyToEntryId_;
   internal::PositionArray<Ipv6UcastKey> entryIdToKey_;
};

class MappingV6 : public MappingV6Base, public TcamMapping {
 public:
   MappingV6(Ulo::Ptr<TcamStats> tcamStats, Ulo::Ptr<RouteMove> routeMove,
             Ulo::Ptr<const RouteMove> routeMoveStatus);
   explicit MappingV6(Ulo::Ptr<TcamPublisher> publisher);

   void moveEntry(uint32_t len, uint32_t newPos, uint32_t oldPos, uint32_t pairPos,
                  bool notify) override;

   // TcamMapping; a route's size follows from its position (tcamBorder).
   void insert(const TcamRoute& route, uint32_t pos) override;
   void move(uint32_t len, uint32_t newPos, uint32_t oldPos) override;
   bool erase(const TcamRoute& route, uint32_t pos) override;
   TcamRoute routeAt(uint32_t pos) const override;
   bool restore(const TcamRoute& route, uint32_t pos, bool right) override;

 private:
   Ulo::Ptr<TcamPublisher> publisher_;
};

// ---- IPv4 multicast ----------------------------------------------------------------------

class MappingMcastV4 : public TcamMapping {
 public:
   // Publishes through the publisher of `ctx`, the context that owns it; keeps no pointer to it.
   explicit MappingMcastV4(L3TcamManagerContext* ctx);
   explicit MappingMcastV4(Ulo::Ptr<TcamPublisher> publisher);
   ~MappingMcastV4() override;

   bool initialized() const { return initialized_; }
   void handleInitialized();

   uint32_t entryId(const IpMcastPrefixKey& key) const;  // 0 when absent
   void entryIdIs(const IpMcastPrefixKey& key, uint32_t pos);
   void entryIdDel(const IpMcastPrefixKey& key);
   void entryIdDelAll();
   size_t entryIdSize() const;

   const IpMcastPrefixKey* key(uint32_t pos) const;  // null when absent
   void keyIs(uint32_t pos, const IpMcastPrefixKey& key);
   void keyDel(uint32_t pos);
   void keyDelAll();
   // Calls f(pos, const IpMcastPrefixKey&) for every present position in ascending order.
   template <class F>
   void forEachKey(F&& f) const;
   // Bytes of heap held by the records.
   size_t memoryBytes() const;

   void insertEntry(const IpMcastPrefixKey& key, uint32_t pos);
   void moveEntry(uint32_t len, uint32_t newPos, uint32_t oldPos, bool notify);
   void deleteEntry(const IpMcastPrefixKey& key, uint32_t pos);
   void verifyEntry(const IpMcastPrefixKey& key, uint32_t pos) const;

   // TcamMapping
   void insert(const TcamRoute& route, uint32_t pos) override;
   void move(uint32_t len, uint32_t newPos, uint32_t oldPos) override;
   bool erase(const TcamRoute& route, uint32_t pos) override;
   TcamRoute routeAt(uint32_t pos) const override;
   bool restore(const TcamRoute& route, uint32_t pos, bool right) override;

 private:
   Ulo::Ptr<TcamPublisher> publisher_;
   bool initialized_ = false;
   internal::FlatHashMap<IpMcastPrefixKey, uint32_t> entryId_;
   internal::PositionArray<IpMcastPrefixKey> key_;
};

// ---- iteration ---------------------------------------------------------------------------

template <class F>
void MappingV4Base::forEachKeys(F&& f) const {
   keys_.forEach([&f](uint32_t pos, const KeysAndHints& k) { f(pos, k.keys); });
}

template <class F>
void MappingV6Base::forEachEntryIdToKey(F&& f) const {
   entryIdToKey_.forEach(f);
}

template <class F>
void MappingMcastV4::forEachKey(F&& f) const {
   key_.forEach(f);
}

}  // namespace VexloL3Common
