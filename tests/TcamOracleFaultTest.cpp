// The checks that every other test relies on, shown to catch the mistakes they exist for. A table
// is loaded through the emulator, then the emulator's writer is told to make one mistake at a
// random publication while routes keep coming and going. The operation that published the record
// the writer got wrong must end with a report (a violation of the emulator's check, a writer
// error, or a failed assertion of the model) that names the route concerned; no operation before
// it may report anything.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "RandomRuns.h"
#include "TcamFixture.h"
#include "platform/Assert.h"
#include "sim/EmulatedTable.h"

namespace VexloL3Common::testing {
namespace {

using sim::Route;
using sim::WriterFault;

Ipv6UcastKey randomV6(std::mt19937_64& rng, bool doubleSize) {
   Ulo::Ip6Prefix::Bytes b{};
   b[0] = 0x20;
   b[1] = 0x01;
   for (size_t i = 2; i < b.size(); ++i)
      b[i] = uint8_t(rng() % 4);  // few distinct bytes, so that prefixes nest
   static constexpr uint8_t singles[] = {32, 48, 56, 64};
   static constexpr uint8_t doubles[] = {72, 96, 112, 128};
   const uint8_t len = doubleSize ? doubles[rng() % 4] : singles[rng() % 4];
   for (size_t bit = len; bit < 128; ++bit)
      b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
   return Ipv6UcastKey(VrfId(1 + uint32_t(rng() % 2)), Ulo::Ip6Prefix(b, len));
}

IpMcastPrefixKey randomMcast(std::mt19937_64& rng) {
   const uint32_t group = 0xE0000000u | uint32_t(rng() % 64) << 8;
   const uint32_t source = uint32_t(rng() % 16) << 4;
   const uint32_t len = rng() % 3 == 0 ? 24 + uint32_t(rng() % 9) : 33 + uint32_t(rng() % 32);
   const uint64_t bits = (uint64_t(group) << 32 | source) & (~0ull << (64 - std::min(len, 64u)));
   return IpMcastPrefixKey(1, 0, Ulo::IpGenAddr::v4(uint32_t(bits >> 32)),
                           Ulo::IpGenAddr::v4(uint32_t(bits)), uint8_t(len));
}

struct Family {
   bool v4 = true, v6Single = false, v6Double = false, mcast = false;
};

// Routes to draw from, of the families the table takes.
std::vector<Route> poolFor(const Family& f, uint64_t seed, size_t n) {
   std::mt19937_64 rng(seed);
   std::vector<Route> out;
   std::unordered_set<Route> seen;
   const std::vector<Ipv4UcastKey> v4 = f.v4 ? makePool(rng, n) : std::vector<Ipv4UcastKey>{};
   for (size_t i = 0; out.size() < n && i < 20 * n; ++i) {
      const uint32_t pick = uint32_t(rng() % 4);
      Route r;
      if (pick == 0 && (f.v6Single || f.v6Double)) {
         r = Route::of(randomV6(rng, f.v6Double && (!f.v6Single || rng() % 2)));
      } else if (pick == 1 && f.mcast) {
         r = Route::of(randomMcast(rng));
      } else if (f.v4) {
         r = Route::of(v4[i % v4.size()]);
      } else if (f.mcast) {
         r = Route::of(randomMcast(rng));
      } else {
         continue;
      }
      if (seen.insert(r).second) out.push_back(r);
   }
   return out;
}

// What one operation left behind: every report, as text.
std::vector<std::string> reportsOf(sim::EmulatedTable& t, const std::function<void()>& op) {
   std::vector<std::string> out;
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      op();
      for (const sim::Violation& v : t.emu()->checkAfterMove())
         out.push_back(v.message);
      t.ctx().verify();
   } catch (const Ulo::AssertionFailure& e) {
      out.push_back(e.text + ": " + e.message);
   }
   for (const std::string& e : t.emu()->errors())
      out.push_back(e);
   t.emu()->errorsDelAll();
   return out;
}

struct Outcome {
   bool made = false;
   std::vector<std::string> reports;  // of the operation in which the mistake was made
   std::vector<std::string> routes;   // the routes of the record the writer got wrong
};

Outcome runWithFault(const L3TcamManagerContext::Config& cfg, const Family& fam, WriterFault f,
                     uint64_t seed) {
   sim::EmulatedTable t(cfg, false, true);
   t.emu()->onErrorIs(sim::TcamEmulator::OnError::record);
   t.emu()->modelViewIs(t.modelView());
   const std::vector<Route> pool = poolFor(fam, seed, cfg.tcamSize * 3);
   std::mt19937_64 rng(seed * 7919);
   std::vector<Route> in;
   std::unordered_set<Route> has;
   auto step = [&](bool grow) {
      if (grow || in.empty()) {
         const Route& r = pool[rng() % pool.size()];
         if (has.count(r)) return;
         if (t.add(r)) {
            in.push_back(r);
            has.insert(r);
         }
      } else {
         const size_t i = rng() % in.size();
         const Route r = in[i];
         in[i] = in.back();
         in.pop_back();
         has.erase(r);
         t.del(r);
      }
   };
   for (size_t i = 0; i < cfg.tcamSize; ++i) {
      EXPECT_THAT(reportsOf(t, [&] { step(true); }), ::testing::IsEmpty()) << "before the fault";
   }
   // Double-size moves are rarer than the others: make that mistake at one of the first few.
   t.emu()->injectFault(f, uint32_t(rng() % (f == WriterFault::partnerLeftBehind ? 3 : 16)));
   Outcome o;
   for (int op = 0; op < 4000 && !o.made; ++op) {
      std::vector<std::string> reports = reportsOf(t, [&] { step(rng() % 2 == 0); });
      o.made = t.emu()->faultMade();
      if (!o.made) {
         EXPECT_THAT(reports, ::testing::IsEmpty()) << "no fault made yet, op " << op;
         if (!reports.empty()) return o;
      }
      o.reports = std::move(reports);
   }
   o.routes = t.emu()->faultRoutes();
   return o;
}

bool namesOneOf(const std::vector<std::string>& reports, const std::vector<std::string>& routes) {
   for (const std::string& r : reports) {
      for (const std::string& route : routes) {
         if (r.find(route) != std::string::npos) return true;
      }
   }
   return false;
}

L3TcamManagerContext::Config pairedCfg() {
   auto c = layout(512, 2, 8, true);
   c.supportsDefipPairing = true;
   c.pairGap = 16;
   c.requestedTableMode = 9;
   return c;
}

L3TcamManagerContext::Config mcastCfg() {
   auto c = layout(256, 0, 0);
   c.v4Mcast = true;
   return c;
}

struct Layout {
   const char* name;
   L3TcamManagerContext::Config cfg;
   Family family;
};

std::vector<Layout> layouts() {
   return {
       {"IPv4, two routes per entry", layout(256, 2, 4, true), Family{}},
       {"IPv4, one route per entry", layout(256, 1, 2, false), Family{}},
       {"IPv4 and paired IPv6", pairedCfg(), Family{true, false, true, false}},
       {"multicast", mcastCfg(), Family{false, false, false, true}},
   };
}

// Which layouts publish what a mistake needs: merges only where two IPv4 routes share an entry,
// moves of double-size routes only with pairing.
bool applies(WriterFault f, const Layout& l) {
   if (f == WriterFault::wrongHalf) return l.cfg.twoV4RoutesPerEntry && l.family.v4;
   if (f == WriterFault::partnerLeftBehind) return l.family.v6Double;
   return true;
}

class OracleCatches : public ::testing::TestWithParam<WriterFault> {};

TEST_P(OracleCatches, TheMistakeInTheOperationThatMadeItNamingTheRoute) {
   const WriterFault f = GetParam();
   int tried = 0;
   for (const Layout& l : layouts()) {
      if (!applies(f, l)) continue;
      for (uint64_t seed = 1; seed <= 3; ++seed) {
         SCOPED_TRACE(fmt::format("{}, seed {}", l.name, seed));
         const Outcome o = runWithFault(l.cfg, l.family, f, seed);
         if (::testing::Test::HasFailure()) return;
         ASSERT_TRUE(o.made) << "the churn never published what the mistake needs";
         ++tried;
         ASSERT_THAT(o.reports, ::testing::Not(::testing::IsEmpty()));
         if (f == WriterFault::wrongAck) {
            // The model sees the acknowledgement differ from what it published and names the
            // record: the route's old and new entries.
            EXPECT_THAT(o.reports.front(), ::testing::HasSubstr("Status"));
         } else {
            ASSERT_FALSE(o.routes.empty());
            EXPECT_TRUE(namesOneOf(o.reports, o.routes))
                << o.reports.front() << " does not name " << o.routes.front();
         }
      }
   }
   EXPECT_GE(tried, 3);
}

INSTANTIATE_TEST_SUITE_P(Writer, OracleCatches,
                         ::testing::Values(WriterFault::dropMove, WriterFault::wrongIndex,
                                           WriterFault::wrongHalf, WriterFault::sourceLeftValid,
                                           WriterFault::partnerLeftBehind, WriterFault::wrongAck),
                         [](const auto& info) { return std::string(sim::toString(info.param)); });

// Without a mistake the same churn reports nothing, and the model's view and the hardware agree
// route for route at the end (the check from scratch compares every installed route and the
// counts).
TEST(OracleCatches, NothingWhenTheWriterMakesNoMistake) {
   for (const Layout& l : layouts()) {
      SCOPED_TRACE(l.name);
      const Outcome o = runWithFault(l.cfg, l.family, WriterFault::none, 5);
      EXPECT_FALSE(o.made);
      EXPECT_THAT(o.reports, ::testing::IsEmpty());
   }
}

}  // namespace
}  // namespace VexloL3Common::testing
