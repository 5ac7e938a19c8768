// Route insertion: target choice, free-entry search and shifting.
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

Ulo::TraceHandle th("VexloL3CommonTcamTable");
constexpr uint32_t npos = HBitmap::npos;

unsigned traceLevel(RouteType t) {
   return (t == RouteType::v6Half || t == RouteType::v6Full) ? 3 : 2;
}

// Traces "<name>, key: <key> (vrf <vrf>)<rest...>" for the key that belongs to the route type.
template <class... Rest>
void traceKey(unsigned level, const char* name, RouteType t, const Ipv4UcastKey& k4,
              const Ipv6UcastKey& k6, const IpMcastPrefixKey& km, const Rest&... rest) {
   if (!th.enabled(level)) return;
   switch (t) {
      case RouteType::v4:
         th.emit(level, name, ", key: ", k4.prefix, " (vrf ", k4.vrfId, ")", rest...);
         break;
      case RouteType::v6Half:
      case RouteType::v6Full:
         th.emit(level, name, ", key: ", k6.prefix, " (vrf ", k6.vrfId, ")", rest...);
         break;
      case RouteType::v4Mcast:
         th.emit(level, name, ", key: ", km, rest...);
         break;
   }
}

}  // namespace

uint32_t L3TcamManagerContext::prefixLength(RouteType t, const Ipv4UcastKey& key4,
                                            const Ipv6UcastKey& key6,
                                            const IpMcastPrefixKey& keyMcast) const {
   switch (t) {
      case RouteType::v4:
         return key4.len();
      case RouteType::v4Mcast:
         return keyMcast.len;
      case RouteType::v6Full:
         VEXLO_ASSERT_MSG(supportsDefipPairing(), "supportsDefipPairing()",
                          "DefipPairing is not supported");
         return key6.len();
      case RouteType::v6Half:
         return key6.len();
   }
   VEXLO_UNREACHABLE("Invalid route type");
}

void L3TcamManagerContext::moveEntry(RouteType t, uint32_t len, uint32_t newPos, uint32_t oldPos) {
   switch (t) {
      case RouteType::v4:
         v4_->moveEntry(len, newPos, oldPos, notifyMoves());
         return;
      case RouteType::v6Half:
         v6_->moveEntry(len, newPos, oldPos, lpmPairGap_, notifyMoves());
         return;
      case RouteType::v6Full:
         v6_->moveEntry(len, pairToPhysical(newPos), pairToPhysical(oldPos), lpmPairGap_,
                        notifyMoves());
         return;
      case RouteType::v4Mcast:
         mcastV4_->moveEntry(len, newPos, oldPos, notifyMoves());
         return;
   }
   VEXLO_UNREACHABLE("Invalid route type");
}

uint32_t L3TcamManagerContext::recordNewRoute(RouteType t, const Ipv4UcastKey& key4,
                                              const Ipv6UcastKey& key6,
                                              const IpMcastPrefixKey& keyMcast, uint32_t entry) {
   switch (t) {
      case RouteType::v4:
         v4_->insertFirstEntry(key4, entry);
         return entry;
      case RouteType::v4Mcast:
         mcastV4_->insertEntry(keyMcast, entry);
         return entry;
      case RouteType::v6Half:
         v6_->insertEntry(key6, entry);
         return entry;
      case RouteType::v6Full: {
         const uint32_t physical = pairToPhysical(entry);
         v6_->insertEntry(key6, physical);
         return physical;
      }
   }
   VEXLO_UNREACHABLE("Invalid route type");
}

// The last steps of both shifts: the new route's length takes its range and the route is
// recorded at the hole the shift opened.
uint32_t L3TcamManagerContext::placeNewRoute(RouteType t, const Ipv4UcastKey& key4,
                                             const Ipv6UcastKey& key6,
                                             const IpMcastPrefixKey& keyMcast, uint32_t len,
                                             const IndexRange& ir, uint32_t freeEntry) {
   TcamBlock& blk = *block(t);
   blk.lengthRangeIs(len, ir);
   if (blk.lengthRangeMax() == TcamBlock::none || len > blk.lengthRangeMax()) {
      blk.lengthRangeMaxIs(len);
   }
   TRACE(th, 7, "Table range for prefix length ", len, ": ", ir.start(), "/", ir.end());
   VEXLO_ASSERT(freeEntry >= ir.start(), "freeEntry >= ir.start()");
   VEXLO_ASSERT(freeEntry <= ir.end(), "freeEntry <= ir.end()");
   return recordNewRoute(t, key4, key6, keyMcast, freeEntry);
}

uint32_t L3TcamManagerContext::addRoute(RouteType t, const Ipv4UcastKey& key4,
                                        const Ipv6UcastKey& key6, const IpMcastPrefixKey& keyMcast,
                                        bool useSwapArea) {
   const uint32_t len = prefixLength(t, key4, key6, keyMcast);
   const unsigned level = traceLevel(t);
   traceKey(level, "addRoute", t, key4, key6, keyMcast, " useSwapArea: ", useSwapArea);

   const TcamBlock* blk = block(t).get();
   VEXLO_ASSERT_MSG(blk, "blk", "no block for type ", t);
   VEXLO_ASSERT_MSG(len <= blk->prefixLenMax(), "len <= blk->prefixLenMax()", "len: ", len,
                    ", prefixLenMax: ", blk->prefixLenMax());
   if (useSwapArea) swapReserveKept_ = false;
   if (!useSwapArea && swapRegionFull(t)) {
      TRACE(th, 7, "Swap area allocation blocked");
      return 0;
   }
   const uint32_t first = bitmap_->findFirstClear(blk->start(), blk->end());
   if (first == npos) {
      TRACE(th, level, "Full tcam table");
      return 0;
   }
   uint32_t blkStart = blk->start(), blkEnd = blk->end();
   if (t == RouteType::v6Full) {
      // A pair needs two free physical entries in the block.
      bitmap_->setBit(first);
      const uint32_t second = bitmap_->findFirstClear(blk->start(), blk->end());
      bitmap_->clearBit(first);
      if (second == npos) {
         TRACE(th, level, "2: Full tcam table");
         return 0;
      }
      blkStart = physicalBoundToPair(blkStart);
      blkEnd = physicalBoundToPair(blkEnd);
   }

   uint32_t start, end;
   if (blk->lengthRangeHas(len) && blk->lengthRange(len).start() != 0) {
      start = blk->lengthRange(len).start();
      end = blk->lengthRange(len).end();
   } else {
      // The gap between the nearest longer length (below) and the nearest shorter one (above).
      uint32_t lenEnd = blk->prefixLenMin(), lenStart = blk->prefixLenMax() + 1;
      start = blkStart;
      end = blkEnd;
      for (uint32_t k = blk->nextLength(0); k != TcamBlock::none; k = blk->nextLength(k + 1)) {
         const IndexRange& ir = blk->lengthRange(k);
         if (ir.start() == 0) continue;
         if (k < len) {
            lenEnd = k;
            end = ir.start() - 1;
            continue;
         }
         VEXLO_ASSERT_MSG(k > len, "iter.key() > len", "key: ", k, ", len: ", len);
         lenStart = k;
         start = ir.end() + 1;
         break;
      }
      TRACE(th, 7, "start: ", start, ", end: ", end, ", lenStart: ", lenStart, ", lenEnd: ", lenEnd,
            ", ir: ", start, "/", end);
      if (end > start && start <= blkEnd && end >= blkStart) {
         uint32_t target;
         if (len <= blk->prefixLenMin()) {
            target = end;
         } else {
            // Share the gap equally among the lengths that may still arrive between the two
            // neighbours and aim at the middle of this length's share.
            const uint32_t per = (end + 1 - start) / (lenStart - 1 - lenEnd);
            target = start + (lenStart - len - 1) * per + per / 2;
         }
         start = end = target;
      }
   }
   TRACE(th, 7, "BlkRange: ", blkStart, "/", blkEnd, ", indexRange: ", start, "/", end);

   if (t == RouteType::v6Full && bitmapPair_->findFirstClear(blkStart, blkEnd) == npos) {
      const uint32_t g = lpmPairGap_;
      const uint32_t firstEntry = pairToPhysical(blkStart);
      const uint32_t lastEntry = pairToPhysical(blkEnd) + g;
      TRACE(th, 7, "Full blkRange: ", firstEntry, "/", lastEntry);
      // Free entries that form no free pair: either the pair is invalid (nothing to be done), or
      // the partner holds an IPv4 entry that could be moved out of the way.
      const HBitmap& v4Used = *block(RouteType::v4)->bitmap();
      uint32_t freeEntry = bitmap_->findFirstClear(firstEntry, lastEntry);
      VEXLO_ASSERT_MSG(freeEntry != npos, "freeEntry != npos", "no free entry in ", firstEntry, "/",
                       lastEntry);
      for (; freeEntry != npos; freeEntry = freeEntry < lastEntry
                                                ? bitmap_->findFirstClear(freeEntry + 1, lastEntry)
                                                : npos) {
         const uint32_t partner = (freeEntry / g) % 2 ? freeEntry - g : freeEntry + g;
         if (partner < v4Used.size() && v4Used.isBitSet(partner) &&
             !pairReserved(physicalToPair(freeEntry))) {
            break;
         }
      }
      if (freeEntry == npos) {
         TRACE(th, level, "Full tcam table");
         return 0;
      }
      freeV6PairEntry(freeEntry, useSwapArea);
   }

   HBitmap& freeBits = freeMap(t);
   if (start <= blkEnd) {
      TRACE(th, level, "Search toward end. Start: ", start, ", end: ", blkEnd);
      const uint32_t freeEntry = freeBits.findFirstClear(start, blkEnd);
      if (freeEntry != npos) return shiftDownAndInsert(t, key4, key6, keyMcast, freeEntry);
   }
   VEXLO_ASSERT_MSG(end >= blkStart, "end >= blkRange.start()", "0");
   TRACE(th, level, "Search toward begin. Start: ", blkStart, ", end: ", end);
   const uint32_t freeEntry = freeBits.findLastClear(blkStart, end);
   VEXLO_ASSERT_MSG(freeEntry != npos, "freeEntry != npos", "no free entry in ", blkStart, "/",
                    end);
   return shiftUpAndInsert(t, key4, key6, keyMcast, freeEntry);
}

uint32_t L3TcamManagerContext::openHoleDown(RouteType t, uint32_t len, uint32_t freeEntry,
                                            IndexRange& ir) {
   TcamBlock& blk = *block(t);
   const HBitmap& used = *blk.bitmap();
   bool extend = false;
   IndexRange own;
   // Shortest prefixes (highest indices) first: each range that starts before the hole gives up
   // its lowest entry, so the hole climbs one length at a time toward the new route's place.
   for (uint32_t k = blk.nextLength(0); k != TcamBlock::none; k = blk.nextLength(k + 1)) {
      const IndexRange cur = blk.lengthRange(k);
      if (cur.start() == 0) continue;
      if (k > len) {
         VEXLO_ASSERT_MSG(freeEntry > cur.end(), "freeEntry > ir.end()", "freeEntry: ", freeEntry,
                          ", ir: ", cur);
         break;
      }
      if (k == len) {
         extend = true;
         own = cur;
         break;
      }
      if (cur.start() >= freeEntry) continue;
      const uint32_t s = cur.start(), e = cur.end();
      moveEntry(t, k, freeEntry, s);
      updateBitmaps(t, freeEntry, s);
      IndexRange moved;
      if (s == e) {
         moved = IndexRange(freeEntry, freeEntry);
      } else {
         const uint32_t newStart = used.findFirstSet(s + 1, e);
         VEXLO_ASSERT_MSG(newStart != npos, "newStart != npos", "len: ", k, ", ir: ", cur);
         moved = IndexRange(newStart, std::max(e, freeEntry));
      }
      blk.lengthRangeIs(k, moved);
      TRACE(th, 7, "Table range for prefix length ", k, ": ", moved.start(), "/", moved.end());
      VEXLO_ASSERT(freeEntry >= moved.start(),
                   "freeEntry >= blk->lengthRange( iter.key() ).start()");
      VEXLO_ASSERT(freeEntry <= moved.end(), "freeEntry <= blk->lengthRange( iter.key() ).end()");
      freeEntry = s;
   }
   ir = extend ? IndexRange(std::min(own.start(), freeEntry), std::max(own.end(), freeEntry))
               : IndexRange(freeEntry, freeEntry);
   return freeEntry;
}

uint32_t L3TcamManagerContext::openHoleUp(RouteType t, uint32_t len, uint32_t freeEntry,
                                          IndexRange& ir) {
   TcamBlock& blk = *block(t);
   const HBitmap& used = *blk.bitmap();
   // Longest prefixes (lowest indices) first: each range that ends after the hole gives up its
   // highest entry, so the hole sinks one length at a time toward the new route's place.
   for (uint32_t k = blk.prevLength(blk.prefixLenMax()); k != TcamBlock::none;
        k = k == 0 ? TcamBlock::none : blk.prevLength(k - 1)) {
      const IndexRange cur = blk.lengthRange(k);
      if (cur.start() == 0) continue;
      if (k == len) {
         ir = IndexRange(std::min(cur.start(), freeEntry), cur.end());
         return freeEntry;
      }
      if (k < len) {
         if (cur.start() > freeEntry) {
            ir = IndexRange(freeEntry, freeEntry);
            return freeEntry;
         }
         VEXLO_ASSERT_MSG(freeEntry < cur.start(), "freeEntry < ir.start()",
                          "freeEntry: ", freeEntry, ", ir: ", cur);
      }
      const uint32_t s = cur.start(), e = cur.end();
      if (e <= freeEntry) continue;
      moveEntry(t, k, freeEntry, e);
      updateBitmaps(t, freeEntry, e);
      IndexRange moved;
      if (s == e) {
         moved = IndexRange(freeEntry, freeEntry);
      } else {
         const uint32_t newEnd = used.findLastSet(s, e - 1);
         VEXLO_ASSERT_MSG(newEnd != npos, "newEnd != npos", "len: ", k, ", ir: ", cur);
         moved = IndexRange(std::min(freeEntry, s), std::max(newEnd, freeEntry));
      }
      VEXLO_ASSERT(freeEntry >= moved.start(),
                   "freeEntry >= blk->lengthRange( prefixLen ).start()");
      VEXLO_ASSERT(freeEntry <= moved.end(), "freeEntry <= blk->lengthRange( prefixLen ).end()");
      blk.lengthRangeIs(k, moved);
      TRACE(th, 7, "Table range for prefix length ", k, ": ", moved.start(), "/", moved.end());
      freeEntry = e;
   }
   ir = IndexRange(freeEntry, freeEntry);
   return freeEntry;
}

uint32_t L3TcamManagerContext::shiftDownAndInsert(RouteType t, const Ipv4UcastKey& key4,
                                                  const Ipv6UcastKey& key6,
                                                  const IpMcastPrefixKey& keyMcast,
                                                  uint32_t freeEntry) {
   traceKey(6, "shiftDownAndInsert", t, key4, key6, keyMcast, ", entry: ", freeEntry);
   return shiftAndInsert(t, key4, key6, keyMcast, freeEntry, true);
}

uint32_t L3TcamManagerContext::shiftUpAndInsert(RouteType t, const Ipv4UcastKey& key4,
                                                const Ipv6UcastKey& key6,
                                                const IpMcastPrefixKey& keyMcast,
                                                uint32_t freeEntry) {
   traceKey(6, "shiftUpAndInsert", t, key4, key6, keyMcast, ", entry: ", freeEntry);
   return shiftAndInsert(t, key4, key6, keyMcast, freeEntry, false);
}

uint32_t L3TcamManagerContext::shiftAndInsert(RouteType t, const Ipv4UcastKey& key4,
                                              const Ipv6UcastKey& key6,
                                              const IpMcastPrefixKey& keyMcast, uint32_t freeEntry,
                                              bool down) {
   const uint32_t len = prefixLength(t, key4, key6, keyMcast);
   IndexRange ir;
   freeEntry = down ? openHoleDown(t, len, freeEntry, ir) : openHoleUp(t, len, freeEntry, ir);
   updateBitmaps(t, freeEntry, 0);
   return placeNewRoute(t, key4, key6, keyMcast, len, ir, freeEntry);
}

uint32_t L3TcamManagerContext::relocateEntry(RouteType t, uint32_t len, uint32_t oldPos,
                                             uint32_t freeEntry) {
   TRACE(th, 6, "relocateEntry", ", type: ", t, ", len: ", len, ", old: ", oldPos,
         ", entry: ", freeEntry);
   VEXLO_ASSERT_MSG(freeEntry != oldPos && block(t)->lengthRange(len).contains(oldPos),
                    "relocateEntry: entry inside its length's range", "type ", t, " len ", len,
                    " old ", oldPos, " free ", freeEntry);
   IndexRange ir;
   const uint32_t hole =
       freeEntry > oldPos ? openHoleDown(t, len, freeEntry, ir) : openHoleUp(t, len, freeEntry, ir);
   moveEntry(t, len, hole, oldPos);
   updateBitmaps(t, hole, oldPos);
   block(t)->lengthRangeIs(len, ir);
   shrinkRange(t, len, oldPos);
   return hole;
}

void L3TcamManagerContext::shrinkRange(RouteType t, uint32_t len, uint32_t oldPos) {
   TcamBlock& blk = *block(t);
   const HBitmap& used = *blk.bitmap();
   IndexRange ir = blk.lengthRange(len);
   VEXLO_ASSERT_MSG(ir.start() != 0, "ir.start()", " ir: ", ir);
   if (ir.start() == ir.end()) {
      VEXLO_ASSERT_MSG(ir.start() == oldPos, "ir.start() == pos", " ir: ", ir, ", pos: ", oldPos);
      blk.lengthRangeDel(len);
      if (len == blk.lengthRangeMax()) blk.lengthRangeMaxIs(blk.findLengthRangeMax());
      ir = IndexRange();
   } else if (oldPos == ir.start()) {
      const uint32_t newStart = used.findFirstSet(ir.start() + 1, ir.end());
      VEXLO_ASSERT_MSG(newStart != npos, "newStart", " ir: ", ir);
      ir.startIs(newStart);
      blk.lengthRangeIs(len, ir);
   } else if (oldPos == ir.end()) {
      const uint32_t newEnd = used.findLastSet(ir.start(), ir.end() - 1);
      VEXLO_ASSERT_MSG(newEnd != npos, "newEnd", " ir: ", ir);
      ir.endIs(newEnd);
      blk.lengthRangeIs(len, ir);
   }
   TRACE(th, 7, "Table range for prefix length ", len, ": ", ir.start(), "/", ir.end());
}

RouteReturnCode L3TcamManagerContext::addRoute4(const Ipv4UcastKey& key, bool useSwapArea) {
   TRACE(th, 2, "addRoute4", ", key: ", key.prefix, " (vrf ", key.vrfId, ")",
         ", useSwapArea: ", useSwapArea);
   RouteReturnCode rc;
   if (v4_->getEntryIdCount(key) != 0) {
      if (!reAddAllowed()) {
         TRACE(th, 2, "Found exisiting IPv4 route ", key);
         VEXLO_ASSERT(false, "0");
      }
      // A replayed add changes nothing and reports where the route already is.
      rc.routeId = v4_->getEntryId(key);
      rc.tcamV4RightKey = v4_->rightKey(key, rc.routeId);
      return rc;
   }
   const uint32_t len = key.len();
   uint32_t entry = 0;
   bool isRight = false;
   if (const uint32_t halfFullEntry = v4_->halfFull(len)) {
      // Filling the free half of an entry needs no free entry. A free right half is always
      // taken; a free left half only while the IPv4 swap region is not exhausted.
      isRight = v4_->isHalfEmptyRight(halfFullEntry, key);
      entry = v4_->insertSecondEntry(key, halfFullEntry, isRight, swapRegionFull(RouteType::v4));
      VEXLO_ASSERT_MSG(entry != 0 || !isRight, "entryId", "len: ", len,
                       ", halfFull: ", halfFullEntry);
   } else {
      entry = addRoute(RouteType::v4, key, Ipv6UcastKey(), IpMcastPrefixKey(), useSwapArea);
      if (entry == 0 && dynamicV4V6Boundary() && v4V6Border_ != 0) {
         TRACE(th, 2, "Route allocation failed, attempting to expand v4 partition");
         // The IPv4 partition lies above the border: growing it lowers the border.
         const uint32_t step = reallocationStep();
         if (reallocate(v4V6Border_ > step ? v4V6Border_ - step : 0, useSwapArea)) {
            entry = addRoute(RouteType::v4, key, Ipv6UcastKey(), IpMcastPrefixKey(), useSwapArea);
         } else {
            TRACE(th, 2, "Reallocation failed");
         }
      }
      if (entry != 0) {
         const Ipv4Keys k = v4_->keys(entry);
         TRACE(th, 2, "addRoute4", " right: ", k.right, " left: ", k.left);
         isRight = key == k.right;
      }
   }
   TRACE(th, 7, "EntryId: ", entry, " isRight: ", isRight);
   rc.routeId = entry;
   rc.tcamV4RightKey = isRight;
   if (entry != 0) stats_->maskLengthsIpv4Inc(len, 1);
   return rc;
}

RouteReturnCode L3TcamManagerContext::addMroute4(const IpMcastPrefixKey& key, bool useSwapArea) {
   TRACE(th, 3, "addMroute4", ", key: ", key, " useSwapArea: ", useSwapArea);
   if (const uint32_t existing = mcastV4_->entryId(key)) {
      TRACE(th, 3, "Found exisiting IPv4 mcast route at index ", existing);
      VEXLO_ASSERT(false, "0");
   }
   const TcamBlock& blk = *block(RouteType::v4Mcast);
   TRACE(th, 7, "len: ", key.len, ", Min: ", blk.prefixLenMin(), ", Max: ", blk.prefixLenMax());
   RouteReturnCode rc;
   rc.routeId = addRoute(RouteType::v4Mcast, Ipv4UcastKey(), Ipv6UcastKey(), key, useSwapArea);
   TRACE(th, 7, "EntryId: ", rc.routeId);
   if (rc.routeId != 0) stats_->maskLengthsMcastIpv4Inc(key.len, 1);
   return rc;
}

}  // namespace VexloL3Common
