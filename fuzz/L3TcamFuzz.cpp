// libFuzzer target for the TCAM model. The input chooses a table layout and then a sequence of
// operations that an agent may legally send; the model is driven through sim::EmulatedTable, so
// every move and merge it publishes is carried out on a first-match emulator of the hardware.
// After every route operation the emulator checks that no installed route became unreachable or
// shadowed, and a shadow set of the installed routes must agree with the model and the hardware:
// the same routes counted, the route just touched at the entry the model names. The model's own
// verify() and a lookup of the touched address (it must hit the longest installed prefix) follow
// every step on small tables and every few steps on large ones; the whole table is checked from
// scratch now and then and at the end (see "checks" below). Any disagreement is a fatal
// assertion, which aborts: libFuzzer records the input as a crash.
//
// Operations that the model treats as a broken caller (a duplicate add without re-adding allowed,
// the delete of an absent route, an IPv6 length the layout has no entries for, uRPF in a mode
// without it) are never sent: the shadow set and the layout decide.
//
// Input format. Every byte read past the end reads as 0, so every input decodes and one input
// always runs the same way.
//   byte 0  table size: 64 * (1 + n * n / 31) with n = b % 32, less 4 * (b / 32) on tables above
//           64 entries
//   byte 1  bits 0-1: mode - 1; bits 5-7: blocks {1, 2, 4, 8, 16, 32, 3, 5} (4 when the size is
//           not a multiple)
//   byte 2  bit 0 two IPv4 routes per entry, 1 pairing, 2 moving border (with pairing),
//           3 IPv4/IPv6 interleaving allowed, 4 uRPF (moves mode 1 or 3 up to 2 or 4),
//           5 multicast table, 6 re-adding allowed, 7 no swap area
//   byte 3  pair gap: bit 7 set: b & 127; else 0 (derived) or 4 << (b & 7)
//   byte 4  bit 0 a fallback VRF (modes 2 and 4, no uRPF), bit 1 single- and double-size IPv6
//           regions side by side (pairing with interleaving), bits 2-4 multicast size 64 << n (at
//           most 2048), bit 5 the multicast table reserves its pair-gap entry
//   byte 5  invalid entries of the platform: bits 0-1 runs of entries, bits 2-3 runs of pairs
//           (each 1 to 4 long), bits 4-7 where
//   then operations, each an opcode byte (b % 16) and its arguments:
//    0, 1  add IPv4        key(2) flags(1)            flags bit 0: may use the swap area
//    2     delete IPv4     pick(2) flags(1)           bit 0: merge at once, else merge afterwards
//    3     add IPv6        key(2) flags(1)
//    4     delete IPv6     pick(2)
//    5     fill IPv4       count(1) seed(1) shape(1)  up to count + 1 adds of generated keys
//    6     fill IPv6       count(1) seed(1) shape(1)
//    7     drain           count(1) seed(1) which(1)  deletes: 0 IPv4, 1 IPv6, 2 multicast, 3 any
//    8     add multicast   key(2)
//    9     delete mcast    pick(2)
//   10     fill multicast  count(1) seed(1) shape(1)
//   11     move the border sel(1)                     bits 0-6: border step, bit 7: swap area
//   12     switch uRPF     flags(1)                   bit 0: delete every unicast route first
//   13     restart         which(1)                   bit 0: unicast, bit 1: multicast, bit 2:
//                                                     placed entry by entry in an order drawn
//                                                     from bits 3-7 instead of rebuilt at once
//   14     re-add          pick(2) flags(1)           bit 0: IPv6 (only where re-adding is allowed)
//   15     mixed fill      count(1) seed(1) shape(1)  IPv4 and IPv6 adds in turn
//   key: bit 0 VRF, then the length index and address bits (see key4 / key6 / keyMcast).
//   shape: bits 0-2 length index + 1 (0: from the key bits), bit 3 swap area, bit 4 one VRF.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/RoutingStatus.h"
#include "sim/EmulatedTable.h"
#include "sim/TcamEmulator.h"
#include "sim/TcamImage.h"

using namespace VexloL3Common;

namespace {

// Caps that keep one input fast: operations decoded, and single route operations (a fill or a
// drain makes many).
constexpr uint32_t maxOps = 512;
constexpr uint32_t maxSteps = 1024;
// The whole table is checked this often, and at the end.
constexpr uint32_t fullCheckEvery = 1024;
// With VEXLO_FUZZ_SPARSE_VERIFY=1 the model verifies itself (a pass over the whole table) only
// after every (n / verifyDivisor)-th step on a table of n entries, at a cost per step that does not
// grow with the table: about twice the executions per second, for long exploring runs.
constexpr uint32_t verifyDivisor = 64;
// Lookups of a full check: every route of a small table, this many spread over a large one.
constexpr size_t fullCheckLookups = 16;

bool envFlag(const char* name) {
   const char* v = std::getenv(name);
   return v && *v && *v != '0';
}
const bool sparseVerify = envFlag("VEXLO_FUZZ_SPARSE_VERIFY");
const bool summaryWanted = envFlag("VEXLO_FUZZ_SUMMARY");

struct Input {
   const uint8_t* data;
   size_t size, pos = 0;
   uint8_t byte() { return pos < size ? data[pos++] : 0; }
   bool done() const { return pos >= size; }
};

uint64_t mix(uint64_t x) {
   x += 0x9e3779b97f4a7c15ull;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
   return x ^ (x >> 31);
}

// ---- keys: 16 bits each, few distinct address bits so that prefixes nest and repeat

uint32_t mask4(uint32_t len) {
   return len == 0 ? 0u : ~0u << (32 - len);
}

// Bit 0: VRF 1 or 2. Bits 1-3: the length. Bits 4-15: three nibbles of address, at prefix bits
// 1-4, 9-12 and 21-24, so /8s hold /16s, which hold /24s.
Ipv4UcastKey key4(uint16_t x) {
   static constexpr uint8_t lens[8] = {8, 12, 16, 20, 24, 24, 28, 32};
   const uint32_t v = x >> 4;
   uint32_t len = lens[(x >> 1) & 7];
   if (len == 8 && (v & 0xf) == 0) len = 0;  // the default route
   const uint32_t addr = (v & 0xf) << 28 | ((v >> 4) & 0xf) << 20 | ((v >> 8) & 0xf) << 8;
   return Ipv4UcastKey(VrfId(1 + (x & 1)), Ulo::Prefix(addr & mask4(len), uint8_t(len)));
}

void mask6(Ulo::Ip6Prefix::Bytes& b, uint32_t len) {
   for (uint32_t bit = len; bit < 128; ++bit)
      b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
}

// Bit 0: VRF. Bits 1-4: the length (single-size up to 64, double-size beyond). Bits 5-15: address
// bits inside /16, /48, /64 and /127.
uint32_t len6Of(uint16_t x) {
   static constexpr uint8_t lens[16] = {16, 32, 40, 48, 48,  56,  60,  64,
                                        64, 72, 80, 96, 112, 120, 127, 128};
   return lens[(x >> 1) & 15];
}

Ipv6UcastKey key6(uint16_t x, uint32_t len) {
   static constexpr uint8_t bits[11] = {13, 14, 15, 45, 46, 47, 61, 62, 124, 125, 126};
   Ulo::Ip6Prefix::Bytes b{};
   b[0] = 0x20;
   for (uint32_t i = 0; i < 11; ++i) {
      if (x >> (5 + i) & 1) b[bits[i] / 8] |= uint8_t(0x80u >> (bits[i] % 8));
   }
   if (len == 16 && (x >> 5) == 0) len = 0;
   mask6(b, len);
   return Ipv6UcastKey(VrfId(1 + (x & 1)), Ulo::Ip6Prefix(b, uint8_t(len)));
}

// bits: group and source as one 64-bit value, the way the multicast table compares them.
IpMcastPrefixKey mcastKeyOf(uint16_t vrfIndex, uint64_t bits, uint32_t len) {
   const uint32_t used = len < 64 ? len : 64;
   const uint64_t m = used == 0 ? 0 : ~0ull << (64 - used);
   bits &= m;
   return IpMcastPrefixKey(vrfIndex, 0, Ulo::IpGenAddr::v4(uint32_t(bits >> 32)),
                           Ulo::IpGenAddr::v4(uint32_t(bits)), uint8_t(len));
}

// Bit 0: VRF index. Bits 1-3: the length (group only up to 32, then source bits). Bits 4-9: group
// bits, bits 10-15: source bits.
IpMcastPrefixKey keyMcast(uint16_t x) {
   static constexpr uint8_t lens[8] = {24, 28, 32, 40, 48, 56, 64, 72};
   const uint32_t g = (x >> 4) & 0x3f, s = x >> 10;
   const uint32_t group = 0xe0000000u | (g & 7) << 20 | (g >> 3) << 4;
   const uint32_t source = (s & 7) << 29 | (s >> 3) << 20;
   return mcastKeyOf(uint16_t(x & 1), uint64_t(group) << 32 | source, lens[(x >> 1) & 7]);
}

// ---- the shadow: installed routes, pickable by index

template <class Key>
constexpr bool isMcast = std::is_same_v<Key, IpMcastPrefixKey>;

template <class Key>
struct Installed {
   std::vector<Key> keys;
   std::unordered_map<Key, size_t> where;
   std::array<uint32_t, 256> perLength{};  // lookups try only the lengths in use

   size_t size() const { return keys.size(); }
   bool has(const Key& k) const { return where.count(k) != 0; }
   bool lengthUsed(uint32_t len) const { return perLength[len] != 0; }
   void add(const Key& k) {
      where.emplace(k, keys.size());
      keys.push_back(k);
      ++perLength[lengthOf(k)];
   }
   void remove(const Key& k) {
      const size_t at = where.at(k);
      where[keys.back()] = at;
      keys[at] = keys.back();
      keys.pop_back();
      where.erase(k);
      --perLength[lengthOf(k)];
   }
   const Key& pick(uint32_t sel) const { return keys[sel % keys.size()]; }
   static uint32_t lengthOf(const Key& k) {
      if constexpr (isMcast<Key>)
         return k.len;
      else
         return k.len();
   }
};

// ---- the run

struct Layout {
   L3TcamManagerContext::Config unicast;
   L3TcamManagerContext::Config mcast;
   bool urpf = false;
   bool hasMcast = false;
   bool sharedRegions = false;
   uint8_t invalidEntries = 0;  // byte 5
};

// A platform's invalid-entry manager: a few short runs of entries, and of pairs, that must never
// hold a route, placed by the input. Every layout (uRPF halves the table) places them afresh.
class InvalidEntries : public LpmInvalidEntryManager {
 public:
   explicit InvalidEntries(uint8_t layoutByte) : byte_(layoutByte) {}
   void allocateInvalidEntries(bool, const Ulo::Ptr<HBitmap>& bitmap) override {
      invalidEntryRangeDelAll();
      mark(*bitmap, byte_ & 3, false);
   }
   void allocateInvalidEntriesPair(bool, const Ulo::Ptr<HBitmap>& bitmapPair) override {
      invalidEntryRangePairDelAll();
      mark(*bitmapPair, (byte_ >> 2) & 3, true);
   }

 private:
   void mark(HBitmap& map, uint32_t runs, bool pairs) {
      const uint32_t n = map.size();
      for (uint32_t i = 0; n > 1 && i < runs; ++i) {
         const uint64_t r = mix(uint64_t(byte_) << 8 | i << 1 | (pairs ? 1 : 0));
         const uint32_t start = 1 + uint32_t(r % (n - 1));
         const uint32_t end = std::min(n - 1, start + uint32_t(r >> 40) % 4);
         for (uint32_t b = start; b <= end; ++b)
            map.setBit(b);
         pairs ? invalidEntryRangePairIs({start, end}) : invalidEntryRangeIs({start, end});
      }
   }

   uint8_t byte_;
};

Layout decodeLayout(Input& in) {
   const uint8_t b0 = in.byte(), b1 = in.byte(), b2 = in.byte(), b3 = in.byte(), b4 = in.byte(),
                 b5 = in.byte();
   Layout l;
   L3TcamManagerContext::Config& c = l.unicast;
   // Small tables are the more likely: they fill up with few operations.
   c.tcamSize = 64u * (1 + (b0 & 31) * (b0 & 31) / 31);
   if (c.tcamSize > 64) c.tcamSize -= 4u * (b0 >> 5);
   static constexpr uint8_t blocks[8] = {1, 2, 4, 8, 16, 32, 3, 5};
   c.numUcastDefipBlocks = blocks[b1 >> 5];
   if (c.tcamSize % c.numUcastDefipBlocks != 0) c.numUcastDefipBlocks = 4;
   c.tcamMode = 1 + (b1 & 3);
   c.twoV4RoutesPerEntry = b2 & 1;
   c.supportsDefipPairing = b2 & 2;
   c.dynamicV4V6Boundary = c.supportsDefipPairing && (b2 & 4);
   c.v4V6InterleavingDisabled = !(b2 & 8);
   // uRPF exists in modes 2 and 4 only, and a fixed pairing border excludes it.
   l.urpf = (b2 & 16) && !(c.supportsDefipPairing && !c.dynamicV4V6Boundary);
   if (l.urpf && c.tcamMode % 2 == 1) ++c.tcamMode;
   l.hasMcast = b2 & 32;
   c.reAddAllowed = b2 & 64;
   if (b2 & 128) c.requestedTableMode = 1;  // not the current mode: no swap area
   c.pairGap = (b3 & 0x80) ? (b3 & 0x7f) : ((b3 & 7) ? 4u << (b3 & 7) : 0);
   if ((b4 & 1) && !l.urpf && c.tcamMode % 2 == 0) c.fallbackVrfId = VrfId(3);
   l.sharedRegions = (b4 & 2) && c.supportsDefipPairing && !c.v4V6InterleavingDisabled;
   l.mcast.v4Mcast = true;
   l.mcast.tcamSize = 64u << std::min((b4 >> 2) & 7, 5);
   if (b4 & 32) l.mcast.pairGap = l.mcast.tcamSize / 2;
   l.invalidEntries = b5;
   if (l.invalidEntries & 15) c.invalidEntryManagerType = 1;  // the platform brings its own
   return l;
}

class Run {
 public:
   explicit Run(const Layout& l)
       : layout_(l), segmentSecurity_(std::make_shared<Ulo::SegmentSecurityStatus>()) {
      segmentSecurity_->enabledIs(l.urpf);
      layout_.unicast.segmentSecurityStatus = segmentSecurity_;
      uc_ = unicastTable(l.urpf);
      if (l.sharedRegions) shared_ = shareRegions();
      if (l.hasMcast) mc_ = std::make_unique<sim::EmulatedTable>(layout_.mcast, false, true);
   }

   void execute(Input& in) {
      // Argument bytes of each opcode, all read whatever the operation then does.
      static constexpr uint8_t argBytes[16] = {3, 3, 3, 3, 2, 3, 3, 3, 2, 2, 3, 1, 1, 1, 3, 3};
      for (uint32_t ops = 0; ops < maxOps && steps_ < maxSteps && !in.done(); ++ops) {
         const uint8_t op = in.byte() % 16;
         std::array<uint8_t, 3> a{};
         for (uint32_t i = 0; i < argBytes[op]; ++i)
            a[i] = in.byte();
         const uint16_t word = uint16_t(a[0] | a[1] << 8);  // a key or a pick, little-endian
         switch (op) {
            case 0:
            case 1:
               add4(key4(word), a[2] & 1);
               break;
            case 2:
               if (in4_.size()) del4(in4_.pick(word), a[2] & 1);
               break;
            case 3:
               add6(word, a[2] & 1);
               break;
            case 4:
               if (in6_.size()) del6(in6_.pick(word));
               break;
            case 7:
               drain(a[0], a[1], a[2] & 3);
               break;
            case 8:
               if (mc_) addMcast(keyMcast(word));
               break;
            case 9:
               if (mc_ && inM_.size()) delMcast(inM_.pick(word));
               break;
            case 11:
               moveBorder(a[0]);
               break;
            case 12:
               switchUrpf(a[0] & 1);
               break;
            case 13:
               if (a[0] & 1) restartUnicast(a[0]);
               if ((a[0] & 2) && mc_) {
                  restart(mc_, std::make_unique<sim::EmulatedTable>(layout_.mcast, false, true),
                          a[0] & 4, a[0], std::nullopt, a[0] & 4);
               }
               break;
            case 14:
               reAdd(word, a[2] & 1);
               break;
            default:  // 5, 6, 10, 15
               fill(op, a[0], a[1], a[2]);
         }
      }
      fullCheck();
      if (summaryWanted) summary();
   }

 private:
   L3TcamManagerContext& ctx() { return uc_->ctx(); }
   sim::TcamEmulator& emu() { return *uc_->emu(); }

   // Per route family: the table, the entry where the model has a route, the shadow set.
   template <class Key>
   sim::EmulatedTable& tableOf(const Key&) {
      return isMcast<Key> ? *mc_ : *uc_;
   }
   uint32_t modelPos(const Ipv4UcastKey& k) { return ctx().getKeyV4ToEntryId(k); }
   uint32_t modelPos(const Ipv6UcastKey& k) { return ctx().v6()->getEntryId(k); }
   uint32_t modelPos(const IpMcastPrefixKey& k) { return mc_->ctx().mcastV4()->entryId(k); }
   Installed<Ipv4UcastKey>& shadow(const Ipv4UcastKey&) { return in4_; }
   Installed<Ipv6UcastKey>& shadow(const Ipv6UcastKey&) { return in6_; }
   Installed<IpMcastPrefixKey>& shadow(const IpMcastPrefixKey&) { return inM_; }

   // ---- route operations

   bool add4(const Ipv4UcastKey& key, bool useSwapArea) {
      if (in4_.has(key)) return false;
      const RouteReturnCode rc = ctx().addRoute4(key, useSwapArea);
      if (rc.routeId)
         emu().writeV4(rc.routeId, ctx().v4()->keys(rc.routeId));
      else
         refusedWithRoomIsAnError(RouteType::v4, useSwapArea);
      VEXLO_ASSERT_MSG(!rc.routeId || ctx().rightKey(key, rc.routeId) == rc.tcamV4RightKey,
                       "fuzz: IPv4 half as the add said", key, " at ", rc.routeId);
      VEXLO_ASSERT_MSG(ctx().verifyRoute4(key) == rc.routeId, "fuzz: the route verifies", key);
      return added(key, rc, 0);
   }

   bool add6(uint16_t x, bool useSwapArea) {
      // A length the layout has no entries for is a broken caller: take /64 instead, or nothing.
      uint32_t len = len6Of(x);
      if (!uc_->v6Placeable(len)) len = 64;
      if (!uc_->v6Placeable(len)) return false;
      const Ipv6UcastKey key = key6(x, len);
      if (in6_.has(key)) return false;
      const RouteReturnCode rc = ctx().addRoute6(key, useSwapArea);
      if (rc.routeId)
         emu().writeV6(rc.routeId, key, uc_->doubleSizeAt(rc.routeId));
      else
         refusedWithRoomIsAnError(RouteType::v6Full, useSwapArea);
      return added(key, rc, 1);
   }

   bool addMcast(const IpMcastPrefixKey& key) {
      if (inM_.has(key)) return false;
      const RouteReturnCode rc = mc_->ctx().addMroute4(key, false);
      if (rc.routeId) mc_->emu()->writeMcast(rc.routeId, key);
      return added(key, rc, 2);
   }

   // The hardware written, an add's outcome is shadowed and tallied, then checked. Returns whether
   // the route was placed.
   template <class Key>
   bool added(const Key& key, const RouteReturnCode& rc, size_t family) {
      if (rc.routeId) shadow(key).add(key);
      ++(rc.routeId ? tally_.placed : tally_.refused)[family];
      checkRoute(key, rc.routeId);
      return rc.routeId != 0;
   }

   // Deletes take their key by value: the caller's key usually lives in the shadow set, which the
   // delete changes.
   void del4(Ipv4UcastKey key, bool mergeAtOnce) {
      const uint64_t seq = ++sequence_;
      const RouteReturnCode rc = ctx().deleteRoute4(key, mergeAtOnce, seq);
      in4_.remove(key);
      uc_->rewriteV4(rc.routeId);
      if (rc.canMerge) {
         // The model is consistent again only once the caller has merged.
         VEXLO_ASSERT_MSG(!mergeAtOnce && rc.mergePos && rc.mergePos != rc.routeId,
                          "fuzz: a merge offered only when not made", key, " ", rc.toString());
         ctx().mergeRoute4(key, rc.routeId, rc.mergePos, seq);
         ++tally_.mergedAfterwards;
         uc_->rewriteV4(rc.routeId);
      }
      VEXLO_ASSERT_MSG(ctx().verifyRoute4(key) == 0, "fuzz: the route verifies", key);
      checkRoute(key, 0);
   }

   void del6(Ipv6UcastKey key) {
      emu().clear(ctx().deleteRoute6(key).routeId);
      in6_.remove(key);
      checkRoute(key, 0);
   }

   void delMcast(IpMcastPrefixKey key) {
      mc_->emu()->clear(mc_->ctx().deleteMroute4(key).routeId);
      inM_.remove(key);
      checkRoute(key, 0);
   }

   // After a route operation: the route is at the entry it named (0: gone) in the model and the
   // hardware, and once the model has verified itself its address is looked up.
   template <class Key>
   void checkRoute(const Key& key, uint32_t pos) {
      sim::EmulatedTable& t = tableOf(key);
      const bool thorough = afterStep(t);
      VEXLO_ASSERT_MSG(modelPos(key) == pos && t.emu()->home(key) == pos,
                       "fuzz: route where the operation said", key, " at ", pos, ", model ",
                       modelPos(key), ", hardware ", t.emu()->home(key));
      if (thorough) probe(key);
   }

   // Where the border moves, a route is refused only when its own partition is down to its
   // reserve and could not grow; for IPv6, or when no pair is left whole (invalid entries and
   // pairs spoil pairs whose entries still count as free), which is all that counts when the
   // route may use the reserve.
   void refusedWithRoomIsAnError(RouteType t, bool useSwapArea) {
      const L3TcamManagerContext& c = ctx();
      if (!c.borderMoves()) return;
      const uint32_t free = c.entriesFree(t), reserve = c.swapAreaSize(t);
      const uint32_t pairs = t == RouteType::v4 ? 0 : freePairs(c);
      VEXLO_ASSERT_MSG(
          t == RouteType::v4 ? free <= reserve : pairs == 0 || (!useSwapArea && free <= reserve),
          "fuzz: refused with room in its partition", toString(t), ", free ", free, " entries, ",
          pairs, " pairs, reserve ", reserve, ", may use it ", useSwapArea);
   }

   // Whole pairs free in the double-size block.
   static uint32_t freePairs(const L3TcamManagerContext& c) {
      const TcamBlock* full = c.block(RouteType::v6Full).get();
      if (!full || !full->isValid()) return 0;
      const uint32_t first = c.physicalBoundToPair(full->start());
      const uint32_t last = c.physicalBoundToPair(full->end());
      return last - first + 1 - c.bitmapPair()->count(first, last);
   }

   // ---- bulk operations

   void fill(uint8_t op, uint8_t count, uint8_t seed, uint8_t shape) {
      if (op == 10 && !mc_) return;
      const uint64_t base = uint64_t(seed) << 32 | uint64_t(++fills_) << 8 | op;
      const uint32_t lenIndex = shape & 7;  // 0: from the key bits
      const bool useSwapArea = shape & 8, oneVrf = shape & 16;
      uint32_t refusedInARow = 0;
      for (uint32_t j = 0; j <= count && steps_ < maxSteps && refusedInARow < 8; ++j) {
         uint16_t x = uint16_t(mix(base + (uint64_t(j) << 40)));
         if (oneVrf) x &= uint16_t(~1u);
         const bool v6 = op == 6 || (op == 15 && j % 2 == 1);
         if (lenIndex && v6)
            x = uint16_t((x & ~(15u << 1)) | ((lenIndex - 1) * 2 + (x >> 1 & 1)) << 1);
         else if (lenIndex)
            x = uint16_t((x & ~(7u << 1)) | (lenIndex - 1) << 1);
         bool placed = false;
         if (v6) {
            placed = add6(x, useSwapArea);
         } else if (op == 10) {
            if (inM_.has(keyMcast(x))) continue;
            placed = addMcast(keyMcast(x));
         } else {
            if (in4_.has(key4(x))) continue;
            placed = add4(key4(x), useSwapArea);
         }
         refusedInARow = placed ? 0 : refusedInARow + 1;
      }
   }

   void drain(uint8_t count, uint8_t seed, uint32_t which) {
      for (uint32_t j = 0; j <= count && steps_ < maxSteps; ++j) {
         const uint32_t r = uint32_t(mix(uint64_t(seed) << 32 | j));
         uint32_t family = which;
         if (family == 3) family = (in6_.size() && (r & 1)) || !in4_.size() ? 1 : 0;
         if (family == 0 && in4_.size()) {
            del4(in4_.pick(r >> 1), r & 0x100);
         } else if (family == 1 && in6_.size()) {
            del6(in6_.pick(r >> 1));
         } else if (family == 2 && mc_ && inM_.size()) {
            delMcast(inM_.pick(r >> 1));
         } else {
            return;
         }
      }
   }

   // ---- layout operations

   void moveBorder(uint8_t sel) {
      L3TcamManagerContext& c = ctx();
      if (!c.borderMoves() || c.lpmPairGap() == 0) return;
      const uint32_t step = 2 * c.lpmPairGap();
      // One step past the last possible border, which must be refused.
      const uint32_t border = (sel & 0x7f) % (c.effectiveSize() / step + 2) * step;
      const uint32_t before = c.v4V6Border();
      const uint64_t reallocations = c.stats()->reallocation();
      const uint32_t used4 = c.entries(RouteType::v4), usedFull = c.entries(RouteType::v6Full);
      const uint64_t moves = emu().moves();
      const bool moved = c.reallocate(border, sel & 0x80);
      ++(moved ? tally_.borderMoves : tally_.borderRefusals);
      charge(moved ? layoutChangeCost() : 1);
      check(*uc_, true);
      VEXLO_ASSERT_MSG(c.v4V6Border() == (moved ? border : before) &&
                           c.v6()->tcamBorder() == c.v4V6Border() &&
                           c.stats()->reallocation() == reallocations + (moved ? 1 : 0),
                       "fuzz: the border is where the reallocation said", "asked ", border,
                       ", was ", before, ", is ", c.v4V6Border(), ", done ", moved);
      VEXLO_ASSERT_MSG((moved || emu().moves() == moves) && c.entries(RouteType::v4) == used4 &&
                           c.entries(RouteType::v6Full) == usedFull,
                       "fuzz: a reallocation keeps every route, a refused one moves nothing",
                       "border ", border, ", moves ", emu().moves() - moves);
      if (moved) fullCheck();
   }

   void switchUrpf(bool drainFirst) {
      L3TcamManagerContext& c = ctx();
      const bool enable = !c.urpfEnabled();
      // uRPF needs mode 2 or 4 and no fallback VRF; fixed pairing borders refuse it (range error).
      if (enable && (c.tcamMode() % 2 == 1 || c.fallbackVrfId() != VrfId::invalidVrfId())) return;
      while (drainFirst && steps_ < maxSteps && in4_.size() + in6_.size()) {
         if (in4_.size())
            del4(in4_.keys.back(), true);
         else
            del6(in6_.keys.back());
      }
      const bool empty = in4_.size() + in6_.size() == 0;
      segmentSecurity_->enabledIs(enable);
      bool switched = false, refused = false;
      try {
         switched = c.handleUrpf(enable);
      } catch (const std::range_error&) {
         refused = true;
      }
      if (!switched) segmentSecurity_->enabledIs(!enable);
      VEXLO_ASSERT_MSG(switched == (empty && !refused) && c.urpfEnabled() == (enable == switched),
                       "fuzz: uRPF switches exactly on an empty table", "enable ", enable,
                       ", empty ", empty, ", refused ", refused, ", switched ", switched);
      ++(switched ? tally_.urpfSwitches : tally_.urpfRefusals);
      if (switched && shared_) shared_ = shareRegions();
      charge(switched ? layoutChangeCost() : 1);
      check(*uc_, true);
   }

   void restartUnicast(uint8_t how) {
      // Entry by entry only where a fresh context already has the border the image needs.
      const bool entryByEntry = (how & 4) && !ctx().borderMoves();
      std::unique_ptr<sim::EmulatedTable> next = unicastTable(ctx().urpfEnabled());
      // The platform that reshaped the layout before does so again before the rebuild.
      if (shared_) next->shareRegions(ctx().v6()->tcamBorder());
      // Once placed entry by entry, the model's empty halves may name another VRF than the
      // hardware's (which keeps what was written before the restart), for good.
      emptyHalvesMayDiffer_ = emptyHalvesMayDiffer_ || entryByEntry;
      restart(uc_, std::move(next), entryByEntry, how, ctx().v4V6Border(), emptyHalvesMayDiffer_);
   }

   // A fresh context of the same configuration, placed from the hardware image (rebuilt at once,
   // or entry by entry in an order drawn from `how`), must be the same model; the run goes on
   // with it and a new emulator given the same image.
   void restart(std::unique_ptr<sim::EmulatedTable>& t, std::unique_ptr<sim::EmulatedTable> next,
                bool entryByEntry, uint8_t how, std::optional<uint32_t> border, bool anyEmptyHalf) {
      const std::vector<TcamHardwareEntry> image = sim::imageOf(*t->emu());
      if (entryByEntry)
         placeAtIndex(next->ctx(), image, how >> 3);
      else
         next->ctx().rebuildFromHardware(image, border);
      sameModel(t->ctx(), next->ctx(), anyEmptyHalf);
      install(*t->emu(), *next->emu());
      t = std::move(next);
      ++tally_.restarts;
      charge(layoutChangeCost());
      fullCheck();
   }

   // An add of an installed route where re-adding is allowed reports where the route is and
   // changes nothing.
   void reAdd(uint16_t sel, bool v6) {
      L3TcamManagerContext& c = ctx();
      if (!c.reAddAllowed() || (v6 ? in6_.size() : in4_.size()) == 0) return;
      const uint64_t moves = emu().moves() + emu().merges();
      if (v6) {
         const Ipv6UcastKey& key = in6_.pick(sel);
         const uint32_t pos = modelPos(key);
         VEXLO_ASSERT_MSG(c.addRoute6(key, false).routeId == pos, "fuzz: re-add reports the entry",
                          key, " at ", pos);
      } else {
         const Ipv4UcastKey& key = in4_.pick(sel);
         const uint32_t pos = modelPos(key);
         const RouteReturnCode rc = c.addRoute4(key, false);
         VEXLO_ASSERT_MSG(rc.routeId == pos && rc.tcamV4RightKey == c.rightKey(key, pos),
                          "fuzz: re-add reports the entry", key, " at ", pos, ": ", rc.toString());
      }
      afterStep(*uc_);
      VEXLO_ASSERT_MSG(emu().moves() + emu().merges() == moves, "fuzz: re-add moves nothing", "");
   }

   // Single- and double-size IPv6 regions side by side in a paired table that allows
   // interleaving, the IPv4 block spanning both: IPv4 entries stand in either region and the
   // conversion ladder has work to do. Only on an empty table; false (nothing changed) where the
   // double-size pairs below the border would not end inside the table.
   bool shareRegions() {
      L3TcamManagerContext& c = ctx();
      const uint32_t eff = c.effectiveSize(), g = c.lpmPairGap();
      if (g == 0 || eff % (4 * g) != 0) return false;
      uc_->shareRegions(eff / 2);
      c.verify();
      return true;
   }

   // ---- checks (the header comment says which run when)

   // The route counts of a table and its shadow, the hardware check of what changed since the
   // last one, and with `verify` the model's own verify().
   void check(sim::EmulatedTable& t, bool verify) {
      const bool m = &t == mc_.get();
      const L3TcamManagerContext& c = t.ctx();
      const bool modelAgrees = m ? c.mcastV4()->entryIdSize() == inM_.size()
                                 : c.v4()->keyToEntryIdSize() == in4_.size() &&
                                       c.v6()->keyToEntryIdSize() == in6_.size();
      VEXLO_ASSERT_MSG(modelAgrees && t.emu()->installedRoutes() ==
                                          (m ? inM_.size() : in4_.size() + in6_.size()),
                       "fuzz: model and hardware hold the installed routes", "hardware ",
                       t.emu()->installedRoutes(), ", IPv4 ", in4_.size(), ", IPv6 ", in6_.size(),
                       ", multicast ", inM_.size());
      const std::vector<sim::Violation> v = t.emu()->checkAfterMove();
      VEXLO_ASSERT_MSG(v.empty(), "fuzz: hardware table consistent", v.empty() ? "" : v[0].message);
      if (!verify) return;
      c.verify();
      (m ? sinceVerifyMcast_ : sinceVerify_) = 0;
   }

   // A layout change (border move, uRPF switch, restart) checks or rebuilds the whole table; it
   // counts against the step budget as that many route operations, so that inputs full of them
   // stay as fast as the others.
   uint32_t layoutChangeCost() const {
      return 16 + uint32_t(in4_.size() + in6_.size() + inM_.size());
   }
   void charge(uint32_t steps) { steps_ += steps; }

   // Returns whether the model verified itself (the caller then looks the route up).
   bool afterStep(sim::EmulatedTable& t) {
      ++steps_;
      if (summaryWanted) {
         uint32_t& peak = &t == mc_.get() ? tally_.peakMcast : tally_.peakUnicast;
         peak = std::max(peak, t.usedEntries() * 100 / t.ctx().effectiveSize());
      }
      uint32_t& since = &t == mc_.get() ? sinceVerifyMcast_ : sinceVerify_;
      const uint32_t stride = sparseVerify ? std::max(1u, t.ctx().tcamSize() / verifyDivisor) : 1;
      const bool verified = ++since >= stride;
      check(t, verified);
      if (steps_ % fullCheckEvery == 0) fullCheck();
      return verified;
   }

   // Every table checked and its hardware checked from scratch; every installed route at the
   // entry the model names; lookups of a sample.
   void fullCheck() {
      for (sim::EmulatedTable* t : {uc_.get(), mc_.get()}) {
         if (!t) continue;
         check(*t, true);
         const std::vector<sim::Violation> v = t->emu()->checkAll();
         VEXLO_ASSERT_MSG(v.empty(), "fuzz: hardware table consistent (full check)",
                          v.empty() ? "" : v[0].message);
      }
      fullCheck(in4_);
      fullCheck(in6_);
      fullCheck(inM_);
   }

   template <class Key>
   void fullCheck(const Installed<Key>& in) {
      for (const Key& k : in.keys) {
         VEXLO_ASSERT_MSG(modelPos(k) == tableOf(k).emu()->home(k) && modelPos(k) != 0,
                          "fuzz: route where the model says", k);
      }
      for (size_t i = 0; i < in.size(); i += in.size() / fullCheckLookups + 1)
         probe(in.keys[i]);
   }

   // A lookup of the route's own address hits the longest installed prefix that holds it, at the
   // entry where the model has that prefix; nothing when none does. atLength(len): the address
   // as a prefix of that length.
   template <class Key, class Hit, class AtLength>
   void probe(const Key& key, const std::optional<Hit>& hit, int longest, AtLength atLength) {
      const Installed<Key>& in = shadow(key);
      std::optional<Key> best;
      for (int len = longest; len >= 0 && !best; --len) {
         if (!in.lengthUsed(uint32_t(len))) continue;
         const Key k = atLength(uint32_t(len));
         if (in.has(k)) best = k;
      }
      VEXLO_ASSERT_MSG(hit.has_value() == best.has_value() &&
                           (!hit || (hit->key == *best && hit->pos == modelPos(*best))),
                       "fuzz: lookup hits the longest installed prefix", "address of ", key,
                       ": hit ", hit ? hit->key.toString() : "nothing", ", expected ",
                       best ? best->toString() : "nothing");
   }

   void probe(const Ipv4UcastKey& key) {
      const uint32_t addr = key.prefix.addr();
      probe(key, emu().lookup4(key.vrfId, addr), 32, [&](uint32_t len) {
         return Ipv4UcastKey(key.vrfId, Ulo::Prefix(addr & mask4(len), uint8_t(len)));
      });
   }

   void probe(const Ipv6UcastKey& key) {
      probe(key, emu().lookup6(key.vrfId, key.prefix.bytes()), 128, [&](uint32_t len) {
         Ulo::Ip6Prefix::Bytes b = key.prefix.bytes();
         mask6(b, len);
         return Ipv6UcastKey(key.vrfId, Ulo::Ip6Prefix(b, uint8_t(len)));
      });
   }

   // Lengths past 64 constrain no more bits, but are more specific.
   void probe(const IpMcastPrefixKey& key) {
      const uint32_t g = key.group.v4Addr(), s = key.source.v4Addr();
      probe(key, mc_->emu()->lookupMcast(key.vrfIndex, key.tableId, g, s), 90,
            [&](uint32_t len) { return mcastKeyOf(key.vrfIndex, uint64_t(g) << 32 | s, len); });
   }

   // The unicast table of this layout, with the platform's invalid entries if it has any.
   std::unique_ptr<sim::EmulatedTable> unicastTable(bool urpf) const {
      const uint8_t invalid = layout_.invalidEntries;
      return std::make_unique<sim::EmulatedTable>(
          layout_.unicast, urpf, /*emulate*/ true, [invalid](L3TcamManagerContext& c) {
             if (invalid & 15) c.invalidEntryManagerIs(std::make_shared<InvalidEntries>(invalid));
          });
   }

   // Places an image one route at a time (each half of an IPv4 entry on its own) in an order
   // drawn from seed, as a platform resynchronising entry by entry does; every route must land
   // where the image has it.
   static void placeAtIndex(L3TcamManagerContext& ctx, const std::vector<TcamHardwareEntry>& image,
                            uint64_t seed) {
      using Kind = TcamHardwareEntry::Kind;
      std::vector<std::pair<const TcamHardwareEntry*, bool>> routes;  // an entry, its right half?
      for (const TcamHardwareEntry& e : image) {
         if (e.kind == Kind::v4) {
            if (!e.v4.right.isNull()) routes.emplace_back(&e, true);
            if (!e.v4.left.isNull()) routes.emplace_back(&e, false);
         } else if (e.kind != Kind::v6DoubleSecond) {
            routes.emplace_back(&e, true);
         }
      }
      for (size_t i = routes.size(); i > 1; --i)
         std::swap(routes[i - 1], routes[mix(seed << 32 | i) % i]);
      for (const auto& [e, right] : routes) {
         RouteReturnCode rc;
         if (e->kind == Kind::v4) {
            rc = ctx.addRoute4AtIndex(right ? e->v4.right : e->v4.left, e->pos, right);
         } else if (e->kind == Kind::mcast) {
            rc = ctx.addMroute4AtIndex(e->mcast, e->pos);
         } else {
            rc = ctx.addRoute6AtIndex(e->v6, e->pos);
         }
         VEXLO_ASSERT_MSG(
             rc.routeId == e->pos && (e->kind != Kind::v4 || rc.tcamV4RightKey == right),
             "fuzz: placed at the image's entry", "entry ", e->pos, ", right ", right, ": ",
             rc.toString());
      }
   }

   // Every mapping's (entry, route) pairs, in its order.
   static auto routesOf(const L3TcamManagerContext& c, bool anyEmptyHalf) {
      std::vector<std::pair<uint32_t, Ipv4Keys>> v4;
      std::vector<std::pair<uint32_t, Ipv6UcastKey>> v6;
      std::vector<std::pair<uint32_t, IpMcastPrefixKey>> mcast;
      if (c.v4()) {
         c.v4()->forEachKeys([&](uint32_t pos, Ipv4Keys k) {
            if (anyEmptyHalf && k.left.isNull()) k.left = Ipv4UcastKey::nullKey(VrfId());
            if (anyEmptyHalf && k.right.isNull()) k.right = Ipv4UcastKey::nullKey(VrfId());
            v4.emplace_back(pos, k);
         });
      }
      if (c.v6()) c.v6()->forEachEntryIdToKey([&](uint32_t p, auto& k) { v6.emplace_back(p, k); });
      if (c.mcastV4())
         c.mcastV4()->forEachKey([&](uint32_t p, auto& k) { mcast.emplace_back(p, k); });
      return std::tuple(v4, v6, mcast);
   }

   // The model as a rebuild must reproduce it: layout, blocks with their ranges and occupancy,
   // both bitmaps, and every mapping (statistics start again from zero and are left out).
   // Placed entry by entry, an IPv4 entry with one route fills its empty half with that route's
   // VRF, whatever VRF the half had before: empty halves compare equal then.
   static void sameModel(const L3TcamManagerContext& a, const L3TcamManagerContext& b,
                         bool anyEmptyHalf) {
      VEXLO_ASSERT_MSG(a.effectiveSize() == b.effectiveSize() && a.v4V6Border() == b.v4V6Border() &&
                           a.lpmPairGap() == b.lpmPairGap() && a.urpfEnabled() == b.urpfEnabled(),
                       "fuzz: restart keeps the layout", "border ", a.v4V6Border(), "/",
                       b.v4V6Border());
      for (RouteType t : allRouteTypes) {
         const TcamBlock* x = a.block(t).get();
         const TcamBlock* y = b.block(t).get();
         VEXLO_ASSERT_MSG(!x == !y && (!x || *x == *y), "fuzz: restart rebuilds the block",
                          toString(t));
      }
      VEXLO_ASSERT_MSG(*a.bitmap() == *b.bitmap() && *a.bitmapPair() == *b.bitmapPair(),
                       "fuzz: restart rebuilds the occupancy", "");
      VEXLO_ASSERT_MSG(routesOf(a, anyEmptyHalf) == routesOf(b, anyEmptyHalf) &&
                           (!a.v6() || a.v6()->tcamBorder() == b.v6()->tcamBorder()),
                       "fuzz: restart rebuilds every route at its entry", "");
      for (uint32_t len = 0; a.v4() && len <= 32; ++len) {
         VEXLO_ASSERT_MSG(a.v4()->halfFull(len) == b.v4()->halfFull(len),
                          "fuzz: restart rebuilds the half-full entries", "length ", len);
      }
   }

   // The caller's writes that give a new emulator the old one's image.
   static void install(const sim::TcamEmulator& from, sim::TcamEmulator& to) {
      from.forEachEntry([&](uint32_t pos, const sim::TcamEntry& e) {
         using K = sim::EntryKind;
         if (e.kind == K::v4)
            to.writeV4(pos, e.v4);
         else if (e.kind == K::mcast)
            to.writeMcast(pos, e.mcast);
         else if (e.kind == K::v6Single || e.kind == K::v6DoubleFirst)
            to.writeV6(pos, e.v6, e.kind == K::v6DoubleFirst);
      });
   }

   // What an input did, printed with VEXLO_FUZZ_SUMMARY=1 (to see what a corpus covers).
   struct Tally {
      std::array<uint32_t, 3> placed{}, refused{};  // IPv4, IPv6, multicast
      uint32_t mergedAfterwards = 0, borderMoves = 0, borderRefusals = 0, urpfSwitches = 0,
               urpfRefusals = 0, restarts = 0, peakUnicast = 0, peakMcast = 0;
   };

   void summary() const {
      const L3TcamManagerContext& c = uc_->ctx();
      const TcamStats& st = *c.stats();
      std::fprintf(
          stderr,
          "fuzz: %u entries, mode %u, %u blocks, two per entry %d, pairing %d, moving %d, "
          "interleaving %d, uRPF %d, shared regions %d, multicast %u entries, gap %u, border %u\n",
          c.tcamSize(), c.tcamMode(), unsigned(c.numUcastDefipBlocks()), c.twoV4RoutesPerEntry(),
          c.supportsDefipPairing(), c.dynamicV4V6Boundary(), !c.v4V6InterleavingDisabled(),
          c.urpfEnabled(), shared_, mc_ ? mc_->ctx().tcamSize() : 0, c.lpmPairGap(),
          c.v4V6Border());
      std::fprintf(stderr,
                   "fuzz: %u steps; placed/refused IPv4 %u/%u, IPv6 %u/%u, multicast %u/%u; "
                   "merged afterwards %u; peak use %u%% (multicast %u%%); border moves %u, "
                   "refused %u; uRPF switches %u, refused %u; restarts %u; moves since the last "
                   "restart IPv4 %llu, v6Full %llu, v6Half %llu\n",
                   steps_, tally_.placed[0], tally_.refused[0], tally_.placed[1], tally_.refused[1],
                   tally_.placed[2], tally_.refused[2], tally_.mergedAfterwards, tally_.peakUnicast,
                   tally_.peakMcast, tally_.borderMoves, tally_.borderRefusals, tally_.urpfSwitches,
                   tally_.urpfRefusals, tally_.restarts,
                   (unsigned long long)st.moveRoute(RouteType::v4),
                   (unsigned long long)st.moveRoute(RouteType::v6Full),
                   (unsigned long long)st.moveRoute(RouteType::v6Half));
   }

   Tally tally_;
   Layout layout_;
   Ulo::Ptr<Ulo::SegmentSecurityStatus> segmentSecurity_;
   std::unique_ptr<sim::EmulatedTable> uc_, mc_;
   Installed<Ipv4UcastKey> in4_;
   Installed<Ipv6UcastKey> in6_;
   Installed<IpMcastPrefixKey> inM_;
   uint64_t sequence_ = 0;
   uint32_t steps_ = 0;
   uint32_t sinceVerify_ = 0, sinceVerifyMcast_ = 0;
   bool shared_ = false;  // the side-by-side IPv6 regions are in place
   bool emptyHalvesMayDiffer_ = false;
   uint32_t fills_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   Input in{data, size};
   const Layout layout = decodeLayout(in);
   std::unique_ptr<Run> run;
   try {
      run = std::make_unique<Run>(layout);
   } catch (const std::range_error&) {
      return 0;  // a layout the model refuses; nothing to run
   }
   run->execute(in);
   return 0;
}
