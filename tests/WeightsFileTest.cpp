// Placement weight tables in text: what the built-in table writes reads back the same, a file
// replaces the built-in table whole, and every bad line is refused with its line and a short quote.

#include "sim/WeightsFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "sim/Route.h"

namespace VexloL3Common::sim {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(WeightsFile, BuiltInTableReadsBackAsWrittenAndAsShipped) {
   const PlacementWeights builtIn = PlacementWeights::internetLike();
   EXPECT_EQ(readWeightsText(weightsText(builtIn), "w"), builtIn);
   std::ifstream f(VEXLO_DATA_DIR "/internet-like.weights");
   ASSERT_TRUE(f) << "data/internet-like.weights";
   std::ostringstream text;
   text << f.rdbuf();
   EXPECT_EQ(readWeightsText(text.str(), "internet-like.weights"), builtIn);
}

TEST(WeightsFile, FileReplacesTheBuiltInTableWhole) {
   const PlacementWeights w = readWeightsText(
       "# a mix of two lengths\n\n  v4 /24 60   # most\n\tv4 /0 1\r\nv6 /128 7\nv6 /48 0\n", "w");
   PlacementWeights want;
   want.v4[24] = 60;
   want.v4[0] = 1;
   want.v6[128] = 7;
   EXPECT_EQ(w, want) << "lengths not named weigh 0, whatever the built-in table says";
}

TEST(WeightsFile, BadLineIsRefusedWithItsLineAndAShortQuote) {
   const struct {
      const char* line;
      const char* message;
   } cases[] = {
       {"v4 /24", "expected 'v4 /LENGTH WEIGHT' or 'v6 /LENGTH WEIGHT', got 'v4 /24'"},
       {"ipv4 /24 3", "unknown family 'ipv4' (v4 or v6)"},
       {"v4 24 3", "length '24' is not /0 to /32"},
       {"v4 /33 3", "length '/33' is not /0 to /32"},
       {"v6 /129 3", "length '/129' is not /0 to /128"},
       {"v4 /24 1000000001", "weight '1000000001' is not a whole number from 0 to 1000000000"},
       {"v4 /24 2.5", "weight '2.5' is not a whole number from 0 to 1000000000"},
       {"v4 /8 1", "v4 /8 given twice (first on line 2)"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.line);
      try {
         readWeightsText(std::string("# weights\nv4 /8 1\n") + c.line + "\n", "mix.weights");
         ADD_FAILURE() << "accepted";
      } catch (const InputError& e) {
         EXPECT_EQ(std::string(e.what()), std::string("mix.weights:3: ") + c.message);
         EXPECT_EQ(e.line(), 3u);
      }
   }
}

TEST(WeightsFile, JunkIsQuotedClippedAndEscapedAndAnEmptyFileRefused) {
   try {
      readWeightsText("v4 /24 1\n\x1b[31m" + std::string(500, 'x') + " /24 1\n", "w");
      FAIL() << "accepted";
   } catch (const InputError& e) {
      const std::string what = e.what();
      EXPECT_THAT(what, StartsWith("w:2: unknown family '\\x1b[31mxxx"));
      EXPECT_THAT(what, HasSubstr("...' (v4 or v6)"));
      EXPECT_LT(what.size(), 120u);
   }
   try {
      readWeightsText("# nothing\n\n   \n", "empty.weights");
      ADD_FAILURE() << "a file without weights was accepted";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), StartsWith("empty.weights: no weights"));
   }
}

}  // namespace
}  // namespace VexloL3Common::sim
