// The checks of resynchronisation from hardware (see internal/L3TcamResyncCheck.h), written once
// against a small "state" interface with two implementations: the live context, for a single
// placement, and the shadow of a hardware image, for a rebuild, which checks the whole image
// before the context is touched. Nothing here changes the context.
#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>

#include "VexloL3Common/internal/FlatHashMap.h"
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "VexloL3Common/tcam/internal/L3TcamResyncCheck.h"
#include "platform/Assert.h"

namespace VexloL3Common::internal {

namespace {

using Kind = TcamHardwareEntry::Kind;

// ---- refusals ----------------------------------------------------------------------------

[[noreturn]] void refuse(const char* op, uint32_t index, const std::string& what) {
   throw std::range_error(fmt::format("{}: entry {}: {}", op, index, what));
}

template <class Key>
[[noreturn]] void refuse(const char* op, uint32_t index, const Key& key, const std::string& what) {
   throw std::range_error(fmt::format("{}: entry {}, key {}: {}", op, index, key, what));
}

const char* blockName(RouteType t) {
   switch (t) {
      case RouteType::v4:
         return "IPv4";
      case RouteType::v6Full:
         return "double-size IPv6";
      case RouteType::v6Half:
         return "single-size IPv6";
      case RouteType::v4Mcast:
         return "multicast";
   }
   return "?";
}

// len's range with `slot` joined to it.
IndexRange joined(const TcamBlock& blk, uint32_t len, uint32_t slot) {
   if (const auto cur = blk.lengthRangeGet(len); cur && cur->start() != 0) {
      return IndexRange(std::min(cur->start(), slot), std::max(cur->end(), slot));
   }
   return IndexRange(slot, slot);
}

// ---- the states the checks read ----------------------------------------------------------

// The live context: a single placement into whatever the model already holds.
class LiveState {
 public:
   explicit LiveState(const L3TcamManagerContext& ctx) : ctx_(ctx) {}

   Bounds bounds(RouteType t) const { return boundsOf(ctx_, t); }
   uint32_t tcamBorder() const { return ctx_.v6() ? ctx_.v6()->tcamBorder() : 0; }
   bool taken(uint32_t pos) const { return ctx_.bitmap()->isBitSet(pos); }
   bool pairTaken(uint32_t pair) const { return ctx_.bitmapPair()->isBitSet(pair); }
   const TcamBlock& ranges(RouteType t) const { return *ctx_.block(t); }
   std::optional<Ipv4Keys> entry4(uint32_t pos) const {
      if (!ctx_.v4()->keysHas(pos)) return std::nullopt;
      return ctx_.v4()->keys(pos);
   }
   uint32_t where(const Ipv4UcastKey& key) const {
      const V4PrefixToEntryIdMap* r = ctx_.v4()->keyToEntryId(key);
      return r ? r->firstEntryId() : 0;
   }
   uint32_t where(const Ipv6UcastKey& key) const { return ctx_.v6()->getEntryId(key); }
   uint32_t where(const IpMcastPrefixKey& key) const { return ctx_.mcastV4()->entryId(key); }

   // What makes a taken entry unavailable, for the refusal.
   std::string occupant(uint32_t pos) const {
      if (ctx_.v4() && ctx_.v4()->keysHas(pos)) {
         return fmt::format("the entry already holds IPv4 routes ({})", ctx_.v4()->keys(pos));
      }
      if (ctx_.v6()) {
         if (const Ipv6UcastKey* k = ctx_.v6()->entryIdToKey(pos)) {
            return fmt::format("the entry already holds the IPv6 route {}", *k);
         }
         const uint32_t g = ctx_.lpmPairGap();
         if (g != 0 && pos >= g) {
            if (const Ipv6UcastKey* k = ctx_.v6()->entryIdToKey(pos - g);
                k && ctx_.v6()->v6RouteTypeFromPos(pos - g) == RouteType::v6Full) {
               return fmt::format("the entry is the partner of the double-size IPv6 route {} at {}",
                                  *k, pos - g);
            }
         }
      }
      if (ctx_.mcastV4()) {
         if (const IpMcastPrefixKey* k = ctx_.mcastV4()->key(pos)) {
            return fmt::format("the entry already holds the multicast route {}", *k);
         }
      }
      return "the entry is reserved or invalid";
   }

 private:
   const L3TcamManagerContext& ctx_;
};

// The shadow of a hardware image under check: the layout of the context (with the border the
// rebuild will set), the reserved entries, and what the entries checked so far claim.
class ImageState {
 public:
   ImageState(const L3TcamManagerContext& ctx, uint32_t border, size_t entries)
       : ctx_(ctx), border_(border), taken_(*ctx.bitmap()), pairTaken_(*ctx.bitmapPair()) {
      for (RouteType t : allRouteTypes) {
         bounds_[t] = boundsOf(ctx, t);
         if (const TcamBlock* blk = ctx.block(t).get()) {
            ranges_[t].emplace(blk->prefixLenMin(), blk->prefixLenMax());
         }
      }
      if (ctx.borderMoves()) {
         // The layout that borderIs gives: IPv4 above the border, double-size IPv6 below it.
         const uint32_t last = ctx.effectiveSize() - 1;
         bounds_[RouteType::v4] = Bounds{std::max(border, 1u), last};
         bounds_[RouteType::v6Full] = border != 0 ? Bounds{1, border - 1} : Bounds{};
      }
      where4_.reserve(entries * 2);
   }

   Bounds bounds(RouteType t) const { return bounds_[t]; }
   uint32_t tcamBorder() const { return border_; }
   bool taken(uint32_t pos) const { return taken_.isBitSet(pos); }
   bool pairTaken(uint32_t pair) const { return pairTaken_.isBitSet(pair); }
   const TcamBlock& ranges(RouteType t) const { return *ranges_[t]; }
   std::optional<Ipv4Keys> entry4(uint32_t pos) const {
      if (pos != curPos_) return std::nullopt;
      return cur_;
   }
   uint32_t where(const Ipv4UcastKey& key) const { return find(where4_, key); }
   uint32_t where(const Ipv6UcastKey& key) const { return find(where6_, key); }
   uint32_t where(const IpMcastPrefixKey& key) const { return find(whereMcast_, key); }

   std::string occupant(uint32_t pos) const {
      // Entries of the image stand at distinct indices, so only the layout or the partner of a
      // double-size route can have taken one.
      return ctx_.bitmap()->isBitSet(pos) ? "the entry is reserved or invalid"
                                          : "the entry is the partner of a double-size IPv6 route";
   }

   // Claims of an entry that passed its checks.
   void claim4(uint32_t pos, const Ipv4UcastKey& key, bool right) {
      if (pos != curPos_) {
         curPos_ = pos;
         const Ipv4UcastKey empty = Ipv4UcastKey::nullKey(key.vrfId);
         cur_ = Ipv4Keys(empty, empty);
         taken_.setBit(pos);
      }
      (right ? cur_.right : cur_.left) = key;
      where4_.tryEmplace(key, pos);
      join(RouteType::v4, key.len(), pos);
   }
   void claim6(uint32_t pos, const Ipv6UcastKey& key, bool doubleSize) {
      taken_.setBit(pos);
      if (doubleSize) {
         taken_.setBit(pos + ctx_.lpmPairGap());
         pairTaken_.setBit(ctx_.physicalToPair(pos));
         join(RouteType::v6Full, key.len(), ctx_.physicalToPair(pos));
      } else {
         join(RouteType::v6Half, key.len(), pos);
      }
      where6_.tryEmplace(key, pos);
   }
   void claimMcast(uint32_t pos, const IpMcastPrefixKey& key) {
      taken_.setBit(pos);
      whereMcast_.tryEmplace(key, pos);
      join(RouteType::v4Mcast, key.len, pos);
   }

 private:
   void join(RouteType t, uint32_t len, uint32_t slot) {
      ranges_[t]->lengthRangeIs(len, joined(*ranges_[t], len, slot));
   }
   template <class Map, class Key>
   static uint32_t find(const Map& m, const Key& key) {
      const uint32_t* pos = m.find(key);
      return pos ? *pos : 0;
   }

   const L3TcamManagerContext& ctx_;
   uint32_t border_;
   RouteTypeArray<Bounds> bounds_;
   HBitmap taken_;
   HBitmap pairTaken_;
   RouteTypeArray<std::optional<TcamBlock>> ranges_;
   internal::FlatHashMap<Ipv4UcastKey, uint32_t> where4_;
   internal::FlatHashMap<Ipv6UcastKey, uint32_t> where6_;
   internal::FlatHashMap<IpMcastPrefixKey, uint32_t> whereMcast_;
   uint32_t curPos_ = 0;
   Ipv4Keys cur_;
};

// ---- checks ------------------------------------------------------------------------------

// len's range once `index` joins it must stay after every longer length's range and before every
// shorter length's range (the first match wins, so longer prefixes come first). `bad` refuses.
template <class Bad>
void checkOrder(const TcamBlock& ranges, uint32_t len, uint32_t index, const char* unit,
                Bad&& bad) {
   const IndexRange own = joined(ranges, len, index);
   const uint32_t longer =
       len + 1 < TcamBlock::maxLengths ? ranges.nextLength(len + 1) : TcamBlock::none;
   if (longer != TcamBlock::none && ranges.lengthRange(longer).end() >= own.start()) {
      bad(
          fmt::format("out of length order: prefix length {} at or before the longer length {} "
                      "({} {})",
                      len, longer, unit, ranges.lengthRange(longer)));
   }
   const uint32_t shorter = len > 0 ? ranges.prevLength(len - 1) : TcamBlock::none;
   if (shorter != TcamBlock::none && ranges.lengthRange(shorter).start() <= own.end()) {
      bad(
          fmt::format("out of length order: prefix length {} at or after the shorter length {} "
                      "({} {})",
                      len, shorter, unit, ranges.lengthRange(shorter)));
   }
}

template <class State>
void checkV4(const L3TcamManagerContext& ctx, const State& st, const char* op,
             const Ipv4UcastKey& key, uint32_t index, bool right) {
   auto bad = [&](const std::string& what) { refuse(op, index, key, what); };
   if (key.isNull()) bad("a null prefix is not a route");
   const Bounds b = st.bounds(RouteType::v4);
   if (!b.contains(index)) bad(fmt::format("outside the IPv4 block {}/{}", b.start, b.end));
   if (!right && !ctx.twoV4RoutesPerEntry()) {
      bad("a left half without a right half on a table of one route per entry");
   }
   if (const std::optional<Ipv4Keys> k = st.entry4(index)) {
      const Ipv4UcastKey& mine = right ? k->right : k->left;
      const Ipv4UcastKey& twin = right ? k->left : k->right;
      if (!mine.isNull()) {
         bad(fmt::format("the {} half already holds {}", right ? "right" : "left", mine));
      }
      if (!twin.isNull() && twin.len() != key.len()) {
         bad(fmt::format("prefix length {} differs from its twin's, {} ({})", key.len(), twin.len(),
                         twin));
      }
   } else if (st.taken(index)) {
      bad(st.occupant(index));
   }
   if (const uint32_t at = st.where(key))
      bad(fmt::format("duplicate key, already at entry {}", at));
   checkOrder(st.ranges(RouteType::v4), key.len(), index, "range", bad);
}

// Returns whether the route is double-size, which its position decides.
template <class State>
bool checkV6(const L3TcamManagerContext& ctx, const State& st, const char* op,
             const Ipv6UcastKey& key, uint32_t index) {
   auto bad = [&](const std::string& what) { refuse(op, index, key, what); };
   const uint32_t border = st.tcamBorder();
   const bool doubleSize = index < border;
   const RouteType t = doubleSize ? RouteType::v6Full : RouteType::v6Half;
   const Bounds b = st.bounds(t);
   if (!b.contains(index)) {
      bad(fmt::format("outside the {} block {}/{} (IPv6 border {})", blockName(t), b.start, b.end,
                      border));
   }
   const TcamBlock& ranges = st.ranges(t);
   if (key.len() < ranges.prefixLenMin() || key.len() > ranges.prefixLenMax()) {
      bad(fmt::format("prefix length {} outside {}-{} of the {} block", key.len(),
                      ranges.prefixLenMin(), ranges.prefixLenMax(), blockName(t)));
   }
   uint32_t slot = index;
   if (doubleSize) {
      const uint32_t g = ctx.lpmPairGap();
      if (!ctx.supportsDefipPairing() || g == 0) {
         bad(fmt::format("below the IPv6 border {} on a table without pairing", border));
      }
      slot = ctx.physicalToPair(index);
      if (ctx.pairToPhysical(slot) != index) {
         bad(fmt::format("not the first entry of a pair (pair gap {})", g));
      }
      if (!b.contains(index + g)) {
         bad(fmt::format("partner {} outside the double-size IPv6 block {}/{}", index + g, b.start,
                         b.end));
      }
      if (st.taken(index)) bad(st.occupant(index));
      if (st.taken(index + g))
         bad(fmt::format("partner {}: {}", index + g, st.occupant(index + g)));
      if (st.pairTaken(slot)) bad(fmt::format("pair {} is reserved or invalid", slot));
   } else if (st.taken(index)) {
      bad(st.occupant(index));
   }
   if (const uint32_t at = st.where(key))
      bad(fmt::format("duplicate key, already at entry {}", at));
   checkOrder(ranges, key.len(), slot, doubleSize ? "pairs" : "range", bad);
   // Double-size entries are searched before every single-size one: a shorter double-size route
   // would answer for the addresses of a longer single-size one.
   if (doubleSize) {
      const uint32_t longest = st.ranges(RouteType::v6Half).findLengthRangeMax();
      if (longest != TcamBlock::none && longest > key.len()) {
         bad(fmt::format("double-size, but shorter than single-size routes of length {}", longest));
      }
   } else {
      const uint32_t shortest = st.ranges(RouteType::v6Full).nextLength(0);
      if (shortest != TcamBlock::none && shortest < key.len()) {
         bad(fmt::format("single-size, but longer than double-size routes of length {}", shortest));
      }
   }
   return doubleSize;
}

template <class State>
void checkMcast(const State& st, const char* op, const IpMcastPrefixKey& key, uint32_t index) {
   auto bad = [&](const std::string& what) { refuse(op, index, key, what); };
   const Bounds b = st.bounds(RouteType::v4Mcast);
   if (!b.contains(index)) bad(fmt::format("outside the multicast block {}/{}", b.start, b.end));
   const TcamBlock& ranges = st.ranges(RouteType::v4Mcast);
   if (key.len > ranges.prefixLenMax()) {
      bad(fmt::format("prefix length {} longer than the multicast block's {}", key.len,
                      ranges.prefixLenMax()));
   }
   if (st.taken(index)) bad(st.occupant(index));
   if (const uint32_t at = st.where(key))
      bad(fmt::format("duplicate key, already at entry {}", at));
   checkOrder(ranges, key.len, index, "range", bad);
}

// ---- the image ---------------------------------------------------------------------------

// The entry of the image at pos, or null.
const TcamHardwareEntry* imageAt(const std::vector<TcamHardwareEntry>& image, uint32_t pos) {
   auto it = std::lower_bound(image.begin(), image.end(), pos,
                              [](const TcamHardwareEntry& e, uint32_t p) { return e.pos < p; });
   return it != image.end() && it->pos == pos ? &*it : nullptr;
}

// Indices strictly ascending: one hardware entry per index.
void checkAscending(const std::vector<TcamHardwareEntry>& image) {
   for (size_t i = 1; i < image.size(); ++i) {
      if (image[i].pos <= image[i - 1].pos) {
         refuse(rebuildOp, image[i].pos,
                image[i].pos == image[i - 1].pos
                    ? std::string("a second image entry at the same index")
                    : fmt::format("not in ascending order of index (after entry {})",
                                  image[i - 1].pos));
      }
   }
}

// The IPv6 border the rebuilt model has: on a layout where it moves, the given one or else the
// lowest that the image fits; fixed by the layout otherwise.
uint32_t borderFor(const L3TcamManagerContext& ctx, const std::vector<TcamHardwareEntry>& image,
                   std::optional<uint32_t> given) {
   const char* op = rebuildOp;
   checkAscending(image);
   if (!ctx.borderMoves()) {
      if (given && *given != ctx.v4V6Border()) {
         throw std::range_error(
             fmt::format("{}: border {} given, but this layout's border is fixed at {}", op, *given,
                         ctx.v4V6Border()));
      }
      return ctx.v6() ? ctx.v6()->tcamBorder() : 0;
   }
   const uint32_t g = ctx.lpmPairGap(), usable = ctx.effectiveSize();
   if (given) {
      if (g == 0 || *given % (2 * g) != 0 || *given >= usable) {
         throw std::range_error(fmt::format(
             "{}: border {} is not a multiple of twice the pair gap {} below the {} usable entries",
             op, *given, g, usable));
      }
      return *given;
   }
   const uint32_t step = ctx.reallocationStep();
   VEXLO_ASSERT_MSG(step != 0 && g != 0 && step % (2 * g) == 0, "reallocationStep()", "step ", step,
                    ", pair gap ", g);
   uint32_t highest = 0;  // the highest entry that a double-size route takes
   const TcamHardwareEntry* lowest4 = nullptr;
   for (const TcamHardwareEntry& e : image) {
      if (e.kind == Kind::v6Double) highest = std::max(highest, e.pos + g);
      if (e.kind == Kind::v6DoubleSecond) highest = std::max(highest, e.pos);
      if (e.kind == Kind::v4 && !lowest4) lowest4 = &e;
   }
   const uint32_t border = highest == 0 ? 0 : (highest / step + 1) * step;
   if (border >= usable) {
      refuse(op, highest,
             fmt::format("no border below the {} usable entries clears the double-size IPv6 "
                         "routes (step {})",
                         usable, step));
   }
   if (lowest4 && lowest4->pos < border) {
      refuse(op, lowest4->pos, lowest4->v4.right.isNull() ? lowest4->v4.left : lowest4->v4.right,
             fmt::format("IPv4 entry below {}, the lowest border that clears the double-size IPv6 "
                         "routes",
                         border));
   }
   return border;
}

// Checks every entry of the image against the shadow, in ascending index; refuses the first one
// that cannot stand where it is.
void checkImage(const L3TcamManagerContext& ctx, ImageState& st,
                const std::vector<TcamHardwareEntry>& image) {
   const char* op = rebuildOp;
   const uint32_t g = ctx.lpmPairGap(), border = st.tcamBorder();
   for (const TcamHardwareEntry& e : image) {
      switch (e.kind) {
         case Kind::v4: {
            if (!ctx.v4()) refuse(op, e.pos, "an IPv4 entry in a multicast table");
            if (e.v4.right.isNull() && e.v4.left.isNull()) {
               refuse(op, e.pos, "an IPv4 entry without a route");
            }
            if (!e.v4.right.isNull()) {
               checkV4(ctx, st, op, e.v4.right, e.pos, true);
               st.claim4(e.pos, e.v4.right, true);
            }
            if (!e.v4.left.isNull()) {
               checkV4(ctx, st, op, e.v4.left, e.pos, false);
               st.claim4(e.pos, e.v4.left, false);
            }
            break;
         }
         case Kind::v6Single:
         case Kind::v6Double: {
            if (!ctx.v6()) refuse(op, e.pos, e.v6, "an IPv6 entry in a multicast table");
            const bool doubleSize = e.kind == Kind::v6Double;
            if (doubleSize && e.pos >= border) {
               refuse(op, e.pos, e.v6,
                      fmt::format("double-size entry at or above the IPv6 border {}", border));
            }
            if (!doubleSize && e.pos < border) {
               refuse(op, e.pos, e.v6,
                      fmt::format("single-size entry below the IPv6 border {}", border));
            }
            checkV6(ctx, st, op, e.v6, e.pos);
            if (doubleSize) {
               const TcamHardwareEntry* second = imageAt(image, e.pos + g);
               if (!second || second->kind != Kind::v6DoubleSecond || second->v6 != e.v6) {
                  refuse(op, e.pos, e.v6,
                         fmt::format("partner missing: entry {} holds no second entry of the route",
                                     e.pos + g));
               }
            }
            st.claim6(e.pos, e.v6, doubleSize);
            break;
         }
         case Kind::v6DoubleSecond: {
            // Its first entry, checked before it, claimed it.
            const TcamHardwareEntry* first =
                g != 0 && e.pos >= g ? imageAt(image, e.pos - g) : nullptr;
            if (!first || first->kind != Kind::v6Double || first->v6 != e.v6) {
               refuse(op, e.pos, e.v6,
                      fmt::format("second entry of a double-size route without its first entry "
                                  "(pair gap {})",
                                  g));
            }
            break;
         }
         case Kind::mcast:
            if (!ctx.mcastV4()) refuse(op, e.pos, e.mcast, "a multicast entry in a unicast table");
            checkMcast(st, op, e.mcast, e.pos);
            st.claimMcast(e.pos, e.mcast);
            break;
         default:
            refuse(op, e.pos, fmt::format("unknown entry kind {}", unsigned(e.kind)));
      }
   }
}

}  // namespace

void checkRoute4AtIndex(const L3TcamManagerContext& ctx, const Ipv4UcastKey& key, uint32_t index,
                        bool right) {
   if (!ctx.v4()) refuse("addRoute4AtIndex", index, key, "no IPv4 routes in a multicast table");
   checkV4(ctx, LiveState(ctx), "addRoute4AtIndex", key, index, right);
}

bool checkRoute6AtIndex(const L3TcamManagerContext& ctx, const Ipv6UcastKey& key, uint32_t index) {
   if (!ctx.v6()) refuse("addRoute6AtIndex", index, key, "no IPv6 routes in a multicast table");
   return checkV6(ctx, LiveState(ctx), "addRoute6AtIndex", key, index);
}

void checkMroute4AtIndex(const L3TcamManagerContext& ctx, const IpMcastPrefixKey& key,
                         uint32_t index) {
   if (!ctx.mcastV4()) {
      refuse("addMroute4AtIndex", index, key, "no multicast routes in a unicast table");
   }
   checkMcast(LiveState(ctx), "addMroute4AtIndex", key, index);
}

CheckedImage checkHardwareImage(const L3TcamManagerContext& ctx,
                                const std::vector<TcamHardwareEntry>& image,
                                std::optional<uint32_t> v4V6Border) {
   const uint32_t border = borderFor(ctx, image, v4V6Border);
   ImageState st(ctx, border, image.size());
   checkImage(ctx, st, image);
   return CheckedImage{border, st.bounds(RouteType::v4), st.bounds(RouteType::v6Full)};
}

}  // namespace VexloL3Common::internal
