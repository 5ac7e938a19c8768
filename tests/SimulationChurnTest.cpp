// Churn that announces new prefixes: the sources it draws them from, the books it keeps (one
// route out, one of the same family in), where it stops, and the cost of an insert reported
// apart from that of a withdrawal.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unordered_set>

#include "SimulationSupport.h"
#include "TcamFixture.h"
#include "sim/AnnounceSource.h"
#include "sim/Simulation.h"
#include "sim/SyntheticTable.h"

namespace VexloL3Common::sim {
namespace {

using testing_support::small;
using testing_support::v4Routes;

TEST(AnnounceSource, ListSkipsWhatIsAnnouncedStartsOverAndRunsDry) {
   const std::vector<Route> list = v4Routes(3, 24, 100);
   std::unordered_set<Route> on{list[1]};
   const auto announced = [&](const Route& r) { return on.count(r) > 0; };
   auto src = announcesFrom(list, "new.routes");
   EXPECT_EQ(src->next(Route::Family::v4, announced), list[0]);
   EXPECT_EQ(src->next(Route::Family::v4, announced), list[2]) << "list[1] is announced";
   EXPECT_EQ(src->restarts(), 1u);
   on = {list[1], list[2]};
   EXPECT_EQ(src->next(Route::Family::v4, announced), list[0]) << "from the top again";
   on.insert(list[0]);
   EXPECT_EQ(src->next(Route::Family::v4, announced), std::nullopt);
   EXPECT_EQ(src->why(Route::Family::v4), "every IPv4 route of new.routes is announced");
   EXPECT_EQ(src->next(Route::Family::v6, announced), std::nullopt);
   EXPECT_EQ(src->why(Route::Family::v6), "new.routes has no IPv6 route");
}

// The generator's announces are new to a table made with the same seed, and the same seed gives
// the same announces.
TEST(AnnounceSource, GeneratorAnnouncesWhatTheTableDoesNotHold) {
   SyntheticMix mix;
   mix.v4 = 5000;
   mix.seed = 4;
   const std::vector<Route> table = syntheticTable(mix);
   const std::unordered_set<Route> held(table.begin(), table.end());
   const auto announced = [&](const Route& r) { return held.count(r) > 0; };
   auto a = syntheticAnnounces(4), b = syntheticAnnounces(4);
   std::unordered_set<Route> seen;
   for (int i = 0; i < 6000; ++i) {  // more than one batch
      const std::optional<Route> r = a->next(Route::Family::v4, announced);
      ASSERT_TRUE(r);
      EXPECT_EQ(r, b->next(Route::Family::v4, announced));
      EXPECT_FALSE(held.count(*r)) << r->toString();
      EXPECT_EQ(r->family, Route::Family::v4);
      seen.insert(*r);
   }
   EXPECT_GT(seen.size(), 5900u) << "announces are mostly distinct";
   const std::optional<Route> v6 = a->next(Route::Family::v6, announced);
   ASSERT_TRUE(v6);
   EXPECT_EQ(v6->family, Route::Family::v6);
}

TEST(SimulationChurn, NewPrefixesReplaceRoutesOfTheirFamilyAndTheTwinAgrees) {
   Simulation sim(small(256));
   SyntheticMix mix;
   mix.v4 = 800;
   mix.mcast = 100;
   sim.load(syntheticTable(mix));
   const std::array<uint64_t, numRegions> loaded = sim.statistics().routes;
   sim.churnNew(2001, 9, *syntheticAnnounces(9));
   const Statistics& st = sim.statistics();
   const Statistics::Phase& churn = st.phases.at(1);
   EXPECT_EQ(churn.operations, 2001u);
   EXPECT_EQ(churn.pairs(), 1000u);
   EXPECT_EQ(st.refused(), 0u);
   // 1001 withdrawals, 1000 announces: one route short, in one region.
   uint64_t short_ = 0;
   for (unsigned i = 0; i < numRegions; ++i) {
      EXPECT_LE(loaded[i] - st.routes[i], 1u) << regionName(Region(i));
      short_ += loaded[i] - st.routes[i];
   }
   EXPECT_EQ(short_, 1u);
   EXPECT_EQ(st.family[size_t(Route::Family::v4)].deleted + st.family[2].deleted, 1001u);
   EXPECT_TRUE(st.churnStopped.empty()) << st.churnStopped;
   EXPECT_GT(churn.movesPerInsert.operations(), 0u);
   EXPECT_DOUBLE_EQ(churn.movesPerPair(), double(churn.moves) / 1000.0);
   sim.finish();  // fatal if the twin placed anything differently
   EXPECT_TRUE(sim.checkTables().empty());
}

TEST(SimulationChurn, SourceThatRunsDryStopsTheChurnAndSaysWhy) {
   Simulation sim(small());
   sim.load(v4Routes(50, 24));
   // A single new IPv4 route: announced once, then only when its withdrawal freed it again.
   std::vector<Route> list = v4Routes(1, 24, 500);
   list.push_back(parseRoute("2001:db8::/32"));
   auto src = announcesFrom(list, "--churn-routes one.routes");
   sim.churnNew(1000, 3, *src);
   const Statistics& st = sim.statistics();
   const uint64_t made = st.phases.at(1).operations;
   EXPECT_LT(made, 1000u);
   EXPECT_EQ(made % 2, 1u) << "it stops at an announce, after its withdrawal";
   EXPECT_EQ(st.churnStopped,
             fmt::format("after {} of 1000 updates: every IPv4 route of --churn-routes one.routes "
                         "is announced",
                         made));
   EXPECT_EQ(st.family[size_t(Route::Family::v6)].placed, 0u) << "announces keep their family";
   sim.finish();
}

TEST(SimulationChurn, LargestInsertIsThePlacedAddWithTheMostMoves) {
   Simulation sim(small());
   SyntheticMix mix;
   mix.v4 = 900;
   sim.load(syntheticTable(mix));
   sim.churnNew(800, 2, *syntheticAnnounces(2));
   const Statistics& st = sim.statistics();
   uint64_t most = 0, total = 0;
   for (const Statistics::Phase& p : st.phases) {
      most = std::max(most, p.movesPerInsert.max());
      total += p.movesPerInsert.total();
   }
   EXPECT_EQ(total, st.movesPerInsert.total()) << "each phase's inserts are its own";
   ASSERT_GT(most, 0u);
   EXPECT_EQ(st.largestInsert.moves, most);
   EXPECT_EQ(st.largestInsert.kind, RouteOp::Kind::add);
   EXPECT_LE(st.largestInsert.moves, st.movesPerUpdate.max());
   EXPECT_GE(st.largestInsert.operation, 1u);
   EXPECT_LE(st.largestInsert.operation, st.operations);
}

}  // namespace
}  // namespace VexloL3Common::sim
