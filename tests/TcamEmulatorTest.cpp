// TcamEmulator: the writer role (moves, merges, acknowledgement, rejected moves), the caller's
// writes and the installed set, first-match lookups, the consistency checks on hand-made tables
// and shift sequences, and seeded random tables on which the incremental check must agree with
// the full one.

#include "sim/TcamEmulator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TcamFixture.h"
#include "platform/Assert.h"

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace VexloL3Common::sim {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Kind = Violation::Kind;
using OnError = TcamEmulator::OnError;
using VexloL3Common::testing::failureOf;
using VexloL3Common::testing::k4;
using VexloL3Common::testing::k6;

IpMcastPrefixKey kmc(const char* group, const char* source, uint8_t len, uint16_t table = 0) {
   return IpMcastPrefixKey(1, table, Ulo::IpGenAddr::fromString(group),
                           Ulo::IpGenAddr::fromString(source), len);
}
// The first route of an entry goes into the right half.
Ipv4Keys right(const Ipv4UcastKey& k) {
   return Ipv4Keys(Ipv4UcastKey::nullKey(k.vrfId), k);
}
uint32_t a4(const char* addr) {
   return Ulo::IpGenAddr::fromString(addr).v4Addr();
}
Ulo::IpGenAddr::Bytes a6(const char* addr) {
   return Ulo::IpGenAddr::fromString(addr).bytes();
}
RoutePosition mv(uint32_t from, uint32_t to, bool v4 = true, EntryType t = EntryType::v4Right) {
   return RoutePosition{1, from, to, v4, t};
}

std::vector<std::string> messages(const std::vector<Violation>& v) {
   std::vector<std::string> out;
   for (const auto& x : v)
      out.push_back(x.message);
   return out;
}

// An emulator wired to the four records, as the model's context holds them.
class TcamEmulatorWriter : public ::testing::Test {
 protected:
   TcamEmulatorWriter() { emu.attach(move, moveStatus, merge, mergeStatus); }

   RoutePosition publish(uint32_t from, uint32_t to, bool v4, EntryType type) {
      move.posIs(RoutePosition{++count, from, to, v4, type});
      return move.pos();
   }
   RouteMergeInfo publishMerge(uint32_t from, EntryType fromHalf, uint32_t to, EntryType toHalf) {
      merge.mergeIs(RouteMergeInfo{++count, from, fromHalf, to, toHalf});
      return merge.merge();
   }

   RouteMove move, moveStatus;
   RouteMerge merge, mergeStatus;
   TcamEmulator emu{64, 16};
   uint64_t count = 0;
};

// ---- writer role ----------------------------------------------------------------------------

// Carrying a move out faithfully (entry copied, source emptied, homes moved along, acknowledged)
// is what every model test stands on: the seeded random runs, the restart runs and the fuzz corpus
// fail on any lapse. What only a conversion between the two IPv6 sizes needs is checked here.
TEST_F(TcamEmulatorWriter, MovedIpv6RouteTakesTheSizeOfTheRegionItLandsIn) {
   emu.doubleSizeAtIs([](uint32_t pos) { return pos < 16; });
   emu.writeV6(40, k6(1, "2001:db8:1::/48"), false);
   publish(40, 2, false, EntryType::v6);
   EXPECT_EQ(emu.entry(18).kind, EntryKind::v6DoubleSecond);
   publish(2, 44, false, EntryType::v6);
   EXPECT_EQ(emu.entry(44).kind, EntryKind::v6Single);
   EXPECT_EQ(emu.entry(18).kind, EntryKind::empty);
   EXPECT_THAT(emu.checkAll(), IsEmpty());
}

TEST_F(TcamEmulatorWriter, MoveThatDoesNotMatchItsSourceIsRejectedButAcknowledged) {
   emu.onErrorIs(OnError::record);
   emu.writeV4(5, right(k4(1, "10.1.0.0/16")));
   emu.writeV6(6, k6(1, "2001:db8::/48"), false);
   emu.writeV6(8, k6(1, "2001:db8::/96"), true);
   emu.writeV4(10, right(k4(1, "10.2.0.0/16")));
   publish(10, 12, true, EntryType::v4Right);
   // from, to, v4, type, why
   const std::tuple<uint32_t, uint32_t, bool, EntryType, const char*> cases[] = {
       {5, 30, true, EntryType::v4Both, "holds v4 right: 10.1.0.0/16"},  // one half only
       {5, 30, true, EntryType::v4Left, "holds v4"},                     // the wrong half
       {5, 30, false, EntryType::v6, "holds v4"},
       {6, 30, true, EntryType::v4Right, "holds v6Single"},
       {6, 30, false, EntryType::mcastV4, "holds v6Single"},
       {7, 30, false, EntryType::v6, "holds empty"},
       {5, 30, true, EntryType::v6, "holds v4"},  // v4 flag with a non-IPv4 type
       {0, 30, true, EntryType::v4Right, "outside the table"},
       {5, 64, true, EntryType::v4Right, "outside the table"},
       {8, 50, false, EntryType::v6, "partner lies outside"},  // 50 + 16 is past 63
       {10, 30, true, EntryType::v4Right, "holds empty"},      // already moved on
   };
   uint64_t errors = 0;
   for (const auto& [from, to, v4, type, why] : cases) {
      RoutePosition p = publish(from, to, v4, type);
      SCOPED_TRACE(fmt::format("{}", p));
      ASSERT_EQ(emu.errorCount(), ++errors);
      EXPECT_THAT(emu.errors().back(), HasSubstr(why));
      EXPECT_EQ(moveStatus.pos(), p);
   }
   EXPECT_EQ(emu.entry(30).kind, EntryKind::empty) << "a rejected move writes nothing";
   EXPECT_EQ(emu.moves(), 1u);
}

TEST_F(TcamEmulatorWriter, MergeFillsTheFreeHalfKeepsTheSourceAndAcknowledges) {
   emu.writeV4(4, right(k4(1, "10.1.1.0/24")));
   emu.writeV4(7, Ipv4Keys(k4(1, "10.1.2.0/24"), k4(1, "10.1.9.0/24")));
   // The agent deleted the right route of 7; the model merges the left one into 4.
   publishMerge(7, EntryType::v4Left, 4, EntryType::v4Left);
   const Ipv4Keys merged(k4(1, "10.1.2.0/24"), k4(1, "10.1.1.0/24"));
   EXPECT_EQ(emu.entry(4).v4, merged);
   EXPECT_EQ(emu.entry(7).v4.left, k4(1, "10.1.2.0/24")) << "the source keeps a stale copy";
   emu.clear(7);  // gives up the deleted route, not the merged one (whose home moved to 4)
   EXPECT_THAT(emu.checkAll(), IsEmpty());

   // Into a taken half, from an empty half, ...: rejected, acknowledged, nothing written.
   emu.onErrorIs(OnError::record);
   emu.writeV4(7, right(k4(1, "10.1.5.0/24")));
   emu.writeV6(8, k6(1, "2001:db8::/48"), false);
   publishMerge(7, EntryType::v4Right, 4, EntryType::v4Left);
   publishMerge(7, EntryType::v4Left, 4, EntryType::v4Left);
   publishMerge(7, EntryType::v4Right, 8, EntryType::v4Left);
   publishMerge(7, EntryType::v4Right, 7, EntryType::v4Left);
   publishMerge(7, EntryType::v4Both, 4, EntryType::v4Left);
   EXPECT_THAT(emu.errors(), ElementsAre(HasSubstr("destination half is not free"),
                                         HasSubstr("source half is empty"),
                                         HasSubstr("destination holds v6Single"),
                                         HasSubstr("the same entry"), HasSubstr("not a half")));
   EXPECT_EQ(emu.entry(4).v4, merged);
   EXPECT_EQ(mergeStatus.merge().count, 6u);
   EXPECT_EQ(emu.merges(), 1u);
}

TEST_F(TcamEmulatorWriter, ErrorsAreFatalByDefault) {
   emu.writeV4(12, right(k4(1, "10.1.0.0/16")));
   emu.writeV4(9, right(k4(1, "10.1.1.0/24")));
   // The message of a fatal error is kept too.
   EXPECT_EQ(failureOf([&] { publish(12, 20, true, EntryType::v4Both); }),
             "TcamEmulator: writer error");
   EXPECT_EQ(emu.errors().back(), fmt::format("move {}: the source holds v4 right: "
                                              "10.1.0.0/16(vrf1) left: 0.0.0.0/255(vrf1)",
                                              move.pos()));
   EXPECT_EQ(failureOf([&] { publish(12, 7, true, EntryType::v4Right); }),
             "TcamEmulator: table inconsistent");
   EXPECT_EQ(emu.errors().back(),
             "route 10.1.1.0/24(vrf1) first held at entry 9 is shadowed by shorter "
             "10.1.0.0/16(vrf1) at entry 7");
}

TEST_F(TcamEmulatorWriter, BrokenWriterCarriesOutButNeverAcknowledgesAndDetachStopsIt) {
   emu.acknowledgesIs(false);
   emu.writeV4(5, right(k4(1, "10.1.0.0/16")));
   emu.writeV4(6, right(k4(1, "10.2.0.0/16")));
   RoutePosition p = publish(5, 9, true, EntryType::v4Right);
   RouteMergeInfo m = publishMerge(6, EntryType::v4Right, 9, EntryType::v4Left);
   EXPECT_EQ(emu.entry(9).v4, Ipv4Keys(k4(1, "10.2.0.0/16"), k4(1, "10.1.0.0/16")));
   EXPECT_NE(moveStatus.pos(), p);
   EXPECT_NE(mergeStatus.merge(), m);

   emu.detach();
   publish(9, 12, true, EntryType::v4Both);
   EXPECT_EQ(emu.entry(12).kind, EntryKind::empty);
   EXPECT_EQ(move.changed().subscribers(), 0u);
}

// ---- caller writes and the installed set -------------------------------------------------------

TEST(TcamEmulatorWrites, RoutesLeaveTheInstalledSetOnlyWhenTheirEntryIsRewrittenWithoutThem) {
   TcamEmulator emu(32, 8);
   emu.onErrorIs(OnError::record);
   emu.writeV4(5, Ipv4Keys(k4(1, "10.1.0.0/16"), k4(1, "10.2.0.0/16")));
   emu.writeV4(5, right(k4(1, "10.2.0.0/16")));  // the left route was deleted
   EXPECT_EQ(emu.home(k4(1, "10.1.0.0/16")), 0u);

   emu.applyMove(mv(5, 9));
   emu.writeV4(5, right(k4(1, "10.2.1.0/24")));  // a new route where it was
   EXPECT_EQ(emu.home(k4(1, "10.2.0.0/16")), 9u);

   emu.writeV4(20, right(k4(1, "10.3.0.0/16")));
   emu.applyMove(mv(9, 20));  // onto a live entry: 10.3.0.0/16 is lost, and stays installed
   EXPECT_THAT(emu.errors(), ElementsAre(HasSubstr("10.3.0.0/16(vrf1) installed at entry 20")));
   emu.clear(20);  // the agent deletes both where it believes they are
   EXPECT_EQ(emu.installedRoutes(), 1u);
   EXPECT_THAT(emu.checkAll(), IsEmpty());
}

TEST(TcamEmulatorWrites, DoubleSizePairsAreWrittenListedAndLostTogether) {
   TcamEmulator emu(32, 8);
   emu.writeV6(2, k6(1, "2001:db8:2::/96"), true);
   emu.writeV6(4, k6(1, "2001:db8::/96"), true);
   emu.writeV6(5, k6(1, "2001:db8:1::/96"), true);
   emu.writeMcast(9, kmc("239.1.1.1", "0.0.0.0", 32));
   emu.clear(4);                                 // takes 12 with it
   emu.writeV4(13, right(k4(1, "10.0.0.0/8")));  // lands on the second entry of a live pair
   std::vector<std::pair<uint32_t, EntryKind>> seen;
   emu.forEachEntry([&](uint32_t pos, const TcamEntry& e) { seen.emplace_back(pos, e.kind); });
   EXPECT_THAT(
       seen, ElementsAre(std::pair(2u, EntryKind::v6DoubleFirst), std::pair(9u, EntryKind::mcast),
                         std::pair(10u, EntryKind::v6DoubleSecond), std::pair(13u, EntryKind::v4)));
   EXPECT_THAT(messages(emu.checkAll()),
               ElementsAre("route 2001:db8:1::/96(vrf1) installed at entry 5 (double) is no longer "
                           "held there (it holds: empty)"));
}

TEST(TcamEmulatorWrites, PositionsOutsideTheTableAreRangeErrors) {
   TcamEmulator emu(32, 8);
   EXPECT_THROW(emu.writeV4(0, right(k4(1, "10.0.0.0/8"))), std::range_error);
   EXPECT_THROW(emu.writeMcast(32, kmc("239.1.1.1", "0.0.0.0", 32)), std::range_error);
   EXPECT_THROW(emu.writeV6(24, k6(1, "2001:db8::/96"), true), std::range_error);
   EXPECT_NO_THROW(emu.writeV6(23, k6(1, "2001:db8::/96"), true));
   EXPECT_THROW(emu.clear(0), std::range_error);
   EXPECT_THROW(emu.entry(32), std::range_error);
   EXPECT_THROW(TcamEmulator(1u << 31, 8), std::range_error);
   for (uint32_t noPairs : {0, 32, 40})
      EXPECT_THROW(TcamEmulator(32, noPairs).writeV6(1, k6(1, "2001:db8::/96"), true),
                   std::range_error);
}

// ---- lookups -------------------------------------------------------------------------------

// The fuzz target checks on every step that a lookup hits the longest installed prefix; on a table
// that is not in order a lookup shows the first match instead, and the search order.
TEST(TcamEmulatorLookup, FirstMatchInSearchOrderWithinItsVrfAndTable) {
   TcamEmulator emu(64, 16);
   emu.writeV4(2, right(k4(1, "10.0.0.0/8")));
   emu.writeV4(5, right(k4(1, "10.1.0.0/16")));
   EXPECT_EQ(emu.lookup4(VrfId(1), a4("10.1.2.3"))->pos, 2u) << "first match, not longest";
   emu.writeV6(3, k6(1, "2001:db8::/48"), false);
   emu.writeV6(30, k6(1, "2001:db8::1/128"), true);
   EXPECT_EQ(emu.lookup6(VrfId(1), a6("2001:db8::1"))->pos, 30u) << "double-size entries first";
   emu.writeMcast(9, kmc("239.1.1.1", "0.0.0.0", 32));
   emu.writeMcast(10, kmc("239.1.1.1", "10.0.0.0", 40, 4));
   EXPECT_EQ(emu.lookupMcast(1, 4, a4("239.1.1.1"), a4("10.9.9.9"))->pos, 10u);
   EXPECT_FALSE(emu.lookupMcast(1, 4, a4("239.1.1.1"), a4("11.0.0.1")));
}

// ---- consistency ---------------------------------------------------------------------------

// Rows of the consistency cases: each writes one entry (an IPv4 route goes into the right half).
using Write = std::function<void(TcamEmulator&)>;
Write v4At(uint32_t pos, const char* prefix, uint32_t vrf = 1) {
   return [=](TcamEmulator& e) { e.writeV4(pos, right(k4(vrf, prefix))); };
}
Write v6At(uint32_t pos, const char* prefix, bool doubleSize) {
   return [=](TcamEmulator& e) { e.writeV6(pos, k6(1, prefix), doubleSize); };
}
Write mcAt(uint32_t pos, const IpMcastPrefixKey& key) {
   return [=](TcamEmulator& e) { e.writeMcast(pos, key); };
}

TEST(TcamEmulatorCheck, ShorterCoveringPrefixFirstIsReportedByBothChecks) {
   const struct {
      const char* name;
      std::vector<Write> writes;
      std::vector<std::string> expected;
   } cases[] = {
       {"the earliest, then shortest, shadowing prefix is named; other prefixes and VRFs ignored",
        {v4At(10, "10.1.1.0/24"), v4At(8, "10.1.0.0/23"), v4At(2, "10.1.1.0/25"),
         v4At(3, "10.2.0.0/16"), v4At(1, "10.0.0.0/8", 2),
         [](TcamEmulator& e) {
            e.writeV4(6, Ipv4Keys(k4(1, "10.1.0.0/16"), k4(1, "10.0.0.0/8")));
         }},
        {"route 10.1.0.0/23(vrf1) first held at entry 8 is shadowed by shorter 10.0.0.0/8(vrf1) at "
         "entry 6",
         "route 10.1.1.0/24(vrf1) first held at entry 10 is shadowed by shorter 10.0.0.0/8(vrf1) "
         "at entry 6"}},
       {"a stale copy shadows too: the /16 merged on to 15, a /24 written between its copies",
        {v4At(3, "10.1.0.0/16"), v4At(15, "10.9.0.0/16"),
         [](TcamEmulator& e) {
            e.applyMerge(RouteMergeInfo{1, 3, EntryType::v4Right, 15, EntryType::v4Left});
         },
         v4At(10, "10.1.1.0/24")},
        {"route 10.1.1.0/24(vrf1) first held at entry 10 is shadowed by shorter 10.1.0.0/16(vrf1) "
         "at entry 3"}},
       {"ipv6: double-size, then single-size after every double-size",
        {v6At(10, "2001:db8::/80", true), v6At(3, "2001:db8::/64", true),
         v6At(40, "2001:db8:1::/48", false), v6At(36, "2001:db8::/32", false),
         v6At(44, "2001:db8:1::1/128", true)},
        {"route 2001:db8:1::/48(vrf1) first held at entry 40 (single) is shadowed by shorter "
         "2001:db8::/32(vrf1) at entry 36 (single)",
         "route 2001:db8::/80(vrf1) first held at entry 10 (double) is shadowed by shorter "
         "2001:db8::/64(vrf1) at entry 3 (double)"}},
       {"multicast: other tables and groups ignored, keys longer than 64 bits",
        {mcAt(10, kmc("239.1.1.1", "10.0.0.5", 64)), mcAt(4, kmc("239.1.1.1", "0.0.0.0", 32)),
         mcAt(2, kmc("239.1.1.1", "0.0.0.0", 32, 7)), mcAt(3, kmc("239.1.1.2", "0.0.0.0", 32)),
         mcAt(20, kmc("239.1.1.3", "10.0.0.5", 80)), mcAt(14, kmc("239.1.1.3", "10.0.0.5", 70))},
        {"route 239.1.1.1,10.0.0.5/64(1:0) first held at entry 10 is shadowed by shorter "
         "239.1.1.1,0.0.0.0/32(1:0) at entry 4",
         "route 239.1.1.3,10.0.0.5/80(1:0) first held at entry 20 is shadowed by shorter "
         "239.1.1.3,10.0.0.5/70(1:0) at entry 14"}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      TcamEmulator emu(64, 16);
      for (const Write& w : c.writes)
         w(emu);
      EXPECT_EQ(messages(emu.checkAll()), c.expected);
      EXPECT_EQ(messages(emu.checkAfterMove()), c.expected);
      EXPECT_THAT(emu.checkAfterMove(), IsEmpty()) << "nothing changed since";
   }
}

// The incremental check finds the routes a prefix shadows through the prefixes between them, so
// it must follow prefixes written above routes already there, taken out from between, and
// written between again. After every step it names what the full check newly names.
TEST(TcamEmulatorCheck, ShadowingIsFoundThroughPrefixesWrittenAboveAndRemovedBetween) {
   TcamEmulator emu(64, 16);
   emu.checkEveryMoveIs(false);
   auto routes = [](const std::vector<Violation>& v) {
      std::vector<std::string> out;
      for (const auto& x : v)
         out.push_back(x.route);
      return out;
   };
   v4At(5, "10.1.1.0/24")(emu);
   v4At(9, "10.1.0.0/16")(emu);
   EXPECT_THAT(emu.checkAfterMove(), IsEmpty());

   v4At(3, "10.0.0.0/8")(emu);  // above both, and before them
   auto inc = emu.checkAfterMove();
   EXPECT_EQ(messages(inc), messages(emu.checkAll()));
   EXPECT_THAT(routes(inc), ElementsAre("10.1.0.0/16(vrf1)", "10.1.1.0/24(vrf1)"));

   emu.clear(9);  // the /16 goes: the /24 is still shadowed, and was reported already
   EXPECT_THAT(emu.checkAfterMove(), IsEmpty());
   EXPECT_THAT(routes(emu.checkAll()), ElementsAre("10.1.1.0/24(vrf1)"));

   emu.applyMove(mv(3, 20));
   EXPECT_THAT(emu.checkAfterMove(), IsEmpty());
   EXPECT_THAT(emu.checkAll(), IsEmpty());

   emu.applyMove(mv(20, 2));  // back before the /24, now directly above it
   inc = emu.checkAfterMove();
   EXPECT_EQ(messages(inc), messages(emu.checkAll()));
   EXPECT_THAT(messages(inc), ElementsAre("route 10.1.1.0/24(vrf1) first held at entry 5 is "
                                          "shadowed by shorter 10.0.0.0/8(vrf1) at entry 2"));

   v4At(1, "10.1.1.0/25")(emu);  // below the /24 and first: harmless
   v4At(4, "10.1.0.0/20")(emu);  // between the /8 and the /24, after the /8
   inc = emu.checkAfterMove();
   EXPECT_EQ(messages(inc), messages(emu.checkAll()));
   EXPECT_THAT(routes(inc), ElementsAre("10.1.0.0/20(vrf1)", "10.1.1.0/24(vrf1)"));
}

// ---- incremental against full, on random tables --------------------------------------------

// Few distinct leading bits, so that random prefixes often nest.
struct RandomRoutes {
   static uint32_t lenOf(const Ipv4UcastKey& k) { return k.len(); }
   static uint32_t lenOf(const Ipv6UcastKey& k) { return k.len(); }
   static uint32_t lenOf(const IpMcastPrefixKey& k) { return k.len; }
   // As buildLegal places them: IPv4 in a right half, IPv6 double-size below 288.
   static void put(TcamEmulator& e, uint32_t p, const Ipv4UcastKey& k) { e.writeV4(p, right(k)); }
   static void put(TcamEmulator& e, uint32_t p, const Ipv6UcastKey& k) { e.writeV6(p, k, p < 288); }
   static void put(TcamEmulator& e, uint32_t p, const IpMcastPrefixKey& k) { e.writeMcast(p, k); }
   std::mt19937 rng;
   uint32_t below(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng); }
   Ipv4UcastKey v4() {
      uint32_t len = below(33), addr = (10u << 24) | (below(4) << 22) | below(1u << 20);
      return Ipv4UcastKey(VrfId(1 + below(2)),
                          Ulo::Prefix(len ? addr & ~0u << (32 - len) : 0, len));
   }
   Ipv6UcastKey v6(bool longer) {
      uint32_t len = longer ? 65 + below(64) : below(65);
      Ulo::Ip6Prefix::Bytes b{0x20, 0x01, 0x0d, 0xb8};
      for (unsigned i = 4; i < 16; ++i)
         b[i] = uint8_t(below(2) << (i % 8));
      for (unsigned bit = len; bit < 128; ++bit)
         b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
      return Ipv6UcastKey(VrfId(1), Ulo::Ip6Prefix(b, uint8_t(len)));
   }
   IpMcastPrefixKey mcast() {
      static constexpr uint8_t lens[] = {32, 40, 48, 64, 70, 80};
      return IpMcastPrefixKey(1, uint16_t(below(2)), Ulo::IpGenAddr::v4((239u << 24) | below(3)),
                              Ulo::IpGenAddr::v4((10u << 24) | (below(2) << 16) | below(4)),
                              lens[below(6)]);
   }
};

constexpr uint32_t randomSize = 512, randomGap = 64;

// Longest first within each family, with random holes: IPv4 in 1-159, double-size IPv6 in
// 160-223 (partners 224-287), single-size IPv6 in 288-399, multicast in 400-511.
void buildLegal(TcamEmulator& emu, RandomRoutes& r) {
   auto place = [&](uint32_t from, uint32_t to, auto make) {
      std::vector<decltype(make())> keys;
      for (int i = 0; i < 90; ++i)
         keys.push_back(make());
      std::sort(keys.begin(), keys.end(), [](const auto& a, const auto& b) {
         using R = RandomRoutes;
         return R::lenOf(a) > R::lenOf(b) || (R::lenOf(a) == R::lenOf(b) && a < b);
      });
      keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
      for (uint32_t i = 0, pos = from + r.below(3); i < keys.size() && pos < to; ++i) {
         RandomRoutes::put(emu, pos, keys[i]);
         pos += 1 + r.below(3);
      }
   };
   place(1, 160, [&] { return r.v4(); });
   place(160, 224, [&] { return r.v6(true); });
   place(288, 400, [&] { return r.v6(false); });
   place(400, randomSize, [&] { return r.mcast(); });
}

// One random change that may break the table: a move or merge from an entry where its routes
// live (so the writer accepts it), or a caller write or clear anywhere.
void perturb(TcamEmulator& emu, RandomRoutes& r) {
   const uint32_t pos = 1 + r.below(randomSize - 1), to = 1 + r.below(randomSize - 1);
   const TcamEntry& e = emu.entry(pos);
   // Only the field of the entry's kind holds an installed key, and that key's home is pos.
   const bool single = e.v4.left.isNull() && emu.home(e.v4.right) == pos;
   const bool live = single || emu.home(e.v6) == pos || emu.home(e.mcast) == pos;
   const EntryType type = e.kind == EntryKind::v4      ? EntryType::v4Right
                          : e.kind == EntryKind::mcast ? EntryType::mcastV4
                                                       : EntryType::v6;
   const uint32_t what = r.below(6);
   if (what < 2) {
      const uint32_t dst =
          e.kind == EntryKind::v6DoubleFirst ? 1 + to % (randomSize - randomGap - 1) : to;
      if (live) emu.applyMove(mv(pos, dst, e.kind == EntryKind::v4, type));
   } else if (what == 2) {
      emu.writeV4(pos, right(r.v4()));
   } else if (what == 3) {
      emu.writeV6(pos, r.v6(r.below(2)), pos < randomSize - randomGap && r.below(2));
   } else if (what == 4) {
      emu.writeMcast(pos, r.mcast());
   } else if (e.kind == EntryKind::v4 && emu.home(e.v4.right) == pos && r.below(3)) {
      for (uint32_t d = 1; d < randomSize; ++d) {
         const TcamEntry& into = emu.entry(d);
         if (d != pos && into.kind == EntryKind::v4 && into.v4.left.isNull()) {
            emu.applyMerge(RouteMergeInfo{1, pos, EntryType::v4Right, d, EntryType::v4Left});
            break;
         }
      }
   } else {
      emu.clear(pos);
   }
}

TEST(TcamEmulatorRandom, IncrementalCheckAgreesWithFullCheck) {
   for (uint32_t seed = 1; seed <= 4; ++seed) {
      SCOPED_TRACE(fmt::format("seed {}", seed));
      RandomRoutes r{std::mt19937(seed)};
      size_t notHeldFound = 0, shadowedFound = 0;
      for (int round = 0; round < 6; ++round) {
         TcamEmulator emu(randomSize, randomGap);
         emu.onErrorIs(OnError::record);
         emu.checkEveryMoveIs(false);  // the test calls checkAfterMove itself
         buildLegal(emu, r);
         ASSERT_GT(emu.installedRoutes(), 150u);
         ASSERT_THAT(messages(emu.checkAll()), IsEmpty());
         ASSERT_THAT(messages(emu.checkAfterMove()), IsEmpty());
         std::set<std::pair<Kind, std::string>> before;
         for (int step = 0; step < 60; ++step) {
            perturb(emu, r);
            const auto inc = emu.checkAfterMove();
            const auto full = emu.checkAll();
            // What the incremental check reports is true...
            const auto fullMessages = messages(full);
            std::set<std::pair<Kind, std::string>> found, now;
            for (const auto& v : inc) {
               ASSERT_TRUE(std::binary_search(fullMessages.begin(), fullMessages.end(), v.message))
                   << "step " << step << ": " << v.message;
               ++(v.kind == Kind::notHeld ? notHeldFound : shadowedFound);
               found.emplace(v.kind, v.route);
            }
            // ...and it names every route that has newly gone wrong.
            for (const auto& v : full) {
               now.emplace(v.kind, v.route);
               ASSERT_TRUE(before.count({v.kind, v.route}) || found.count({v.kind, v.route}))
                   << "step " << step << ": " << v.message;
            }
            before = std::move(now);
         }
         EXPECT_EQ(emu.errorCount(), 0u) << "moves and merges start where their routes live";
      }
      EXPECT_GT(notHeldFound, 10u) << "the perturbations must break tables in both ways";
      EXPECT_GT(shadowedFound, 100u);
   }
}

}  // namespace
}  // namespace VexloL3Common::sim
