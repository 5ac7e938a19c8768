// The IPv4 unicast mapping's moves and merges, and its view for the placement engine.
#include <utility>

#include "VexloL3Common/tcam/L3TcamMapping.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

using internal::assertPos;

Ulo::TraceHandle th("VexloL3CommonTcamTable");

}  // namespace

// ---- MappingV4: moves and merges ---------------------------------------------------------

MappingV4::MappingV4(bool twoV4RoutesPerEntry, Ulo::Ptr<TcamStats> tcamStats,
                     Ulo::Ptr<RouteMove> routeMove, Ulo::Ptr<const RouteMove> routeMoveStatus,
                     Ulo::Ptr<RouteMerge> routeMerge, Ulo::Ptr<const RouteMerge> routeMergeStatus)
    : MappingV4(twoV4RoutesPerEntry,
                tcamPublisherFactory(std::move(tcamStats), std::move(routeMove),
                                     std::move(routeMoveStatus), std::move(routeMerge),
                                     std::move(routeMergeStatus))) {}

MappingV4::MappingV4(bool twoV4RoutesPerEntry, Ulo::Ptr<TcamPublisher> publisher)
    : MappingV4Base(twoV4RoutesPerEntry), publisher_(std::move(publisher)) {}

void MappingV4::moveEntry(uint32_t len, uint32_t newPos, uint32_t oldPos, bool notify) {
   assertPos(newPos);
   assertPos(oldPos);
   const KeysAndHints& moved = moveKeys(newPos, oldPos);
   const Ipv4Keys& k = moved.keys;
   TRACE(th, 4, "   moveEntry, new: ", newPos, ", old: ", oldPos, ",", k);
   const bool hasRight = !k.right.isNull();
   const bool hasLeft = !k.left.isNull();
   if (hasRight) relocateKey(k.right, oldPos, newPos, moved.hint[1], true);
   if (hasLeft) relocateKey(k.left, oldPos, newPos, moved.hint[0], false);
   const EntryType type = hasRight && hasLeft ? EntryType::v4Both
                          : hasRight          ? EntryType::v4Right
                          : hasLeft           ? EntryType::v4Left
                                              : EntryType::none;
   if (halfFull(len) == oldPos) halfFullIs(len, newPos);
   publisher_->move(RouteType::v4, oldPos, newPos, type, notify);
}

void MappingV4::mergeEntries(uint32_t prefixLength, uint32_t newPos, uint32_t oldPos, bool notify,
                             VrfId delVrfId, uint64_t sequence) {
   TRACE(th, 4, "   mergeEntries, new: ", newPos, ", old: ", oldPos, ", notify: ", notify,
         ", sequence: ", sequence, ", delVrfIdL ", delVrfId);
   assertPos(newPos);
   assertPos(oldPos);
   const KeysAndHints srcAt = keysAndHints(oldPos);
   const Ipv4Keys& src = srcAt.keys;
   Ipv4UcastKey srcKey;
   EntryType srcType;
   if (src.right.isNull()) {
      srcKey = src.left;
      VEXLO_ASSERT_MSG(!srcKey.isNull(), "!srcKey.prefix().isNullPrefix()", "srcKey: ", srcKey,
                       ", pos: ", oldPos);
      srcType = EntryType::v4Left;
   } else {
      srcKey = src.right;
      VEXLO_ASSERT_MSG(src.left.isNull(), "k.left().prefix().isNullPrefix()",
                       "k.left().prefix(): ", src.left.prefix);
      srcType = EntryType::v4Right;
   }
   keysDel(oldPos);

   Ipv4Keys dst = keys(newPos);
   EntryType dstType;
   if (dst.right.isNull()) {
      VEXLO_ASSERT_MSG(!dst.left.isNull(), "!k.left().prefix().isNullPrefix()",
                       "k.left().prefix(): ", dst.left.prefix);
      dst.right = srcKey;
      dstType = EntryType::v4Right;
   } else {
      VEXLO_ASSERT_MSG(dst.left.isNull(), "k.left().prefix().isNullPrefix()",
                       "k.left().prefix(): ", dst.left.prefix);
      dst.left = srcKey;
      dstType = EntryType::v4Left;
   }
   keysIs(newPos, dst);
   relocateKey(srcKey, oldPos, newPos, srcAt.hint[srcType == EntryType::v4Right],
               dstType == EntryType::v4Right);

   // After the merge no entry of this length has a free half.
   VEXLO_ASSERT_MSG(halfFull(prefixLength) != 0, "halfFull( prefixLength )",
                    "prefixLength: ", prefixLength);
   halfFullDel(prefixLength);

   publisher_->merge(oldPos, srcType, newPos, dstType, notify);
}

// ---- the engine's view ------------------------------------------------------------------

void TcamMapping::merge(uint32_t, uint32_t newPos, uint32_t oldPos, VrfId, uint64_t) {
   VEXLO_ASSERT_MSG(false, "only IPv4 entries merge", "new ", newPos, " old ", oldPos);
}

// ---- MappingV4: the engine's view --------------------------------------------------------

void MappingV4::insert(const TcamRoute& route, uint32_t pos) {
   insertFirstEntry(route.v4Key(), pos);
}

void MappingV4::move(uint32_t len, uint32_t newPos, uint32_t oldPos) {
   moveEntry(len, newPos, oldPos, publisher_->notify());
}

bool MappingV4::erase(const TcamRoute& route, uint32_t pos) {
   const Ipv4UcastKey& key = route.v4Key();
   return deleteEntry(key, pos, rightKey(key, pos));
}

bool MappingV4::restore(const TcamRoute& route, uint32_t pos, bool right) {
   const bool fresh = !keysHas(pos);
   insertEntry(route.v4Key(), pos, right, false);
   return fresh;
}

void MappingV4::merge(uint32_t len, uint32_t newPos, uint32_t oldPos, VrfId vrf,
                      uint64_t sequence) {
   mergeEntries(len, newPos, oldPos, publisher_->notify(), vrf, sequence);
}

TcamRoute MappingV4::routeAt(uint32_t pos) const {
   const Ipv4Keys* k = keysAt(pos);
   VEXLO_ASSERT_MSG(k && (!k->right.isNull() || !k->left.isNull()), "!nullRight || !nullLeft",
                    "entry ", pos);
   return TcamRoute::v4(k->right.isNull() ? k->left : k->right);
}

}  // namespace VexloL3Common
