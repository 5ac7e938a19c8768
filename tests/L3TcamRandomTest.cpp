// Seeded random runs: bulk adds and deletes of nested prefixes in several VRFs, filling tables past
// 95 % and draining them again, on every layout. After every operation the model verifies itself;
// the emulator checks every single move as it is carried out and the whole table now and then.
//
// VEXLO_RANDOM_OPS sets the operations per run (default 5000; the long run uses millions) and
// VEXLO_RANDOM_SEED the first seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <unordered_set>

#include "RandomRuns.h"
#include "TcamFixture.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

// Prefixes the way routing tables nest them: covering prefixes, more-specifics inside them, and
// the same prefix again in another VRF.
std::vector<Ipv4UcastKey> makePool(std::mt19937_64& rng, size_t n) {
   std::vector<Ipv4UcastKey> pool;
   std::unordered_set<Ipv4UcastKey> seen;
   while (pool.size() < n) {
      Ipv4UcastKey key;
      if (!pool.empty() && rng() % 100 < 35) {
         // A more-specific of an existing route, or the same prefix in another VRF.
         const Ipv4UcastKey& base = pool[rng() % pool.size()];
         if (rng() % 4 == 0) {
            key = Ipv4UcastKey(VrfId(1 + uint32_t(rng() % 3)), base.prefix);
         } else {
            const uint32_t len = std::min(32u, base.len() + 1 + uint32_t(rng() % 8));
            const uint32_t addr =
                base.prefix.addr() | (uint32_t(rng()) & ~(len == 32 ? 0u : ~0u << (32 - len)));
            key = Ipv4UcastKey(base.vrfId, Ulo::Prefix(addr & (~0u << (32 - len)), uint8_t(len)));
         }
      } else {
         const uint32_t r = uint32_t(rng() % 100);
         const uint32_t len = r < 50 ? 24u
                                     : (r < 80   ? 16u
                                        : r < 90 ? 8u
                                                 : 25u) +
                                           uint32_t(rng() % 8);
         key = Ipv4UcastKey(VrfId(1 + uint32_t(rng() % 3)),
                            Ulo::Prefix(uint32_t(rng()) & (~0u << (32 - len)), uint8_t(len)));
      }
      if (seen.insert(key).second) pool.push_back(key);
   }
   return pool;
}

// One family of routes in a run: how to place (given whether the swap area may be used) and
// remove member i of its pool, and optionally which drawn members to draw again, up to 8 times.
struct Family {
   RouteType type;
   size_t size;
   std::function<bool(size_t, bool useSwap)> add;
   std::function<void(size_t, uint64_t op)> del;
   std::function<bool(size_t, uint64_t op)> unwanted = {};
   Present in = {};
   uint64_t refusedInFill = 0;
};

// The loop all runs share. Each operation takes a family (`pick`, by operation number; the first
// without it) and adds a random absent member of its pool, mostly while filling, or deletes a
// random present one, mostly while draining. `full` ends a fill, `low` routes or fewer end a
// drain; each fill counts its refusals afresh. Returns false after a fatal failure, reported.
struct Churn {
   TcamHarness& h;
   std::mt19937_64& rng;
   uint64_t seed;
   std::vector<Family> fams = {};
   std::function<bool()> full = {};
   size_t low = 0;
   std::function<size_t(uint64_t op)> pick = {};
   size_t routes = 0;
   uint64_t refused = 0;
   uint32_t refusedInARow = 0, minBorder = ~0u, maxBorder = 0;

   bool run(uint64_t ops) {
      try {
         bool filling = true;
         for (uint64_t op = 0; op < ops; ++op) {
            SCOPED_TRACE(::testing::Message() << "seed " << seed << " op " << op);
            if (filling && full()) filling = false;
            if (!filling && routes <= low) {
               filling = true;
               for (Family& f : fams)
                  f.refusedInFill = 0;
            }
            Family& f = fams[pick ? pick(op) : 0];
            if (f.in.items.empty() ||
                (f.in.items.size() < f.size && rng() % 100 < (filling ? 85u : 15u))) {
               size_t i = rng() % f.size;
               for (int tries = 0; f.unwanted && tries < 8 && f.unwanted(i, op); ++tries)
                  i = rng() % f.size;
               while (f.in.has(i))
                  i = (i + 1) % f.size;
               const bool useSwap = f.type != RouteType::v4Mcast && rng() % 8 == 0;
               if (f.add(i, useSwap)) {
                  f.in.add(i);
                  ++routes;
                  refusedInARow = 0;
               } else {
                  ++refused, ++f.refusedInFill, ++refusedInARow;
                  // Where the border moves, a route is refused only when its own partition is at
                  // its reserve and could not grow (wholly full for IPv6 with the reserve open to
                  // it; a free left half of IPv4 is refused at the reserve whatever the caller
                  // allows).
                  const bool v6 = f.type == RouteType::v6Full;
                  if (h.ctx().borderMoves()) {
                     EXPECT_LE(h.ctx().entriesFree(f.type),
                               v6 && useSwap ? 0u : h.ctx().swapAreaSize(f.type))
                         << (v6 ? "IPv6" : "IPv4") << " refused with room in its partition";
                  }
               }
            } else {
               const size_t i = f.in.items[rng() % f.in.items.size()];
               f.del(i, op);
               f.in.remove(i);
               --routes;
            }
            if (::testing::Test::HasFatalFailure()) return false;
            minBorder = std::min(minBorder, h.ctx().v4V6Border());
            maxBorder = std::max(maxBorder, h.ctx().v4V6Border());
            if (op % 997 == 0) h.check(true);
         }
         h.check(true);
      } catch (const Ulo::AssertionFailure& e) {
         ADD_FAILURE() << "seed " << seed << ": " << e.what();
         return false;
      }
      EXPECT_EQ(h.emu().installedRoutes(), routes);
      return !::testing::Test::HasFatalFailure();
   }
};

}  // namespace

TEST(TcamRandom, Ipv4AddsAndDeletesStayConsistentOnEveryLayout) {
   Ulo::ScopedThrowingAssertHandler guard;
   const uint64_t ops = envNumber("VEXLO_RANDOM_OPS", 5000);
   uint64_t seed = envNumber("VEXLO_RANDOM_SEED", 1), total = 0;
   auto paired = [](L3TcamManagerContext::Config c) {
      c.supportsDefipPairing = true;
      return c;
   };
   auto interleaved = layout(512, 3, 8, true);
   interleaved.v4V6InterleavingDisabled = false;
   auto noSwap = layout(300, 2, 4, true);
   noSwap.requestedTableMode = 1;  // not the current mode: no swap area
   struct Layout {
      const char* name;
      L3TcamManagerContext::Config cfg;
      bool urpf;
   };
   std::vector<Layout> layouts;
   for (uint32_t mode = 1; mode <= 4; ++mode) {
      for (bool two : {true, false}) {
         layouts.push_back({two ? "separate, two per entry" : "separate, one per entry",
                            layout(512, mode, 8, two), false});
      }
   }
   layouts.insert(layouts.end(),
                  {{"uRPF mode 2", layout(1024, 2, 8, true), true},
                   {"uRPF mode 4", layout(1024, 4, 8, false), true},
                   {"fixed pairing border", paired(layout(512, 2, 8, true)), false},
                   {"interleaved", interleaved, false},
                   {"four blocks", layout(512, 2, 4, true), false},
                   {"sixteen blocks", layout(1024, 3, 16, false), false},
                   {"fixed pairing border, four blocks", paired(layout(512, 4, 4, true)), false},
                   {"no swap area, odd size", noSwap, false}});
   for (const Layout& l : layouts) {
      SCOPED_TRACE(::testing::Message() << l.name << " mode " << l.cfg.tcamMode);
      std::mt19937_64 rng(seed);
      TcamHarness h(l.cfg, l.urpf);
      const uint64_t capacity =
          uint64_t(h.ctx().entriesFree(RouteType::v4)) * (l.cfg.twoV4RoutesPerEntry ? 2 : 1);
      const std::vector<Ipv4UcastKey> pool = makePool(rng, capacity * 2 + 64);
      Churn c{h, rng, seed++};
      c.fams.push_back({RouteType::v4, pool.size(),
                        [&](size_t i, bool swap) { return h.add4(pool[i], swap).routeId != 0; },
                        [&](size_t i, uint64_t op) {
                           RouteReturnCode rc = h.del4(pool[i], rng() % 4 != 0, op);
                           if (rc.canMerge) h.merge4(pool[i], rc.routeId, rc.mergePos, op);
                        }});
      // Fills until the table refuses routes, drains to 10 % of its capacity, and again.
      c.full = [&] { return c.routes >= capacity || c.refusedInARow > 20; };
      c.low = capacity / 10;
      if (!c.run(ops)) return;
      EXPECT_EQ(h.ctx().v4()->keyToEntryIdSize(), c.routes);
      EXPECT_GT(c.refused, 0u) << "the run never reached a full table";
      EXPECT_GT(h.moves(), 0u);
      total += ops;
   }
   RecordProperty("operations", std::to_string(total));
   EXPECT_GE(total, std::min<uint64_t>(ops * 16, 50000));
}

TEST(TcamRandom, MulticastAddsAndDeletes) {
   Ulo::ScopedThrowingAssertHandler guard;
   auto cfg = layout(512, 0, 0);
   cfg.v4Mcast = true;
   const uint64_t seed = envNumber("VEXLO_RANDOM_SEED", 1) + 100;
   std::mt19937_64 rng(seed);
   TcamHarness h(cfg);
   std::vector<IpMcastPrefixKey> pool;
   for (uint32_t i = 0; i < 1200; ++i) {
      uint8_t len = rng() % 3 == 0 ? 32 : uint8_t(40 + rng() % 25);
      uint32_t src = len == 32 ? 0 : uint32_t(rng()) & (~0u << (64 - len));
      pool.emplace_back(uint16_t(rng() % 2), 0,
                        Ulo::IpGenAddr::v4(0xef000000u | uint32_t(rng() % 64)),
                        Ulo::IpGenAddr::v4(src), len);
   }
   std::sort(pool.begin(), pool.end());
   pool.erase(std::unique(pool.begin(), pool.end()), pool.end());
   Churn c{h, rng, seed};
   c.fams.push_back({RouteType::v4Mcast, pool.size(),
                     [&](size_t i, bool) { return h.addM(pool[i]).routeId != 0; },
                     [&](size_t i, uint64_t) { h.delM(pool[i]); }});
   c.full = [&] { return c.fams[0].refusedInFill > 10; };
   c.low = 49;
   if (!c.run(envNumber("VEXLO_RANDOM_OPS", 5000))) return;
   EXPECT_GT(c.refused, 0u);
   EXPECT_GT(h.moves(), 0u);
}

// IPv6 routes mixed with IPv4 routes in the same table, IPv6 going through the conversion ladder
// (and, where the border moves, the partition reallocation).
TEST(TcamRandom, Ipv6BesideIpv4) {
   Ulo::ScopedThrowingAssertHandler guard;
   const uint64_t ops = envNumber("VEXLO_RANDOM_OPS", 5000);
   uint64_t seed = envNumber("VEXLO_RANDOM_SEED", 1) + 200;
   auto paired = layout(1024, 2, 8, true);
   paired.supportsDefipPairing = true;
   auto shared = paired;
   shared.v4V6InterleavingDisabled = false;
   shared.requestedTableMode = 9;  // no swap area: the regions fill up for real
   auto moving = paired;
   moving.dynamicV4V6Boundary = true;
   moving.pairGap = 32;  // the border moves 128 entries at a time
   auto movingUrpf = moving;
   movingUrpf.tcamSize = 2048;
   const struct {
      const char* name;
      L3TcamManagerContext::Config cfg;
      bool urpf;
      uint32_t maxLen;
   } cases[] = {{"double size, fixed pairing border", paired, false, 128},
                {"single size, separate layout", layout(1024, 2, 8, true), false, 64},
                {"both sizes, IPv4 in both regions: conversions", shared, false, 128},
                {"moving border", moving, false, 128},
                {"moving border, uRPF", movingUrpf, true, 128}};
   for (const auto& k : cases) {
      SCOPED_TRACE(k.name);
      std::mt19937_64 rng(seed);
      TcamHarness h(k.cfg, k.urpf);
      if (k.urpf) {
         ASSERT_EQ(h.ctx().effectiveSize(), 1024u);
      }
      if (!k.cfg.v4V6InterleavingDisabled) h.shareRegions(512);
      std::vector<Ipv6UcastKey> pool6;
      std::unordered_set<Ipv6UcastKey> seen;
      while (pool6.size() < 1500) {
         const uint32_t r = uint32_t(rng() % 4);
         const uint32_t len = r == 0 ? 48 : r == 1 ? k.maxLen : uint32_t(rng() % (k.maxLen + 1));
         Ulo::Ip6Prefix::Bytes b{};
         for (auto& x : b)
            x = uint8_t(rng() % 4);  // few distinct values: plenty of nesting
         for (uint32_t bit = len; bit < 128; ++bit)
            b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
         Ipv6UcastKey key(VrfId(1 + uint32_t(rng() % 2)), Ulo::Ip6Prefix(b, uint8_t(len)));
         if (seen.insert(key).second) pool6.push_back(key);
      }
      const std::vector<Ipv4UcastKey> pool4 = makePool(rng, 1200);
      Churn c{h, rng, seed++};
      c.fams.push_back({RouteType::v4, pool4.size(),
                        [&](size_t i, bool swap) { return h.add4(pool4[i], swap).routeId != 0; },
                        [&](size_t i, uint64_t op) { h.del4(pool4[i], true, op); }});
      // Phases that favour one family, then one IPv6 size, make the partitions and the two
      // regions trade space back and forth.
      c.fams.push_back(
          {RouteType::v6Full, pool6.size(),
           [&](size_t i, bool swap) { return h.add6(pool6[i], swap).routeId != 0; },
           [&](size_t i, uint64_t) { h.del6(pool6[i]); },
           [&](size_t i, uint64_t op) { return (pool6[i].len() > 64) != ((op / 700) % 3 == 2); }});
      c.pick = [&](uint64_t op) { return size_t(rng() % 100 < ((op / 700) % 3 ? 70u : 30u)); };
      // A fill goes on until both families were refused, so that each region fills up.
      c.full = [&] { return c.fams[0].refusedInFill > 10 && c.fams[1].refusedInFill > 10; };
      c.low = 59;
      if (!c.run(ops)) return;
      EXPECT_GT(c.refused, 0u);
      EXPECT_EQ(h.ctx().v6()->keyToEntryIdSize(), c.fams[1].in.items.size());
      const TcamStats& st = *h.ctx().stats();
      if (!k.cfg.v4V6InterleavingDisabled) {
         EXPECT_GT(st.moveRoute(RouteType::v6Half) + st.moveRoute(RouteType::v6Full), 0u);
      }
      if (k.cfg.dynamicV4V6Boundary) {
         // The border moved up and came down again under load.
         EXPECT_GT(st.reallocation(), 1u);
         EXPECT_GT(c.maxBorder, c.minBorder);
      }
   }
}
