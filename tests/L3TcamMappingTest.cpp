// The TCAM mappings: IPv4 half-full pairing, moves and merges with their publication handshake,
// IPv6 and multicast bookkeeping, and a seeded random IPv4 sequence checked against a reference
// model after every step.

#include "VexloL3Common/L3TcamMapping.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "VexloL3Common/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {
namespace {

constexpr const char* kTrace = "VexloL3CommonTcamTable";

Ipv4UcastKey k4(uint32_t vrf, const char* prefix) {
   return Ipv4UcastKey(VrfId(vrf), Ulo::Prefix::fromString(prefix));
}
Ipv6UcastKey k6(uint32_t vrf, const char* prefix) {
   return Ipv6UcastKey(VrfId(vrf), Ulo::Ip6Prefix::fromString(prefix));
}
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
   MappingV4 m{true, stats, move, moveStatus, merge, mergeStatus};
   const Ipv4UcastKey a = k4(1, "10.1.0.0/24");
   const Ipv4UcastKey b = k4(2, "10.2.0.0/24");
   const Ipv4UcastKey c = k4(1, "10.3.0.0/24");
};

// ---- placement ---------------------------------------------------------------------------

TEST_F(MappingV4Test, FirstRouteGoesRightSecondFillsLeft) {
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      m.insertFirstEntry(a, 5);
      EXPECT_EQ(cap.texts(),
                std::vector<std::string>{"   insertFirstEntry, key: 10.1.0.0/24 (vrf 1), pos: 5"});
   }
   EXPECT_EQ(m.keys(5), Ipv4Keys(null4(1), a));
   EXPECT_EQ(m.halfFull(24), 5u);
   EXPECT_EQ(m.pairedKey(a, 5, 0), null4(1));
   m.verifyEntry(a, 5);
   expectAssertion([&] { m.insertFirstEntry(c, 6); }, "halfFull( len ) == 0",
                   "len: 24, halfFull( len ): 5");
   expectAssertion([&] { m.insertSecondEntry(b, 6, true, false); }, "halfFull( len ) == entryId",
                   "len: 24, halfFull( len ): 5, entryId: 6");
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      EXPECT_EQ(m.insertSecondEntry(b, 0, false, false), 5u);
      EXPECT_EQ(cap.texts(),
                (std::vector<std::string>{
                    "   insertSecondEntry, key: 10.2.0.0/24 (vrf 2), entry: 0, useSwapArea false",
                    "   Entry: 5"}));
   }
   EXPECT_EQ(m.keys(5), Ipv4Keys(b, a));
   EXPECT_EQ(m.halfFullSize(), 0u);
   EXPECT_FALSE(m.rightKey(b, 5));
   EXPECT_EQ(m.pairedKey(b, 5, 0), a);
   m.verifyEntry(a, 5);
   m.verifyEntry(b, 5);
}

TEST_F(MappingV4Test, WithoutPairingNothingIsTrackedAndSecondInsertAsserts) {
   MappingV4 single(false, stats, move, moveStatus, merge, mergeStatus);
   single.insertFirstEntry(a, 5);
   single.insertFirstEntry(c, 6);
   EXPECT_EQ(single.halfFullSize(), 0u);
   single.verifyEntry(a, 5);
   EXPECT_TRUE(single.deleteEntry(a, 5, true));
   expectAssertion([&] { single.insertSecondEntry(b, 0, true, false); }, "twoV4RoutesPerEntry()");
}

TEST_F(MappingV4Test, BlockedSwapAreaReturnsZeroAndChangesNothing) {
   m.insertFirstEntry(a, 5);
   {
      Ulo::ScopedTraceCapture cap(kTrace, 7, 7);
      EXPECT_EQ(m.insertSecondEntry(b, 5, false, true), 0u);
      EXPECT_EQ(cap.texts(), std::vector<std::string>{"Swap area allocation blocked"});
   }
   EXPECT_EQ(m.keys(5), Ipv4Keys(null4(1), a));
   EXPECT_EQ(m.halfFull(24), 5u);
   EXPECT_EQ(m.keyToEntryIdSize(), 1u);
   // Allowed into the swap area, the same insertion goes ahead.
   EXPECT_EQ(m.insertSecondEntry(b, 5, true, true), 5u);
}

TEST_F(MappingV4Test, InsertEntryNamesTheHalfAndTracksOnlyWhenAsked) {
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      m.insertEntry(a, 7, false, true);
      EXPECT_EQ(cap.texts(),
                (std::vector<std::string>{
                    "   insertEntry, key: 10.1.0.0/24 (vrf 1), pos: 7, left trackHalf: true",
                    "  new entry"}));
   }
   EXPECT_EQ(m.keys(7), Ipv4Keys(a, null4(1)));
   EXPECT_EQ(m.halfFull(24), 7u);
   m.insertEntry(c, 9, true, true);  // does not take the tracking over
   EXPECT_EQ(m.halfFull(24), 7u);
   m.insertEntry(b, 7, true, true);  // fills the tracked entry
   EXPECT_EQ(m.keys(7), Ipv4Keys(a, b));
   EXPECT_EQ(m.halfFull(24), 0u);
   m.insertEntry(k4(1, "10.9.0.0/16"), 11, true, false);
   EXPECT_EQ(m.halfFull(16), 0u);
}

// ---- removal -----------------------------------------------------------------------------

TEST_F(MappingV4Test, DeletingRightOfFullEntryMakesItTheTrackedHalfFull) {
   m.insertFirstEntry(a, 5);
   m.insertSecondEntry(b, 0, true, false);
   m.insertFirstEntry(c, 9);  // tracked
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      EXPECT_FALSE(m.deleteEntry(a, 5, true));
      EXPECT_TRUE(cap.contains(" 1 pos: 5 right:10.1.0.0/24 (vrf 1) left: 10.2.0.0/24 (vrf 2)"));
      EXPECT_EQ(cap.texts().back(), "   V4 entry still half full len 24");
   }
   EXPECT_EQ(m.keys(5), Ipv4Keys(b, null4(1)));
   EXPECT_EQ(m.halfFull(24), 5u);
   EXPECT_EQ(m.getEntryIdCount(a), 0u);
   EXPECT_TRUE(m.isHalfEmptyRight(5, b));
   m.verifyEntry(b, 5);
   // The entry that lost its tracking is an untracked half-full one.
   expectAssertion([&] { m.verifyEntry(c, 9); }, "halfFull( len ) == pos",
                   "len: 24, halfFull( len ): 5, pos: 9");
   expectAssertion([&] { m.deleteEntry(c, 9, true); }, "halfFull( len ) == pos",
                   "len: 24, halfFull( len ): 5, pos: 9");
}

TEST_F(MappingV4Test, DeletingLastRouteEmptiesEntryAndTracking) {
   m.insertFirstEntry(a, 5);
   m.insertSecondEntry(b, 0, true, false);
   expectAssertion([&] { m.deleteEntry(a, 5, false); }, "k.left() == key",
                   "k.left(): 10.2.0.0/24(vrf2), key: 10.1.0.0/24(vrf1)");
   expectAssertion([&] { m.deleteEntry(c, 5, true); }, "k.right() == key");
   expectAssertion([&] { m.rightKey(c, 5); }, "0");
   EXPECT_FALSE(m.deleteEntry(b, 5, false));
   EXPECT_EQ(m.keys(5), Ipv4Keys(null4(2), a));
   {
      Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
      EXPECT_TRUE(m.deleteEntry(a, 5, true));
      EXPECT_EQ(cap.texts().back(), "   V4 entry now empty len 24");
   }
   EXPECT_FALSE(m.keysHas(5));
   EXPECT_EQ(m.keys(5), Ipv4Keys());
   EXPECT_EQ(m.halfFullSize(), 0u);
   EXPECT_EQ(m.keyToEntryIdSize(), 0u);
   // deleteEntries gives up a whole entry and its tracking.
   m.insertFirstEntry(a, 5);
   m.insertSecondEntry(b, 0, true, false);
   m.insertFirstEntry(c, 9);
   m.deleteEntries(5);
   m.deleteEntries(9);
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

TEST_F(MappingV4Test, HandleInitializedTwiceKeepsRecords) {
   m.insertFirstEntry(a, 5);
   Ulo::ScopedTraceCapture cap(kTrace, 1, 1);
   m.handleInitialized();
   EXPECT_EQ(cap.texts(), std::vector<std::string>{"MappingV4 already initialized"});
   EXPECT_EQ(m.getEntryId(a), 5u);
   EXPECT_EQ(m.halfFull(24), 5u);
}

// ---- moves and merges --------------------------------------------------------------------

TEST_F(MappingV4Test, MovePublishesWhichHalvesMovedAndCarriesTracking) {
   m.insertFirstEntry(a, 5);
   m.insertSecondEntry(b, 0, true, false);
   m.insertFirstEntry(c, 9);
   m.moveEntry(24, 20, 5, true);
   ASSERT_EQ(moves.size(), 1u);
   EXPECT_EQ(moves[0], (RoutePosition{1, 5, 20, true, EntryType::v4Both}));
   EXPECT_FALSE(m.keysHas(5));
   EXPECT_EQ(m.keys(20), Ipv4Keys(b, a));
   EXPECT_EQ(m.getEntryId(a), 20u);
   EXPECT_EQ(m.getEntryId(b), 20u);

   m.moveEntry(24, 30, 9, true);  // the tracked half-full entry
   EXPECT_EQ(m.halfFull(24), 30u);
   EXPECT_EQ(moves.back(), (RoutePosition{2, 9, 30, true, EntryType::v4Right}));

   m.deleteEntry(a, 20, true);  // leaves the left half only
   m.moveEntry(24, 21, 20, true);
   EXPECT_EQ(moves.back(), (RoutePosition{3, 20, 21, true, EntryType::v4Left}));
}

TEST_F(MappingV4Test, MoveWithoutNotifyCountsButPublishesNothing) {
   m.insertFirstEntry(a, 5);
   m.moveEntry(24, 6, 5, false);
   EXPECT_EQ(stats->moveRoute(RouteType::v4), 1u);
   EXPECT_TRUE(moves.empty());
   EXPECT_EQ(move->pos(), RoutePosition());
   // Moves between the same positions still publish distinct values.
   m.moveEntry(24, 5, 6, true);
   m.moveEntry(24, 6, 5, true);
   m.moveEntry(24, 5, 6, true);
   EXPECT_EQ(moves[2], (RoutePosition{4, 6, 5, true, EntryType::v4Right}));
   EXPECT_NE(moves[0], moves[2]);
}

TEST_F(MappingV4Test, WriterThatDoesNotAcknowledgeFailsTheNextPublication) {
   m.insertFirstEntry(a, 5);
   m.moveEntry(24, 6, 5, true);
   writerCopies = false;
   const std::string expected = fmt::format(" move pos {} moveStatus pos {}",
                                            RoutePosition{2, 6, 7, true, EntryType::v4Right},
                                            RoutePosition{1, 5, 6, true, EntryType::v4Right});
   expectAssertion([&] { m.moveEntry(24, 7, 6, true); },
                   "routeMove()->pos() == routeMoveStatus()->pos()", expected.c_str());
}

// Two half-full entries of length 24: 5 (tracked) holds b in its left half after a was deleted
// from its right half, and 9 (no longer tracked) holds c in its right half.
class MappingV4MergeTest : public MappingV4Test {
 protected:
   void SetUp() override {
      m.insertFirstEntry(a, 5);
      m.insertSecondEntry(b, 0, true, false);
      m.insertEntry(c, 9, true, true);  // tracked for now
      m.deleteEntry(a, 5, true);        // 5 takes the tracking over
   }
};

TEST_F(MappingV4MergeTest, MergeIntoEmptyRightHalfFillsRight) {
   Ulo::ScopedTraceCapture cap(kTrace, 4, 4);
   m.mergeEntries(24, 5, 9, true, VrfId(1), 77);
   EXPECT_EQ(cap.texts().front(),
             "   mergeEntries, new: 5, old: 9, notify: true, sequence: 77, delVrfIdL 1");
   ASSERT_EQ(merges.size(), 1u);
   EXPECT_EQ(merges[0], (RouteMergeInfo{1, 9, EntryType::v4Right, 5, EntryType::v4Right}));
   EXPECT_EQ(m.keys(5), Ipv4Keys(b, c));
   EXPECT_FALSE(m.keysHas(9));
   EXPECT_EQ(m.halfFullSize(), 0u);
   m.verifyEntry(b, 5);
   m.verifyEntry(c, 5);
}

TEST_F(MappingV4MergeTest, MergeFromLeftIntoEmptyLeftHalfWithoutNotify) {
   m.mergeEntries(24, 9, 5, false, VrfId(2), 1);
   EXPECT_TRUE(merges.empty());
   EXPECT_EQ(stats->mergeRoute(RouteType::v4), 1u);
   EXPECT_EQ(m.keys(9), Ipv4Keys(b, c));
   EXPECT_EQ(m.getEntryId(b), 9u);
}

TEST_F(MappingV4MergeTest, MergeIntoFullEntryAsserts) {
   m.insertFirstEntry(k4(1, "10.0.0.0/8"), 40);
   m.insertSecondEntry(k4(2, "11.0.0.0/8"), 40, true, false);
   expectAssertion([&] { m.mergeEntries(24, 40, 9, true, VrfId(1), 1); },
                   "k.left().prefix().isNullPrefix()");
}

TEST_F(MappingV4MergeTest, UnacknowledgedMergeAsserts) {
   writerCopies = false;
   expectAssertion([&] { m.mergeEntries(24, 5, 9, true, VrfId(1), 1); },
                   "routeMerge()->merge() == routeMergeStatus()->merge()");
}

// ---- seeded random sequences against a reference model -----------------------------------

// The reference: entries as plain maps, updated by the obvious rules.
struct RefV4 {
   std::map<uint32_t, Ipv4Keys> entries;
   std::map<Ipv4UcastKey, uint32_t> where;
   std::array<uint32_t, 33> halfFull{};
};

void checkAgainstRef(const MappingV4& m, const RefV4& ref, const TcamStats& stats,
                     uint64_t movesMade, uint64_t mergesMade) {
   using Entries = std::vector<std::pair<uint32_t, Ipv4Keys>>;
   Entries seen;
   m.forEachKeys([&](uint32_t pos, const Ipv4Keys& k) { seen.emplace_back(pos, k); });
   ASSERT_EQ(seen, Entries(ref.entries.begin(), ref.entries.end()));
   ASSERT_EQ(m.keysSize(), ref.entries.size());
   ASSERT_EQ(m.keyToEntryIdSize(), ref.where.size());
   for (const auto& [key, pos] : ref.where) {
      ASSERT_EQ(m.getEntryId(key), pos) << key.toString();
      m.verifyEntry(key, pos);
      ASSERT_EQ(m.rightKey(key, pos), ref.entries.at(pos).right == key);
   }
   size_t tracked = 0;
   for (uint32_t len = 0; len <= 32; ++len) {
      ASSERT_EQ(m.halfFull(len), ref.halfFull[len]) << len;
      tracked += ref.halfFull[len] != 0;
   }
   ASSERT_EQ(m.halfFullSize(), tracked);
   ASSERT_EQ(stats.moveRoute(RouteType::v4), movesMade);
   ASSERT_EQ(stats.mergeRoute(RouteType::v4), mergesMade);
}

class MappingV4RandomTest : public PublishFixture {};

TEST_F(MappingV4RandomTest, ValidSequencesMatchReferenceModelAfterEveryStep) {
   constexpr uint32_t kPositions = 256;
   const uint8_t lens[] = {0, 8, 16, 24, 31, 32};
   for (uint32_t seed : {11u, 12u, 13u}) {
      SCOPED_TRACE(seed);
      std::mt19937 rng(seed);
      auto stats1 = tcamStatsFactory();
      MappingV4 m(true, stats1, move, moveStatus, merge, mergeStatus);
      RefV4 ref;
      uint64_t movesMade = 0, mergesMade = 0;
      auto freePos = [&] {
         uint32_t p;
         do
            p = 1 + rng() % kPositions;
         while (ref.entries.count(p));
         return p;
      };
      auto newKey = [&] {
         Ipv4UcastKey k;
         do {
            const uint8_t len = lens[rng() % std::size(lens)];
            const uint32_t mask = len == 0 ? 0 : ~0u << (32 - len);
            k = Ipv4UcastKey(VrfId(1 + rng() % 3), Ulo::Prefix(rng() & mask, len));
         } while (ref.where.count(k));
         return k;
      };
      auto randomKey = [&] {
         auto it = ref.where.begin();
         std::advance(it, rng() % ref.where.size());
         return *it;
      };
      auto insert = [&] {
         const Ipv4UcastKey k = newKey();
         const uint32_t len = k.len();
         uint32_t pos = ref.halfFull[len];
         if (pos == 0) {
            pos = freePos();
            m.insertFirstEntry(k, pos);
            ref.entries[pos] = Ipv4Keys(null4(k.vrfId.value()), k);
            ref.halfFull[len] = pos;
         } else {
            ASSERT_EQ(m.insertSecondEntry(k, rng() % 2 ? pos : 0, rng() % 2, false), pos);
            Ipv4Keys& e = ref.entries[pos];
            (e.right.isNull() ? e.right : e.left) = k;
            ref.halfFull[len] = 0;
         }
         ref.where[k] = pos;
      };
      // Two half-full entries of one length, as a deletion leaves them: merge src into dst.
      auto mergeHalves = [&](uint32_t len, uint32_t dst, uint32_t src, VrfId vrf) {
         const bool notify = rng() % 4 != 0;
         m.mergeEntries(len, dst, src, notify, vrf, 0);
         ++mergesMade;
         const Ipv4Keys from = ref.entries[src];
         const bool fromRight = !from.right.isNull();
         Ipv4Keys& to = ref.entries[dst];
         const bool intoRight = to.right.isNull();
         (intoRight ? to.right : to.left) = fromRight ? from.right : from.left;
         ref.where[fromRight ? from.right : from.left] = dst;
         ref.entries.erase(src);
         ref.halfFull[len] = 0;
         if (notify) {
            const auto side = [](bool right) {
               return right ? EntryType::v4Right : EntryType::v4Left;
            };
            ASSERT_EQ(merges.back(),
                      (RouteMergeInfo{mergesMade, src, side(fromRight), dst, side(intoRight)}));
         }
      };
      auto remove = [&] {
         const auto [k, pos] = randomKey();
         const uint32_t len = k.len();
         Ipv4Keys& e = ref.entries[pos];
         const bool right = e.right == k;
         const bool emptied = (right ? e.left : e.right).isNull();
         ASSERT_EQ(m.deleteEntry(k, pos, right), emptied);
         ref.where.erase(k);
         if (emptied) {
            ref.entries.erase(pos);
            ref.halfFull[len] = 0;
            return;
         }
         (right ? e.right : e.left) = null4(k.vrfId.value());
         const uint32_t previous = ref.halfFull[len];
         ref.halfFull[len] = pos;
         if (previous != 0) {
            rng() % 2 ? mergeHalves(len, pos, previous, k.vrfId)
                      : mergeHalves(len, previous, pos, k.vrfId);
         }
      };
      auto moveOne = [&] {
         const uint32_t pos = randomKey().second;
         const uint32_t to = freePos();
         const Ipv4Keys e = ref.entries[pos];
         const uint32_t len = (e.right.isNull() ? e.left : e.right).len();
         m.moveEntry(len, to, pos, true);
         ++movesMade;
         ref.entries.erase(pos);
         ref.entries[to] = e;
         for (const Ipv4UcastKey& h : {e.left, e.right}) {
            if (!h.isNull()) ref.where[h] = to;
         }
         if (ref.halfFull[len] == pos) ref.halfFull[len] = to;
         const EntryType type = e.left.isNull()    ? EntryType::v4Right
                                : e.right.isNull() ? EntryType::v4Left
                                                   : EntryType::v4Both;
         ASSERT_EQ(moves.back(), (RoutePosition{movesMade, pos, to, true, type}));
      };
      for (int step = 0; step < 3000; ++step) {
         const unsigned op = rng() % 10;
         if (ref.where.empty() || (op < 4 && ref.entries.size() < kPositions * 3 / 4)) {
            insert();
         } else if (op < 7) {
            remove();
         } else {
            moveOne();
         }
         if (HasFatalFailure()) return;
         checkAgainstRef(m, ref, *stats1, movesMade, mergesMade);
         if (HasFatalFailure()) return;
      }
   }
}

// ---- IPv6 --------------------------------------------------------------------------------

class MappingV6Test : public PublishFixture {
 protected:
   void SetUp() override { m.tcamBorderIs(100); }
   MappingV6 m{stats, move, moveStatus};
   const Ipv6UcastKey a = k6(1, "2001:db8::/64");
   const Ipv6UcastKey b = k6(2, "2001:db8:1::/96");
};

TEST_F(MappingV6Test, RecordsBothDirections) {
   EXPECT_EQ(m.getEntryId(a), 0u);
   EXPECT_EQ(m.getEntryIdCount(a), 0u);
   Ulo::ScopedTraceCapture cap(kTrace, 5, 5);
   m.insertEntry(a, 120);
   EXPECT_EQ(cap.texts(),
             std::vector<std::string>{"   insertEntry, key: 2001:db8::/64 (vrf 1), pos: 120"});
   EXPECT_EQ(m.getEntryId(a), 120u);
   EXPECT_TRUE(m.hasEntryKey(120));
   EXPECT_EQ(m.getEntryKey(120), a);
   EXPECT_EQ(m.v6RouteTypeFromPos(120), RouteType::v6Half);
   EXPECT_EQ(m.v6RouteTypeFromPos(99), RouteType::v6Full);
   m.verifyEntry(a, 120);
   expectAssertion([&] { m.verifyEntry(a, 121); }, "hasEntryId( k, pos )", "entryId( k ): 120");

   m.setEntryId(a, 130);
   EXPECT_EQ(m.getEntryIdCount(a), 2u);
   expectAssertion([&] { m.getEntryId(a); }, "1+ pivots for prefix are not supported");
   m.deleteEntry(a, 130);
   m.deleteEntry(a, 120);
   EXPECT_FALSE(m.keyToEntryIdHas(a));
   EXPECT_EQ(m.entryIdToKeySize(), 0u);
}

TEST_F(MappingV6Test, ClearEntryIdOfAnotherKeyStillFreesThePosition) {
   m.insertEntry(a, 120);
   m.clearEntryId(b, 120);
   EXPECT_FALSE(m.hasEntryKey(120));
   EXPECT_EQ(m.getEntryKey(120), Ipv6UcastKey());
   // The key's own record is left as it was.
   EXPECT_TRUE(m.hasEntryId(a, 120));
}

TEST_F(MappingV6Test, MoveCountsTheSizeOfTheOldPosition) {
   m.insertEntry(b, 10);
   Ulo::ScopedTraceCapture cap(kTrace, 5, 5);
   m.moveEntry(96, 150, 10, 0, true);  // from below the border to above it
   EXPECT_EQ(cap.texts().front(), "   moveEntry, new: 150, old: 10");
   EXPECT_EQ(stats->moveRoute(RouteType::v6Full), 1u);
   EXPECT_EQ(stats->moveRoute(RouteType::v6Half), 0u);
   ASSERT_EQ(moves.size(), 1u);
   EXPECT_EQ(moves[0], (RoutePosition{1, 10, 150, false, EntryType::v6}));
   EXPECT_EQ(m.getEntryId(b), 150u);
   EXPECT_FALSE(m.hasEntryKey(10));

   m.moveEntry(96, 160, 150, 0, false);
   EXPECT_EQ(stats->moveRoute(RouteType::v6Half), 1u);
   EXPECT_EQ(moves.size(), 1u);

   writerCopies = false;
   expectAssertion([&] { m.moveEntry(96, 170, 160, 0, true); },
                   "routeMove()->pos() == routeMoveStatus()->pos()");
}

TEST_F(MappingV6Test, HandleInitializedTwiceKeepsRecords) {
   m.insertEntry(a, 120);
   Ulo::ScopedTraceCapture cap(kTrace, 1, 1);
   m.handleInitialized();
   EXPECT_EQ(cap.texts(), std::vector<std::string>{"MappingV6 already initialized"});
   EXPECT_EQ(m.getEntryId(a), 120u);
}

// ---- IPv4 multicast ----------------------------------------------------------------------

class MappingMcastV4Test : public PublishFixture {
 protected:
   void SetUp() override {
      L3TcamManagerContext::Config cfg;
      cfg.tcamSize = 1024;
      cfg.v4Mcast = true;
      cfg.routeMove = move;
      cfg.routeMoveStatus = moveStatus;
      cfg.routeMerge = merge;
      cfg.routeMergeStatus = mergeStatus;
      ctx = l3TcamManagerContextFactory(cfg);
      ctx->handleInitialized(true);  // creates the statistics the mapping counts in
      ASSERT_NE(ctx->tcamStats(), nullptr);
      m = std::make_unique<MappingMcastV4>(ctx.get());
      m->handleInitialized();
   }
   Ulo::Ptr<L3TcamManagerContext> ctx;
   std::unique_ptr<MappingMcastV4> m;
   const IpMcastPrefixKey a{1, 0, Ulo::IpGenAddr::fromString("239.1.1.1"),
                            Ulo::IpGenAddr::fromString("10.0.0.1"), 64};
};

TEST_F(MappingMcastV4Test, InsertMoveDeleteVerify) {
   Ulo::ScopedTraceCapture cap(kTrace, 5, 5);
   m->insertEntry(a, 40);
   EXPECT_EQ(cap.texts().back(), "   insertEntry, key: " + a.toString() + ", pos: 40");
   EXPECT_EQ(m->entryId(a), 40u);
   ASSERT_NE(m->key(40), nullptr);
   m->verifyEntry(a, 40);
   expectAssertion([&] { m->verifyEntry(a, 41); }, "entryId( k ) == pos", "entryId( k ): 40");

   const uint64_t before = ctx->tcamStats()->moveRoute(RouteType::v4Mcast);
   m->moveEntry(64, 50, 40, true);
   EXPECT_EQ(ctx->tcamStats()->moveRoute(RouteType::v4Mcast), before + 1);
   EXPECT_EQ(moves.back(), (RoutePosition{before + 1, 40, 50, false, EntryType::mcastV4}));
   EXPECT_EQ(m->key(40), nullptr);
   m->verifyEntry(a, 50);

   m->keyDel(50);
   expectAssertion([&] { m->verifyEntry(a, 50); }, "key( pos ) == k");
   m->keyIs(50, a);

   writerCopies = false;
   expectAssertion(
       [&] { m->moveEntry(64, 60, 50, true); },
       "tcamManagerCtx()->routeMove()->pos() == tcamManagerCtx()->routeMoveStatus()->pos()");
   m->deleteEntry(a, 60);
   EXPECT_EQ(m->entryId(a), 0u);
   EXPECT_EQ(m->key(60), nullptr);
   EXPECT_EQ(m->entryIdSize(), 0u);
}

TEST_F(MappingMcastV4Test, HandleInitializedTwiceKeepsRecords) {
   m->insertEntry(a, 40);
   Ulo::ScopedTraceCapture cap(kTrace, 1, 1);
   m->handleInitialized();
   EXPECT_EQ(cap.texts(), std::vector<std::string>{"MappingMcastV4 already initialized"});
   EXPECT_EQ(m->entryId(a), 40u);
}

}  // namespace
}  // namespace VexloL3Common
