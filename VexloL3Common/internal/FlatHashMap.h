// Open-addressing hash tables for the hot path of the TCAM model.
//
// Synopsis
//   FlatHashTable<Slot, KeyOf, Hash, Eq>   a set of Slots identified by KeyOf()(slot); the slot
//                                          carries its own key, so nothing is stored twice
//   FlatHashMap<K, V, Hash, Eq>            the usual key -> value map on top of it
//
//   auto [v, inserted] = map.tryEmplace(key, args...);   // V* and whether it was created
//   V* v = map.find(key);                                 // null when absent
//   map.erase(key);  map.size();  map.clear();  map.memoryBytes();
//   for (auto& slot : map) ... slot.key, slot.value       // unspecified order
//
// Layout: one array of slots and one control byte per slot (0: empty; otherwise 0x80 plus seven
// bits of the hash, so that most mismatches are rejected without comparing keys). The capacity is
// a power of two; the home slot of a key is taken from the top bits of its mixed hash and
// collisions probe linearly, wrapping at the end. The load never exceeds 7/10: the table doubles
// before an insertion would pass it. Deletion shifts the following entries of the probe run back
// into the hole (no tombstones), so lookups never slow down under churn and the table never needs
// a cleanup rehash.
//
// Costs: nothing is allocated except when the table grows (or on the first insertion), so a table
// that has reached its working size allocates nothing more. Slot pointers and iterators are
// invalidated by any insertion or erasure. Iterating while erasing is not supported.
//
// Slot requirements: default-constructible (an empty slot holds a default value), move-assignable
// and constructible from (key, args...).
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

namespace VexloL3Common::internal {

// A 64-bit finalizer: every input bit affects every output bit. Applied on top of the key's own
// hash so that weak hashes (packed fields, identity hashes of integers) still spread over the top
// bits that choose the home slot.
constexpr uint64_t mixHash(uint64_t x) {
   x ^= x >> 33;
   x *= 0xff51afd7ed558ccdull;
   x ^= x >> 33;
   x *= 0xc4ceb9fe1a85ec53ull;
   x ^= x >> 33;
   return x;
}

template <class Slot, class KeyOf, class Hash, class Eq>
class FlatHashTable {
 public:
   using key_type = std::remove_cvref_t<std::invoke_result_t<KeyOf, const Slot&>>;
   static constexpr size_t minCapacity = 16;

   template <bool Const>
   class Iter {
    public:
      using Table = std::conditional_t<Const, const FlatHashTable, FlatHashTable>;
      using value_type = Slot;
      using reference = std::conditional_t<Const, const Slot&, Slot&>;
      using difference_type = std::ptrdiff_t;

      Iter() = default;
      Iter(Table* t, size_t i) : t_(t), i_(i) { skip(); }
      reference operator*() const { return t_->slots_[i_]; }
      auto* operator->() const { return &t_->slots_[i_]; }
      Iter& operator++() {
         ++i_;
         skip();
         return *this;
      }
      bool operator==(const Iter& o) const { return i_ == o.i_; }

    private:
      void skip() {
         while (i_ < t_->ctrl_.size() && t_->ctrl_[i_] == 0)
            ++i_;
      }
      Table* t_ = nullptr;
      size_t i_ = 0;
   };
   using iterator = Iter<false>;
   using const_iterator = Iter<true>;

   FlatHashTable() = default;

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   size_t capacity() const { return ctrl_.size(); }
   // Bytes held by the slot and control arrays.
   size_t memoryBytes() const { return ctrl_.capacity() + slots_.capacity() * sizeof(Slot); }

   Slot* find(const key_type& key) {
      const size_t i = findIndex(key);
      return i == npos ? nullptr : &slots_[i];
   }
   const Slot* find(const key_type& key) const {
      const size_t i = findIndex(key);
      return i == npos ? nullptr : &slots_[i];
   }
   bool contains(const key_type& key) const { return findIndex(key) != npos; }

   // Slot indices as hints: indexOf names a slot found by find() or tryEmplace(); at(i) is the
   // slot at index i if it is occupied, else null. Any insertion or erasure may move slots, so
   // whoever keeps an index must check that at(i) still holds the key it expects.
   uint32_t indexOf(const Slot* s) const { return uint32_t(s - slots_.data()); }
   Slot* at(uint32_t i) { return i < ctrl_.size() && ctrl_[i] != 0 ? &slots_[i] : nullptr; }

   // The slot of `key`, created from (key, args...) when absent; second is true when created.
   template <class... Args>
   std::pair<Slot*, bool> tryEmplace(const key_type& key, Args&&... args) {
      uint64_t h = hashOf(key);
      if (size_ != 0) {
         const size_t found = probe(key, h);
         if (found != npos) return {&slots_[found], false};
      }
      if (size_ + 1 > growAt_) rehash(ctrl_.empty() ? minCapacity : ctrl_.size() * 2);
      const size_t i = emptySlotFor(h);
      slots_[i] = Slot(key, std::forward<Args>(args)...);
      ctrl_[i] = tagOf(h);
      ++size_;
      return {&slots_[i], true};
   }

   // False when the key is absent.
   bool erase(const key_type& key) {
      const size_t i = findIndex(key);
      if (i == npos) return false;
      eraseAt(i);
      return true;
   }

   // Empties the table and keeps its capacity.
   void clear() {
      for (size_t i = 0; i < ctrl_.size(); ++i) {
         if (ctrl_[i] != 0) {
            ctrl_[i] = 0;
            slots_[i] = Slot();
         }
      }
      size_ = 0;
   }

   // Grows so that n entries fit without another rehash.
   void reserve(size_t n) {
      size_t cap = ctrl_.empty() ? minCapacity : ctrl_.size();
      while (n > loadLimit(cap))
         cap *= 2;
      if (cap != ctrl_.size()) rehash(cap);
   }

   iterator begin() { return iterator(this, 0); }
   iterator end() { return iterator(this, ctrl_.size()); }
   const_iterator begin() const { return const_iterator(this, 0); }
   const_iterator end() const { return const_iterator(this, ctrl_.size()); }

   // For tests: the home slot of a key in the current table (capacity must be non-zero).
   size_t homeSlot(const key_type& key) const { return size_t(hashOf(key) >> shift_); }
   // For tests: the slot that holds a key, or capacity() when absent.
   size_t slotOf(const key_type& key) const {
      const size_t i = findIndex(key);
      return i == npos ? ctrl_.size() : i;
   }
   // For tests: every entry sits in the probe run of its home slot (no empty slot between the
   // two), carries its hash's tag, the count matches, and the load limit holds.
   bool valid() const {
      size_t used = 0;
      for (size_t j = 0; j < ctrl_.size(); ++j) {
         if (ctrl_[j] == 0) continue;
         ++used;
         const uint64_t h = hashOf(KeyOf()(slots_[j]));
         if (ctrl_[j] != tagOf(h)) return false;
         for (size_t i = size_t(h >> shift_); i != j; i = next(i)) {
            if (ctrl_[i] == 0) return false;
         }
      }
      return used == size_ && size_ <= growAt_;
   }

 private:
   static constexpr size_t npos = ~size_t{0};

   static constexpr size_t loadLimit(size_t cap) { return cap * 7 / 10; }
   static constexpr uint8_t tagOf(uint64_t h) { return uint8_t(0x80u | (h & 0x7fu)); }
   uint64_t hashOf(const key_type& key) const { return mixHash(uint64_t(hash_(key))); }
   size_t next(size_t i) const { return (i + 1) & mask_; }

   size_t findIndex(const key_type& key) const {
      if (size_ == 0) return npos;
      return probe(key, hashOf(key));
   }

   size_t probe(const key_type& key, uint64_t h) const {
      const uint8_t tag = tagOf(h);
      for (size_t i = size_t(h >> shift_);; i = next(i)) {
         const uint8_t c = ctrl_[i];
         if (c == 0) return npos;
         if (c == tag && eq_(KeyOf()(slots_[i]), key)) return i;
      }
   }

   size_t emptySlotFor(uint64_t h) const {
      size_t i = size_t(h >> shift_);
      while (ctrl_[i] != 0)
         i = next(i);
      return i;
   }

   void eraseAt(size_t hole) {
      // Walk the rest of the probe run; an entry may move back into the hole when the hole lies
      // on its own probe path, i.e. cyclically within [home, j).
      for (size_t j = next(hole); ctrl_[j] != 0; j = next(j)) {
         const size_t home = size_t(hashOf(KeyOf()(slots_[j])) >> shift_);
         if (((j - home) & mask_) >= ((j - hole) & mask_)) {
            slots_[hole] = std::move(slots_[j]);
            ctrl_[hole] = ctrl_[j];
            hole = j;
         }
      }
      ctrl_[hole] = 0;
      slots_[hole] = Slot();
      --size_;
   }

   void rehash(size_t newCapacity) {
      std::vector<uint8_t> oldCtrl(newCapacity, 0);
      std::vector<Slot> oldSlots(newCapacity);
      oldCtrl.swap(ctrl_);
      oldSlots.swap(slots_);
      mask_ = newCapacity - 1;
      shift_ = unsigned(64 - std::countr_zero(newCapacity));
      growAt_ = loadLimit(newCapacity);
      for (size_t i = 0; i < oldCtrl.size(); ++i) {
         if (oldCtrl[i] == 0) continue;
         const uint64_t h = hashOf(KeyOf()(oldSlots[i]));
         const size_t j = emptySlotFor(h);
         slots_[j] = std::move(oldSlots[i]);
         ctrl_[j] = oldCtrl[i];
      }
   }

   std::vector<uint8_t> ctrl_;
   std::vector<Slot> slots_;
   size_t size_ = 0;
   size_t mask_ = 0;
   unsigned shift_ = 63;
   size_t growAt_ = 0;
   [[no_unique_address]] Hash hash_;
   [[no_unique_address]] Eq eq_;
};

// One entry of a FlatHashMap.
template <class K, class V>
struct FlatMapSlot {
   K key{};
   V value{};

   FlatMapSlot() = default;
   template <class... Args>
   explicit FlatMapSlot(const K& k, Args&&... args) : key(k), value(std::forward<Args>(args)...) {}
};

struct SlotKeyOf {
   template <class S>
   const auto& operator()(const S& s) const {
      return s.key;
   }
};

template <class K, class V, class Hash = std::hash<K>, class Eq = std::equal_to<K>>
class FlatHashMap {
   using Table = FlatHashTable<FlatMapSlot<K, V>, SlotKeyOf, Hash, Eq>;

 public:
   using Slot = FlatMapSlot<K, V>;
   using iterator = typename Table::iterator;
   using const_iterator = typename Table::const_iterator;

   size_t size() const { return table_.size(); }
   bool empty() const { return table_.empty(); }
   size_t capacity() const { return table_.capacity(); }
   size_t memoryBytes() const { return table_.memoryBytes(); }

   V* find(const K& key) {
      Slot* s = table_.find(key);
      return s ? &s->value : nullptr;
   }
   const V* find(const K& key) const {
      const Slot* s = table_.find(key);
      return s ? &s->value : nullptr;
   }
   bool contains(const K& key) const { return table_.contains(key); }

   // The value of `key`, constructed from args when absent; second is true when created.
   template <class... Args>
   std::pair<V*, bool> tryEmplace(const K& key, Args&&... args) {
      auto [s, created] = table_.tryEmplace(key, std::forward<Args>(args)...);
      return {&s->value, created};
   }
   bool erase(const K& key) { return table_.erase(key); }
   void clear() { table_.clear(); }
   void reserve(size_t n) { table_.reserve(n); }

   iterator begin() { return table_.begin(); }
   iterator end() { return table_.end(); }
   const_iterator begin() const { return table_.begin(); }
   const_iterator end() const { return table_.end(); }

   size_t homeSlot(const K& key) const { return table_.homeSlot(key); }
   size_t slotOf(const K& key) const { return table_.slotOf(key); }
   bool valid() const { return table_.valid(); }

 private:
   Table table_;
};

}  // namespace VexloL3Common::internal
