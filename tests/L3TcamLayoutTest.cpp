#include <gtest/gtest.h>

#include <cstdlib>

#include "VexloL3Common/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

using namespace VexloL3Common;

namespace {

L3TcamManagerContext::Config unicast(uint32_t size, uint32_t mode, uint8_t blocks) {
   L3TcamManagerContext::Config c;
   c.tcamSize = size;
   c.tcamMode = mode;
   c.numUcastDefipBlocks = blocks;
   c.routeMove = routeMoveFactory();
   c.routeMoveStatus = routeMoveFactory();
   c.routeMerge = routeMergeFactory();
   c.routeMergeStatus = routeMergeFactory();
   return c;
}

Ulo::Ptr<L3TcamManagerContext> up(const L3TcamManagerContext::Config& c, bool urpf = false) {
   auto status = std::make_shared<Ulo::RoutingStatus>();
   status->urpfEnabledIs(urpf);
   L3TcamManagerContext::Config cfg = c;
   cfg.globalRoutingStatus = status;
   auto ctx = l3TcamManagerContextFactory(cfg);
   ctx->handleInitialized(true);
   return ctx;
}

IndexRange range(const L3TcamManagerContext& ctx, RouteType t) {
   return IndexRange(ctx.block(t)->start(), ctx.block(t)->end());
}

// Runs f with VEXLOL3COMMON_TCAM_SIZE set (or unset) and restores it afterwards.
template <class F>
void withSizeVariable(const char* value, F f) {
   const char* old = std::getenv("VEXLOL3COMMON_TCAM_SIZE");
   std::string saved = old ? old : "";
   if (value)
      setenv("VEXLOL3COMMON_TCAM_SIZE", value, 1);
   else
      unsetenv("VEXLOL3COMMON_TCAM_SIZE");
   f();
   if (old)
      setenv("VEXLOL3COMMON_TCAM_SIZE", saved.c_str(), 1);
   else
      unsetenv("VEXLOL3COMMON_TCAM_SIZE");
}

std::string failureText(const std::function<void()>& f) {
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      f();
   } catch (const Ulo::AssertionFailure& e) {
      return e.text;
   }
   return "no failure";
}

}  // namespace

TEST(TcamLayout, SeparateLayoutMode2) {
   withSizeVariable(nullptr, [] {
      Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 1);
      auto ctx = up(unicast(8192, 2, 8));
      EXPECT_TRUE(
          cap.contains("doCreateBlocks TcamSize: 8192, tcamMode: 2, effective size: 8192, "
                       "blockSize: 1024, border: 4096, urpfEnabled: false"));
      EXPECT_TRUE(cap.contains("handleInitialized using default invalid entry manager"));
      EXPECT_EQ(ctx->effectiveSize(), 8192u);
      EXPECT_EQ(ctx->lpmPairGap(), 1024u);
      EXPECT_EQ(range(*ctx, RouteType::v4), IndexRange(1, 8191));
      EXPECT_EQ(range(*ctx, RouteType::v6Full), IndexRange(1, 4095));
      EXPECT_EQ(range(*ctx, RouteType::v6Half), IndexRange(4096, 8191));
      EXPECT_EQ(ctx->block(RouteType::v6Full)->prefixLenMin(), 64u);
      EXPECT_EQ(ctx->block(RouteType::v6Half)->prefixLenMax(), 64u);
      EXPECT_EQ(ctx->v6()->tcamBorder(), 4096u);
      EXPECT_EQ(ctx->bitmap()->count(), 2u);
      EXPECT_TRUE(ctx->bitmap()->isBitSet(0));
      EXPECT_TRUE(ctx->bitmap()->isBitSet(1024));
      EXPECT_EQ(ctx->numReservedEntriesInBitmap(), 2u);
      EXPECT_EQ(ctx->bitmapPair()->size(), 4096u);
      EXPECT_EQ(ctx->bitmapPair()->count(), 1u);
      EXPECT_EQ(ctx->block(RouteType::v6Full)->bitmap()->size(), 4096u);
      EXPECT_EQ(ctx->block(RouteType::v4Mcast), nullptr);
      // Modes equal and initialised: the swap area is in force.
      EXPECT_EQ(ctx->swapArea(), 32u);
      EXPECT_TRUE(ctx->useSwapArea());
      EXPECT_TRUE(ctx->swapAreaHalf());
      EXPECT_EQ(ctx->entriesFree(RouteType::v4), 8191u - 1u);
      ctx->verify();
   });
}

TEST(TcamLayout, Mode4BorderIsTheWholeTable) {
   for (uint8_t blocks : {uint8_t(4), uint8_t(8)}) {
      auto ctx = up(unicast(8192, 4, blocks));
      EXPECT_EQ(ctx->v6()->tcamBorder(), 8192u) << int(blocks);
      EXPECT_FALSE(ctx->block(RouteType::v6Half)->isValid());
      EXPECT_EQ(range(*ctx, RouteType::v6Full), IndexRange(1, 8191));
      EXPECT_FALSE(ctx->swapAreaHalf());
   }
}

TEST(TcamLayout, UrpfHalvesTheTable) {
   auto ctx = up(unicast(8192, 4, 8), true);
   EXPECT_TRUE(ctx->urpfEnabled());
   EXPECT_EQ(ctx->effectiveSize(), 4096u);
   EXPECT_EQ(ctx->lpmPairGap(), 1024u);
   EXPECT_EQ(ctx->v6()->tcamBorder(), 4096u);
   EXPECT_EQ(range(*ctx, RouteType::v4), IndexRange(1, 4095));
   ctx->verify();

   auto withFallback = unicast(8192, 2, 8);
   withFallback.fallbackVrfId = VrfId(3);
   EXPECT_EQ(failureText([&] { up(withFallback, true); }),
             "fallbackVrfId() == Ulo::VrfId::invalidVrfId()");
   EXPECT_EQ(failureText([&] { up(unicast(8192, 3, 8), true); }), "mode == 2 || mode == 4");
   EXPECT_EQ(failureText([&] { up(withFallback); }), "no failure");
   withFallback.tcamMode = 1;
   EXPECT_EQ(failureText([&] { up(withFallback); }), "mode == 2 || mode == 4");
}

TEST(TcamLayout, FallbackVrfUsesQuarterBlocks) {
   auto c = unicast(8192, 4, 8);
   c.fallbackVrfId = VrfId(9);
   auto ctx = up(c);
   EXPECT_EQ(ctx->lpmPairGap(), 2048u);
   EXPECT_EQ(ctx->v6()->tcamBorder(), 8192u);  // (4 / 2) x 2048 x 2
}

TEST(TcamLayout, PairGapUnlessTheSizeVariableIsPresent) {
   auto c = unicast(8192, 2, 8);
   c.pairGap = 512;
   withSizeVariable(nullptr, [&] {
      auto ctx = up(c);
      EXPECT_EQ(ctx->lpmPairGap(), 512u);
      EXPECT_TRUE(ctx->bitmap()->isBitSet(512));
      EXPECT_FALSE(ctx->bitmap()->isBitSet(1024));
   });
   withSizeVariable("", [&] {
      auto ctx = up(c);
      EXPECT_EQ(ctx->lpmPairGap(), 1024u);
      EXPECT_TRUE(ctx->bitmap()->isBitSet(1024));
   });
}

TEST(TcamLayout, InterleavedLayoutKeepsNoBorder) {
   auto c = unicast(8192, 2, 8);
   c.v4V6InterleavingDisabled = false;
   auto ctx = up(c);
   EXPECT_EQ(ctx->v6()->tcamBorder(), 0u);
   EXPECT_FALSE(ctx->block(RouteType::v6Full)->isValid());
   EXPECT_FALSE(ctx->block(RouteType::v6Half)->isValid());  // start = border = 0
   EXPECT_EQ(ctx->bitmap()->count(), 1u);
   EXPECT_EQ(ctx->numReservedEntriesInBitmap(), 1u);

   c.supportsDefipPairing = true;
   auto paired = up(c);
   EXPECT_EQ(range(*paired, RouteType::v6Half), IndexRange(1, 8191));
   EXPECT_EQ(paired->block(RouteType::v6Half)->prefixLenMax(), 128u);
   EXPECT_FALSE(paired->block(RouteType::v6Full)->isValid());
}

TEST(TcamLayout, FixedPairingBorder) {
   auto c = unicast(8192, 2, 8);
   c.supportsDefipPairing = true;
   auto ctx = up(c);
   EXPECT_EQ(ctx->v4V6Border(), 4096u);
   EXPECT_EQ(range(*ctx, RouteType::v4), IndexRange(4096, 8191));
   EXPECT_EQ(range(*ctx, RouteType::v6Full), IndexRange(1, 4095));
   EXPECT_EQ(ctx->block(RouteType::v6Full)->prefixLenMin(), 0u);
   EXPECT_FALSE(ctx->block(RouteType::v6Half)->isValid());
   // Pair numbering: pairs fill the lower bank of every double bank.
   EXPECT_EQ(ctx->pairToPhysical(1023), 1023u);
   EXPECT_EQ(ctx->pairToPhysical(1024), 2048u);
   EXPECT_EQ(ctx->physicalToPair(2048), 1024u);
   EXPECT_EQ(ctx->physicalToPair(3072), 1024u);  // a second entry names its pair
   EXPECT_EQ(ctx->physicalBoundToPair(4095), 2047u);
   EXPECT_EQ(ctx->physicalBoundToPair(1), 1u);
}

TEST(TcamLayout, MulticastContext) {
   auto c = unicast(2048, 0, 0);
   c.v4Mcast = true;
   auto ctx = up(c);
   EXPECT_EQ(range(*ctx, RouteType::v4Mcast), IndexRange(1, 2047));
   EXPECT_EQ(ctx->block(RouteType::v4Mcast)->prefixLenMax(), 90u);
   EXPECT_EQ(ctx->bitmap()->size(), 2048u);
   EXPECT_EQ(ctx->bitmapPair()->size(), 1024u);
   EXPECT_EQ(ctx->lpmPairGap(), 0u);
   EXPECT_EQ(ctx->block(RouteType::v4), nullptr);
   EXPECT_NE(ctx->mcastV4(), nullptr);
   EXPECT_EQ(ctx->v4(), nullptr);
   ctx->verify();
}

namespace {
struct FourInvalid : LpmInvalidEntryManager {
   void allocateInvalidEntries(bool, const Ulo::Ptr<HBitmap>& bm) override {
      for (uint32_t i = 100; i <= 103; ++i)
         bm->setBit(i);
      invalidEntryRangeIs({100, 103});
      numInvalidEntriesBitmapInc(4);
   }
   void allocateInvalidEntriesPair(bool, const Ulo::Ptr<HBitmap>& bm) override {
      bm->setBit(7);
      invalidEntryRangePairIs({7, 7});
      numInvalidEntriesBitmapPairInc(1);
   }
};
}  // namespace

TEST(TcamLayout, InvalidEntryManagers) {
   auto c = unicast(8192, 2, 8);
   c.invalidEntryManagerType = 1;
   EXPECT_EQ(failureText([&] { up(c); }), "Please define new LPM InvalidEntryManager helper");

   auto ctx = l3TcamManagerContextFactory(c);
   auto mgr = std::make_shared<FourInvalid>();
   ctx->invalidEntryManagerIs(mgr);
   ctx->handleInitialized(true);
   EXPECT_FALSE(mgr->isEntryInvalid(99));
   EXPECT_TRUE(mgr->isEntryInvalid(100));
   EXPECT_TRUE(mgr->isEntryInvalid(103));
   EXPECT_FALSE(mgr->isEntryInvalid(104));
   EXPECT_TRUE(ctx->bitmap()->isBitSet(101));
   EXPECT_TRUE(ctx->bitmapPair()->isBitSet(7));
   EXPECT_EQ(ctx->entriesFree(RouteType::v4), 8191u - 1u - 4u);
   ctx->verify();

   LpmInvalidEntryManagerDefault none;
   EXPECT_FALSE(none.isEntryInvalid(0));
   EXPECT_FALSE(none.isEntryInvalid(100));
}

TEST(TcamLayout, InitialisationHappensOnce) {
   auto c = unicast(1024, 2, 8);
   c.requestedTableMode = 1;  // modes differ: no swap area
   auto ctx = up(c);
   EXPECT_EQ(ctx->swapArea(), 0u);
   EXPECT_FALSE(ctx->useSwapArea());
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 1);
   ctx->handleInitialized(true);
   EXPECT_EQ(cap.texts(), std::vector<std::string>{"Tcam table manager Ctx already initialized"});

   auto bad = unicast(1024, 5, 8);
   EXPECT_EQ(failureText([&] { up(bad); }), "tcamMode() >= 1 && tcamMode() <= 4");
}

TEST(TcamLayout, UnsupportedConfigurationsAreRefused) {
   auto z = unicast(1024, 2, 0);
   EXPECT_THROW(l3TcamManagerContextFactory(z), std::range_error);
   // Mode 2 on a table of two blocks would give IPv6 four blocks.
   auto ctx = l3TcamManagerContextFactory(unicast(1024, 2, 2));
   EXPECT_THROW(ctx->handleInitialized(true), std::range_error);
   EXPECT_FALSE(ctx->layoutDone());
}

TEST(TcamLayout, PairingLayoutsThatCannotBeServedAreRefused) {
   auto pairing = [](uint32_t mode, uint8_t blocks) {
      auto c = unicast(8192, mode, blocks);
      c.supportsDefipPairing = true;
      return c;
   };
   // Mode 1: double-size routes up to the pairing border 4096, single size from 2048 on.
   EXPECT_THROW(up(pairing(1, 8)), std::range_error);
   // Two blocks: the last pair below 4096 would have its partner at 8191, among IPv4 entries.
   EXPECT_THROW(up(pairing(4, 2)), std::range_error);
   EXPECT_THROW(up(pairing(2, 8), true), std::range_error);  // uRPF
   auto fallback = pairing(2, 8);
   fallback.fallbackVrfId = VrfId(2);
   EXPECT_THROW(up(fallback), std::range_error);
   EXPECT_NO_THROW(up(pairing(3, 8)));
   EXPECT_NO_THROW(up(pairing(4, 4)));
}
