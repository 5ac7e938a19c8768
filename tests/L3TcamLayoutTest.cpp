#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "TcamFixture.h"
#include "platform/Trace.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

Ulo::Ptr<L3TcamManagerContext> up(L3TcamManagerContext::Config c, bool urpf = false) {
   auto status = std::make_shared<Ulo::RoutingStatus>();
   status->urpfEnabledIs(urpf);
   c.globalRoutingStatus = status;
   auto ctx = l3TcamManagerContextFactory(c);
   ctx->handleInitialized(true);
   return ctx;
}

IndexRange range(const L3TcamManagerContext& ctx, RouteType t) {
   return IndexRange(ctx.block(t)->start(), ctx.block(t)->end());
}

// Runs f with VEXLOL3COMMON_TCAM_SIZE set (or unset) and restores it afterwards.
template <class F>
void withSizeVariable(const char* value, F f) {
   constexpr const char* kName = "VEXLOL3COMMON_TCAM_SIZE";
   const char* old = std::getenv(kName);
   const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
   auto set = [&](const char* v) { v ? setenv(kName, v, 1) : unsetenv(kName); };
   set(value);
   f();
   set(saved ? saved->c_str() : nullptr);
}

}  // namespace

TEST(TcamLayout, SeparateLayoutMode2) {
   withSizeVariable(nullptr, [] {
      Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 1);
      auto ctx = up(layout(8192, 2, 8, false));
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

// A fallback VRF uses quarter blocks: gap 2048, border (4 / 2) x 2048 x 2.
TEST(TcamLayout, Mode4BorderIsTheWholeTable) {
   for (auto [blocks, fallback] : {std::pair{4, 0}, {8, 0}, {8, 9}}) {
      SCOPED_TRACE(fmt::format("blocks {} fallback {}", blocks, fallback));
      auto c = layout(8192, 4, uint8_t(blocks), false);
      if (fallback) c.fallbackVrfId = VrfId(fallback);
      auto ctx = up(c);
      EXPECT_EQ(ctx->v6()->tcamBorder(), 8192u);
      EXPECT_FALSE(ctx->block(RouteType::v6Half)->isValid());
      EXPECT_EQ(range(*ctx, RouteType::v6Full), IndexRange(1, 8191));
      EXPECT_FALSE(ctx->swapAreaHalf());
      if (fallback) {
         EXPECT_EQ(ctx->lpmPairGap(), 2048u);
      }
   }
}

TEST(TcamLayout, UrpfHalvesTheTable) {
   auto ctx = up(layout(8192, 4, 8, false), true);
   EXPECT_TRUE(ctx->urpfEnabled());
   EXPECT_EQ(ctx->effectiveSize(), 4096u);
   EXPECT_EQ(ctx->lpmPairGap(), 1024u);
   EXPECT_EQ(ctx->v6()->tcamBorder(), 4096u);
   EXPECT_EQ(range(*ctx, RouteType::v4), IndexRange(1, 4095));
   ctx->verify();

   auto withFallback = layout(8192, 2, 8, false);
   withFallback.fallbackVrfId = VrfId(3);
   EXPECT_EQ(failureOf([&] { up(withFallback, true); }),
             "fallbackVrfId() == Ulo::VrfId::invalidVrfId()");
   EXPECT_EQ(failureOf([&] { up(layout(8192, 3, 8, false), true); }), "mode == 2 || mode == 4");
   EXPECT_EQ(failureOf([&] { up(withFallback); }), "no failure");
   withFallback.tcamMode = 1;
   EXPECT_EQ(failureOf([&] { up(withFallback); }), "mode == 2 || mode == 4");
}

TEST(TcamLayout, PairGapUnlessTheSizeVariableIsPresent) {
   auto c = layout(8192, 2, 8, false);
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
   auto c = layout(8192, 2, 8, false);
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
   auto c = layout(8192, 2, 8, false);
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
   auto c = layout(2048, 0, 0, false);
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

TEST(TcamLayout, InvalidEntryManagers) {
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
   auto c = layout(8192, 2, 8, false);
   c.invalidEntryManagerType = 1;
   EXPECT_EQ(failureOf([&] { up(c); }), "Please define new LPM InvalidEntryManager helper");

   auto ctx = l3TcamManagerContextFactory(c);
   auto mgr = std::make_shared<FourInvalid>();
   ctx->invalidEntryManagerIs(mgr);
   ctx->handleInitialized(true);
   LpmInvalidEntryManagerDefault none;
   for (uint32_t i : {0u, 99u, 100u, 103u, 104u}) {
      EXPECT_EQ(mgr->isEntryInvalid(i), i >= 100 && i <= 103) << i;
      EXPECT_FALSE(none.isEntryInvalid(i)) << i;
   }
   EXPECT_TRUE(ctx->bitmap()->isBitSet(101));
   EXPECT_TRUE(ctx->bitmapPair()->isBitSet(7));
   EXPECT_EQ(ctx->entriesFree(RouteType::v4), 8191u - 1u - 4u);
   ctx->verify();
}

TEST(TcamLayout, InitialisationHappensOnce) {
   auto c = layout(1024, 2, 8, false);
   c.requestedTableMode = 1;  // modes differ: no swap area
   auto ctx = up(c);
   EXPECT_EQ(ctx->swapArea(), 0u);
   EXPECT_FALSE(ctx->useSwapArea());
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 1);
   ctx->handleInitialized(true);
   EXPECT_EQ(cap.texts(), std::vector<std::string>{"Tcam table manager Ctx already initialized"});
   EXPECT_EQ(failureOf([&] { up(layout(1024, 5, 8, false)); }),
             "tcamMode() >= 1 && tcamMode() <= 4");
}

TEST(TcamLayout, UnsupportedConfigurationsAreRefused) {
   EXPECT_THROW(l3TcamManagerContextFactory(layout(1024, 2, 0, false)), std::range_error);
   // Mode 2 on a table of two blocks would give IPv6 four blocks.
   auto ctx = l3TcamManagerContextFactory(layout(1024, 2, 2, false));
   EXPECT_THROW(ctx->handleInitialized(true), std::range_error);
   EXPECT_FALSE(ctx->layoutDone());

   auto pairing = [](uint32_t mode, uint8_t blocks) {
      auto c = layout(8192, mode, blocks, false);
      c.supportsDefipPairing = true;
      return c;
   };
   // Pairing, mode 1: double-size routes up to the pairing border 4096, single size from 2048 on.
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
