// The IPv4 multicast mapping: one route per position, no halves.
#include <utility>

#include "VexloL3Common/tcam/L3TcamMapping.h"
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

using internal::assertPos;

Ulo::TraceHandle th("VexloL3CommonTcamTable");

}  // namespace

// ---- MappingMcastV4 ----------------------------------------------------------------------

MappingMcastV4::MappingMcastV4(L3TcamManagerContext* ctx) : publisher_(ctx->publisher()) {}

MappingMcastV4::MappingMcastV4(Ulo::Ptr<TcamPublisher> publisher)
    : publisher_(std::move(publisher)) {}

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
   publisher_->move(
       RouteType::v4Mcast, oldPos, newPos, EntryType::mcastV4, notify,
       "tcamManagerCtx()->routeMove()->pos() == tcamManagerCtx()->routeMoveStatus()->pos()");
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

void MappingMcastV4::insert(const TcamRoute& route, uint32_t pos) {
   insertEntry(route.mcastKey(), pos);
}

void MappingMcastV4::move(uint32_t len, uint32_t newPos, uint32_t oldPos) {
   moveEntry(len, newPos, oldPos, publisher_->notify());
}

bool MappingMcastV4::erase(const TcamRoute& route, uint32_t pos) {
   deleteEntry(route.mcastKey(), pos);
   return true;
}

bool MappingMcastV4::restore(const TcamRoute& route, uint32_t pos, bool) {
   insert(route, pos);
   return true;
}

TcamRoute MappingMcastV4::routeAt(uint32_t pos) const {
   const IpMcastPrefixKey* k = key(pos);
   VEXLO_ASSERT_MSG(k, "key( pos )", "pos: ", pos);
   return TcamRoute::mcast(*k);
}

}  // namespace VexloL3Common
