// verifyEntries: verify() for the entries an operation touched, at a cost that does not grow with
// the table. Each entry's records are checked the way verify() checks them (mapping both ways,
// occupancy, placement in its length's range, the pair of a double-size route, the IPv4 halves);
// an entry that holds nothing must be free unless it is reserved or the second entry of a pair.
// The checks of the whole model that cost no pass over the table come along: the length ranges,
// the borders, the swap reserve, the half-full tracking and the used entries counted against the
// routes. What only a pass shows (two keys claiming one entry somewhere else, a stray bit in the
// middle of nothing) is left to verify().
#include <algorithm>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/tcam/internal/L3TcamVerifyChecks.h"
#include "platform/Assert.h"

namespace VexloL3Common {

using internal::verifyPlacement;

void L3TcamManagerContext::verifyEntries(const std::vector<uint32_t>& positions) const {
   if (!layoutDone_) return;
   verifyBlockRanges();
   if (v4Mcast()) {
      for (uint32_t pos : positions)
         verifyMcastEntry(pos);
      const TcamBlock& blk = *block(RouteType::v4Mcast);
      VEXLO_ASSERT_MSG(mcastV4_->entryIdSize() == blk.bitmap()->count(),
                       "verify: multicast entries counted", mcastV4_->entryIdSize(), " routes, ",
                       blk.bitmap()->count(), " used entries");
      return;
   }
   verifyBorders();
   for (uint32_t pos : positions)
      verifyUnicastEntry(pos);
   verifySwapReserve();
   const TcamBlock& blk4 = *block(RouteType::v4);
   VEXLO_ASSERT_MSG(v4_->keysSize() == blk4.bitmap()->count(), "verify: IPv4 entries counted",
                    v4_->keysSize(), " entries, ", blk4.bitmap()->count(), " used");
   size_t counted = 0;
   for (uint32_t len = 0; len <= 32; ++len) {
      counted += stats_->maskLengthsIpv4(len);
      if (const uint32_t hf = v4_->halfFull(len)) {
         const Ipv4Keys k = v4_->keys(hf);
         VEXLO_ASSERT_MSG(k.left.isNull() != k.right.isNull() &&
                              (k.left.isNull() ? k.right.len() : k.left.len()) == len,
                          "verify: tracked half-full entry", "len ", len, " pos ", hf, " keys ", k);
      }
   }
   VEXLO_ASSERT_MSG(counted == v4_->keyToEntryIdSize(), "verify: IPv4 keys counted", counted,
                    " routes, ", v4_->keyToEntryIdSize(), " keys");
   VEXLO_ASSERT_MSG(
       v6_->keyToEntryIdSize() == entries(RouteType::v6Half) + entries(RouteType::v6Full),
       "verify: IPv6 entries counted", v6_->keyToEntryIdSize(), " routes, ",
       entries(RouteType::v6Half), " single-size and ", entries(RouteType::v6Full),
       " double-size entries");
}

void L3TcamManagerContext::verifyMcastEntry(uint32_t pos) const {
   const IpMcastPrefixKey* key = pos < effectiveSize_ ? mcastV4_->key(pos) : nullptr;
   if (!key) {
      const uint32_t g = occupancy_.gap();
      VEXLO_ASSERT_MSG(pos >= occupancy_.entries()->size() ||
                           !occupancy_.entries()->isBitSet(pos) || pos == 0 ||
                           (g != 0 && pos == g) || invalidEntry(pos),
                       "verify: bitmap", "entry ", pos, " used without a route");
      return;
   }
   mcastV4_->verifyEntry(*key, pos);
   verifyPlacement(RouteType::v4Mcast, *block(RouteType::v4Mcast), pos, key->len);
   VEXLO_ASSERT_MSG(occupancy_.entries()->isBitSet(pos), "verify: bitmap", "entry ", pos, " holds ",
                    *key, " but is free");
}

void L3TcamManagerContext::verifyUnicastEntry(uint32_t pos) const {
   const uint32_t g = occupancy_.gap();
   const HBitmap& used = *occupancy_.entries();
   if (pos == 0 || pos >= used.size()) return;
   const Ipv6UcastKey* key6 = v6_->entryIdToKey(pos);
   if (v4_->keysHas(pos)) {
      VEXLO_ASSERT_MSG(!key6, "verify: one claim per entry", "IPv4 entry at ", pos,
                       " stands on an entry that is reserved or already holds a route");
      verifyRoute4Entry(pos, v4_->keys(pos));
   } else if (key6) {
      v6_->verifyEntry(*key6, pos);
      VEXLO_ASSERT_MSG(v6_->getEntryId(*key6) == pos, "verify: key at one position", *key6);
      if (v6_->v6RouteTypeFromPos(pos) == RouteType::v6Full) {
         const uint32_t pair = physicalToPair(pos);
         VEXLO_ASSERT_MSG(pairToPhysical(pair) == pos, "verify: double-size route on a first entry",
                          "pos ", pos);
         verifyPlacement(RouteType::v6Full, *block(RouteType::v6Full), pair, key6->len());
         VEXLO_ASSERT_MSG(pos + g < used.size() && used.isBitSet(pos + g) &&
                              !v4_->keysHas(pos + g) && !v6_->entryIdToKey(pos + g) &&
                              occupancy_.pairs()->isBitSet(pair),
                          "verify: one claim per entry", "partner of a double-size IPv6 route at ",
                          pos + g, " stands on an entry that is reserved or already holds a route");
      } else {
         verifyPlacement(RouteType::v6Half, *block(RouteType::v6Half), pos, key6->len());
      }
   } else {
      // Free, reserved, invalid, or the second entry of a double-size pair.
      const Ipv6UcastKey* first = pos > g && g != 0 ? v6_->entryIdToKey(pos - g) : nullptr;
      const bool partner = first && v6_->v6RouteTypeFromPos(pos - g) == RouteType::v6Full;
      VEXLO_ASSERT_MSG(!used.isBitSet(pos) || partner || invalidEntry(pos) ||
                           (v4V6InterleavingDisabled() && pos == g),
                       "verify: bitmap", "entry ", pos, " used without a route");
      return;
   }
   VEXLO_ASSERT_MSG(used.isBitSet(pos), "verify: bitmap", "entry ", pos,
                    " holds a route but is free");
}

void L3TcamManagerContext::verifyRoute4Entry(uint32_t pos, const Ipv4Keys& k) const {
   VEXLO_ASSERT_MSG(pos != 0 && static_cast<bool>(k), "verify: IPv4 entry holds a route", "pos ",
                    pos, " keys ", k);
   const bool hasLeft = !k.left.isNull(), hasRight = !k.right.isNull();
   const uint32_t len = hasRight ? k.right.len() : k.left.len();
   VEXLO_ASSERT_MSG(!(hasLeft && hasRight) || k.left.len() == k.right.len(),
                    "verify: both halves of one length", "pos ", pos, " keys ", k);
   VEXLO_ASSERT_MSG(twoV4RoutesPerEntry() || (hasRight && !hasLeft),
                    "verify: one route per entry sits in the right half", "pos ", pos, " keys ", k);
   for (const Ipv4UcastKey* key : {&k.left, &k.right}) {
      if (key->isNull()) continue;
      v4_->verifyEntry(*key, pos);
      VEXLO_ASSERT_MSG(v4_->getEntryId(*key) == pos, "verify: key at one position", *key);
   }
   verifyPlacement(RouteType::v4, *block(RouteType::v4), pos, len);
}

bool L3TcamManagerContext::invalidEntry(uint32_t pos) const {
   for (const InvalidEntryRange& r : invalidEntryManager_->invalidEntryRange()) {
      if (pos >= r.start && pos <= r.end) return true;
   }
   return false;
}

}  // namespace VexloL3Common
