// The IPv6 unicast and IPv4 multicast mappings: one route per position, no halves.
//
// Storage as for IPv4: position-indexed arrays with a presence bitmap for position -> key, an
// open-addressing table for key -> position(s). A double-size IPv6 route is recorded at the first
// entry of its pair only; the pairing itself lives in the context's pair bitmap.

#include <utility>

#include "VexloL3Common/tcam/L3TcamMapping.h"
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

Ulo::TraceHandle th("VexloL3CommonTcamTable");

// Fatal for position 0, which is never a route's position.
inline void assertPos(uint32_t pos) {
   VEXLO_ASSERT_MSG(pos != 0, "pos", "pos: ", pos);
}

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
    : tcamStats_(std::move(tcamStats)),
      routeMove_(std::move(routeMove)),
      routeMoveStatus_(std::move(routeMoveStatus)) {}

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
   tcamStats_->moveRouteInc(type, 1);
   if (notify) {
      publishMove(*routeMove_, *routeMoveStatus_,
                  RoutePosition{tcamStats_->moveRoute(type), oldPos, newPos, false, EntryType::v6});
   }
}

// ---- MappingMcastV4 ----------------------------------------------------------------------

MappingMcastV4::MappingMcastV4(L3TcamManagerContext* ctx) : ctx_(ctx) {}

MappingMcastV4::~MappingMcastV4() = default;

void MappingMcastV4::handleInitialized() {
   if (initialized_) {
      TRACE(th, 1, "MappingMcastV4 already initialized");
      return;
   }
   entryIdDelAll();
   keyDelAll();
   initialized_ = true;
}

uint32_t MappingMcastV4::entryId(const IpMcastPrefixKey& key) const {
   const uint32_t* pos = entryId_.find(key);
   return pos ? *pos : 0;
}

void MappingMcastV4::entryIdIs(const IpMcastPrefixKey& key, uint32_t pos) {
   assertPos(pos);
   *entryId_.tryEmplace(key).first = pos;
}

void MappingMcastV4::entryIdDel(const IpMcastPrefixKey& key) {
   entryId_.erase(key);
}
void MappingMcastV4::entryIdDelAll() {
   entryId_.clear();
}
size_t MappingMcastV4::entryIdSize() const {
   return entryId_.size();
}

const IpMcastPrefixKey* MappingMcastV4::key(uint32_t pos) const {
   return key_.find(pos);
}

void MappingMcastV4::keyIs(uint32_t pos, const IpMcastPrefixKey& key) {
   assertPos(pos);
   key_.set(pos, key);
}

void MappingMcastV4::keyDel(uint32_t pos) {
   key_.erase(pos);
}
void MappingMcastV4::keyDelAll() {
   key_.clear();
}

size_t MappingMcastV4::memoryBytes() const {
   return entryId_.memoryBytes() + key_.memoryBytes();
}

void MappingMcastV4::insertEntry(const IpMcastPrefixKey& key, uint32_t pos) {
   TRACE(th, 5, "   insertEntry, key: ", key, ", pos: ", pos);
   entryIdIs(key, pos);
   keyIs(pos, key);
}

void MappingMcastV4::moveEntry(uint32_t, uint32_t newPos, uint32_t oldPos, bool notify) {
   TRACE(th, 5, "   moveEntry, new: ", newPos, ", old: ", oldPos);
   assertPos(oldPos);
   const IpMcastPrefixKey* found = key_.find(oldPos);
   const IpMcastPrefixKey k = found ? *found : IpMcastPrefixKey();
   keyIs(newPos, k);
   keyDel(oldPos);
   entryIdIs(k, newPos);
   TcamStats& stats = *ctx_->tcamStats();
   stats.moveRouteInc(RouteType::v4Mcast, 1);
   if (notify) {
      publishMove(
          *ctx_->routeMove(), *ctx_->routeMoveStatus(),
          RoutePosition{stats.moveRoute(RouteType::v4Mcast), oldPos, newPos, false,
                        EntryType::mcastV4},
          "tcamManagerCtx()->routeMove()->pos() == tcamManagerCtx()->routeMoveStatus()->pos()");
   }
}

void MappingMcastV4::deleteEntry(const IpMcastPrefixKey& key, uint32_t pos) {
   TRACE(th, 5, "   deleteEntry, key: ", key, ", pos: ", pos);
   entryIdDel(key);
   keyDel(pos);
}

void MappingMcastV4::verifyEntry(const IpMcastPrefixKey& k, uint32_t pos) const {
   TRACE(th, 5, "   verifyEntry, key: ", k, ", pos: ", pos);
   VEXLO_ASSERT_MSG(entryId(k) == pos, "entryId( k ) == pos", "entryId( k ): ", entryId(k));
   const IpMcastPrefixKey* found = key(pos);
   const IpMcastPrefixKey atPos = found ? *found : IpMcastPrefixKey();
   VEXLO_ASSERT_MSG(atPos == k, "key( pos ) == k", ", key( pos ): ", atPos);
}

}  // namespace VexloL3Common
