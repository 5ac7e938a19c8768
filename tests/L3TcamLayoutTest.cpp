#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "TcamFixture.h"
#include "platform/Trace.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

using Config = L3TcamManagerContext::Config;

Ulo::Ptr<L3TcamManagerContext> up(Config c, bool urpf = false) {
   auto status = std::make_shared<Ulo::RoutingStatus>();
   status->urpfEnabledIs(urpf);
   c.globalRoutingStatus = status;
   auto ctx = l3TcamManagerContextFactory(c);
   ctx->handleInitialized(true);
   return ctx;
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

std::string setBits(const HBitmap& bm) {
   std::string out;
   for (uint32_t i = bm.findFirstSet(0, HBitmap::npos); i != HBitmap::npos;
        i = bm.findFirstSet(i + 1, HBitmap::npos))
      out += fmt::format("{}{}", out.empty() ? "" : ",", i);
   return out;
}

// A freshly laid out table in one line: effective size, pair gap, IPv6 border, swap area (and
// whether single-size IPv6 gets it), the set entries of the entry and pair bitmaps with their
// sizes, then every block that exists: its range and prefix lengths, or "-" when it is empty.
std::string describe(const L3TcamManagerContext& c) {
   std::string s = fmt::format(
       "size {} gap {} border {} swap {} {}{} | set {} of {}, pairs {} of {}", c.effectiveSize(),
       c.lpmPairGap(), c.v6() ? c.v6()->tcamBorder() : 0, c.swapArea(),
       c.useSwapArea() ? "on" : "off", c.swapAreaHalf() ? "+half" : "", setBits(*c.bitmap()),
       c.bitmap()->size(), setBits(*c.bitmapPair()), c.bitmapPair()->size());
   for (RouteType t : allRouteTypes) {
      const TcamBlock* b = c.block(t).get();
      if (!b) continue;
      s += b->isValid() ? fmt::format(" | {} {}/{} {}-{}", t, b->start(), b->end(),
                                      b->prefixLenMin(), b->prefixLenMax())
                        : fmt::format(" | {} -", t);
   }
   return s;
}

Config pairing(uint32_t mode, uint8_t blocks) {
   auto c = layout(8192, mode, blocks, false);
   c.supportsDefipPairing = true;
   return c;
}

// A field of either part of the configuration.
template <class Part, class V>
Config with(Config c, V Part::*field, V value) {
   c.*field = value;
   return c;
}

}  // namespace

TEST(TcamLayout, EachConfigurationLaysOutItsBlocks) {
   const std::pair<Config, const char*> rows[] = {
       {layout(8192, 2, 8, false),
        "size 8192 gap 1024 border 4096 swap 32 on+half | set 0,1024 of 8192, pairs 0 of 4096 | v4 "
        "1/8191 0-32 | v6Full 1/4095 64-128 | v6Half 4096/8191 0-64"},
       // Mode 4: the border is the whole table; a fallback VRF uses quarter blocks.
       {layout(8192, 4, 4, false),
        "size 8192 gap 2048 border 8192 swap 32 on | set 0,2048 of 8192, pairs 0 of 4096 | v4 "
        "1/8191 0-32 | v6Full 1/8191 64-128 | v6Half -"},
       {with(layout(8192, 4, 8, false), &Config::fallbackVrfId, VrfId(9)),
        "size 8192 gap 2048 border 8192 swap 32 on | set 0,2048 of 8192, pairs 0 of 4096 | v4 "
        "1/8191 0-32 | v6Full 1/8191 64-128 | v6Half -"},
       // Interleaved: no border, so no IPv6 block without pairing.
       {with(layout(8192, 2, 8, false), &Config::v4V6InterleavingDisabled, false),
        "size 8192 gap 1024 border 0 swap 32 on+half | set 0 of 8192, pairs 0 of 4096 | v4 "
        "1/8191 0-32 | v6Full - | v6Half -"},
       {with(pairing(2, 8), &Config::v4V6InterleavingDisabled, false),
        "size 8192 gap 1024 border 0 swap 32 on+half | set 0 of 8192, pairs 0 of 4096 | v4 "
        "4096/8191 0-32 | v6Full - | v6Half 1/8191 0-128"},
       // The fixed pairing border.
       {pairing(2, 8),
        "size 8192 gap 1024 border 4096 swap 32 on+half | set 0,1024 of 8192, pairs 0 of 4096 | v4 "
        "4096/8191 0-32 | v6Full 1/4095 0-128 | v6Half -"},
       {with(layout(2048, 0, 0, false), &Config::v4Mcast, true),
        "size 2048 gap 0 border 0 swap 0 off | set 0 of 2048, pairs 0 of 1024 | v4Mcast 1/2047 "
        "0-90"},
       // Modes differ: no swap area.
       {with(layout(1024, 2, 8, false), &Config::requestedTableMode, 1u),
        "size 1024 gap 128 border 512 swap 0 off | set 0,128 of 1024, pairs 0 of 512 | v4 "
        "1/1023 0-32 | v6Full 1/511 64-128 | v6Half 512/1023 0-64"},
   };
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 1, 1);
   withSizeVariable(nullptr, [&] {
      for (const auto& [cfg, expected] : rows) {
         auto ctx = up(cfg);
         EXPECT_EQ(describe(*ctx), expected);
         ctx->verify();
      }
   });
   EXPECT_TRUE(
       cap.contains("doCreateBlocks TcamSize: 8192, tcamMode: 2, effective size: 8192, "
                    "blockSize: 1024, border: 4096, urpfEnabled: false"));
   EXPECT_TRUE(cap.contains("handleInitialized using default invalid entry manager"));
}

TEST(TcamLayout, UrpfHalvesTheTableInMode2Or4WithoutAFallbackVrf) {
   auto ctx = up(layout(8192, 4, 8, false), true);
   EXPECT_TRUE(ctx->urpfEnabled());
   EXPECT_EQ(describe(*ctx),
             "size 4096 gap 1024 border 4096 swap 32 on | set 0,1024 of 4096, pairs 0 of 2048 | v4 "
             "1/4095 0-32 | v6Full 1/4095 64-128 | v6Half -");
   // Only modes 2 and 4 have room for it, and never beside a fallback VRF.
   auto withFallback = layout(8192, 2, 8, false);
   withFallback.fallbackVrfId = VrfId(3);
   EXPECT_EQ(failureOf([&] { up(withFallback, true); }),
             "fallbackVrfId() == Ulo::VrfId::invalidVrfId()");
   EXPECT_EQ(failureOf([&] { up(layout(8192, 3, 8, false), true); }), "mode == 2 || mode == 4");
}

TEST(TcamLayout, PairGapUnlessTheSizeVariableIsPresent) {
   auto c = layout(8192, 2, 8, false);
   c.pairGap = 512;
   withSizeVariable(nullptr, [&] { EXPECT_EQ(setBits(*up(c)->bitmap()), "0,512"); });
   withSizeVariable("", [&] { EXPECT_EQ(setBits(*up(c)->bitmap()), "0,1024"); });
}

TEST(TcamLayout, PairsFillTheLowerBankOfEveryDoubleBank) {
   auto ctx = up(pairing(2, 8));
   EXPECT_EQ(ctx->pairToPhysical(1023), 1023u);
   EXPECT_EQ(ctx->pairToPhysical(1024), 2048u);
   EXPECT_EQ(ctx->physicalToPair(2048), 1024u);
   EXPECT_EQ(ctx->physicalToPair(3072), 1024u);  // a second entry names its pair
   EXPECT_EQ(ctx->physicalBoundToPair(4095), 2047u);
   EXPECT_EQ(ctx->physicalBoundToPair(1), 1u);
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
   EXPECT_EQ(setBits(*ctx->bitmap()), "0,100,101,102,103,1024");
   EXPECT_EQ(setBits(*ctx->bitmapPair()), "0,7");
}

TEST(TcamLayout, InitialisationHappensOnce) {
   auto ctx = up(layout(1024, 2, 8, false));
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
   // Pairing, mode 1: double-size routes up to the pairing border 4096, single size from 2048 on.
   EXPECT_THROW(up(pairing(1, 8)), std::range_error);
   // Two blocks: the last pair below 4096 would have its partner at 8191, among IPv4 entries.
   EXPECT_THROW(up(pairing(4, 2)), std::range_error);
   EXPECT_THROW(up(pairing(2, 8), true), std::range_error);  // uRPF
   EXPECT_THROW(up(with(pairing(2, 8), &Config::fallbackVrfId, VrfId(2))), std::range_error);
   EXPECT_NO_THROW(up(pairing(3, 8)));
   EXPECT_NO_THROW(up(pairing(4, 4)));
}
