// FIB acknowledgement (ackSequence, FibAckState, CurrSequences) and port readiness (isPortReady).

#include "VexloL3Common/state/L3UtilsCommon.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "VexloL3Common/state/L3FibAckTypes.h"
#include "platform/Trace.h"

namespace VexloL3Common {
namespace {

using Ulo::IntfId;
using Ulo::UloPdVersionId;
using Ulo::VrfId;
using Ulo::VrfName;
using Texts = std::vector<std::string>;

class AckSequenceTest : public ::testing::Test {
 protected:
   AckSequenceTest() {
      status.vrfNameIs(VrfId(5), VrfName("red"));
      red = status.vrfL3StatusIs(VrfName("red"));
   }
   uint64_t version(bool v4) const {
      return red->afStatus(v4)->latestProgrammedRouteVersionId().version();
   }

   Ulo::VrfL3StatusAll status;
   Ulo::Ptr<Ulo::VrfL3Status> red;
};

// Only a newer sequence is written and traced, at the caller's level, per family.
TEST_F(AckSequenceTest, OnlyANewerSequenceIsWrittenAndTracedPerFamily) {
   Ulo::ScopedTraceCapture cap("L3UtilsCommon", 3, 3);
   std::vector<UloPdVersionId> published;
   auto sub = red->afStatus(true)->latestProgrammedRouteVersionIdChanged().subscribe(
       [&](const UloPdVersionId& v) { published.push_back(v); });
   ackSequence(status, 20, VrfId(5), 7, false);  // traced at a level that is off
   ackSequence(status, 0, VrfId(5), 3, true);
   ackSequence(status, 10, VrfId(5), 3, true);
   ackSequence(status, 10, VrfId(5), 3, true);
   ackSequence(status, 9, VrfId(5), 3, true);
   EXPECT_EQ(version(true), 10u);
   EXPECT_EQ(version(false), 20u);
   EXPECT_EQ(cap.texts(), Texts{"ackSequence vrfId 5, seq 10, v4 true, seqSet 0"});
   EXPECT_EQ(published, std::vector<UloPdVersionId>{UloPdVersionId(10)});
   ackSequence(status, 11, VrfId(5), 3, true);
   EXPECT_EQ(cap.texts().back(), "ackSequence vrfId 5, seq 11, v4 true, seqSet 10");
}

TEST_F(AckSequenceTest, UnknownVrfVrfWithoutStatusOrReservedSeqWritesNothing) {
   Ulo::ScopedTraceCapture cap("L3UtilsCommon");
   status.vrfNameIs(VrfId(8), VrfName("blue"));
   ackSequence(status, 3, VrfId(7), 1, true);  // no name
   ackSequence(status, 3, VrfId(8), 1, true);  // named, no status
   EXPECT_EQ(status.vrfL3StatusSize(), 1u);    // nothing created on the way
   EXPECT_TRUE(cap.texts().empty());
   for (uint64_t seq : {0x7FFFFFFFFFFFFFFFull, 0xFFFFFFFFFFFFFFFFull})
      EXPECT_THROW(ackSequence(status, seq, VrfId(5), 1, true), std::range_error) << seq;
   EXPECT_EQ(version(true), 0u);
}

TEST(VrfNameTest, LongerThan100BytesIsARangeError) {
   EXPECT_EQ(VrfName(std::string(100, 'v')).value().size(), 100u);
   EXPECT_THROW(VrfName(std::string(101, 'v')), std::range_error);
}

// A port channel is ready when its virtual port is assigned (even before it is mapped); any
// other interface when it is mapped. A port that is not ready leaves the output alone.
TEST(IsPortReadyTest, PortChannelsNeedTheAssignedFlagOtherInterfacesAMapEntry) {
   VexloCentral::FeatureAgentCommonSmData fcsd;
   const IntfId po3 = IntfId::portChannel(3), po4 = IntfId::portChannel(4);
   const IntfId et7 = IntfId::ethernet(7);
   uint16_t port = 1234;  // untouched marker
   fcsd.vexloIntfToVirtualPortIs(po3, 40);
   {
      Ulo::ScopedTraceCapture cap("L3UtilsCommon");
      EXPECT_FALSE(isPortReady(po3, fcsd, port));
      EXPECT_EQ(cap.texts(), (Texts{"isPortReady isVirtualPortValid for: Port-Channel3 is false",
                                    "isPortReady returns false"}));
      fcsd.virtualPortAssignedIs(et7, true);  // the flag does not count for other interfaces
      EXPECT_FALSE(isPortReady(et7, fcsd, port));
      EXPECT_EQ(cap.texts().size(), 3u);
      EXPECT_EQ(cap.texts().back(), "isPortReady returns false");
      EXPECT_EQ(port, 1234);
   }
   fcsd.virtualPortAssignedIs(po4, true);
   EXPECT_TRUE(isPortReady(po4, fcsd, port));
   EXPECT_EQ(port, 0xFFFF);
   fcsd.virtualPortAssignedIs(po3, true);
   EXPECT_TRUE(isPortReady(po3, fcsd, port));
   EXPECT_EQ(port, 40);
   fcsd.virtualPortAssignedIs(et7, false);
   fcsd.vexloIntfToVirtualPortIs(et7, 9);
   EXPECT_TRUE(isPortReady(et7, fcsd, port));
   EXPECT_EQ(port, 9);
}

// Each child keeps pending and completed sequences apart; a VRF without one reads as version 0.
TEST(FibAckStateTest, BothChildrenExistAfterConstructionAndAfterHandleInitialized) {
   FibAckState state("fibAck");
   ASSERT_TRUE(state.v4Seq() && state.v6Seq());
   EXPECT_NE(state.v4Seq(), state.v6Seq());
   state.v4Seq()->pendingSeqIs(VrfId(1), UloPdVersionId(12));
   auto v4 = state.v4Seq();
   EXPECT_EQ(state.v4SeqIs(), v4);  // find, not create
   state.v6SeqDel();
   EXPECT_EQ(state.v6Seq(), nullptr);
   state.handleInitialized();
   ASSERT_TRUE(state.v6Seq());
   EXPECT_EQ(state.v4Seq()->pendingSeq(VrfId(1)), UloPdVersionId(12));
   EXPECT_EQ(state.v4Seq()->completedSeq(VrfId(1)), UloPdVersionId());
   EXPECT_EQ(state.v6Seq()->pendingSeq(VrfId(1)), UloPdVersionId());
}

}  // namespace
}  // namespace VexloL3Common
