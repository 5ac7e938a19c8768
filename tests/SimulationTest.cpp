// The simulation driver: capacity that matches what really fits, traces checked whole before
// anything is applied, churn that keeps its books, the twin pass that times the model, and the
// report figures taken from the emulated table.

#include "sim/Simulation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <sstream>

#include "SimulationSupport.h"
#include "TcamFixture.h"
#include "platform/Trace.h"
#include "sim/SyntheticTable.h"

namespace VexloL3Common::sim {
namespace {

using testing::layout;

using testing_support::small;
using testing_support::v4Routes;

ReportData::CapacityRow rowOf(const Simulation& sim, Region r) {
   for (const auto& row : sim.capacity(70, 85))
      if (row.region == regionName(r)) return row;
   throw std::runtime_error("no row");
}

// What the probe calls free must be exactly what the table then takes, for IPv4 sharing entries
// and for IPv6 on a paired table whose border moves (the probe grows the IPv6 partition too).
TEST(Simulation, FreeCapacityIsWhatTheTableStillTakes) {
   struct Case {
      const char* name;
      SimulationConfig cfg;
      std::vector<Route> load;
      std::function<Route(uint32_t)> more;
      Region region;
   };
   SimulationConfig paired = small();
   paired.unicast.supportsDefipPairing = true;
   paired.unicast.dynamicV4V6Boundary = true;
   std::vector<Route> mixed = v4Routes(300, 24);
   for (uint32_t i = 0; i < 40; ++i) {
      Ulo::Ip6Prefix::Bytes b{0x20, 0x01, 0x0d, 0xb8, uint8_t(i)};
      mixed.push_back(Route::of(Ipv6UcastKey(VrfId(1), Ulo::Ip6Prefix(b, 128))));
   }
   std::vector<Case> cases;
   cases.push_back({"ipv4", small(), v4Routes(700, 24),
                    [](uint32_t i) { return v4Routes(1, 24, 5000 + i)[0]; }, Region::v4});
   cases.push_back({"ipv6 double, moving border", paired, mixed,
                    [](uint32_t i) {
                       Ulo::Ip6Prefix::Bytes b{0x20, 0x01, 0x0d, 0xb9, uint8_t(i >> 8), uint8_t(i)};
                       return Route::of(Ipv6UcastKey(VrfId(1), Ulo::Ip6Prefix(b, 128)));
                    },
                    Region::v6Double});
   // Multicast at both ends of the VRF index space: the probes must find unused indices.
   auto mc = [](uint16_t vrf, uint32_t group, uint8_t len) {
      return Route::of(
          IpMcastPrefixKey(vrf, 0, Ulo::IpGenAddr::v4(group), Ulo::IpGenAddr::v4(0), len));
   };
   cases.push_back({"multicast",
                    small(256),
                    {mc(65535, 0xef010000, 16), mc(0, 0xe0000000, 4), mc(0, 0xe8010101, 32)},
                    [&](uint32_t i) { return mc(7, 0xe8000000 + i, 32); },
                    Region::mcast});
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      Simulation sim(c.cfg);
      sim.load(c.load);
      const auto row = rowOf(sim, c.region);
      EXPECT_EQ(row.used, c.load.size() - (c.region == Region::v6Double ? 300 : 0));
      EXPECT_EQ(row.max, row.used + row.free);
      ASSERT_GT(row.free, 0u);
      std::vector<Route> extra;
      for (uint32_t i = 0; i <= row.free; ++i)
         extra.push_back(c.more(i));
      sim.load(extra);
      EXPECT_EQ(sim.statistics().refused(), 1u) << "free " << row.free;
      const auto full = rowOf(sim, c.region);
      EXPECT_EQ(full.free, 0u);
      EXPECT_THAT(full.warning, ::testing::StartsWith("critical: 100.0 % used"));
   }
}

// Where free capacity is computed from the counts, it must be what the probe finds: for every
// layout whose admission the computation replays, from empty to full, after churn has left
// entries with a free right half.
TEST(Simulation, ComputedFreeCapacityIsWhatTheProbeFinds) {
   struct Layout {
      const char* name;
      uint32_t mode;
      bool two, urpf, pairing;
      bool moving = pairing;
   };
   const Layout layouts[] = {{"mode 1", 1, true, false, false},
                             {"mode 2", 2, true, false, false},
                             {"mode 3, one per entry", 3, false, false, false},
                             {"mode 2, uRPF", 2, true, true, false},
                             {"moving border, no IPv6 yet", 2, true, false, true},
                             {"fixed pairing border", 2, true, false, true, false},
                             {"fixed pairing border, one per entry", 2, false, false, true, false}};
   for (const Layout& l : layouts) {
      for (uint64_t v4 : {0u, 500u, 1400u, 2600u}) {
         SCOPED_TRACE(fmt::format("{}, {} IPv4", l.name, v4));
         SimulationConfig cfg = small(256);
         cfg.check = false;
         cfg.urpf = l.urpf;
         cfg.unicast.tcamMode = l.mode;
         cfg.unicast.twoV4RoutesPerEntry = l.two;
         cfg.unicast.supportsDefipPairing = l.pairing;
         cfg.unicast.dynamicV4V6Boundary = l.moving;
         SyntheticMix mix;
         mix.v4 = v4;
         mix.v6 = l.moving ? 0 : v4 / 8;
         mix.mcast = 40;
         mix.seed = v4 + l.mode;
         std::vector<ReportData::CapacityRow> rows[2];
         for (bool probe : {false, true}) {
            cfg.probeCapacity = probe;
            Simulation sim(cfg);
            const std::vector<Route> table = syntheticTable(mix);
            sim.load(table);
            if (v4) sim.churn(300, 5);
            rows[probe] = sim.capacity(70, 85);
         }
         ASSERT_EQ(rows[0].size(), rows[1].size());
         for (size_t i = 0; i < rows[0].size(); ++i) {
            EXPECT_EQ(rows[0][i].free, rows[1][i].free) << rows[0][i].region;
            EXPECT_EQ(rows[0][i].max, rows[1][i].max) << rows[0][i].region;
         }
      }
   }
}

// A probe's copy of the table is rebuilt from the model's image of the hardware, or the probe
// fills the table itself when the caller is done with it. Either must find what a copy made by
// replaying every operation finds, on every layout, after churn, with IPv6 past a moving border.
TEST(Simulation, ProbesOnRebuiltCopiesOrOnTheTableFindWhatReplayedCopiesFind) {
   struct Layout {
      const char* name;
      uint32_t mode;
      bool two, pairing, moving, interleave;
   };
   const Layout layouts[] = {{"mode 2, IPv4 over the IPv6 blocks", 2, true, false, false, false},
                             {"mode 3, one per entry", 3, false, false, false, false},
                             {"fixed pairing border", 2, true, true, false, false},
                             {"moving border", 2, true, true, true, false},
                             {"pairing, interleaved", 2, true, true, false, true}};
   for (const Layout& l : layouts) {
      for (uint64_t v4 : {600u, 2600u}) {
         SCOPED_TRACE(fmt::format("{}, {} IPv4", l.name, v4));
         SimulationConfig cfg = small(256);
         cfg.check = false;
         cfg.emulate = false;
         cfg.probeCapacity = true;
         cfg.unicast.tcamMode = l.mode;
         cfg.unicast.twoV4RoutesPerEntry = l.two;
         cfg.unicast.supportsDefipPairing = l.pairing;
         cfg.unicast.dynamicV4V6Boundary = l.moving;
         cfg.unicast.v4V6InterleavingDisabled = !l.interleave;
         SyntheticMix mix;
         mix.v4 = v4;
         mix.v6 = v4 / 6;
         mix.mcast = 40;
         mix.seed = v4 + l.mode;
         const std::vector<Route> table = syntheticTable(mix);
         std::vector<ReportData::CapacityRow> rows[3];
         for (int way = 0; way < 3; ++way) {
            cfg.replicaByReplay = way == 0;
            Simulation sim(cfg);
            sim.load(table);
            sim.churn(400, 9);
            if (l.moving && way == 0) {
               EXPECT_NE(sim.unicast()->ctx().v4V6Border(), 0u) << "IPv6 never moved the border";
            }
            rows[way] = way == 2 ? sim.capacitySpendingTables(70, 85) : sim.capacity(70, 85);
         }
         for (int way : {1, 2}) {
            ASSERT_EQ(rows[0].size(), rows[way].size());
            for (size_t i = 0; i < rows[0].size(); ++i) {
               EXPECT_EQ(rows[way][i].free, rows[0][i].free) << way << " " << rows[0][i].region;
               EXPECT_EQ(rows[way][i].usedEntries, rows[0][i].usedEntries) << way;
               EXPECT_EQ(rows[way][i].freeEntries, rows[0][i].freeEntries) << way;
            }
         }
         EXPECT_GT(rows[0][0].free, 0u);
      }
   }
}

TEST(Simulation, TraceIsCheckedWholeBeforeAnythingIsApplied) {
   Simulation sim(small());
   sim.load(v4Routes(10, 24));
   std::istringstream ok("add vrf 1 10.0.0.0/8\nadd 10.1.0.0/16\ndel vrf 1 0.0.1.0/24\n");
   sim.replay(readTrace(ok, "ok"), "ok");
   EXPECT_EQ(sim.statistics().family[0].placed, 12u);
   EXPECT_EQ(sim.statistics().family[0].deleted, 1u);

   const uint64_t ops = sim.statistics().operations;
   for (const char* bad :
        {"add 10.2.0.0/16\ndel 10.2.0.0/16\ndel 10.2.0.0/16\n", "del 10.3.0.0/16\n",
         "add 10.4.0.0/16\nadd vrf 1 10.0.0.0/8\n", "add 10.4.0.0/16\nadd mcast 239.0.0.0/8\n"}) {
      std::istringstream in(bad);
      const auto trace = readTrace(in, "t");
      try {
         sim.replay(trace, "t");
         ADD_FAILURE() << bad;
      } catch (const InputError& e) {
         EXPECT_EQ(e.line(), trace.back().line) << e.what();
      }
      EXPECT_EQ(sim.statistics().operations, ops) << "nothing applied from " << bad;
   }
}

TEST(Simulation, RefusedRoutesAreCountedAndTheirDeletesSkipped) {
   Simulation sim(small());
   std::vector<Route> routes = v4Routes(2500, 24);  // more than 1 024 entries hold
   sim.load(routes);
   const Statistics& st = sim.statistics();
   ASSERT_GT(st.family[0].refused, 0u);
   EXPECT_EQ(st.family[0].placed + st.family[0].refused, routes.size());
   std::istringstream in("del " + routes.back().toString() + "\n");
   sim.replay(readTrace(in, "t"), "t");
   EXPECT_EQ(st.family[0].skipped, 1u);
   EXPECT_EQ(st.installed(), st.family[0].placed);
   EXPECT_EQ(st.highWatermark[0], st.family[0].placed);
}

// Every refusal is counted under its region and one reason, with the first route refused; a full
// IPv4 partition keeps its swap reserve, and a route too long for any entry says so.
TEST(Simulation, RefusalsCarryTheirRegionAndReason) {
   SimulationConfig cfg = small();
   cfg.worst = 3;
   Simulation sim(cfg);
   std::vector<Route> routes = v4Routes(2500, 24);
   Ulo::Ip6Prefix::Bytes b{0x20, 0x01, 0x0d, 0xb8};
   routes.push_back(Route::of(Ipv6UcastKey(VrfId(1), Ulo::Ip6Prefix(b, 128))));
   sim.load(routes);
   const Statistics& st = sim.statistics();
   const Statistics::Refusals& v4 = st.refusals[size_t(Region::v4)];
   EXPECT_EQ(v4.total(), st.family[0].refused);
   const size_t kept = size_t(RefusalReason::swapReserveKept);
   EXPECT_EQ(v4.count[kept], v4.total()) << "the reserve, not a full block, stops IPv4 here";
   // The first refused route is the first one past what was placed.
   EXPECT_THAT(v4.example[kept],
               ::testing::StartsWith(routes[st.family[0].placed].toString() + ": "));
   EXPECT_TRUE(v4.border.empty()) << "this layout's border does not move";
   const Statistics::Refusals& v6 = st.refusals[size_t(Region::v6Double)];
   EXPECT_EQ(v6.count[size_t(RefusalReason::noEntrySize)], 1u);
   const auto rows = sim.capacity(70, 85);
   EXPECT_EQ(rows[0].severity, "critical");
   EXPECT_EQ(rows[0].refused, v4.total());
   EXPECT_EQ(rows[2].usedEntries + rows[2].freeEntries, 0u) << "no double-size entries";
}

// Explaining a refusal reads counts only: the model's trace of a run with refusals is the trace of
// the same adds made without the simulation around them.
TEST(Simulation, DiagnosingRefusalsAddsNothingToTheModelTrace) {
   // IPv4 and IPv6 routes in turn, well past what each layout holds, so that every reason of
   // refusal comes up: a full block, the reserve, the shared IPv4 reserve, the border.
   SyntheticMix mix;
   mix.v4 = 2400;
   mix.v6 = 900;
   std::vector<Route> v4, v6, routes;
   for (const Route& r : syntheticTable(mix))
      (r.family == Route::Family::v4 ? v4 : v6).push_back(r);
   for (size_t i = 0; i < std::max(v4.size(), v6.size()); ++i) {
      if (i < v6.size()) routes.push_back(v6[i]);
      if (i < v4.size()) routes.push_back(v4[i]);
   }
   for (int pairing = 0; pairing < 3; ++pairing) {
      SCOPED_TRACE(pairing);
      SimulationConfig cfg = small();
      cfg.check = false;
      cfg.unicast.supportsDefipPairing = pairing > 0;
      cfg.unicast.dynamicV4V6Boundary = pairing == 2;
      std::vector<std::string> traced[2];
      {
         Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 8);
         Simulation sim(cfg);
         sim.load(routes);
         ASSERT_GT(sim.statistics().refused(), 0u);
         traced[0] = cap.texts();
      }
      {
         Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 8);
         EmulatedTable t(cfg.unicast, false, true);
         for (const Route& r : routes)
            t.add(r);
         traced[1] = cap.texts();
      }
      EXPECT_EQ(traced[0].size(), traced[1].size());
      EXPECT_TRUE(traced[0] == traced[1]);
   }
}

// The worst updates are the ones with the most moves, most first, at most config.worst of them,
// and the first is the histogram's maximum.
TEST(Simulation, WorstUpdatesAreTheLargestInOrder) {
   SimulationConfig cfg = small();
   cfg.worst = 4;
   Simulation sim(cfg);
   SyntheticMix mix;
   mix.v4 = 900;
   sim.load(syntheticTable(mix));
   sim.churn(500, 3);
   const Statistics& st = sim.statistics();
   ASSERT_EQ(st.worst.size(), 4u);
   EXPECT_EQ(st.worst.front().moves, st.movesPerUpdate.max());
   uint64_t atLeastLast = 0;
   for (uint64_t m = st.worst.back().moves; m < st.movesPerUpdate.counts().size(); ++m)
      atLeastLast += st.movesPerUpdate.counts()[m];
   EXPECT_GE(atLeastLast, 4u);
   for (size_t i = 1; i < st.worst.size(); ++i)
      EXPECT_GE(st.worst[i - 1].moves, st.worst[i].moves);
   // Each phase's histogram is its own: the two add up to the run's.
   EXPECT_EQ(st.phases[0].movesPerOperation.total() + st.phases[1].movesPerOperation.total(),
             st.moves);
   EXPECT_EQ(st.phases[1].movesPerOperation.operations(), 500u);
}

// A table that the writer got wrong is a finding of the run: checked after every move, it is
// recorded and listed, never an abort.
TEST(Simulation, EmulatedTableFaultIsRecordedNotFatal) {
   Simulation sim(small());
   sim.load(v4Routes(200, 24));
   EmulatedTable& t = *sim.unicast();
   // A /8 written where the search meets it first shadows every /24 below it.
   const uint32_t free = t.ctx().bitmap()->findFirstClear(1, t.ctx().effectiveSize() - 1);
   ASSERT_NE(free, HBitmap::npos);
   Ipv4Keys k;
   k.right = Ipv4UcastKey(VrfId(1), Ulo::Prefix(0, 8));
   t.emu()->writeV4(free, k);
   sim.load(v4Routes(50, 24, 200));
   const std::vector<std::string> found = sim.checkTables();
   ASSERT_FALSE(found.empty());
   EXPECT_THAT(found.front(), ::testing::HasSubstr("0.0.0.0/8"));
}

TEST(Simulation, ChurnKeepsTheTableAndTheTwinAgrees) {
   SimulationConfig cfg = small(256);
   int64_t heap = 0;
   cfg.heapBytes = [&heap] { return heap += 1000; };  // each call "allocates" 1000 bytes
   Simulation sim(cfg);
   SyntheticMix mix;
   mix.v4 = 900;
   mix.mcast = 100;
   sim.load(syntheticTable(mix));
   const uint64_t loaded = sim.statistics().installed();
   sim.churn(3001, 5);
   const Statistics& st = sim.statistics();
   ASSERT_EQ(st.phases.size(), 2u);
   // One route in a hundred is down (one more right after a withdraw), and none was refused.
   EXPECT_EQ(st.refused(), 0u);
   EXPECT_GE(loaded - st.installed(), loaded / 100);
   EXPECT_LE(loaded - st.installed(), loaded / 100 + 1);
   EXPECT_GT(st.phases[1].moves, 0u) << "announces land in other lengths than the withdraws";
   EXPECT_EQ(st.operations, loaded + 3001);
   EXPECT_EQ(st.movesPerUpdate.total(), st.moves);
   sim.finish();  // fatal if the twin placed anything differently
   EXPECT_EQ(st.phases[1].operations, 3001u);
   EXPECT_GT(st.phases[1].modelNs, 0u);
   EXPECT_EQ(st.modelBytes, 1000);
   EXPECT_TRUE(sim.checkTables().empty());
}

TEST(Simulation, MoveHistogramPercentilesAreExact) {
   MoveHistogram h;
   for (int i = 0; i < 98; ++i)
      h.add(1);
   h.add(7);
   h.add(40);
   EXPECT_EQ(h.percentile(98), 1u);
   EXPECT_EQ(h.percentile(99), 7u);
   EXPECT_EQ(h.percentile(100), 40u);
   EXPECT_EQ(h.max(), 40u);
   EXPECT_DOUBLE_EQ(h.mean(), (98 + 7 + 40) / 100.0);
   EXPECT_EQ(MoveHistogram().percentile(99), 0u);
}

TEST(Simulation, ReportFiguresFollowTheEmulatedTable) {
   Simulation sim(small());
   sim.load(v4Routes(600, 24));
   sim.load(v4Routes(3, 16, 1));
   const ReportData d = sim.reportData();
   ASSERT_EQ(d.maps.size(), 1u);
   const auto& entries = d.maps[0].entries;
   ASSERT_EQ(entries.size(), 1024u);
   size_t v4 = 0, at16 = 0;
   for (const auto& e : entries) {
      v4 += e.cell == ReportData::Cell::v4;
      at16 += e.cell == ReportData::Cell::v4 && e.len == 16;
   }
   EXPECT_EQ(v4, sim.unicast()->ctx().entries(RouteType::v4));
   EXPECT_EQ(at16, 2u) << "three /16 routes, two to an entry";
   EXPECT_EQ(entries[0].cell, ReportData::Cell::reserved);
   EXPECT_EQ(std::accumulate(d.movesPerUpdate.begin(), d.movesPerUpdate.end(), uint64_t(0)), 603u);
   ASSERT_FALSE(d.occupancy.empty());
   EXPECT_EQ(d.occupancy.front().op, 0u);
   EXPECT_EQ(d.occupancy.back().op, 603u);
   EXPECT_EQ(d.occupancy.back().routes[0], 603u);
   EXPECT_EQ(d.occupancy.back().usedEntries, sim.unicast()->usedEntries());
}

TEST(Simulation, LayoutThatCannotBeServedIsARangeError) {
   SimulationConfig cfg = small();
   cfg.unicast.tcamMode = 1;
   cfg.urpf = true;  // uRPF needs mode 2 or 4
   EXPECT_THROW(Simulation{cfg}, std::range_error);
   Simulation sim(small());
   const Route mc =
       Route::of(IpMcastPrefixKey(0, 0, Ulo::IpGenAddr::v4(0xe0000000), Ulo::IpGenAddr::v4(0), 8));
   EXPECT_THROW(sim.load({mc}), std::invalid_argument) << "no multicast table";
}

}  // namespace
}  // namespace VexloL3Common::sim
