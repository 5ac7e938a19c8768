// Placement policies and rebalancing, on the emulator-backed fixture: where the weighted policy
// puts new lengths, what that saves on an Internet-shaped load, what it leaves alone, and how
// rebalancing brings a classic layout to where weighted inserts are cheap.
#include <gtest/gtest.h>

#include <vector>

#include "TcamFixture.h"
#include "VexloL3Common/tcam/L3TcamManager.h"
#include "sim/SyntheticTable.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

using Config = L3TcamManagerContext::Config;

// Weights of another mix than the synthetic tables': 38 % /24, 37 % /22-/23, the rest spread.
PlacementWeights otherMix() {
   PlacementWeights w;
   for (uint32_t len = 8; len <= 32; ++len)
      w.v4[len] = 40;
   w.v4[24] = 3800, w.v4[23] = 1800, w.v4[22] = 1900, w.v4[21] = 700, w.v4[20] = 600;
   w.v4[19] = 350, w.v4[18] = 250, w.v4[16] = 200;
   return w;
}

Config withPolicy(Config c, PlacementPolicy p, const PlacementWeights& w = otherMix()) {
   c.placementPolicy = p;
   c.placementWeights = w;
   return c;
}

std::vector<Ipv4UcastKey> syntheticV4(size_t n, uint64_t seed) {
   sim::SyntheticMix mix;
   mix.v4 = n;
   mix.seed = seed;
   std::vector<Ipv4UcastKey> out;
   for (const sim::Route& r : sim::syntheticTable(mix))
      out.push_back(r.v4);
   return out;
}

// A 4 K table whose IPv4 block holds 2 048 entries of two routes each.
Config table4k() {
   return layout(4096, 2, 8, true);
}

// Adds keys[from, to) and returns the moves they took.
uint64_t addAll(TcamHarness& h, const std::vector<Ipv4UcastKey>& keys, size_t from, size_t to) {
   const uint64_t before = h.moves();
   for (size_t i = from; i < to; ++i) {
      EXPECT_NE(h.add4(keys[i]).routeId, 0u) << fmt::format("{}", keys[i]);
   }
   return h.moves() - before;
}

}  // namespace

TEST(TcamPlacement, ClassicIgnoresTheWeightsAndMulticastIgnoresThePolicy) {
   PlacementWeights skewed;
   skewed.v4[24] = 100000;
   const auto keys = syntheticV4(600, 3);
   TcamHarness plain(layout(1024, 2, 8, true)),
       weightsSet(withPolicy(layout(1024, 2, 8, true), PlacementPolicy::classic, skewed));
   addAll(plain, keys, 0, keys.size());
   addAll(weightsSet, keys, 0, keys.size());
   EXPECT_EQ(snapshot(weightsSet.ctx()), snapshot(plain.ctx()));

   Config m = layout(512, 0, 0);
   m.v4Mcast = true;
   TcamHarness classic(m), weighted(withPolicy(m, PlacementPolicy::weighted));
   for (uint32_t i = 0; i < 40; ++i) {
      const IpMcastPrefixKey key(0, 0, Ulo::IpGenAddr::v4(0xef000000u + i),
                                 Ulo::IpGenAddr::v4(i % 3 ? 0x0a000000u + (i << 8) : 0),
                                 uint8_t(i % 3 ? 56 : 32));
      ASSERT_EQ(weighted.addM(key).routeId, classic.addM(key).routeId) << fmt::format("{}", key);
   }
}

TEST(TcamPlacement, WeightedLeavesTheHeavyLengthTheFreeEntriesPastItsRange) {
   PlacementWeights w;
   w.v4[24] = 1000;
   const Config one = layout(512, 2, 8, false);
   for (PlacementPolicy p : {PlacementPolicy::classic, PlacementPolicy::weighted}) {
      SCOPED_TRACE(toString(p));
      TcamHarness h(withPolicy(one, p, w));
      const uint32_t first24 = h.add4(k4(1, "10.0.0.0/24")).routeId;
      const uint32_t first16 = h.add4(k4(1, "11.0.0.0/16")).routeId;
      ASSERT_LT(first24, first16);
      const uint32_t blkEnd = h.ctx().block(RouteType::v4)->end();
      const double share = double(first16 - first24 - 1) / double(blkEnd - first24);
      uint64_t moves = 0;
      for (uint32_t i = 1; i <= 150; ++i) {
         const uint64_t before = h.moves();
         ASSERT_NE(h.add4(k4(1, fmt::format("10.{}.{}.0/24", i / 256, i % 256).c_str())).routeId,
                   0u);
         moves += h.moves() - before;
      }
      if (p == PlacementPolicy::weighted) {
         EXPECT_GT(share, 0.9) << "/24 gets the gap by its weight";
         EXPECT_EQ(moves, 0u) << "150 /24s fit between the first /24 and the /16";
      } else {
         EXPECT_LT(share, 0.5) << "the gap is shared equally among 23 lengths";
         EXPECT_GT(moves, 0u);
      }
   }
}

// An Internet-shaped load to 85 % with weights from another mix: the weighted policy makes a
// fraction of classic's moves, and stays under the per-route budget it is meant for.
TEST(TcamPlacement, WeightedLoadOfAnInternetTableMovesAFractionOfClassic) {
   const auto keys = syntheticV4(3480, 11);
   TcamHarness classic(table4k()), weighted(withPolicy(table4k(), PlacementPolicy::weighted));
   const uint64_t c = addAll(classic, keys, 0, keys.size());
   const uint64_t w = addAll(weighted, keys, 0, keys.size());
   weighted.check(true);
   EXPECT_LT(w * 4, c) << "weighted " << w << ", classic " << c;
   EXPECT_LT(double(w) / double(keys.size()), 0.6);
}

TEST(TcamPlacement, PlacementAttributesAreTakenInPlace) {
   L3TcamManager mgr;
   Config c = layout(1024, 2, 8, true);
   c.softwareOnly = true;
   mgr.tcamManagerCtxIs(c);
   const auto ctx = mgr.tcamManagerCtx();
   c.placementPolicy = PlacementPolicy::weighted;
   c.placementWeights = otherMix();
   c.borderMoveInRanges = true;
   mgr.tcamManagerCtxIs(c);
   ASSERT_EQ(mgr.tcamManagerCtx(), ctx) << "a policy change keeps the context and its routes";
   EXPECT_EQ(ctx->placementPolicy(), PlacementPolicy::weighted);
   EXPECT_EQ(ctx->placementWeights(), otherMix());
   EXPECT_TRUE(ctx->borderMoveInRanges());
}

// ---- rebalancing --------------------------------------------------------------------------

TEST(TcamRebalance, BringsAClassicLoadToWhereWeightedInsertsAreCheap) {
   const auto keys = syntheticV4(3600, 5);
   const size_t loaded = 3000;
   TcamHarness plain(table4k()), rebalanced(table4k());
   addAll(plain, keys, 0, loaded);
   addAll(rebalanced, keys, 0, loaded);
   for (TcamHarness* h : {&plain, &rebalanced}) {
      h->ctx().placementPolicyIs(PlacementPolicy::weighted);
      h->ctx().placementWeightsIs(otherMix());
   }
   const uint64_t before = rebalanced.moves();
   const uint64_t made = rebalanced.ctx().rebalance(1000000);
   EXPECT_EQ(rebalanced.moves() - before, made) << "every move is published";
   EXPECT_GT(made, 0u);
   rebalanced.check(true);
   const uint64_t again = rebalanced.ctx().rebalance(1000000);
   EXPECT_LE(again * 20, made) << "a balanced table needs (almost) nothing more";

   const uint64_t withRebalance = addAll(rebalanced, keys, loaded, keys.size());
   const uint64_t without = addAll(plain, keys, loaded, keys.size());
   EXPECT_LT(withRebalance * 3, without) << withRebalance << " against " << without;
}

TEST(TcamRebalance, MakesAtMostTheMovesItIsGiven) {
   const auto keys = syntheticV4(2000, 9);
   TcamHarness h(table4k());
   addAll(h, keys, 0, keys.size());
   const std::string before = snapshot(h.ctx());
   EXPECT_EQ(h.ctx().rebalance(0), 0u);
   EXPECT_EQ(snapshot(h.ctx()), before);
   for (uint64_t budget : {1u, 7u, 50u}) {
      const uint64_t moves = h.moves();
      const uint64_t made = h.ctx().rebalance(budget);
      EXPECT_EQ(made, budget) << "a classic layout is far from the weighted ideal";
      EXPECT_EQ(h.moves() - moves, made);
      h.check(true);
   }
}

// ---- IPv4 and single-size IPv6 routes sharing free entries -------------------------------

namespace {

// One route per entry on a table whose IPv4 block overlaps the single-size IPv6 region.
Config sharedTable(PlacementPolicy p) {
   return withPolicy(layout(1024, 2, 8, false), p);
}

Ipv4UcastKey v4At(uint32_t i) {
   return k4(1, fmt::format("10.{}.{}.0/24", i / 256, i % 256).c_str());
}

void place4(TcamHarness& h, const Ipv4UcastKey& key, uint32_t index) {
   ASSERT_EQ(h.ctx().addRoute4AtIndex(key, index, true).routeId, index);
   h.emu().writeV4(index, h.ctx().v4()->keys(index));
   h.check();
}

// From entry a on: IPv4 /24, IPv6 /48, `holes` free entries, IPv6 /48, IPv6 /44, IPv4 /24, one
// free entry, IPv4 /24; the IPv4 /24 range spans all of it. Returns a.
uint32_t sharedLayout(TcamHarness& h, uint32_t holes) {
   const uint32_t a = h.ctx().block(RouteType::v6Half)->start() + 100;
   const uint32_t gap = a + 2 + holes;
   EXPECT_LE(h.ctx().block(RouteType::v4)->start(), a);
   place4(h, v4At(0), a);
   h.add6At(k6(1, "2001:db8:1::/48"), a + 1);
   h.add6At(k6(1, "2001:db8:2::/48"), gap);
   h.add6At(k6(1, "2001:db8::/44"), gap + 1);
   place4(h, v4At(1), gap + 2);
   place4(h, v4At(2), gap + 4);
   return a;
}

}  // namespace

// An IPv6 length whose range holds a single free entry keeps it for its own next route: under
// weighted placement the IPv4 route takes the free entry further on in its range, and the next
// /48 costs nothing. Classic placement takes the first free entry, and the /48 must then shift
// the /44 out of its way.
TEST(TcamPlacement, Ipv4InsertLeavesAnIpv6LengthItsLastFreeEntries) {
   for (PlacementPolicy p : {PlacementPolicy::classic, PlacementPolicy::weighted}) {
      SCOPED_TRACE(toString(p));
      TcamHarness h(sharedTable(p));
      const uint32_t a = sharedLayout(h, 1);
      const bool weighted = p == PlacementPolicy::weighted;
      uint64_t before = h.moves();
      EXPECT_EQ(h.add4(v4At(3)).routeId, weighted ? a + 6 : a + 2);
      EXPECT_EQ(h.moves(), before);
      before = h.moves();
      EXPECT_EQ(h.add6(k6(1, "2001:db8:3::/48")).routeId, weighted ? a + 2 : a + 4);
      EXPECT_EQ(h.moves() - before, weighted ? 0u : 1u);
      h.check(true);
   }
}

// Free entries an IPv6 length has to spare are anyone's, and an IPv4 route that finds nothing
// else ahead still takes the last one rather than be refused or shift from below.
TEST(TcamPlacement, Ipv4InsertTakesIpv6FreeEntriesWhenTheyAreSpareOrAllThereIs) {
   TcamHarness spare(sharedTable(PlacementPolicy::weighted));
   const uint32_t a = sharedLayout(spare, 3);
   EXPECT_EQ(spare.add4(v4At(3)).routeId, a + 2) << "three free entries: one is spare";

   TcamHarness full(sharedTable(PlacementPolicy::weighted));
   const uint32_t b = sharedLayout(full, 1);
   const uint32_t last = full.ctx().block(RouteType::v4)->end();
   place4(full, v4At(3), b + 6);
   for (uint32_t i = b + 8; i <= last; ++i)
      place4(full, v4At(i), i);
   const uint64_t before = full.moves();
   EXPECT_EQ(full.add4(v4At(4)).routeId, b + 2);
   EXPECT_EQ(full.moves(), before);
   full.check(true);
}
