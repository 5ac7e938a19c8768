// Seeded random runs: bulk adds and deletes of nested prefixes in several VRFs, filling tables
// until every route family is refused and draining them to a tenth, again and again, on every
// layout. After every operation the model verifies itself; the emulator checks every single move
// as it is carried out and the whole table now and then.
//
// VEXLO_RANDOM_OPS sets the operations per run (default 5000) and VEXLO_RANDOM_SEED the first
// seed; VEXLO_RANDOM_TOTAL_OPS, when set, shares that many operations evenly among all the runs
// of this file instead (the long run). VEXLO_RANDOM_FULL_CHECK sets the operations between two
// checks of the whole emulated table (default 997). VEXLO_RANDOM_DIGESTS=FILE records each run's
// digest of the moves and merges it published and of every operation's result (see RandomRuns.h).
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>

#include "RandomRuns.h"
#include "TcamFixture.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

using Config = L3TcamManagerContext::Config;

// A layout and the families churned on it: multicast routes on a multicast layout, else IPv4
// routes, with IPv6 routes up to v6MaxLen beside them when that is set.
struct Scenario {
   std::string name;
   Config cfg;
   bool urpf = false;
   uint32_t v6MaxLen = 0;
};

Config paired(Config c) {
   c.supportsDefipPairing = true;
   return c;
}

std::vector<Scenario> ipv4Scenarios() {
   std::vector<Scenario> s;
   for (uint32_t mode = 1; mode <= 4; ++mode) {
      for (bool two : {true, false}) {
         s.push_back({fmt::format("separate, {} per entry, mode {}", two ? "two" : "one", mode),
                      layout(512, mode, 8, two)});
      }
   }
   Config interleaved = layout(512, 3, 8, true), noSwap = layout(300, 2, 4, true);
   interleaved.v4V6InterleavingDisabled = false;
   noSwap.requestedTableMode = 1;  // not the current mode: no swap area
   s.insert(s.end(), {{"uRPF mode 2", layout(1024, 2, 8, true), true},
                      {"uRPF mode 4", layout(1024, 4, 8, false), true},
                      {"fixed pairing border", paired(layout(512, 2, 8, true))},
                      {"interleaved", interleaved},
                      {"four blocks", layout(512, 2, 4, true)},
                      {"sixteen blocks", layout(1024, 3, 16, false)},
                      {"fixed pairing border, four blocks", paired(layout(512, 4, 4, true))},
                      {"no swap area, odd size", noSwap}});
   return s;
}

std::vector<Scenario> ipv6Scenarios() {
   const Config pair = paired(layout(1024, 2, 8, true));
   Config shared = pair, moving = pair;
   shared.v4V6InterleavingDisabled = false;
   shared.requestedTableMode = 9;  // no swap area: the regions fill up for real
   moving.dynamicV4V6Boundary = true;
   moving.pairGap = 32;  // the border moves 128 entries at a time
   Config movingUrpf = moving;
   movingUrpf.tcamSize = 2048;
   return {{"double size, fixed pairing border", pair, false, 128},
           {"single size, separate layout", layout(1024, 2, 8, true), false, 64},
           {"both sizes, IPv4 in both regions: conversions", shared, false, 128},
           {"moving border", moving, false, 128},
           {"moving border, uRPF", movingUrpf, true, 128}};
}

// The same layouts under the weighted placement with the border moving in ranges, and the
// moving-border layouts with the border in ranges under the classic placement: every check of the
// runs holds whatever the policy; each run's digest is its own.
std::vector<Scenario> optInScenarios() {
   std::vector<Scenario> out;
   for (std::vector<Scenario> group : {ipv4Scenarios(), ipv6Scenarios()}) {
      for (Scenario s : group) {
         if (s.cfg.dynamicV4V6Boundary) {
            Scenario ranges = s;
            ranges.name = "classic, border in ranges, " + s.name;
            ranges.cfg.borderMoveInRanges = true;
            out.push_back(ranges);
         }
         s.name = "weighted, " + s.name;
         s.cfg.placementPolicy = PlacementPolicy::weighted;
         s.cfg.borderMoveInRanges = true;
         out.push_back(s);
      }
   }
   return out;
}

uint64_t opsPerRun() {
   const uint64_t runs = ipv4Scenarios().size() + 1 + ipv6Scenarios().size() +
                         optInScenarios().size();  // 1: multicast
   const uint64_t total = envNumber("VEXLO_RANDOM_TOTAL_OPS", 0);
   return total ? std::max<uint64_t>(total / runs, 1) : envNumber("VEXLO_RANDOM_OPS", 5000);
}

// One seeded run. Each operation takes a family (IPv4 or IPv6 by phase where both are churned)
// and adds a random absent member of its pool, mostly while filling, or deletes a random present
// one, mostly while draining. A fill ends once every family has been refused more than ten times
// in it; the drain that follows ends at a tenth of the routes the fill reached. Every published
// move and merge and every operation's result go into the digest.
class RandomRun {
 public:
   RandomRun(const Scenario& s, uint64_t seed) : s_(s), seed_(seed), rng_(seed), h_(s.cfg, s.urpf) {
      if (sharedRegions()) h_.shareRegions(512);
      if (s.cfg.v4Mcast) {
         poolM_ = makePoolM(rng_, 1200);
         fams_.push_back({RouteType::v4Mcast, poolM_.size()});
         return;
      }
      if (s.v6MaxLen) pool6_ = makePool6(rng_, 1500, s.v6MaxLen);
      const uint64_t capacity =
          uint64_t(h_.ctx().entriesFree(RouteType::v4)) * (s.cfg.twoV4RoutesPerEntry ? 2 : 1);
      pool4_ = makePool(rng_, s.v6MaxLen ? 1200 : capacity * 2 + 64);
      fams_.push_back({RouteType::v4, pool4_.size()});
      if (s.v6MaxLen) fams_.push_back({RouteType::v6Full, pool6_.size()});
   }

   // The run's digest; empty once a fatal failure was reported (with its seed and operation).
   std::optional<uint64_t> run(uint64_t ops) {
      SCOPED_TRACE(::testing::Message() << s_.name << ", seed " << seed_);
      Ulo::Subscription moves = h_.move().changed().subscribe([this](const RoutePosition& p) {
         digest_.add(p.count, p.oldRouteId, p.newRouteId, p.v4, p.type);
      });
      Ulo::Subscription merges = h_.merge().changed().subscribe([this](const RouteMergeInfo& m) {
         digest_.add(m.count, m.srcRouteId, m.srcRouteType, m.dstRouteId, m.dstRouteType);
      });
      const uint64_t fullCheck = std::max<uint64_t>(envNumber("VEXLO_RANDOM_FULL_CHECK", 997), 1);
      try {
         for (op_ = 0; op_ < ops; ++op_) {
            step();
            if (op_ % fullCheck == 0 || op_ + 1 == ops) h_.check(true);
            if (::testing::Test::HasFatalFailure()) break;
         }
      } catch (const Ulo::AssertionFailure& e) {
         ADD_FAILURE() << e.what();
      }
      if (op_ < ops) {
         ADD_FAILURE() << "stopped at seed " << seed_ << " op " << op_;
         return std::nullopt;
      }
      // The model's own checks and the emulator's ran all along; what is left is whether the
      // run reached what it is meant to exercise, and whether the test and the table agree.
      EXPECT_EQ(h_.emu().installedRoutes(), routes_);
      EXPECT_GT(refused_, 0u) << "the run never filled the table";
      const TcamStats& st = *h_.ctx().stats();
      // IPv6 routes were converted; where the border moves, it moved up and came down again.
      EXPECT_TRUE(!sharedRegions() ||
                  st.moveRoute(RouteType::v6Half) + st.moveRoute(RouteType::v6Full) > 0);
      EXPECT_TRUE(!s_.cfg.dynamicV4V6Boundary || st.reallocation() > 1) << st.reallocation();
      recordDigest(s_.name, seed_, ops, digest_.value);
      return digest_.value;
   }

 private:
   // IPv6 beside IPv4 with interleaving allowed: IPv4 in both IPv6 regions, so that the
   // conversion ladder has work.
   bool sharedRegions() const { return s_.v6MaxLen && !s_.cfg.v4V6InterleavingDisabled; }

   struct Family {
      RouteType type;
      size_t size;
      Present in = {};
      uint64_t refusedInFill = 0;
   };

   void step() {
      if (filling_ && std::all_of(fams_.begin(), fams_.end(),
                                  [](const Family& f) { return f.refusedInFill > 10; })) {
         filling_ = false;
         low_ = routes_ / 10;
      }
      if (!filling_ && routes_ <= low_) {
         filling_ = true;
         for (Family& f : fams_)
            f.refusedInFill = 0;
      }
      // Under the weighted policy an idle agent rebalances now and then, a few moves at a time.
      if (s_.cfg.placementPolicy == PlacementPolicy::weighted && op_ % 97 == 96) {
         digest_.add(h_.ctx().rebalance(rng_() % 64));
         h_.check();
         return;
      }
      // Phases that favour one family, then one IPv6 size, make the partitions and the two
      // regions trade space back and forth.
      const uint64_t phase = (op_ / 700) % 3;
      const size_t fi = fams_.size() > 1 && rng_() % 100 < (phase ? 70u : 30u);
      Family& f = fams_[fi];
      digest_.add(fi);
      if (!f.in.items.empty() &&
          (f.in.items.size() == f.size || rng_() % 100 >= (filling_ ? 85u : 15u))) {
         const size_t i = f.in.items[rng_() % f.in.items.size()];
         const RouteReturnCode rc = f.type == RouteType::v4       ? del4(i)
                                    : f.type == RouteType::v6Full ? h_.del6(pool6_[i])
                                                                  : h_.delM(poolM_[i]);
         fold(rc);
         f.in.remove(i);
         --routes_;
         return;
      }
      size_t i = rng_() % f.size;
      for (int tries = 0;
           f.type == RouteType::v6Full && tries < 8 && (pool6_[i].len() > 64) != (phase == 2);
           ++tries)
         i = rng_() % f.size;
      while (f.in.has(i))
         i = (i + 1) % f.size;
      const bool useSwap = f.type != RouteType::v4Mcast && rng_() % 8 == 0;
      const RouteReturnCode rc = f.type == RouteType::v4       ? h_.add4(pool4_[i], useSwap)
                                 : f.type == RouteType::v6Full ? h_.add6(pool6_[i], useSwap)
                                                               : h_.addM(poolM_[i]);
      fold(rc);
      if (rc.routeId) {
         f.in.add(i);
         ++routes_;
      } else {
         ++refused_, ++f.refusedInFill;
         // Where the border moves, a route is refused only when its own partition is at its
         // reserve and could not grow (wholly full for IPv6 with the reserve open to it; a free
         // left half of IPv4 is refused at the reserve whatever the caller allows).
         const bool v6 = f.type == RouteType::v6Full;
         if (h_.ctx().borderMoves()) {
            EXPECT_LE(h_.ctx().entriesFree(f.type),
                      v6 && useSwap ? 0u : h_.ctx().swapAreaSize(f.type))
                << (v6 ? "IPv6" : "IPv4") << " refused with room in its partition, op " << op_;
         }
      }
   }

   // Merges a delete leaves possible at once or, one time in four, as a separate step.
   RouteReturnCode del4(size_t i) {
      const RouteReturnCode rc = h_.del4(pool4_[i], rng_() % 4 != 0, op_);
      if (rc.canMerge) h_.merge4(pool4_[i], rc.routeId, rc.mergePos, op_);
      return rc;
   }

   void fold(const RouteReturnCode& rc) {
      digest_.add(rc.routeId, rc.tcamV4RightKey, rc.merged, rc.canMerge, rc.mergePos,
                  rc.tcamUpdateRequired);
   }

   const Scenario s_;
   const uint64_t seed_;
   std::mt19937_64 rng_;
   TcamHarness h_;
   std::vector<Ipv4UcastKey> pool4_;
   std::vector<Ipv6UcastKey> pool6_;
   std::vector<IpMcastPrefixKey> poolM_;
   std::vector<Family> fams_;
   Digest digest_;
   bool filling_ = true;
   size_t routes_ = 0, low_ = 0;
   uint64_t refused_ = 0, op_ = 0;
};

}  // namespace

TEST(TcamRandom, Ipv4AddsAndDeletesStayConsistentOnEveryLayout) {
   Ulo::ScopedThrowingAssertHandler guard;
   uint64_t seed = envNumber("VEXLO_RANDOM_SEED", 1);
   for (const Scenario& s : ipv4Scenarios()) {
      if (!RandomRun(s, seed++).run(opsPerRun())) return;
   }
}

TEST(TcamRandom, MulticastAddsAndDeletes) {
   Ulo::ScopedThrowingAssertHandler guard;
   Config c = layout(512, 0, 0);
   c.v4Mcast = true;
   RandomRun({"multicast", c}, envNumber("VEXLO_RANDOM_SEED", 1) + 100).run(opsPerRun());
}

// IPv6 routes mixed with IPv4 routes in the same table, IPv6 going through the conversion ladder
// (and, where the border moves, the partition reallocation).
TEST(TcamRandom, Ipv6BesideIpv4) {
   Ulo::ScopedThrowingAssertHandler guard;
   uint64_t seed = envNumber("VEXLO_RANDOM_SEED", 1) + 200;
   for (const Scenario& s : ipv6Scenarios()) {
      if (!RandomRun(s, seed++).run(opsPerRun())) return;
   }
}

TEST(TcamRandom, WeightedPlacementAndBorderMoveInRangesStayConsistent) {
   Ulo::ScopedThrowingAssertHandler guard;
   uint64_t seed = envNumber("VEXLO_RANDOM_SEED", 1) + 300;
   for (const Scenario& s : optInScenarios()) {
      if (!RandomRun(s, seed++).run(opsPerRun())) return;
   }
}

// A digest proves unchanged behaviour only if the model is deterministic: no state shared between
// contexts, nothing that depends on addresses or uninitialised memory.
TEST(TcamRandom, SameSeedGivesTheSameDigestAndAnotherSeedAnother) {
   Ulo::ScopedThrowingAssertHandler guard;
   const Scenario s = ipv4Scenarios().back();  // small: full, with merges, within 1000 operations
   const std::optional<uint64_t> first = RandomRun(s, 7).run(1000);
   ASSERT_TRUE(first);
   EXPECT_EQ(RandomRun(s, 7).run(1000), first);
   EXPECT_NE(RandomRun(s, 8).run(1000), first);
}

// The long run is an optimised build; its verdict means something only if the model's fatal
// checks are compiled into that build too.
TEST(TcamRandom, ModelAssertionsStayOnInThisBuild) {
   TcamHarness h(layout(512, 2, 8, true));
   EXPECT_EQ(failureOf([&] { h.ctx().deleteRoute4(k4(1, "10.9.9.0/24"), true, 0); }), "pos");
}
