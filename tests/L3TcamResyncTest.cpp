// Resynchronisation from hardware: seeded random runs that restart at random points and rebuild a
// fresh context from the emulator's image, then go on with the rebuilt context and a new emulator
// that holds the same image; corrupt images and bad placements, refused with the entry named and
// nothing changed.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <sstream>

#include "RandomRuns.h"
#include "TcamFixture.h"
#include "sim/TcamImage.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;
using Kind = TcamHardwareEntry::Kind;

namespace {

// The model as snapshot() prints it, without the move and merge counts, which a rebuild starts
// again from zero.
std::string modelOf(const L3TcamManagerContext& ctx) {
   std::istringstream in(snapshot(ctx));
   std::string out, line;
   while (std::getline(in, line)) {
      if (line.rfind("moves ", 0) != 0) out += line + "\n";
   }
   return out;
}

// The caller's writes that give a new emulator the image: every route installed where it stands.
void install(const std::vector<TcamHardwareEntry>& image, sim::TcamEmulator& emu) {
   for (const TcamHardwareEntry& e : image) {
      if (e.kind == Kind::v4)
         emu.writeV4(e.pos, e.v4);
      else if (e.kind == Kind::mcast)
         emu.writeMcast(e.pos, e.mcast);
      else if (e.kind != Kind::v6DoubleSecond)
         emu.writeV6(e.pos, e.v6, e.kind == Kind::v6Double);
   }
}

L3TcamManagerContext::Config paired(bool dynamic, uint32_t size = 512) {
   auto cfg = layout(size, 2, 8, true);  // pair gap 64; at 512 entries the fixed border is 256
   cfg.supportsDefipPairing = true;
   cfg.dynamicV4V6Boundary = dynamic;
   return cfg;
}

struct Layout {
   const char* name;
   L3TcamManagerContext::Config cfg;
   bool urpf = false;
   bool ladder = false;  // IPv6 routes too, through addRoute6
};

std::vector<Layout> layouts() {
   auto interleaved = layout(512, 3, 8, true);
   interleaved.v4V6InterleavingDisabled = false;
   auto noSwap = layout(300, 2, 4, true);
   noSwap.requestedTableMode = 1;
   auto mcast = layout(512, 0, 0);
   mcast.v4Mcast = true;
   return {{.name = "separate, two per entry", .cfg = layout(512, 2, 8, true), .ladder = true},
           {.name = "separate, one per entry", .cfg = layout(512, 3, 8, false)},
           {.name = "uRPF", .cfg = layout(1024, 2, 8, true), .urpf = true},
           {.name = "fixed pairing border", .cfg = paired(false), .ladder = true},
           {.name = "interleaved", .cfg = interleaved, .ladder = true},
           {.name = "no swap area, odd size", .cfg = noSwap},
           {.name = "moving border", .cfg = paired(true, 1024), .ladder = true},
           {.name = "multicast", .cfg = mcast}};
}

// A seeded run of adds and deletes that fills the table until it refuses routes, drains it, and
// again; restart() rebuilds the context from the hardware image and goes on with it.
struct Churn {
   Churn(const Layout& lay, uint64_t seed) : l(lay), rng(seed), h(harness()) {
      p4 = makePool(rng, 1500);
      pm = makePoolM(rng, 1200);
      // Without pairing only single-size entries exist.
      const TcamBlock* half = h->ctx().block(RouteType::v6Half).get();
      p6 = makePool6(rng, 500, l.cfg.supportsDefipPairing || !half ? 128 : half->prefixLenMax());
   }

   void step(uint64_t op) {
      const size_t routes = in4.items.size() + in6.items.size() + inM.items.size();
      if (filling && refusedInARow > 20) filling = false;
      if (!filling && routes < 40) filling = true;
      const bool mcast = l.cfg.v4Mcast;
      const bool v6 = !mcast && l.ladder && rng() % 3 == 0;
      Present& in = mcast ? inM : v6 ? in6 : in4;
      const size_t n = mcast ? pm.size() : v6 ? p6.size() : p4.size();
      if (in.items.empty() || rng() % 100 < (filling ? 85u : 15u)) {
         size_t i = rng() % n;
         while (in.has(i))
            i = (i + 1) % n;
         const bool ok = mcast ? h->addM(pm[i]).routeId != 0
                         : !v6 ? h->add4(p4[i], rng() % 8 == 0).routeId != 0
                               : h->add6(p6[i]).routeId != 0;
         if (ok) in.add(i);
         refused += !ok;
         refusedInARow = ok ? 0 : refusedInARow + 1;
      } else {
         const size_t i = in.items[rng() % in.items.size()];
         if (mcast) {
            h->delM(pm[i]);
         } else if (v6) {
            h->del6(p6[i]);
         } else if (RouteReturnCode rc = h->del4(p4[i], rng() % 4 != 0, op); rc.canMerge) {
            h->merge4(p4[i], rc.routeId, rc.mergePos, op);
         }
         in.remove(i);
      }
   }

   // A restart: a fresh context of the same configuration rebuilt from the image must hold the
   // same model and pass its checks; a new emulator gets the same image. (Its emulator is still
   // empty during the rebuild, so a move or merge published then is a writer error.)
   void restart() {
      const std::string before = modelOf(h->ctx());
      const std::vector<TcamHardwareEntry> image = sim::imageOf(h->emu());
      std::unique_ptr<TcamHarness> next = harness();
      next->ctx().rebuildFromHardware(image, h->ctx().v4V6Border());
      ASSERT_EQ(modelOf(next->ctx()), before);
      install(image, next->emu());
      next->check(true);
      h = std::move(next);
   }

   std::unique_ptr<TcamHarness> harness() {
      auto t = std::make_unique<TcamHarness>(l.cfg, l.urpf);
      if (l.ladder) {
         // Routes converted between the two sizes take the size of the region they land in.
         L3TcamManagerContext* ctx = &t->ctx();
         t->emu().doubleSizeAtIs([ctx](uint32_t pos) { return pos < ctx->v6()->tcamBorder(); });
      }
      return t;
   }

   Layout l;
   std::mt19937_64 rng;
   std::unique_ptr<TcamHarness> h;
   std::vector<Ipv4UcastKey> p4;
   std::vector<Ipv6UcastKey> p6;
   std::vector<IpMcastPrefixKey> pm;
   Present in4, in6, inM;
   bool filling = true;
   uint32_t refusedInARow = 0;
   uint64_t refused = 0;
};

TcamHardwareEntry e4(uint32_t pos, const Ipv4UcastKey& right,
                     std::optional<Ipv4UcastKey> left = {}) {
   TcamHardwareEntry e;
   e.pos = pos;
   e.v4 = Ipv4Keys(left.value_or(Ipv4UcastKey::nullKey(right.vrfId)), right);
   return e;
}
TcamHardwareEntry e6(uint32_t pos, Kind kind, const Ipv6UcastKey& key) {
   TcamHardwareEntry e;
   e.pos = pos;
   e.kind = kind;
   e.v6 = key;
   return e;
}

// The range error that f raises, after checking that it left ctx exactly as it was.
std::string refusal(const L3TcamManagerContext& ctx, const std::function<void()>& f) {
   const std::string before = snapshot(ctx);
   try {
      f();
   } catch (const std::range_error& e) {
      EXPECT_EQ(snapshot(ctx), before) << e.what();
      return e.what();
   }
   return "no refusal";
}

// The same for rebuilding `image` into a fresh context.
std::string refusal(const L3TcamManagerContext::Config& cfg,
                    const std::vector<TcamHardwareEntry>& image,
                    std::optional<uint32_t> border = std::nullopt) {
   TcamHarness h(cfg);
   return refusal(h.ctx(), [&] { h.ctx().rebuildFromHardware(image, border); });
}

const Ipv4UcastKey a24 = k4(1, "10.0.0.0/24"), b24 = k4(2, "10.0.1.0/24"),
                   c16 = k4(1, "10.1.0.0/16");
const Ipv6UcastKey d80 = k6(1, "2001:db8::/80");

}  // namespace

// Runs churn with restarts on every layout, the placement and border move set by `optIn`.
void restartsRebuildTheSameModel(uint64_t seed, const std::function<void(Layout&)>& optIn) {
   Ulo::ScopedThrowingAssertHandler guard;
   const uint64_t ops = envNumber("VEXLO_RANDOM_OPS", 4000);
   for (Layout l : layouts()) {
      SCOPED_TRACE(l.name);
      optIn(l);
      try {
         Churn run(l, seed++);
         std::mt19937_64 when(seed);
         uint64_t next = 1 + when() % 600;
         for (uint64_t op = 0; op < ops; ++op) {
            SCOPED_TRACE(::testing::Message() << "op " << op);
            run.step(op);
            if (op == next) {
               run.restart();
               next += 1 + when() % 600;
            }
            if (::testing::Test::HasFatalFailure()) return;
         }
         run.restart();
         EXPECT_GT(run.refused, 0u) << "the run never filled the table";
      } catch (const Ulo::AssertionFailure& f) {
         FAIL() << f.what();
      }
   }
}

TEST(TcamResync, RestartsRebuildTheSameModelOnEveryLayout) {
   restartsRebuildTheSameModel(envNumber("VEXLO_RANDOM_SEED", 1) + 10, [](Layout&) {});
}

// A weighted table is laid out differently but rebuilds just as exactly: nothing of the policy
// lives outside the positions the hardware holds.
TEST(TcamResync, WeightedTablesRebuildTheSameModel) {
   restartsRebuildTheSameModel(envNumber("VEXLO_RANDOM_SEED", 1) + 50, [](Layout& l) {
      l.cfg.placementPolicy = PlacementPolicy::weighted;
      l.cfg.borderMoveInRanges = true;
   });
}

// Placing an image's routes one half at a time in random order gives the model that a rebuild
// gives, half-full tracking included.
TEST(TcamResync, AtIndexPlacementsInAnyOrderMatchTheRebuild) {
   Ulo::ScopedThrowingAssertHandler guard;
   for (const Layout& l : layouts()) {
      // Placements at an index keep the border of the layout: a moving border is restored by
      // the rebuild only.
      if (!l.cfg.v4Mcast &&
          !(l.ladder && l.cfg.twoV4RoutesPerEntry && !l.cfg.dynamicV4V6Boundary)) {
         continue;
      }
      SCOPED_TRACE(l.name);
      Churn run(l, 77);
      for (uint64_t op = 0; op < 1500; ++op)
         run.step(op);
      std::vector<TcamHardwareEntry> image = sim::imageOf(run.h->emu());
      std::vector<std::pair<TcamHardwareEntry, bool>> halves;  // an entry, and its right half?
      for (TcamHardwareEntry& e : image) {
         // A half placed alone gets its own VRF as the empty half's filler.
         if (e.kind == Kind::v4 && e.v4.left.isNull())
            e.v4.left = Ipv4UcastKey::nullKey(e.v4.right.vrfId);
         if (e.kind == Kind::v4 && e.v4.right.isNull())
            e.v4.right = Ipv4UcastKey::nullKey(e.v4.left.vrfId);
         if (e.kind != Kind::v6DoubleSecond && (e.kind != Kind::v4 || !e.v4.right.isNull()))
            halves.emplace_back(e, true);
         if (e.kind == Kind::v4 && !e.v4.left.isNull()) halves.emplace_back(e, false);
      }
      std::shuffle(halves.begin(), halves.end(), std::mt19937_64(5));
      TcamHarness rebuilt(l.cfg), placed(l.cfg);
      rebuilt.ctx().rebuildFromHardware(image, run.h->ctx().v4V6Border());
      for (const auto& [e, right] : halves) {
         RouteReturnCode rc;
         if (e.kind == Kind::v4) {
            rc = placed.ctx().addRoute4AtIndex(right ? e.v4.right : e.v4.left, e.pos, right);
            EXPECT_EQ(rc.tcamV4RightKey, right);
         } else if (e.kind == Kind::mcast) {
            rc = placed.ctx().addMroute4AtIndex(e.mcast, e.pos);
         } else {
            rc = placed.ctx().addRoute6AtIndex(e.v6, e.pos);
         }
         ASSERT_EQ(rc.routeId, e.pos);
      }
      EXPECT_EQ(modelOf(placed.ctx()), modelOf(rebuilt.ctx()));
      placed.ctx().verify();
   }
}

// The hardware holds one free entry fewer than the IPv4 swap reserve, and a /16 entry with a free
// right half (a platform that ran with a smaller reserve). Rebuilt or placed entry by entry, the
// model must not expect the reserve kept, since filling that right half (always allowed) leaves
// it short.
TEST(TcamResync, RestartPastTheIpv4SwapReserveNoLongerExpectsItKept) {
   Ulo::ScopedThrowingAssertHandler guard;
   const auto cfg = layout(256, 2, 8, true);
   TcamHarness h(cfg);
   const uint32_t swap = h.ctx().swapAreaSize(RouteType::v4);
   ASSERT_EQ(swap, 32u);
   for (RouteType t : allRouteTypes)
      h.ctx().swapAreaSizeIs(t, 0);
   for (uint32_t i = 0; h.ctx().entriesFree(RouteType::v4) > swap || h.ctx().v4()->halfFull(24);
        ++i)
      ASSERT_NE(h.add4(k4(1, fmt::format("10.{}.{}.0/24", i / 256, i % 256).c_str())).routeId, 0u);
   const Ipv4UcastKey b16 = k4(1, "20.2.0.0/16");
   const uint32_t pos = h.add4(b16).routeId;
   ASSERT_EQ(h.ctx().entriesFree(RouteType::v4), swap - 1);
   std::vector<TcamHardwareEntry> image = sim::imageOf(h.emu());
   for (TcamHardwareEntry& e : image)
      if (e.pos == pos) e.v4 = Ipv4Keys(b16, Ipv4UcastKey::nullKey(b16.vrfId));  // left, right

   TcamHarness rebuilt(cfg), placed(cfg);
   rebuilt.ctx().rebuildFromHardware(image);
   for (const TcamHardwareEntry& e : image) {
      if (!e.v4.right.isNull()) placed.ctx().addRoute4AtIndex(e.v4.right, e.pos, true);
      if (!e.v4.left.isNull()) placed.ctx().addRoute4AtIndex(e.v4.left, e.pos, false);
   }
   for (TcamHarness* t : {&rebuilt, &placed}) {
      EXPECT_FALSE(t->ctx().swapReserveKept());
      install(image, t->emu());
      const RouteReturnCode rc = t->add4(k4(1, "20.3.0.0/16"));
      EXPECT_EQ(rc.routeId, pos);
      EXPECT_TRUE(rc.tcamV4RightKey);
      EXPECT_EQ(t->add4(k4(1, "30.0.0.0/24")).routeId, 0u) << "the reserve is short";
   }
}

TEST(TcamResync, CorruptImageIsRefusedNamingTheEntryAndChangesNothing) {
   Ulo::ScopedThrowingAssertHandler guard;
   const auto separate = layout(512, 2, 8, true), single = layout(512, 2, 8, false),
              pairing = paired(false);
   auto refused = [](const char* name, const L3TcamManagerContext::Config& cfg,
                     const std::vector<TcamHardwareEntry>& image, const std::string& what) {
      SCOPED_TRACE(name);
      const std::string got = refusal(cfg, image);
      EXPECT_EQ(got.rfind("rebuildFromHardware: " + what, 0), 0u) << got;
   };
   refused("length order", separate, {e4(300, a24), e4(310, c16), e4(320, b24)},
           "entry 320, key 10.0.1.0/24(vrf2): out of length order");
   refused("partner missing", pairing, {e6(5, Kind::v6Double, d80), e4(300, a24)},
           "entry 5, key 2001:db8::/80(vrf1): partner missing");
   refused("partner with another key", pairing,
           {e6(5, Kind::v6Double, d80), e6(69, Kind::v6DoubleSecond, k6(2, "2001:db8::/80"))},
           "entry 5, key 2001:db8::/80(vrf1): partner missing");
   refused("first missing", pairing, {e6(69, Kind::v6DoubleSecond, d80)},
           "entry 69, key 2001:db8::/80(vrf1): second entry");
   refused("twin length", separate, {e4(300, a24, k4(1, "10.0.2.0/23"))},
           "entry 300, key 10.0.2.0/23(vrf1): prefix length 23 differs from its twin's, 24");
   refused("reserved entry", separate, {e4(64, a24)},
           "entry 64, key 10.0.0.0/24(vrf1): the entry is reserved");
   refused("duplicate key", separate, {e4(300, a24), e4(301, b24, a24)},
           "entry 301, key 10.0.0.0/24(vrf1): duplicate key, already at entry 300");
   refused("left half alone, one route per entry", single,
           {e4(300, Ipv4UcastKey::nullKey(VrfId(1)), a24)},
           "entry 300, key 10.0.0.0/24(vrf1): a left half without a right half");
   refused("not ascending", separate, {e4(300, a24), e4(200, c16)},
           "entry 200: not in ascending order");
   refused("same index twice", separate, {e4(300, a24), e4(300, b24)},
           "entry 300: a second image entry");
   refused("single size below the border", pairing, {e6(5, Kind::v6Single, d80)},
           "entry 5, key 2001:db8::/80(vrf1): single-size entry below the IPv6 border 256");
   refused("double size above the border", pairing,
           {e6(300, Kind::v6Double, d80), e6(364, Kind::v6DoubleSecond, d80)},
           "entry 300, key 2001:db8::/80(vrf1): double-size entry at or above the IPv6 border 256");
   refused("outside the block", pairing, {e4(100, a24)},
           "entry 100, key 10.0.0.0/24(vrf1): outside the IPv4 block 256/511");
}

TEST(TcamResync, AtIndexRefusesWhatCannotBeAValidModelAndChangesNothing) {
   Ulo::ScopedThrowingAssertHandler guard;
   TcamHarness h(paired(false));
   L3TcamManagerContext& ctx = h.ctx();
   EXPECT_EQ(ctx.addRoute4AtIndex(a24, 300, true).routeId, 300u);
   EXPECT_EQ(ctx.addRoute4AtIndex(c16, 400, true).routeId, 400u);
   EXPECT_EQ(ctx.addRoute6AtIndex(d80, 5).routeId, 5u);
   ctx.verify();  // which checks the half-full tracking and finds the partner entry 69 taken
   EXPECT_EQ(refusal(ctx, [&] { ctx.addRoute4AtIndex(b24, 300, true); }),
             "addRoute4AtIndex: entry 300, key 10.0.1.0/24(vrf2): the right half already holds "
             "10.0.0.0/24(vrf1)");
   EXPECT_EQ(refusal(ctx, [&] { ctx.addRoute4AtIndex(k4(1, "10.2.0.0/16"), 300, false); }),
             "addRoute4AtIndex: entry 300, key 10.2.0.0/16(vrf1): prefix length 16 differs from "
             "its twin's, 24 (10.0.0.0/24(vrf1))");
   EXPECT_EQ(refusal(ctx, [&] { ctx.addRoute4AtIndex(b24, 450, true); }),
             "addRoute4AtIndex: entry 450, key 10.0.1.0/24(vrf2): out of length order: prefix "
             "length 24 at or after the shorter length 16 (range 400/400)");
   EXPECT_EQ(refusal(ctx, [&] { ctx.addRoute4AtIndex(a24, 301, true); }),
             "addRoute4AtIndex: entry 301, key 10.0.0.0/24(vrf1): duplicate key, already at entry "
             "300");
   EXPECT_EQ(refusal(ctx, [&] { ctx.addRoute6AtIndex(k6(1, "2001:db8:1::/80"), 69); }),
             "addRoute6AtIndex: entry 69, key 2001:db8:1::/80(vrf1): not the first entry of a pair "
             "(pair gap 64)");
   EXPECT_EQ(refusal(ctx, [&] { ctx.addRoute6AtIndex(k6(1, "2001:db8:1::/80"), 300); }),
             "addRoute6AtIndex: entry 300, key 2001:db8:1::/80(vrf1): outside the single-size IPv6 "
             "block 0/0 (IPv6 border 256)");
   EXPECT_EQ(refusal(ctx, [&] { ctx.addMroute4AtIndex(IpMcastPrefixKey(), 7); })
                 .rfind("addMroute4AtIndex: entry 7", 0),
             0u);
   // The second half fills the tracked entry (verify: nothing half-full is left of that length).
   EXPECT_EQ(ctx.addRoute4AtIndex(b24, 300, false).routeId, 300u);
   ctx.verify();
}

TEST(TcamResync, MovingBorderIsTheGivenOneOrTheLowestThatFitsTheImage) {
   Ulo::ScopedThrowingAssertHandler guard;
   // Pair gap 64: borders are multiples of 128, and the lowest found is a multiple of 256.
   const std::vector<TcamHardwareEntry> image = {e6(1, Kind::v6Double, d80),
                                                 e6(65, Kind::v6DoubleSecond, d80), e4(300, a24)};
   for (const auto& [given, border] :
        {std::pair<std::optional<uint32_t>, uint32_t>{{}, 256}, {128u, 128}}) {
      SCOPED_TRACE(border);
      TcamHarness h(paired(true));
      h.ctx().rebuildFromHardware(image, given);
      EXPECT_EQ(h.ctx().v4V6Border(), border);
      h.ctx().verify();  // the blocks and the IPv6 mapping follow the border
   }
   std::vector<TcamHardwareEntry> low = image;
   low.back().pos = 200;
   EXPECT_EQ(refusal(paired(true), low),
             "rebuildFromHardware: entry 200, key 10.0.0.0/24(vrf1): IPv4 entry below 256, the "
             "lowest border that clears the double-size IPv6 routes");
   EXPECT_EQ(refusal(paired(true), image, 100).rfind("rebuildFromHardware: border 100", 0), 0u);
   EXPECT_EQ(refusal(paired(true), low, 0).rfind("rebuildFromHardware: entry 1,", 0), 0u);
   EXPECT_EQ(refusal(paired(false), image, 128),
             "rebuildFromHardware: border 128 given, but this layout's border is fixed at 256");
}

TEST(TcamResync, RebuildingAContextThatHoldsRoutesIsFatal) {
   TcamHarness h(layout(512, 2, 8, true));
   h.add4(a24);
   EXPECT_EQ(failureOf([&] { h.ctx().rebuildFromHardware({e4(300, b24)}); }),
             "rebuildFromHardware: context empty");
}
