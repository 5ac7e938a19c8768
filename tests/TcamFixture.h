// A TCAM context wired to the hardware emulator. Every operation goes through the context, the
// caller's own hardware writes go to the emulator, and after each one the context verifies itself
// and the emulator checks that no installed route has become unreachable or shadowed.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "sim/EmulatedTable.h"
#include "sim/TcamEmulator.h"

namespace VexloL3Common::testing {

inline L3TcamManagerContext::Config layout(uint32_t size, uint32_t mode, uint8_t blocks,
                                           bool twoV4 = true) {
   L3TcamManagerContext::Config c;
   c.tcamSize = size;
   c.tcamMode = mode;
   c.numUcastDefipBlocks = blocks;
   c.twoV4RoutesPerEntry = twoV4;
   return c;
}

// The entry type a move of this entry publishes (v6 for an entry that holds no route: the writer
// refuses the move).
inline EntryType moveTypeOf(const sim::TcamEntry& e) {
   if (e.kind == sim::EntryKind::v4) {
      return e.v4.left.isNull()    ? EntryType::v4Right
             : e.v4.right.isNull() ? EntryType::v4Left
                                   : EntryType::v4Both;
   }
   return e.kind == sim::EntryKind::mcast ? EntryType::mcastV4 : EntryType::v6;
}

class TcamHarness {
 public:
   // beforeInit runs between construction and initialisation (a platform installing its own
   // invalid-entry manager).
   explicit TcamHarness(L3TcamManagerContext::Config cfg, bool urpf = false,
                        const std::function<void(L3TcamManagerContext&)>& beforeInit = {})
       : table_(std::move(cfg), urpf, /*emulate*/ true, beforeInit) {
      emu_->modelViewIs(table_.modelView());
   }

   // Separate single- and double-size IPv6 regions split at `border` (sim::EmulatedTable).
   void shareRegions(uint32_t border) { table_.shareRegions(border); }

   L3TcamManagerContext& ctx() { return table_.ctx(); }
   sim::TcamEmulator& emu() { return *table_.emu(); }
   RouteMove& move() { return table_.move(); }
   RouteMerge& merge() { return table_.merge(); }

   RouteReturnCode add4(const Ipv4UcastKey& key, bool useSwapArea = false) {
      RouteReturnCode rc = ctx_->addRoute4(key, useSwapArea);
      if (rc.routeId) emu_->writeV4(rc.routeId, ctx_->v4()->keys(rc.routeId));
      check();
      return rc;
   }

   RouteReturnCode del4(const Ipv4UcastKey& key, bool merge = true, uint64_t seq = 0) {
      RouteReturnCode rc = ctx_->deleteRoute4(key, merge, seq);
      rewrite4(rc.routeId);
      if (!rc.canMerge) check();
      return rc;
   }

   void merge4(const Ipv4UcastKey& key, uint32_t pos, uint32_t halfFullPos, uint64_t seq = 0) {
      ctx_->mergeRoute4(key, pos, halfFullPos, seq);
      rewrite4(pos);
      check();
   }

   // An IPv6 route placed at a chosen entry, as a restart places what the hardware holds (a
   // double-size route below the IPv6 border).
   void add6At(const Ipv6UcastKey& key, uint32_t index) {
      ctx_->addRoute6AtIndex(key, index);
      emu_->writeV6(index, key, table_.doubleSizeAt(index));
      check();
   }

   // Through the conversion ladder, as an agent adds an IPv6 route.
   RouteReturnCode add6(const Ipv6UcastKey& key, bool useSwapArea = false) {
      RouteReturnCode rc = ctx_->addRoute6(key, useSwapArea);
      if (rc.routeId) emu_->writeV6(rc.routeId, key, table_.doubleSizeAt(rc.routeId));
      check();
      return rc;
   }

   RouteReturnCode del6(const Ipv6UcastKey& key) {
      RouteReturnCode rc = ctx_->deleteRoute6(key);
      emu_->clear(rc.routeId);
      check();
      return rc;
   }

   RouteReturnCode addM(const IpMcastPrefixKey& key) {
      RouteReturnCode rc = ctx_->addMroute4(key, false);
      if (rc.routeId) emu_->writeMcast(rc.routeId, key);
      check();
      return rc;
   }

   RouteReturnCode delM(const IpMcastPrefixKey& key) {
      RouteReturnCode rc = ctx_->deleteMroute4(key);
      emu_->clear(rc.routeId);
      check();
      return rc;
   }

   // The model verifies itself; the emulator has checked every move already, and now that the
   // operation is over also that every route it touched stands where the model has it; checkAll
   // confirms the whole table.
   void check(bool full = false) {
      ctx_->verify();
      const auto changed = emu_->checkAfterMove();
      ASSERT_TRUE(changed.empty()) << changed.front().message;
      if (full) {
         auto violations = emu_->checkAll();
         ASSERT_TRUE(violations.empty()) << violations.front().message;
      }
   }

   uint64_t moves() const { return emu_->moves(); }

 private:
   void rewrite4(uint32_t pos) { table_.rewriteV4(pos); }

   sim::EmulatedTable table_;
   // The context and the emulator, under the names the operations above use.
   L3TcamManagerContext* const ctx_ = &table_.ctx();
   sim::TcamEmulator* const emu_ = table_.emu();
};

inline void appendBits(std::string& out, const char* name, const HBitmap* bm) {
   out += name;
   out += ":";
   if (!bm) {
      out += " none\n";
      return;
   }
   for (uint32_t i = bm->findFirstSet(0, bm->size()); i != HBitmap::npos;
        i = i + 1 < bm->size() ? bm->findFirstSet(i + 1, bm->size()) : HBitmap::npos) {
      out += fmt::format(" {}", i);
   }
   out += "\n";
}

// Everything the model holds, as text: blocks, ranges, occupancy, mappings and statistics. Two
// equal snapshots mean an operation left the model exactly as it was.
inline std::string snapshot(const L3TcamManagerContext& ctx) {
   std::string out;
   for (RouteType t : allRouteTypes) {
      const TcamBlock* b = ctx.block(t).get();
      if (!b) continue;
      out += fmt::format("block {} {}/{} len {}-{} max {}:", t, b->start(), b->end(),
                         b->prefixLenMin(), b->prefixLenMax(), b->lengthRangeMax());
      b->forEachLengthRange(
          [&](uint32_t len, const IndexRange& ir) { out += fmt::format(" {}={}", len, ir); });
      out += "\n";
      appendBits(out, "  used", b->bitmap().get());
   }
   appendBits(out, "bitmap", ctx.bitmap().get());
   appendBits(out, "bitmapPair", ctx.bitmapPair().get());
   if (ctx.v4()) {
      ctx.v4()->forEachKeys(
          [&](uint32_t pos, const Ipv4Keys& k) { out += fmt::format("v4 {} {}\n", pos, k); });
      for (uint32_t len = 0; len <= 32; ++len) {
         if (ctx.v4()->halfFull(len))
            out += fmt::format("halfFull {}={}\n", len, ctx.v4()->halfFull(len));
      }
      out += fmt::format("v4 keys {}\n", ctx.v4()->keyToEntryIdSize());
   }
   if (ctx.v6()) {
      ctx.v6()->forEachEntryIdToKey(
          [&](uint32_t pos, const Ipv6UcastKey& k) { out += fmt::format("v6 {} {}\n", pos, k); });
      out += fmt::format("v6 border {} keys {}\n", ctx.v6()->tcamBorder(),
                         ctx.v6()->keyToEntryIdSize());
   }
   if (ctx.mcastV4()) {
      ctx.mcastV4()->forEachKey([&](uint32_t pos, const IpMcastPrefixKey& k) {
         out += fmt::format("mc {} {}\n", pos, k);
      });
   }
   const TcamStats& st = *ctx.stats();
   for (RouteType t : allRouteTypes) {
      out += fmt::format("moves {} {} merges {}\n", t, st.moveRoute(t), st.mergeRoute(t));
   }
   for (uint32_t len = 0; len <= 128; ++len) {
      if (st.maskLengthsIpv4(len) || st.maskLengthsIpv6(len) || st.maskLengthsMcastIpv4(len)) {
         out += fmt::format("len {} {} {} {}\n", len, st.maskLengthsIpv4(len),
                            st.maskLengthsIpv6(len), st.maskLengthsMcastIpv4(len));
      }
   }
   return out;
}

inline Ipv4UcastKey k4(uint32_t vrf, const char* prefix) {
   return Ipv4UcastKey(VrfId(vrf), Ulo::Prefix::fromString(prefix));
}
inline Ipv6UcastKey k6(uint32_t vrf, const char* prefix) {
   return Ipv6UcastKey(VrfId(vrf), Ulo::Ip6Prefix::fromString(prefix));
}

// The text and message of the assertion that f fails, or "no failure".
inline std::string failureOf(const std::function<void()>& f) {
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      f();
   } catch (const Ulo::AssertionFailure& e) {
      return e.text;
   }
   return "no failure";
}

}  // namespace VexloL3Common::testing
