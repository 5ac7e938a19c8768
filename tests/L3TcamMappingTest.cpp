// The TCAM mappings: IPv4 half-full pairing, merges, IPv6 and multicast bookkeeping, and the
// publisher every move and merge goes through. Placement through the context, end to end, is
// tested by the L3TcamInsert, L3TcamDelete and L3TcamRandom tests; what a move publishes is
// checked there by the emulated writer, which rejects a move that does not match its source.

#include "VexloL3Common/tcam/L3TcamMapping.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "TcamFixture.h"
#include "platform/Trace.h"

namespace VexloL3Common {
namespace {

constexpr const char* kTrace = "VexloL3CommonTcamTable";
using Texts = std::vector<std::string>;

using testing::k4;
using testing::k6;
Ipv4UcastKey null4(uint32_t vrf) {
   return Ipv4UcastKey::nullKey(VrfId(vrf));
}

// Runs f expecting a failed assertion with this text (and message, unless nullptr).
template <class F>
void expectAssertion(F&& f, const std::string& text, const char* message = nullptr) {
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      f();
      ADD_FAILURE() << "no assertion; expected \"" << text << "\"";
   } catch (const Ulo::AssertionFailure& e) {
      EXPECT_EQ(e.text, text);
      if (message) {
         EXPECT_EQ(e.message, message);
      }
   }
}

// The records shared with a hardware writer that copies (or, when told, fails to copy) every
// published value into the status twin.
class PublishFixture : public ::testing::Test {
 protected:
   // An unexpected failed assertion fails the test instead of aborting the program.
   Ulo::ScopedThrowingAssertHandler guard;
   Ulo::Ptr<TcamStats> stats = tcamStatsFactory();
   Ulo::Ptr<RouteMove> move = routeMoveFactory();
   Ulo::Ptr<RouteMove> moveStatus = routeMoveFactory();
   Ulo::Ptr<RouteMerge> merge = routeMergeFactory();
   Ulo::Ptr<RouteMerge> mergeStatus = routeMergeFactory();
   Ulo::Ptr<TcamPublisher> publisher =
       tcamPublisherFactory(stats, move, moveStatus, merge, mergeStatus);
   bool writerCopies = true;
   std::vector<RoutePosition> moves;
   std::vector<RouteMergeInfo> merges;
   Ulo::Subscription moveWriter = move->changed().subscribe([this](const RoutePosition& p) {
      moves.push_back(p);
      if (writerCopies) moveStatus->posIs(p);
   });
   Ulo::Subscription mergeWriter = merge->changed().subscribe([this](const RouteMergeInfo& m) {
      merges.push_back(m);
      if (writerCopies) mergeStatus->mergeIs(m);
   });
};

class MappingV4Test : public PublishFixture {
 protected:
   // Entry 5 full: a right, b left.
   void fill5() {
      m.insertFirstEntry(a, 5);
      m.insertSecondEntry(b, 0, true, false);
   }
   MappingV4 m{true, stats, move, moveStatus, merge, mergeStatus};
   const Ipv4UcastKey a = k4(1, "10.1.0.0/24");
   const Ipv4UcastKey b = k4(2, "10.2.0.0/24");
   const Ipv4UcastKey c = k4(1, "10.3.0.0/24");
};

// ---- placement ---------------------------------------------------------------------------

TEST_F(MappingV4Test, FirstRouteGoesRightSecondFillsLeftOnlyWithPairing) {
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      m.insertFirstEntry(a, 5);
      EXPECT_EQ(cap.texts(), Texts{"   insertFirstEntry, key: 10.1.0.0/24 (vrf 1), pos: 5"});
   }
   expectAssertion([&] { m.insertFirstEntry(c, 6); }, "halfFull( len ) == 0",
                   "len: 24, halfFull( len ): 5");
   expectAssertion([&] { m.insertSecondEntry(b, 6, true, false); }, "halfFull( len ) == entryId",
                   "len: 24, halfFull( len ): 5, entryId: 6");
   {
      // Outside the swap area with the swap region full, nothing changes.
      Ulo::ScopedTraceCapture cap(kTrace, 4, 7);
      EXPECT_EQ(m.insertSecondEntry(b, 5, false, true), 0u);
      EXPECT_EQ(m.keys(5), Ipv4Keys(null4(1), a));
      EXPECT_EQ(m.insertSecondEntry(b, 0, false, false), 5u);
      EXPECT_EQ(
          cap.texts(),
          (Texts{"   insertSecondEntry, key: 10.2.0.0/24 (vrf 2), entry: 5, useSwapArea false",
                 "Swap area allocation blocked",
                 "   insertSecondEntry, key: 10.2.0.0/24 (vrf 2), entry: 0, useSwapArea false",
                 "   Entry: 5"}));
   }
   EXPECT_EQ(m.pairedKey(b, 5, 0), a);

   // Without pairing a second insert is a broken caller.
   MappingV4 single(false, stats, move, moveStatus, merge, mergeStatus);
   single.insertFirstEntry(a, 5);
   expectAssertion([&] { single.insertSecondEntry(b, 0, true, false); }, "twoV4RoutesPerEntry()");
}

TEST_F(MappingV4Test, InsertEntryNamesTheHalfAndTracksOnlyWhenAsked) {
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      m.insertEntry(a, 7, false, true);
      EXPECT_EQ(cap.texts(),
                (Texts{"   insertEntry, key: 10.1.0.0/24 (vrf 1), pos: 7, left trackHalf: true",
                       "  new entry"}));
   }
   EXPECT_EQ(m.keys(7), Ipv4Keys(a, null4(1)));
   m.insertEntry(c, 9, true, true);  // does not take the tracking over
   EXPECT_EQ(m.halfFull(24), 7u);
   m.insertEntry(k4(1, "10.9.0.0/16"), 11, true, false);
   EXPECT_EQ(m.halfFull(16), 0u);
}

// ---- removal -----------------------------------------------------------------------------

TEST_F(MappingV4Test, DeletingRightOfFullEntryMakesItTheTrackedHalfFull) {
   fill5();
   m.insertFirstEntry(c, 9);  // tracked
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      EXPECT_FALSE(m.deleteEntry(a, 5, true));
      EXPECT_TRUE(cap.contains(" 1 pos: 5 right:10.1.0.0/24 (vrf 1) left: 10.2.0.0/24 (vrf 2)"));
      EXPECT_EQ(cap.texts().back(), "   V4 entry still half full len 24");
   }
   EXPECT_TRUE(m.isHalfEmptyRight(5, b));
   // The entry that lost its tracking is an untracked half-full one.
   expectAssertion([&] { m.verifyEntry(c, 9); }, "halfFull( len ) == pos",
                   "len: 24, halfFull( len ): 5, pos: 9");
   expectAssertion([&] { m.deleteEntry(c, 9, true); }, "halfFull( len ) == pos",
                   "len: 24, halfFull( len ): 5, pos: 9");
}

TEST_F(MappingV4Test, DeletingLastRouteEmptiesEntryAndTracking) {
   fill5();
   expectAssertion([&] { m.deleteEntry(a, 5, false); }, "k.left() == key",
                   "k.left(): 10.2.0.0/24(vrf2), key: 10.1.0.0/24(vrf1)");
   expectAssertion([&] { m.deleteEntry(c, 5, true); }, "k.right() == key");
   expectAssertion([&] { m.rightKey(c, 5); }, "0");
   EXPECT_FALSE(m.deleteEntry(b, 5, false));
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      EXPECT_TRUE(m.deleteEntry(a, 5, true));
      EXPECT_EQ(cap.texts().back(), "   V4 entry now empty len 24");
   }
   // deleteEntries gives up a whole entry and its tracking.
   fill5();
   m.insertFirstEntry(c, 9);
   for (uint32_t pos : {5u, 9u})
      m.deleteEntries(pos);
   EXPECT_EQ(m.keysSize() + m.keyToEntryIdSize() + m.halfFullSize(), 0u);
}

// ---- key records -------------------------------------------------------------------------

TEST_F(MappingV4Test, KeyRecordsCountPerPositionAndAllowTwoPositions) {
   Ulo::ScopedTraceCapture cap(kTrace, 1, 1);
   m.setEntryKey(a, 5);
   m.setEntryKey(a, 5);
   EXPECT_EQ(m.keyToEntryId(a)->entryId(5), 2u);
   m.clearEntryKey(a, 5);
   EXPECT_TRUE(cap.contains("clearEntryKey entryIds: 1"));
   EXPECT_TRUE(m.hasEntryKey(a, 5));
   EXPECT_EQ(cap.texts().back(), "hasEntryKey key: 10.1.0.0/24(vrf1) pos: 5 has: true");
   m.clearEntryKey(b, 5);  // not recorded there: not an error
   EXPECT_EQ(cap.texts().back(), "clearEntryKey key: 10.2.0.0/24(vrf2) pos: 5");

   m.setEntryKey(a, 8);
   EXPECT_EQ(m.getEntryIdCount(a), 2u);
   expectAssertion([&] { m.getEntryId(a); }, "1+ pivots for prefix are not supported");
   expectAssertion([&] { m.setEntryKey(a, 9); }, "an IPv4 key holds at most two positions");
   m.clearEntryKey(a, 5);
   EXPECT_EQ(m.getEntryId(a), 8u);
   m.clearEntryKey(a, 8);
   EXPECT_EQ(m.keyToEntryId(a), nullptr);
   expectAssertion([&] { m.hasEntryKey(a, 0); }, "pos", "pos: 0");
   EXPECT_FALSE(m.isHalfEmptyRight(0, a));
   EXPECT_FALSE(m.isHalfEmptyRight(77, a));  // a missing entry reads all zero, not empty
}

// ---- merges ------------------------------------------------------------------------------

// Two half-full entries of length 24: 5 (tracked) holds b in its left half after a was deleted
// from its right half, and 9 (no longer tracked) holds c in its right half. The writer does not
// acknowledge, which fails the merge once its records are done.
TEST_F(MappingV4Test, MergeFillsTheFreeHalfAndPublishesBothHalves) {
   fill5();
   m.insertEntry(c, 9, true, true);  // tracked for now
   m.deleteEntry(a, 5, true);        // 5 takes the tracking over
   writerCopies = false;
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      expectAssertion([&] { m.mergeEntries(24, 5, 9, true, VrfId(1), 77); },
                      "routeMerge()->merge() == routeMergeStatus()->merge()");
      EXPECT_EQ(cap.texts().front(),
                "   mergeEntries, new: 5, old: 9, notify: true, sequence: 77, delVrfIdL 1");
   }
   EXPECT_EQ(merges,
             (std::vector<RouteMergeInfo>{{1, 9, EntryType::v4Right, 5, EntryType::v4Right}}));
   // A merge into a full entry is a broken invariant.
   m.insertFirstEntry(k4(1, "10.4.0.0/24"), 9);
   expectAssertion([&] { m.mergeEntries(24, 5, 9, false, VrfId(1), 1); },
                   "k.left().prefix().isNullPrefix()");
}

class MappingV6Test : public PublishFixture {
 protected:
   void SetUp() override { m.tcamBorderIs(100); }
   MappingV6 m{stats, move, moveStatus};
   const Ipv6UcastKey a = k6(1, "2001:db8::/64");
   const Ipv6UcastKey b = k6(2, "2001:db8:1::/96");
};

TEST_F(MappingV6Test, RecordsBothDirections) {
   EXPECT_EQ(m.getEntryId(a), 0u);
   Ulo::ScopedTraceCapture cap(kTrace, 5, 5);
   m.insertEntry(a, 120);
   EXPECT_EQ(cap.texts(), Texts{"   insertEntry, key: 2001:db8::/64 (vrf 1), pos: 120"});
   expectAssertion([&] { m.verifyEntry(a, 121); }, "hasEntryId( k, pos )", "entryId( k ): 120");

   // Clearing a position for another key still frees the position; the key keeps its record.
   m.clearEntryId(b, 120);
   EXPECT_FALSE(m.hasEntryKey(120));
   EXPECT_TRUE(m.hasEntryId(a, 120));
   m.deleteEntry(a, 120);
   EXPECT_FALSE(m.keyToEntryIdHas(a));
}

// ---- IPv4 multicast ----------------------------------------------------------------------

const IpMcastPrefixKey mcastKey{1, 0, Ulo::IpGenAddr::fromString("239.1.1.1"),
                                Ulo::IpGenAddr::fromString("10.0.0.1"), 64};

class MappingMcastV4Test : public PublishFixture {
 protected:
   void SetUp() override { m.handleInitialized(); }
   MappingMcastV4 m{publisher};
   const IpMcastPrefixKey& a = mcastKey;
};

TEST_F(MappingMcastV4Test, InsertMoveDeleteVerify) {
   Ulo::ScopedTraceCapture cap(kTrace, 5, 5);
   m.insertEntry(a, 40);
   EXPECT_EQ(cap.texts().back(), "   insertEntry, key: " + a.toString() + ", pos: 40");
   expectAssertion([&] { m.verifyEntry(a, 41); }, "entryId( k ) == pos", "entryId( k ): 40");
   m.moveEntry(64, 50, 40, true);
   m.keyDel(50);
   expectAssertion([&] { m.verifyEntry(a, 50); }, "key( pos ) == k");
}

// A second handleInitialized is traced and keeps the records of every mapping.
TEST_F(MappingMcastV4Test, HandleInitializedTwiceKeepsRecords) {
   MappingV4 v4(true, stats, move, moveStatus, merge, mergeStatus);
   MappingV6 v6(stats, move, moveStatus);
   v4.insertFirstEntry(k4(1, "10.1.0.0/24"), 5);
   v6.insertEntry(k6(1, "2001:db8::/64"), 120);
   m.insertEntry(a, 40);
   Ulo::ScopedTraceCapture cap(kTrace, 1, 1);
   v4.handleInitialized();
   v6.handleInitialized();
   m.handleInitialized();
   EXPECT_EQ(cap.texts(), (Texts{"MappingV4 already initialized", "MappingV6 already initialized",
                                 "MappingMcastV4 already initialized"}));
   EXPECT_EQ(v4.halfFull(24), 5u);
   EXPECT_EQ(v6.getEntryId(k6(1, "2001:db8::/64")), 120u);
   EXPECT_EQ(m.entryId(a), 40u);
}

// ---- publication -------------------------------------------------------------------------

// Every move and merge of a context goes through its one publisher: counted under its route type,
// then, unless the caller or a model without hardware says not to, published and checked for the
// writer's acknowledgement. The running count makes two identical moves publish distinct values;
// otherwise the acknowledgement of the first would pass for that of the second.
TEST_F(PublishFixture, CountsPublishesDistinctValuesAndEachMappingChecksTheAcknowledgement) {
   // A context without hardware counts its moves and merges and publishes none.
   auto cfg = testing::layout(1024, 2, 8);
   cfg.softwareOnly = true;
   cfg.routeMove = move, cfg.routeMoveStatus = moveStatus;
   cfg.routeMerge = merge, cfg.routeMergeStatus = mergeStatus;
   const auto quiet = l3TcamManagerContextFactory(cfg);
   quiet->handleInitialized(true);
   quiet->publisher()->move(RouteType::v4, 5, 6, EntryType::v4Right, true);
   quiet->publisher()->merge(6, EntryType::v4Right, 7, EntryType::v4Left, true);
   EXPECT_EQ(std::pair(quiet->stats()->moveRoute(RouteType::v4),
                       quiet->stats()->mergeRoute(RouteType::v4)),
             std::pair(uint64_t{1}, uint64_t{1}));
   EXPECT_TRUE(moves.empty() && merges.empty());

   MappingV4 v4(true, publisher);
   MappingV6 v6(publisher);
   MappingMcastV4 mc(publisher);
   v4.insertFirstEntry(k4(1, "10.1.0.0/24"), 5);
   v6.tcamBorderIs(100);
   v6.insertEntry(k6(2, "2001:db8:1::/96"), 10);
   mc.insertEntry(mcastKey, 40);
   {
      // An IPv6 move counts the size of the entry it leaves: double size below the border.
      Ulo::ScopedTraceCapture cap(kTrace, 5, 5);
      v6.moveEntry(96, 150, 10, 0, true);
      EXPECT_EQ(cap.texts().front(), "   moveEntry, new: 150, old: 10");
   }
   v6.moveEntry(96, 160, 150, 0, false);  // the caller's notify off: counted only
   EXPECT_EQ(moves, (std::vector<RoutePosition>{{1, 10, 150, false, EntryType::v6}}));
   EXPECT_EQ(std::pair(stats->moveRoute(RouteType::v6Full), stats->moveRoute(RouteType::v6Half)),
             std::pair(uint64_t{1}, uint64_t{1}));

   publisher->move(RouteType::v4, 5, 6, EntryType::v4Right, true);
   writerCopies = false;
   const std::string expected = fmt::format(" move pos {} moveStatus pos {}",
                                            RoutePosition{2, 5, 6, true, EntryType::v4Right},
                                            RoutePosition{1, 5, 6, true, EntryType::v4Right});
   expectAssertion([&] { publisher->move(RouteType::v4, 5, 6, EntryType::v4Right, true); },
                   "routeMove()->pos() == routeMoveStatus()->pos()", expected.c_str());

   // Each mapping's check in its own words; the merge's is checked by MergeFillsTheFreeHalf.
   expectAssertion([&] { v4.moveEntry(24, 20, 5, true); },
                   "routeMove()->pos() == routeMoveStatus()->pos()");
   expectAssertion([&] { v6.moveEntry(96, 170, 160, 0, true); },
                   "routeMove()->pos() == routeMoveStatus()->pos()");
   expectAssertion(
       [&] { mc.moveEntry(64, 50, 40, true); },
       "tcamManagerCtx()->routeMove()->pos() == tcamManagerCtx()->routeMoveStatus()->pos()");
}

}  // namespace
}  // namespace VexloL3Common
