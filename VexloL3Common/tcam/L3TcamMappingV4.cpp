// The IPv4 unicast mapping: key <-> position records, half-full pairing, moves and merges.
//
// Storage: `keys_` is a position-indexed array with a presence bitmap, `keyToEntryId_` an
// open-addressing table of V4PrefixToEntryIdMap records (each carries its own key, 24 bytes),
// `halfFull_` one slot per prefix length. Once these have grown to the table's working size no
// operation allocates, and trace pieces are only evaluated when their level is on.

#include "VexloL3Common/tcam/L3TcamMapping.h"

#include <algorithm>
#include <utility>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

using internal::assertPos;

Ulo::TraceHandle th("VexloL3CommonTcamTable");

constexpr uint32_t maxCount = 0xffff;

}  // namespace

// ---- V4PrefixToEntryIdMap ----------------------------------------------------------------

uint32_t V4PrefixToEntryIdMap::entryId(uint32_t pos) const {
   const int s = slotOf(pos);
   return s < 0 ? 0 : count_[s];
}

bool V4PrefixToEntryIdMap::entryIdHas(uint32_t pos) const {
   return slotOf(pos) >= 0;
}

int V4PrefixToEntryIdMap::addSlot(uint32_t pos) {
   assertPos(pos);
   int s = slotOf(pos);
   if (s >= 0) return s;
   s = pos_[0] == 0 ? 0 : (pos_[1] == 0 ? 1 : -1);
   VEXLO_ASSERT_MSG(s >= 0, "an IPv4 key holds at most two positions", "key: ", key_,
                    " positions: ", pos_[0], ", ", pos_[1], " adding: ", pos);
   pos_[s] = pos;
   count_[s] = 0;
   return s;
}

void V4PrefixToEntryIdMap::entryIdIs(uint32_t pos, uint32_t count) {
   VEXLO_ASSERT_MSG(count <= maxCount, "entryId( pos ) <= 0xffff", "pos: ", pos, " count: ", count);
   count_[addSlot(pos)] = uint16_t(count);
}

void V4PrefixToEntryIdMap::entryIdInc(uint32_t pos, uint32_t n) {
   const int s = addSlot(pos);
   VEXLO_ASSERT_MSG(uint64_t(count_[s]) + n <= maxCount, "entryId( pos ) <= 0xffff", "pos: ", pos,
                    " count: ", count_[s], " n: ", n);
   count_[s] = uint16_t(count_[s] + n);
}

void V4PrefixToEntryIdMap::entryIdDec(uint32_t pos, uint32_t n) {
   const int s = slotOf(pos);
   const uint32_t count = s < 0 ? 0 : count_[s];
   VEXLO_ASSERT_MSG(count >= n, "entryId( pos ) >= n", "pos: ", pos, " count: ", count, " n: ", n);
   if (s >= 0) count_[s] = uint16_t(count - n);
}

void V4PrefixToEntryIdMap::entryIdDel(uint32_t pos) {
   const int s = slotOf(pos);
   if (s < 0) return;
   pos_[s] = 0;
   count_[s] = 0;
}

void V4PrefixToEntryIdMap::entryIdDelAll() {
   pos_[0] = pos_[1] = 0;
   count_[0] = count_[1] = 0;
}

uint32_t V4PrefixToEntryIdMap::entryIdCount() const {
   return uint32_t(pos_[0] != 0) + uint32_t(pos_[1] != 0);
}

uint32_t V4PrefixToEntryIdMap::firstEntryId() const {
   if (pos_[0] == 0) return pos_[1];
   if (pos_[1] == 0) return pos_[0];
   return std::min(pos_[0], pos_[1]);
}

// ---- MappingV4Base: collections ----------------------------------------------------------

MappingV4Base::MappingV4Base(bool twoV4RoutesPerEntry) : twoV4RoutesPerEntry_(twoV4RoutesPerEntry) {
   handleInitialized();
}

MappingV4Base::~MappingV4Base() = default;

void MappingV4Base::handleInitialized() {
   if (initialized_) {
      TRACE(th, 1, "MappingV4 already initialized");
      return;
   }
   keyToEntryIdDelAll();
   keysDelAll();
   halfFullDelAll();
   initialized_ = true;
}

const V4PrefixToEntryIdMap* MappingV4Base::keyToEntryId(const Ipv4UcastKey& key) const {
   return keyToEntryId_.find(key);
}

V4PrefixToEntryIdMap& MappingV4Base::keyToEntryIdIs(const Ipv4UcastKey& key) {
   return *keyToEntryId_.tryEmplace(key).first;
}

void MappingV4Base::keyToEntryIdDel(const Ipv4UcastKey& key) {
   keyToEntryId_.erase(key);
}
void MappingV4Base::keyToEntryIdDelAll() {
   keyToEntryId_.clear();
}
size_t MappingV4Base::keyToEntryIdSize() const {
   return keyToEntryId_.size();
}

Ipv4Keys MappingV4Base::keys(uint32_t pos) const {
   const KeysAndHints* k = keys_.find(pos);
   return k ? k->keys : Ipv4Keys();
}

bool MappingV4Base::keysHas(uint32_t pos) const {
   return keys_.has(pos);
}

void MappingV4Base::keysIs(uint32_t pos, const Ipv4Keys& k) {
   assertPos(pos);
   if (KeysAndHints* existing = keys_.find(pos)) {
      existing->keys = k;
   } else {
      keys_.set(pos, KeysAndHints{k});
   }
}

MappingV4Base::KeysAndHints MappingV4Base::keysAndHints(uint32_t pos) const {
   const KeysAndHints* k = keys_.find(pos);
   return k ? *k : KeysAndHints{};
}

const MappingV4Base::KeysAndHints& MappingV4Base::moveKeys(uint32_t newPos, uint32_t oldPos) {
   assertPos(newPos);
   // The new position first: growing the array would move the old one.
   if (!keys_.has(newPos)) keys_.set(newPos, KeysAndHints{});
   KeysAndHints& dst = *keys_.find(newPos);
   const KeysAndHints* src = keys_.find(oldPos);
   dst = src ? *src : KeysAndHints{};
   keys_.erase(oldPos);
   return dst;
}

void MappingV4Base::hintIs(uint32_t pos, bool right, const V4PrefixToEntryIdMap* r) {
   if (KeysAndHints* k = keys_.find(pos)) k->hint[right] = keyToEntryId_.indexOf(r);
}

void MappingV4Base::keysDel(uint32_t pos) {
   keys_.erase(pos);
}
void MappingV4Base::keysDelAll() {
   keys_.clear();
}
size_t MappingV4Base::keysSize() const {
   return keys_.size();
}

uint32_t MappingV4Base::halfFull(uint32_t len) const {
   return len <= maxLen ? halfFull_[len] : 0;
}

void MappingV4Base::halfFullIs(uint32_t len, uint32_t pos) {
   VEXLO_ASSERT_MSG(len <= maxLen, "len <= 32", "len: ", len, ", pos: ", pos);
   assertPos(pos);
   if (halfFull_[len] == 0) ++halfFullCount_;
   halfFull_[len] = pos;
}

void MappingV4Base::halfFullDel(uint32_t len) {
   if (len > maxLen || halfFull_[len] == 0) return;
   halfFull_[len] = 0;
   --halfFullCount_;
}

void MappingV4Base::halfFullDelAll() {
   halfFull_.fill(0);
   halfFullCount_ = 0;
}

size_t MappingV4Base::halfFullSize() const {
   return halfFullCount_;
}

size_t MappingV4Base::memoryBytes() const {
   return keyToEntryId_.memoryBytes() + keys_.memoryBytes();
}

// ---- MappingV4Base: key records ----------------------------------------------------------

uint16_t MappingV4Base::getEntryIdCount(const Ipv4UcastKey& key) const {
   const V4PrefixToEntryIdMap* r = keyToEntryId_.find(key);
   const uint16_t cnt = r ? uint16_t(r->entryIdCount()) : 0;
   TRACE(th, 1, "getEntryIdCount key: ", key, " cnt: ", cnt);
   return cnt;
}

uint32_t MappingV4Base::getEntryId(const Ipv4UcastKey& key) const {
   const V4PrefixToEntryIdMap* r = keyToEntryId_.find(key);
   uint32_t pos = 0;
   if (r) {
      VEXLO_ASSERT_MSG(r->entryIdCount() == 1, "1+ pivots for prefix are not supported",
                       "key: ", key, " cnt: ", r->entryIdCount());
      pos = r->firstEntryId();
   }
   TRACE(th, 1, "getEntryId key: ", key, " pos: ", pos);
   return pos;
}

void MappingV4Base::setEntryKey(const Ipv4UcastKey& key, uint32_t pos) {
   recordEntryKey(key, pos);
}

V4PrefixToEntryIdMap* MappingV4Base::recordEntryKey(const Ipv4UcastKey& key, uint32_t pos) {
   assertPos(pos);
   V4PrefixToEntryIdMap& r = *keyToEntryId_.tryEmplace(key).first;
   r.entryIdInc(pos, 1);
   TRACE(th, 1, "setEntryKey key: ", key, " pos: ", pos, " cnt: ", r.entryIdCount());
   return &r;
}

const V4PrefixToEntryIdMap* MappingV4Base::recordAt(const Ipv4UcastKey& key, uint32_t pos) const {
   assertPos(pos);
   const V4PrefixToEntryIdMap* r = keyToEntryId_.find(key);
   const bool has = r && r->entryIdHas(pos);
   TRACE(th, 1, "hasEntryKey key: ", key, " pos: ", pos, " has: ", has);
   return has ? r : nullptr;
}

V4PrefixToEntryIdMap* MappingV4Base::recordAt(const Ipv4UcastKey& key, uint32_t pos) {
   return const_cast<V4PrefixToEntryIdMap*>(std::as_const(*this).recordAt(key, pos));
}

bool MappingV4Base::hasEntryKey(const Ipv4UcastKey& key, uint32_t pos) const {
   return recordAt(key, pos) != nullptr;
}

void MappingV4Base::clearEntryKey(const Ipv4UcastKey& key, uint32_t pos) {
   if (V4PrefixToEntryIdMap* r = recordAt(key, pos)) {
      VEXLO_ASSERT_MSG(r->entryId(pos) > 0, "keyToEntryId( key )->entryId( pos ) > 0", "key: ", key,
                       " pos: ", pos);
      r->entryIdDec(pos, 1);
      TRACE(th, 1, "clearEntryKey entryIds: ", r->entryId(pos));
      if (r->entryId(pos) == 0) {
         r->entryIdDel(pos);
         if (r->entryIdCount() == 0) keyToEntryId_.erase(key);
      }
   }
   TRACE(th, 1, "clearEntryKey key: ", key, " pos: ", pos);
}

void MappingV4Base::relocateKey(const Ipv4UcastKey& key, uint32_t oldPos, uint32_t newPos,
                                uint32_t hint, bool newRight) {
   if (th.enabled(1)) {
      clearEntryKey(key, oldPos);
      setEntryKey(key, newPos);
      return;
   }
   assertPos(oldPos);
   assertPos(newPos);
   V4PrefixToEntryIdMap* r = keyToEntryId_.at(hint);
   if (!r || !(r->key() == key)) r = keyToEntryId_.find(key);
   if (!r) {
      setEntryKey(key, newPos);
      return;
   }
   // The record keeps the key's other positions, so it is never erased in between.
   if (r->entryIdHas(oldPos)) {
      VEXLO_ASSERT_MSG(r->entryId(oldPos) > 0, "keyToEntryId( key )->entryId( pos ) > 0",
                       "key: ", key, " pos: ", oldPos);
      r->entryIdDec(oldPos, 1);
      if (r->entryId(oldPos) == 0) r->entryIdDel(oldPos);
   }
   r->entryIdInc(newPos, 1);
   hintIs(newPos, newRight, r);
}

// ---- MappingV4Base: placement and removal ------------------------------------------------

bool MappingV4Base::isHalfEmptyRight(uint32_t pos, const Ipv4UcastKey& key) const {
   TRACE(th, 1, "isHalfEmptyRight entryId: ", pos, " key: ", key);
   // Position 0 never holds a route: like any missing entry it reads as all zero, which is no
   // empty half, so it answers false.
   const Ipv4Keys k = keys(pos);
   TRACE(th, 1, "isHalfEmptyRight right: ", k.right, " left: ", k.left);
   return k.right.isNull();
}

void MappingV4Base::insertFirstEntry(const Ipv4UcastKey& key, uint32_t pos) {
   TRACE(th, 4, "   insertFirstEntry, key: ", key.prefix, " (vrf ", key.vrfId, "), pos: ", pos);
   // The first route of an entry always takes the right half.
   keysIs(pos, Ipv4Keys(Ipv4UcastKey::nullKey(key.vrfId), key));
   hintIs(pos, true, recordEntryKey(key, pos));
   const uint32_t len = key.len();
   VEXLO_ASSERT_MSG(halfFull(len) == 0, "halfFull( len ) == 0", "len: ", len,
                    ", halfFull( len ): ", halfFull(len));
   if (twoV4RoutesPerEntry_) halfFullIs(len, pos);
}

uint32_t MappingV4Base::insertSecondEntry(const Ipv4UcastKey& key, uint32_t entryId,
                                          bool useSwapArea, bool swapRegionFull) {
   VEXLO_ASSERT(twoV4RoutesPerEntry_, "twoV4RoutesPerEntry()");
   TRACE(th, 4, "   insertSecondEntry, key: ", key.prefix, " (vrf ", key.vrfId,
         "), entry: ", entryId, ", useSwapArea ", useSwapArea);
   if (!useSwapArea && swapRegionFull) {
      TRACE(th, 7, "Swap area allocation blocked");
      return 0;
   }
   const uint32_t len = key.len();
   uint32_t entry = entryId;
   if (entryId != 0) {
      VEXLO_ASSERT_MSG(halfFull(len) == entryId, "halfFull( len ) == entryId", "len: ", len,
                       ", halfFull( len ): ", halfFull(len), ", entryId: ", entryId);
   } else {
      entry = halfFull(len);
   }
   // The entry is about to become full.
   halfFullDel(len);
   setEntryKey(key, entry);
   Ipv4Keys k = keys(entry);
   if (k.right.isNull()) {
      k.right = key;
   } else {
      VEXLO_ASSERT_MSG(k.left.isNull(), "k.left().prefix().isNullPrefix()",
                       "k.left().prefix(): ", k.left.prefix);
      k.left = key;
   }
   keysIs(entry, k);
   TRACE(th, 4, "   Entry: ", entry);
   return entry;
}

void MappingV4Base::insertEntry(const Ipv4UcastKey& key, uint32_t pos, bool right, bool trackHalf) {
   TRACE(th, 4, "   insertEntry, key: ", key.prefix, " (vrf ", key.vrfId, "), pos: ", pos,
         right ? ", right" : ", left", " trackHalf: ", trackHalf);
   const V4PrefixToEntryIdMap* r = recordEntryKey(key, pos);
   const uint32_t len = key.len();
   Ipv4Keys k;
   if (const KeysAndHints* existing = keys_.find(pos)) {
      k = existing->keys;
      // The second half is being filled.
      if (trackHalf && halfFull(len) == pos) halfFullDel(len);
   } else {
      TRACE(th, 4, "  new entry");
      const Ipv4UcastKey empty = Ipv4UcastKey::nullKey(key.vrfId);
      k = Ipv4Keys(empty, empty);
      if (trackHalf && halfFull(len) == 0) halfFullIs(len, pos);
   }
   (right ? k.right : k.left) = key;
   keysIs(pos, k);
   hintIs(pos, right, r);
}

bool MappingV4Base::deleteEntry(const Ipv4UcastKey& key, uint32_t pos, bool right) {
   TRACE(th, 4, "   deleteEntry, key: ", key.prefix, " (vrf ", key.vrfId, "), pos: ", pos,
         " right: ", right);
   assertPos(pos);
   Ipv4Keys k = keys(pos);
   TRACE(th, 4, "   ", __PRETTY_FUNCTION__, " 1 pos: ", pos, " right:", k.right.prefix, " (vrf ",
         k.right.vrfId, ") left: ", k.left.prefix, " (vrf ", k.left.vrfId, ")");
   Ipv4UcastKey other;
   if (!right) {
      VEXLO_ASSERT_MSG(k.left == key, "k.left() == key", "k.left(): ", k.left, ", key: ", key);
      other = k.right;
   } else {
      VEXLO_ASSERT_MSG(k.right == key, "k.right() == key", "k.right(): ", k.right, ", key: ", key);
      other = k.left;
   }
   const uint32_t len = key.len();
   if (!other.isNull()) {
      (right ? k.right : k.left) = Ipv4UcastKey::nullKey(key.vrfId);
      clearEntryKey(key, pos);
      keysIs(pos, k);
      // The newest half-full entry of a length is the tracked one; the caller merges the other.
      halfFullIs(len, pos);
      TRACE(th, 4, "   V4 entry still half full len ", len);
      return false;
   }
   clearEntryKey(key, pos);
   keysDel(pos);
   if (twoV4RoutesPerEntry_) {
      VEXLO_ASSERT_MSG(halfFull(len) == pos, "halfFull( len ) == pos", "len: ", len,
                       ", halfFull( len ): ", halfFull(len), ", pos: ", pos);
      halfFullDel(len);
   }
   TRACE(th, 4, "   V4 entry now empty len ", len);
   return true;
}

void MappingV4Base::deleteEntries(uint32_t pos) {
   TRACE(th, 4, "   deleteEntries, pos: ", pos);
   assertPos(pos);
   const Ipv4Keys k = keys(pos);
   uint32_t len = 0;
   if (!k.left.isNull()) {
      clearEntryKey(k.left, pos);
      len = k.left.len();
   }
   if (!k.right.isNull()) {
      clearEntryKey(k.right, pos);
      len = k.right.len();
   }
   keysDel(pos);
   if (halfFull(len) == pos) halfFullDel(len);
   TRACE(th, 4, "   V4 entries deleted len ", len);
}

// ---- MappingV4Base: queries --------------------------------------------------------------

void MappingV4Base::verifyEntry(const Ipv4UcastKey& key, uint32_t pos) const {
   VEXLO_ASSERT_MSG(hasEntryKey(key, pos), "hasEntryKey( key, pos )", "Failed to find key ", key,
                    " pos: ", pos);
   TRACE(th, 4, "   verifyEntry, key: ", key.prefix, " (vrf ", key.vrfId, "), pos: ", pos);
   const Ipv4Keys k = keys(pos);
   Ipv4UcastKey other;
   if (k.left == key) {
      other = k.right;
   } else {
      VEXLO_ASSERT_MSG(k.right == key, "k.right() == key", "k.right(): ", k.right, "key: ", key);
      other = k.left;
   }
   const uint32_t len = key.len();
   if (other.isNull() && twoV4RoutesPerEntry_) {
      VEXLO_ASSERT_MSG(halfFull(len) == pos, "halfFull( len ) == pos", "len: ", len,
                       ", halfFull( len ): ", halfFull(len), ", pos: ", pos);
   } else {
      VEXLO_ASSERT_MSG(halfFull(len) != pos, "halfFull( len ) != pos", "len: ", len,
                       ", halfFull( len ): ", halfFull(len), ", pos: ", pos);
   }
}

Ipv4UcastKey MappingV4Base::pairedKey(const Ipv4UcastKey& key, uint32_t pos, uint32_t) const {
   assertPos(pos);
   const Ipv4Keys k = keys(pos);
   Ipv4UcastKey paired = key;
   if (k.right == key) {
      paired = k.left;
   } else if (k.left == key) {
      paired = k.right;
   } else {
      const Ipv4UcastKey nullKey = Ipv4UcastKey::nullKey(key.vrfId);
      VEXLO_ASSERT_MSG(key == nullKey, "key == nullKey", "key: ", key, ", nullKey: ", nullKey);
   }
   TRACE(th, 4, "   pairedKey, key: ", key.prefix, " (vrf ", key.vrfId, "), pos: ", pos,
         ", pairedKey: ", paired.prefix, " (vrf ", paired.vrfId, ")");
   return paired;
}

bool MappingV4Base::rightKey(const Ipv4UcastKey& key, uint32_t pos) const {
   assertPos(pos);
   const Ipv4Keys k = keys(pos);
   if (k.right == key) return true;
   VEXLO_ASSERT_MSG(k.left == key, "0", "key: ", key, " pos: ", pos, " keys: ", k);
   return false;
}

Ipv4UcastKey MappingV4Base::getKey(uint32_t pos, bool right) const {
   assertPos(pos);
   const KeysAndHints* k = keys_.find(pos);
   if (!k) return Ipv4UcastKey();
   return right ? k->keys.right : k->keys.left;
}

}  // namespace VexloL3Common
