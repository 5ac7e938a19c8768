// Seeded random runs: bulk adds and deletes of nested prefixes in several VRFs, filling tables past
// 95 % and draining them again, on every layout. After every operation the model verifies itself;
// the emulator checks every single move as it is carried out and the whole table now and then.
//
// VEXLO_RANDOM_OPS sets the operations per run (default 5000; the long run uses millions) and
// VEXLO_RANDOM_SEED the first seed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <unordered_map>

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
   auto randomLen = [&] {
      uint32_t r = uint32_t(rng() % 100);
      if (r < 50) return 24u;
      if (r < 80) return 16u + uint32_t(rng() % 8);
      if (r < 90) return 8u + uint32_t(rng() % 8);
      return 25u + uint32_t(rng() % 8);
   };
   while (pool.size() < n) {
      Ipv4UcastKey key;
      if (!pool.empty() && rng() % 100 < 35) {
         // A more-specific of an existing route, or the same prefix in another VRF.
         const Ipv4UcastKey& base = pool[rng() % pool.size()];
         if (rng() % 4 == 0) {
            key = Ipv4UcastKey(VrfId(1 + uint32_t(rng() % 3)), base.prefix);
         } else {
            uint32_t len = std::min(32u, base.len() + 1 + uint32_t(rng() % 8));
            uint32_t addr =
                base.prefix.addr() | (uint32_t(rng()) & ~(len == 32 ? 0u : ~0u << (32 - len)));
            uint32_t mask = ~0u << (32 - len);
            key = Ipv4UcastKey(base.vrfId, Ulo::Prefix(addr & mask, uint8_t(len)));
         }
      } else {
         uint32_t len = randomLen();
         uint32_t mask = len == 0 ? 0 : ~0u << (32 - len);
         key = Ipv4UcastKey(VrfId(1 + uint32_t(rng() % 3)),
                            Ulo::Prefix(uint32_t(rng()) & mask, uint8_t(len)));
      }
      if (seen.insert(key).second) pool.push_back(key);
   }
   return pool;
}

struct RunStats {
   uint64_t ops = 0, placed = 0, refused = 0, moves = 0, peakRoutes = 0;
};

// Fills until the table refuses routes, drains to 10 % of its capacity, and again, until `ops`
// operations.
RunStats runIpv4(const L3TcamManagerContext::Config& cfg, bool urpf, uint64_t seed, uint64_t ops) {
   std::mt19937_64 rng(seed);
   TcamHarness h(cfg, urpf);
   const uint32_t entries = h.ctx().entriesFree(RouteType::v4);
   const uint64_t capacity = uint64_t(entries) * (cfg.twoV4RoutesPerEntry ? 2 : 1);
   std::vector<Ipv4UcastKey> pool = makePool(rng, capacity * 2 + 64);
   Present present;
   RunStats st;
   bool filling = true;
   uint32_t refusedInARow = 0;
   for (uint64_t op = 0; op < ops; ++op) {
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " op " << op);
      const uint64_t routes = present.items.size();
      if (filling && (routes >= capacity || refusedInARow > 20)) filling = false;
      if (!filling && routes <= capacity / 10) filling = true;
      const bool add = present.items.empty() || (filling ? rng() % 100 < 85 : rng() % 100 < 15);
      if (add) {
         size_t i = rng() % pool.size();
         while (present.has(i))
            i = (i + 1) % pool.size();
         const bool useSwap = rng() % 8 == 0;
         RouteReturnCode rc = h.add4(pool[i], useSwap);
         if (rc.routeId) {
            present.add(i);
            ++st.placed;
            refusedInARow = 0;
         } else {
            ++st.refused;
            ++refusedInARow;
         }
      } else {
         size_t i = present.items[rng() % present.items.size()];
         const bool mergeNow = rng() % 4 != 0;
         RouteReturnCode rc = h.del4(pool[i], mergeNow, op);
         if (rc.canMerge) h.merge4(pool[i], rc.routeId, rc.mergePos, op);
         present.remove(i);
      }
      if (::testing::Test::HasFatalFailure()) return st;
      st.peakRoutes = std::max<uint64_t>(st.peakRoutes, present.items.size());
      if (op % 997 == 0) h.check(true);
   }
   h.check(true);
   EXPECT_EQ(h.ctx().v4()->keyToEntryIdSize(), present.items.size());
   EXPECT_EQ(h.emu().installedRoutes(), present.items.size());
   st.ops = ops;
   st.moves = h.moves();
   return st;
}

struct Layout {
   const char* name;
   L3TcamManagerContext::Config cfg;
   bool urpf;
};

std::vector<Layout> layouts() {
   std::vector<Layout> out;
   for (uint32_t mode = 1; mode <= 4; ++mode) {
      for (bool two : {true, false}) {
         out.push_back({two ? "separate, two per entry" : "separate, one per entry",
                        layout(512, mode, 8, two), false});
      }
   }
   out.push_back({"uRPF mode 2", layout(1024, 2, 8, true), true});
   out.push_back({"uRPF mode 4", layout(1024, 4, 8, false), true});
   auto paired = layout(512, 2, 8, true);
   paired.supportsDefipPairing = true;
   out.push_back({"fixed pairing border", paired, false});
   auto interleaved = layout(512, 3, 8, true);
   interleaved.v4V6InterleavingDisabled = false;
   out.push_back({"interleaved", interleaved, false});
   out.push_back({"four blocks", layout(512, 2, 4, true), false});
   out.push_back({"sixteen blocks", layout(1024, 3, 16, false), false});
   auto paired4 = layout(512, 4, 4, true);
   paired4.supportsDefipPairing = true;
   out.push_back({"fixed pairing border, four blocks", paired4, false});
   auto noSwap = layout(300, 2, 4, true);
   noSwap.requestedTableMode = 1;  // not the current mode: no swap area
   out.push_back({"no swap area, odd size", noSwap, false});
   return out;
}

}  // namespace

TEST(TcamRandom, Ipv4AddsAndDeletesStayConsistentOnEveryLayout) {
   Ulo::ScopedThrowingAssertHandler guard;
   const uint64_t ops = envNumber("VEXLO_RANDOM_OPS", 5000);
   uint64_t seed = envNumber("VEXLO_RANDOM_SEED", 1);
   uint64_t total = 0;
   for (const Layout& l : layouts()) {
      SCOPED_TRACE(::testing::Message() << l.name << " mode " << l.cfg.tcamMode);
      RunStats st;
      try {
         st = runIpv4(l.cfg, l.urpf, seed, ops);
      } catch (const Ulo::AssertionFailure& f) {
         FAIL() << "seed " << seed << ": " << f.what();
      }
      total += st.ops;
      EXPECT_GT(st.refused, 0u) << "the run never reached a full table";
      EXPECT_GT(st.moves, 0u);
      ++seed;
   }
   RecordProperty("operations", std::to_string(total));
   EXPECT_GE(total, std::min<uint64_t>(ops * 16, 50000));
}

TEST(TcamRandom, MulticastAddsAndDeletes) {
   Ulo::ScopedThrowingAssertHandler guard;
   auto cfg = layout(512, 0, 0);
   cfg.v4Mcast = true;
   const uint64_t ops = envNumber("VEXLO_RANDOM_OPS", 5000);
   std::mt19937_64 rng(envNumber("VEXLO_RANDOM_SEED", 1) + 100);
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
   Present present;
   bool filling = true;
   uint64_t refused = 0, refusedAtFill = 0;
   try {
      for (uint64_t op = 0; op < ops; ++op) {
         SCOPED_TRACE(::testing::Message() << "op " << op);
         if (filling && refused > refusedAtFill + 10) filling = false;
         if (!filling && present.items.size() < 50) {
            filling = true;
            refusedAtFill = refused;
         }
         if (present.items.empty() || (filling ? rng() % 100 < 85 : rng() % 100 < 15)) {
            size_t i = rng() % pool.size();
            while (present.has(i))
               i = (i + 1) % pool.size();
            if (h.addM(pool[i]).routeId)
               present.add(i);
            else
               ++refused;
         } else {
            size_t i = present.items[rng() % present.items.size()];
            h.delM(pool[i]);
            present.remove(i);
         }
         if (::testing::Test::HasFatalFailure()) return;
      }
   } catch (const Ulo::AssertionFailure& f) {
      FAIL() << f.what();
   }
   h.check(true);
   EXPECT_GT(refused, 0u);
   EXPECT_GT(h.moves(), 0u);
}

// IPv6 routes mixed with IPv4 routes in the same table, IPv6 going through the conversion ladder
// (and, where the border moves, the partition reallocation).
struct Ipv6Run {
   uint64_t refused = 0, v6Placed = 0, moves6 = 0, v4MovesCounted = 0, reallocations = 0;
   uint32_t minBorder = ~0u, maxBorder = 0;
};

Ipv6Run runIpv6BesideIpv4(const L3TcamManagerContext::Config& cfg, bool urpf, uint32_t maxLen,
                          uint64_t seed, uint64_t ops,
                          const std::function<void(TcamHarness&)>& setUp = {}) {
   std::mt19937_64 rng(seed);
   TcamHarness h(cfg, urpf);
   if (setUp) setUp(h);
   std::vector<Ipv6UcastKey> pool6;
   std::unordered_set<Ipv6UcastKey> seen;
   while (pool6.size() < 1500) {
      const uint32_t r = uint32_t(rng() % 4);
      uint32_t len = r == 0 ? 48 : r == 1 ? std::min(maxLen, 128u) : uint32_t(rng() % (maxLen + 1));
      Ulo::Ip6Prefix::Bytes b{};
      for (auto& x : b)
         x = uint8_t(rng() % 4);  // few distinct values: plenty of nesting
      for (uint32_t bit = len; bit < 128; ++bit)
         b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
      Ipv6UcastKey key(VrfId(1 + uint32_t(rng() % 2)), Ulo::Ip6Prefix(b, uint8_t(len)));
      if (seen.insert(key).second) pool6.push_back(key);
   }
   std::vector<Ipv4UcastKey> pool4 = makePool(rng, 1200);
   Present present6, present4;
   Ipv6Run run;
   // A fill goes on until both families were refused, so that each region fills up.
   bool filling = true;
   uint64_t refused4 = 0, refused6 = 0;
   for (uint64_t op = 0; op < ops; ++op) {
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " op " << op);
      const size_t routes = present6.items.size() + present4.items.size();
      if (filling && refused4 > 10 && refused6 > 10) filling = false;
      if (!filling && routes < 60) {
         filling = true;
         refused4 = refused6 = 0;
      }
      // Phases that favour one family, then one IPv6 size, make the partitions and the two
      // regions trade space back and forth.
      const uint64_t phase = (op / 700) % 3;
      const bool v6 = rng() % 100 < (phase ? 70 : 30);
      Present& present = v6 ? present6 : present4;
      const size_t poolSize = v6 ? pool6.size() : pool4.size();
      const bool room = present.items.size() < poolSize;
      if (present.items.empty() || (room && (filling ? rng() % 100 < 85 : rng() % 100 < 15))) {
         size_t i = rng() % poolSize;
         for (int tries = 0; v6 && tries < 8 && (pool6[i].len() > 64) != (phase == 2); ++tries)
            i = rng() % poolSize;
         while (present.has(i))
            i = (i + 1) % poolSize;
         const bool useSwap = rng() % 8 == 0;
         const bool ok =
             v6 ? h.add6(pool6[i], useSwap).routeId != 0 : h.add4(pool4[i], useSwap).routeId != 0;
         if (ok) {
            present.add(i);
            run.v6Placed += v6;
         } else {
            ++run.refused;
            ++(v6 ? refused6 : refused4);
            // Where the border moves, a route is refused only when its own partition is at its
            // reserve and could not grow (wholly full for IPv6 with the reserve open to it; a free
            // left half of IPv4 is refused at the reserve whatever the caller allows).
            if (h.ctx().borderMoves()) {
               const RouteType t = v6 ? RouteType::v6Full : RouteType::v4;
               EXPECT_LE(h.ctx().entriesFree(t), v6 && useSwap ? 0u : h.ctx().swapAreaSize(t))
                   << (v6 ? "IPv6" : "IPv4") << " refused with room in its partition";
            }
         }
      } else {
         size_t i = present.items[rng() % present.items.size()];
         if (v6)
            h.del6(pool6[i]);
         else
            h.del4(pool4[i], true, op);
         present.remove(i);
      }
      if (::testing::Test::HasFatalFailure()) return run;
      run.minBorder = std::min(run.minBorder, h.ctx().v4V6Border());
      run.maxBorder = std::max(run.maxBorder, h.ctx().v4V6Border());
      if (op % 997 == 0) h.check(true);
   }
   h.check(true);
   EXPECT_GT(run.refused, 0u);
   EXPECT_EQ(h.ctx().v6()->keyToEntryIdSize(), present6.items.size());
   EXPECT_EQ(h.emu().installedRoutes(), present6.items.size() + present4.items.size());
   const TcamStats& st = *h.ctx().stats();
   run.moves6 = st.moveRoute(RouteType::v6Half) + st.moveRoute(RouteType::v6Full);
   run.reallocations = st.reallocation();
   return run;
}

TEST(TcamRandom, Ipv6BesideIpv4) {
   Ulo::ScopedThrowingAssertHandler guard;
   const uint64_t ops = envNumber("VEXLO_RANDOM_OPS", 5000);
   const uint64_t seed = envNumber("VEXLO_RANDOM_SEED", 1) + 200;
   auto paired = layout(1024, 2, 8, true);
   paired.supportsDefipPairing = true;
   auto shared = layout(1024, 2, 8, true);
   shared.supportsDefipPairing = true;
   shared.v4V6InterleavingDisabled = false;
   shared.requestedTableMode = 9;  // no swap area: the regions fill up for real
   auto moving = paired;
   moving.dynamicV4V6Boundary = true;
   moving.pairGap = 32;  // the border moves 128 entries at a time
   try {
      {
         SCOPED_TRACE("double size, fixed pairing border");
         runIpv6BesideIpv4(paired, false, 128, seed, ops);
      }
      {
         SCOPED_TRACE("single size, separate layout");
         runIpv6BesideIpv4(layout(1024, 2, 8, true), false, 64, seed + 1, ops);
      }
      {
         SCOPED_TRACE("both sizes, IPv4 in both regions: conversions");
         Ipv6Run r = runIpv6BesideIpv4(shared, false, 128, seed + 2, ops,
                                       [](TcamHarness& h) { h.shareRegions(512); });
         EXPECT_GT(r.moves6, 0u);
      }
      for (bool urpf : {false, true}) {
         SCOPED_TRACE(urpf ? "moving border, uRPF" : "moving border");
         auto cfg = moving;
         if (urpf) cfg.tcamSize = 2048;
         Ipv6Run r = runIpv6BesideIpv4(cfg, urpf, 128, seed + 3 + urpf, ops, [&](TcamHarness& h) {
            if (urpf) {
               ASSERT_EQ(h.ctx().effectiveSize(), 1024u);
            }
         });
         // The border moved up and came down again under load.
         EXPECT_GT(r.reallocations, 1u);
         EXPECT_GT(r.maxBorder, r.minBorder);
      }
   } catch (const Ulo::AssertionFailure& f) {
      FAIL() << f.what();
   }
}
