#include <gtest/gtest.h>

#include "TcamFixture.h"
#include "platform/Trace.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

// Ranges that end on used entries and hold their routes are verified after every step; what is
// left to check is that a hole is refilled where it is.
TEST(TcamDelete, AHoleIsRefilledInPlaceAndNothingMoves) {
   TcamHarness h(layout(1024, 2, 8, false));
   for (int i = 0; i < 6; ++i)
      h.add4(k4(1, fmt::format("10.{}.0.0/16", i).c_str()));
   const uint32_t middle = h.ctx().block(RouteType::v4)->lengthRange(16).start() + 2;
   h.del4(h.ctx().v4()->getKey(middle, true));
   EXPECT_EQ(h.add4(k4(1, "10.9.0.0/16")).routeId, middle);
   EXPECT_EQ(h.moves(), 0u) << "neither deletion nor filling a hole moves other entries";
}

TEST(TcamDelete, HalfEntriesMergeNowOrReportTheMerge) {
   for (bool mergeNow : {true, false}) {
      TcamHarness h(layout(1024, 2, 8, true));
      const uint32_t a = h.add4(k4(1, "10.1.1.0/24")).routeId;
      ASSERT_EQ(h.add4(k4(1, "10.1.2.0/24")).routeId, a);
      const uint32_t b = h.add4(k4(1, "10.1.3.0/24")).routeId;
      ASSERT_EQ(h.add4(k4(1, "10.1.4.0/24")).routeId, b);
      h.del4(k4(1, "10.1.2.0/24"));  // a keeps its right half and becomes the half-full entry

      // What the merge publishes is checked by the emulated writer, which carries it out.
      Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 7);
      RouteReturnCode rc = h.del4(k4(1, "10.1.3.0/24"), mergeNow, 77);  // b keeps its left half
      EXPECT_EQ(cap.contains(fmt::format("  can merge entry from pos {} pos {}", a, b)), !mergeNow);
      EXPECT_EQ(rc.routeId, b);
      EXPECT_TRUE(rc.tcamV4RightKey);
      if (!mergeNow) {
         EXPECT_EQ(failureOf([&] { h.ctx().mergeRoute4(k4(1, "10.1.3.0/24"), b, b, 77); }),
                   "halfFullPos != pos");
         EXPECT_TRUE(rc.canMerge);
         EXPECT_EQ(rc.mergePos, a);
         EXPECT_EQ(h.ctx().stats()->mergeRoute(RouteType::v4), 0u) << "nothing merged yet";
         h.merge4(k4(1, "10.1.3.0/24"), b, a, 77);
      } else {
         EXPECT_TRUE(rc.merged);
      }
      EXPECT_TRUE(
          cap.contains(fmt::format("Table range for prefix length 24 updated: {}/{}", a, a)));
      EXPECT_EQ(h.ctx().stats()->mergeRoute(RouteType::v4), 1u);
   }
}

TEST(TcamDelete, MissingRoutesAreFatal) {
   TcamHarness h(layout(1024, 2, 8, true));
   h.add4(k4(1, "10.1.1.0/24"));
   const uint32_t pos = h.ctx().v4()->getEntryId(k4(1, "10.1.1.0/24"));
   EXPECT_EQ(failureOf([&] { h.ctx().deleteRoute4(k4(2, "10.1.1.0/24"), true, 0, pos, true); }),
             "v4()->hasEntryKey( key, pos )");
   EXPECT_EQ(failureOf([&] { h.ctx().deleteRoute(RouteType::v4, pos, 16); }), "ir.start()");
   EXPECT_EQ(failureOf([&] { h.ctx().deleteRoute6(k6(1, "2001:db8::/32")); }),
             "v6()->hasEntryId( key, pos )");
}

TEST(TcamDelete, TracesNameTheArgumentsTheCallerLeftOut) {
   TcamHarness h(layout(1024, 2, 8, true));
   h.add4(k4(3, "10.1.1.0/24"));
   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 2, 2);
   h.del4(k4(3, "10.1.1.0/24"), true, 5);
   EXPECT_EQ(cap.texts().front(),
             "deleteRoute4, key: 10.1.1.0/24 (vrf 3),true, seq: 5 index: none right: none");
}
