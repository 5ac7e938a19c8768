#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "platform/Assert.h"
#include "platform/Trace.h"

using namespace Ulo;

namespace {

TraceHandle th("TraceTestHandle");
TraceHandle other("TraceTestOther");

int evaluations = 0;
int counted(int v) {
   ++evaluations;
   return v;
}

}  // namespace

TEST(Trace, PiecesAreJoinedWithoutSeparatorsAndLevelsThatAreOffEvaluateNothing) {
   ScopedTraceCapture cap("TraceTestHandle", 3, 7);
   TRACE(th, 7, "start: ", 5, ", end: ", 9u, ", urpf: ", true);
   TRACE_FMT(th, 6, "Range/{} start {} end {} size {}", 24, 100, 199, 100);
   evaluations = 0;
   TRACE(th, 2, "x", counted(1));
   TRACE(th, 8, "x", counted(1));
   TRACE(other, 3, "x", counted(1));
   EXPECT_EQ(evaluations, 0);
   TRACE(th, 3, "x", counted(1));
   EXPECT_EQ(evaluations, 1);
   EXPECT_EQ(cap.texts(), (std::vector<std::string>{"start: 5, end: 9, urpf: true",
                                                    "Range/24 start 100 end 199 size 100", "x1"}));
}

TEST(Trace, ConfigurationStringsSetLevelsPerHandleAndMalformedOnesChangeNothing) {
   Trace::configure("TraceTestHandle=1-3, TraceTestOther=5");
   EXPECT_EQ(th.levels(), traceLevels(1, 3));
   EXPECT_EQ(other.levels(), traceLevels(5, 5));
   for (const char* bad : {"TraceTestHandle=10", "TraceTestHandle=3-1", "TraceTestHandle=a", "=3",
                           "TraceTestHandle=1,TraceTestOther=x"}) {
      EXPECT_THROW(Trace::configure(bad), std::range_error) << bad;
      EXPECT_EQ(th.levels(), traceLevels(1, 3)) << bad;
   }
   Trace::configure("TraceTestOther=*");
   EXPECT_EQ(other.levels(), traceLevels(0, 9));
   Trace::configure("TraceTestOther=1, TraceTestOther");
   EXPECT_EQ(other.levels(), traceLevels(0, 9));
   // A handle created after the configuration picks it up.
   Trace::configure("TraceTestLate=4");
   EXPECT_EQ(TraceHandle("TraceTestLate").levels(), traceLevels(4, 4));
   // "*" covers every handle, named ones included.
   Trace::configure("*=9");
   EXPECT_EQ(th.levels(), traceLevels(9, 9));
   EXPECT_EQ(other.levels(), traceLevels(9, 9));
   Trace::enable("TraceTestHandle", 0, 1);
   EXPECT_EQ(th.levels(), traceLevels(9, 9) | traceLevels(0, 1));
   Trace::disable("*");
   EXPECT_EQ(th.levels() | other.levels(), 0);
}

TEST(Trace, SilenceSwitchesEveryHandleOffAndRestoresTheConfiguration) {
   Trace::configure("*=1,TraceTestHandle=2-4");
   {
      ScopedTraceSilence quiet;
      EXPECT_EQ(th.levels(), 0u);
      EXPECT_EQ(other.levels(), 0u);
      EXPECT_EQ(Trace::levels("AnyHandle"), 0u);
   }
   EXPECT_EQ(th.levels(), traceLevels(2, 4));
   EXPECT_EQ(other.levels(), traceLevels(1, 1));
   Trace::levelsIs("*", 0);
}

TEST(Trace, FileSinkAppendsLines) {
   std::string path = ::testing::TempDir() + "trace_test.log";
   std::remove(path.c_str());
   auto previous = Trace::sink();
   Trace::sinkIs(std::make_shared<FileTraceSink>(path));
   Trace::enable("TraceTestHandle", 4, 4);
   TRACE(th, 4, "handleInitialized", " using default invalid entry manager");
   Trace::disable("TraceTestHandle");
   Trace::sinkIs(previous);
   std::ifstream in(path);
   std::string line;
   std::getline(in, line);
   EXPECT_EQ(line, "TraceTestHandle 4: handleInitialized using default invalid entry manager");
   EXPECT_THROW(FileTraceSink("/nonexistent-dir/x.log"), std::runtime_error);
}

// The message pieces of VEXLO_ASSERT_MSG are pinned by every unit's own assertion texts.
TEST(Assert, ThrowingHandlerCarriesTheTextAndAnEmptyMessageWithoutPieces) {
   ScopedThrowingAssertHandler guard;
   try {
      VEXLO_ASSERT(1 + 1 == 3, "0");
      ADD_FAILURE() << "no failure raised";
   } catch (const AssertionFailure& e) {
      EXPECT_EQ(e.text + " | " + e.message, "0 | ");
   }
}

TEST(AssertDeathTest, DefaultHandlerAbortsWithTextAndLineAndTheScopedOneRestoresIt) {
   EXPECT_DEATH(VEXLO_ASSERT_MSG(false, "pos", "pos: ", 0),
                "Assertion failed: pos pos: 0 \\(.*TraceTest.cpp:[0-9]+\\)");
   { ScopedThrowingAssertHandler guard; }
   EXPECT_DEATH(VEXLO_UNREACHABLE("Invalid route type"), "unreachable Invalid route type");
}
