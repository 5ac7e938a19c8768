// verify() against models broken behind the engine's back: each case changes one record through
// the handles the context exposes, and verify() must name the first check that disagrees. Where a
// break upsets several records, the expected text pins down the order in which verify() checks.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "TcamFixture.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

using Break = std::function<void(L3TcamManagerContext&)>;

// The first entry of the block of t that no route type holds and that is not reserved.
uint32_t freeEntry(const L3TcamManagerContext& ctx, RouteType t) {
   const TcamBlock& blk = *ctx.block(t);
   for (uint32_t p = blk.start(); p <= blk.end(); ++p) {
      if (p != 0 && !ctx.bitmap()->isBitSet(p)) return p;
   }
   ADD_FAILURE() << fmt::format("no free entry in the block of {}", t);
   return 0;
}

uint32_t freePair(const L3TcamManagerContext& ctx) {
   const HBitmap& pairs = *ctx.bitmapPair();
   return pairs.findFirstClear(0, pairs.size() - 1);
}

// A unicast model with both IPv4 halves of one entry taken, a lone /16, and two IPv6 routes.
void populateUnicast(TcamHarness& h) {
   h.add4(k4(1, "10.1.1.0/24"));
   h.add4(k4(1, "10.1.2.0/24"));
   h.add4(k4(1, "10.2.0.0/16"));
   ASSERT_NE(h.add6(k6(1, "2001:db8::/64")).routeId, 0u);
   ASSERT_NE(h.add6(k6(1, "2001:db9::/48")).routeId, 0u);
}

std::string brokenUnicast(const Break& breakIt) {
   TcamHarness h(layout(8192, 2, 8));
   populateUnicast(h);
   breakIt(h.ctx());
   return failureOf([&] { h.ctx().verify(); });
}

}  // namespace

TEST(TcamVerify, NamesTheFirstBrokenRecordOfAUnicastModel) {
   const std::pair<const char*, Break> cases[] = {
       {"verify: longer prefixes below shorter ones",
        [](L3TcamManagerContext& c) {
           TcamBlock& blk = *c.block(RouteType::v4);
           blk.lengthRangeIs(16, blk.lengthRange(24));
        }},
       // A length without routes tracks a full entry.
       {"verify: tracked half-full entry",
        [](L3TcamManagerContext& c) {
           c.v4()->halfFullIs(20, c.getKeyV4ToEntryId(k4(1, "10.1.1.0/24")));
        }},
       {"verify: IPv4 routes per length",
        [](L3TcamManagerContext& c) { c.stats()->maskLengthsIpv4Inc(16, 1); }},
       // The entry count of the IPv4 block is checked before the occupancy bitmap that the
       // stray entry upsets too.
       {"verify: IPv4 entries counted",
        [](L3TcamManagerContext& c) {
           c.updateBitmaps(RouteType::v4, freeEntry(c, RouteType::v4), 0);
        }},
       {"verify: single-size entries counted",
        [](L3TcamManagerContext& c) {
           c.updateBitmaps(RouteType::v6Half, freeEntry(c, RouteType::v6Half), 0);
        }},
       {"verify: IPv6 routes per length",
        [](L3TcamManagerContext& c) { c.stats()->maskLengthsIpv6Inc(48, 1); }},
       // The entry bitmap is compared before the pair bitmap.
       {"verify: bitmap",
        [](L3TcamManagerContext& c) {
           c.bitmapPair()->setBit(freePair(c));
           c.bitmap()->setBit(freeEntry(c, RouteType::v4));
        }},
       {"verify: bitmapPair", [](L3TcamManagerContext& c) { c.bitmapPair()->setBit(freePair(c)); }},
   };
   for (const auto& [text, breakIt] : cases) {
      EXPECT_EQ(brokenUnicast(breakIt), text);
   }
}

TEST(TcamVerify, BordersFollowTheLayout) {
   // A fixed pairing border starts the IPv4 block.
   auto fixed = layout(8192, 2, 8, false);
   fixed.supportsDefipPairing = true;
   TcamHarness f(fixed);
   f.ctx().block(RouteType::v4)->startIs(f.ctx().v4V6Border() + 1);
   EXPECT_EQ(failureOf([&] { f.ctx().verify(); }), "verify: pairing border");

   // A moving border keeps the IPv6 mapping's border in step with the blocks.
   auto moving = fixed;
   moving.dynamicV4V6Boundary = true;
   TcamHarness m(moving);
   m.ctx().v6()->tcamBorderIs(2 * m.ctx().lpmPairGap());
   EXPECT_EQ(failureOf([&] { m.ctx().verify(); }), "verify: blocks follow the border");
}

TEST(TcamVerify, NamesTheFirstBrokenRecordOfAMulticastModel) {
   auto cfg = layout(256, 0, 0);
   cfg.v4Mcast = true;
   auto g = [](const char* group, const char* src, uint8_t len) {
      return IpMcastPrefixKey(1, 0, Ulo::IpGenAddr::fromString(group),
                              Ulo::IpGenAddr::fromString(src), len);
   };
   auto broken = [&](const Break& breakIt) {
      TcamHarness h(cfg);
      h.addM(g("239.1.1.1", "0.0.0.0", 32));
      h.addM(g("239.1.1.1", "10.0.0.1", 64));
      breakIt(h.ctx());
      return failureOf([&] { h.ctx().verify(); });
   };
   EXPECT_EQ(broken([](L3TcamManagerContext& c) { c.stats()->maskLengthsMcastIpv4Inc(32, 1); }),
             "verify: multicast routes per length");
   // The block's entry count is checked before the occupancy bitmap that the stray entry upsets.
   EXPECT_EQ(broken([](L3TcamManagerContext& c) {
                c.updateBitmaps(RouteType::v4Mcast, freeEntry(c, RouteType::v4Mcast), 0);
             }),
             "verify: multicast entries counted");
   EXPECT_EQ(broken([](L3TcamManagerContext& c) {
                c.bitmap()->setBit(freeEntry(c, RouteType::v4Mcast));
             }),
             "verify: bitmap");
}

namespace {

// A route placed with useSwapArea takes the IPv4 swap reserve; deletes that free it again make
// the reserve whole, and from then on verify() checks it again: placements that keep out of it
// stop at the reserve and leave it whole.
TEST(TcamVerify, SwapReserveIsCheckedAgainOnceDeletesFreeIt) {
   TcamHarness h(layout(256, 2, 8, false));
   const uint32_t swap = h.ctx().swapAreaSize(RouteType::v4);
   ASSERT_GT(swap, 1u);
   std::vector<Ipv4UcastKey> placed;
   for (uint32_t i = 0; h.ctx().entriesFree(RouteType::v4) > swap; ++i) {
      placed.push_back(k4(1, fmt::format("10.{}.{}.0/24", i / 256, i % 256).c_str()));
      ASSERT_NE(h.add4(placed.back()).routeId, 0u);
   }
   EXPECT_TRUE(h.ctx().swapReserveKept());
   EXPECT_EQ(h.add4(k4(1, "20.0.0.0/16")).routeId, 0u) << "the reserve stops an ordinary add";
   for (uint32_t i = 0; i < 3; ++i) {
      placed.push_back(k4(1, fmt::format("30.0.{}.0/24", i).c_str()));
      ASSERT_NE(h.add4(placed.back(), /*useSwapArea*/ true).routeId, 0u);
   }
   EXPECT_FALSE(h.ctx().swapReserveKept());
   h.del4(placed.back());
   placed.pop_back();
   EXPECT_FALSE(h.ctx().swapReserveKept()) << "two reserve entries still taken";
   for (int i = 0; i < 2; ++i) {
      h.del4(placed.back());
      placed.pop_back();
   }
   EXPECT_TRUE(h.ctx().swapReserveKept()) << "the reserve is whole again";
   EXPECT_EQ(h.add4(k4(1, "20.0.0.0/16")).routeId, 0u);
   // verify() checks the reserve again: a model that lost it behind the engine's back fails.
   const uint32_t p = freeEntry(h.ctx(), RouteType::v4);
   h.ctx().bitmap()->setBit(p);
   EXPECT_EQ(failureOf([&] { h.ctx().verify(); }), "( v4Free + v4HalfUsed ) >= v4Swap");
}

}  // namespace

namespace {

// verifyEntries sees a break at the entries it is given, and the breaks of the whole model that
// cost no pass over the table, with the same texts as verify(); a break elsewhere waits for
// verify().
TEST(TcamVerify, EntriesNamesABreakAtAnEntryItIsGivenOrAnywhereInTheCounts) {
   struct Case {
      const char* text;
      std::function<uint32_t(L3TcamManagerContext&)> breakIt;  // returns the entry to give
   };
   const Case cases[] = {
       {"verify: bitmap",
        [](L3TcamManagerContext& c) {
           const uint32_t p = freeEntry(c, RouteType::v4);
           c.bitmap()->setBit(p);
           return p;
        }},
       // The lone /16's range ends on the entry that no longer counts as used.
       {"verify: range ends on used entries",
        [](L3TcamManagerContext& c) {
           const uint32_t p = c.getKeyV4ToEntryId(k4(1, "10.2.0.0/16"));
           c.block(RouteType::v4)->bitmap()->clearBit(p);
           return p;
        }},
       {"verify: tracked half-full entry",
        [](L3TcamManagerContext& c) {
           c.v4()->halfFullIs(20, c.getKeyV4ToEntryId(k4(1, "10.1.1.0/24")));
           return 0u;
        }},
       {"verify: IPv4 keys counted",
        [](L3TcamManagerContext& c) {
           c.stats()->maskLengthsIpv4Inc(16, 1);
           return 0u;
        }},
   };
   for (const Case& k : cases) {
      TcamHarness h(layout(8192, 2, 8));
      populateUnicast(h);
      const uint32_t pos = k.breakIt(h.ctx());
      EXPECT_EQ(failureOf([&] { h.ctx().verifyEntries({pos}); }), k.text);
   }
   // A stray used entry away from the entries given is verify()'s to find.
   TcamHarness h(layout(8192, 2, 8));
   populateUnicast(h);
   const uint32_t stray = freeEntry(h.ctx(), RouteType::v4);
   h.ctx().bitmap()->setBit(stray);
   EXPECT_EQ(failureOf([&] { h.ctx().verifyEntries({stray + 1}); }), "no failure");
   EXPECT_EQ(failureOf([&] { h.ctx().verify(); }), "verify: bitmap");
}

}  // namespace
