// The IPv6 unicast mapping: one route per position, no halves.
//
// Storage as for IPv4: position-indexed arrays with a presence bitmap for position -> key, an
// open-addressing table for key -> position(s). A double-size IPv6 route is recorded at the first
// entry of its pair only; the pairing itself lives in the context's pair bitmap.

#include <utility>

#include "VexloL3Common/tcam/L3TcamMapping.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

using internal::assertPos;

Ulo::TraceHandle th("VexloL3CommonTcamTable");

}  // namespace

// ---- MappingV6Base: collections ----------------------------------------------------------

MappingV6Base::MappingV6Base() {
   handleInitialized();
}

MappingV6Base::~MappingV6Base() = default;

void MappingV6Base::handleInitialized() {
   if (initialized_) {
      TRACE(th, 1, "MappingV6 already initialized");
      return;
   }
   keyToEntryIdDelAll();
   entryIdToKeyDelAll();
   initialized_ = true;
}

bool MappingV6Base::keyToEntryIdHas(const Ipv6UcastKey& key) const {
   return keyToEntryId_.contains(key);
}

void MappingV6Base::keyToEntryIdIs(const Ipv6UcastKey& key, uint32_t pos) {
   assertPos(pos);
   keyToEntryId_.tryEmplace(key).first->add(pos);
}

void MappingV6Base::keyToEntryIdDel(const Ipv6UcastKey& key) {
   keyToEntryId_.erase(key);
}
void MappingV6Base::keyToEntryIdDelAll() {
   keyToEntryId_.clear();
}
size_t MappingV6Base::keyToEntryIdSize() const {
   return keyToEntryId_.size();
}

const Ipv6UcastKey* MappingV6Base::entryIdToKey(uint32_t pos) const {
   return entryIdToKey_.find(pos);
}

void MappingV6Base::entryIdToKeyIs(uint32_t pos, const Ipv6UcastKey& key) {
   assertPos(pos);
   entryIdToKey_.set(pos, key);
}

void MappingV6Base::entryIdToKeyDel(uint32_t pos) {
   entryIdToKey_.erase(pos);
}
void MappingV6Base::entryIdToKeyDelAll() {
   entryIdToKey_.clear();
}
size_t MappingV6Base::entryIdToKeySize() const {
   return entryIdToKey_.size();
}

size_t MappingV6Base::memoryBytes() const {
   return keyToEntryId_.memoryBytes() + entryIdToKey_.memoryBytes();
}

// ---- MappingV6Base: operations -----------------------------------------------------------

uint16_t MappingV6Base::getEntryIdCount(const Ipv6UcastKey& key) const {
   const internal::V6KeyRecord* r = keyToEntryId_.find(key);
   const uint16_t cnt = r ? r->count() : 0;
   TRACE(th, 1, "getEntryIdCount key: ", key, " cnt: ", cnt);
   return cnt;
}

uint32_t MappingV6Base::keyToEntryIdFirst(const Ipv6UcastKey& key) const {
   const internal::V6KeyRecord* r = keyToEntryId_.find(key);
   return r ? r->first() : 0;
}

uint32_t MappingV6Base::getEntryId(const Ipv6UcastKey& key) const {
   const internal::V6KeyRecord* r = keyToEntryId_.find(key);
   uint32_t pos = 0;
   if (r) {
      VEXLO_ASSERT_MSG(r->count() == 1, "1+ pivots for prefix are not supported", "key: ", key,
                       " cnt: ", r->count());
      pos = r->first();
   }
   TRACE(th, 1, "getEntryId key: ", key, " pos: ", pos);
   return pos;
}

void MappingV6Base::setEntryId(const Ipv6UcastKey& key, uint32_t pos) {
   keyToEntryIdIs(key, pos);
   entryIdToKey_.set(pos, key);
   TRACE(th, 1, "setEntryId key: ", key, " pos: ", pos);
}

void MappingV6Base::insertEntry(const Ipv6UcastKey& key, uint32_t pos) {
   TRACE(th, 5, "   insertEntry, key: ", key.prefix, " (vrf ", key.vrfId, "), pos: ", pos);
   setEntryId(key, pos);
}

bool MappingV6Base::hasEntryId(const Ipv6UcastKey& key, uint32_t pos) const {
   const internal::V6KeyRecord* r = keyToEntryId_.find(key);
   const bool has = r && r->has(pos);
   TRACE(th, 1, "hasEntryId key: ", key, " pos: ", pos, " has: ", has);
   return has;
}

void MappingV6Base::clearEntryId(const Ipv6UcastKey& key, uint32_t pos) {
   if (hasEntryId(key, pos)) {
      internal::V6KeyRecord* r = keyToEntryId_.find(key);
      r->del(pos);
      if (r->count() == 0) keyToEntryId_.erase(key);
   }
   // The position is given up whichever key it held.
   entryIdToKey_.erase(pos);
   TRACE(th, 1, "clearEntryId key: ", key, " pos: ", pos);
}

void MappingV6Base::deleteEntry(const Ipv6UcastKey& key, uint32_t pos) {
   TRACE(th, 5, "   deleteEntry, key: ", key.prefix, " (vrf ", key.vrfId, "), pos: ", pos);
   clearEntryId(key, pos);
}

bool MappingV6Base::hasEntryKey(uint32_t pos) const {
   return entryIdToKey_.has(pos);
}

Ipv6UcastKey MappingV6Base::getEntryKey(uint32_t pos) const {
   const Ipv6UcastKey* k = entryIdToKey_.find(pos);
   return k ? *k : Ipv6UcastKey();
}

void MappingV6Base::verifyEntry(const Ipv6UcastKey& key, uint32_t pos) const {
   TRACE(th, 5, "   verifyEntry, key: ", key.prefix, " (vrf ", key.vrfId, "), pos: ", pos);
   if (!hasEntryId(key, pos)) [[unlikely]] {
      const internal::V6KeyRecord* r = keyToEntryId_.find(key);
      VEXLO_ASSERT_MSG(false, "hasEntryId( k, pos )", "entryId( k ): ", r ? r->first() : 0);
   }
}

// ---- MappingV6 ---------------------------------------------------------------------------

MappingV6::MappingV6(Ulo::Ptr<TcamStats> tcamStats, Ulo::Ptr<RouteMove> routeMove,
                     Ulo::Ptr<const RouteMove> routeMoveStatus)
    : MappingV6(tcamPublisherFactory(std::move(tcamStats), std::move(routeMove),
                                     std::move(routeMoveStatus), routeMergeFactory(),
                                     routeMergeFactory())) {}

MappingV6::MappingV6(Ulo::Ptr<TcamPublisher> publisher) : publisher_(std::move(publisher)) {}

void MappingV6::moveEntry(uint32_t, uint32_t newPos, uint32_t oldPos, uint32_t, bool notify) {
   TRACE(th, 5, "   moveEntry, new: ", newPos, ", old: ", oldPos);
   assertPos(newPos);
   assertPos(oldPos);
   // An empty old position moves the default key; callers never move empty positions.
   const Ipv6UcastKey key = getEntryKey(oldPos);
   clearEntryId(key, oldPos);
   setEntryId(key, newPos);
   // The size of the route is that of where it came from: a double-size route moved across the
   // border is still counted and published as double size.
   const RouteType type = v6RouteTypeFromPos(oldPos);
   publisher_->move(type, oldPos, newPos, EntryType::v6, notify);
}

void MappingV6::insert(const TcamRoute& route, uint32_t pos) {
   insertEntry(route.v6Key(), pos);
}

void MappingV6::move(uint32_t len, uint32_t newPos, uint32_t oldPos) {
   // The pair gap is not needed: a route's size follows from its position.
   moveEntry(len, newPos, oldPos, 0, publisher_->notify());
}

bool MappingV6::erase(const TcamRoute& route, uint32_t pos) {
   deleteEntry(route.v6Key(), pos);
   return true;
}

bool MappingV6::restore(const TcamRoute& route, uint32_t pos, bool) {
   insert(route, pos);
   return true;
}

TcamRoute MappingV6::routeAt(uint32_t pos) const {
   const Ipv6UcastKey* key = entryIdToKey(pos);
   VEXLO_ASSERT_MSG(key, "hasEntryKey( pos )", "pos: ", pos);
   return TcamRoute::v6(*key, v6RouteTypeFromPos(pos));
}

}  // namespace VexloL3Common
