#include <gtest/gtest.h>

#include "TcamFixture.h"
#include "VexloL3Common/types/L3RouteTypes.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;
using Ulo::Ip6Prefix;
using Ulo::Prefix;

TEST(RouteKeys, VrfDecidesBeforeThePrefix) {
   EXPECT_LT(k4(1, "200.0.0.0/8"), k4(2, "10.0.0.0/8"));
   EXPECT_LT(k6(1, "ff00::/8"), k6(2, "::/0"));
   IpMcastPrefixKey a(1, 0, Ulo::IpGenAddr::fromString("239.1.1.1"),
                      Ulo::IpGenAddr::fromString("10.0.0.1"), 64);
   IpMcastPrefixKey b = a, c = a;
   b.tableId = 1;
   c.vrfIndex = 2;
   EXPECT_LT(a, b);
   EXPECT_LT(b, c) << "the first 16-bit field decides before the second";
}

TEST(RouteKeys, TraceFormsAndHashes) {
   EXPECT_EQ(fmt::format("{} {} {} {}", k4(1, "10.0.0.0/8"), k6(7, "2001:db8::/32"),
                         Ipv4UcastKey::nullKey(VrfId(2)),
                         IpUcastKey(VrfId(4), Ulo::IpGenPrefix::fromString("::/0"))),
             "10.0.0.0/8(vrf1) 2001:db8::/32(vrf7) 0.0.0.0/255(vrf2) ::/0(vrf4)");

   IpUcastKey x(VrfId(1), Prefix::fromString("10.0.0.0/8"));
   IpUcastKey y(VrfId(2), Prefix::fromString("10.0.0.0/8"));
   IpUcastKey z(VrfId(1), Ip6Prefix::fromString("::/8"));
   EXPECT_NE(x.hash(0), y.hash(0));
   EXPECT_NE(x.hash(0), z.hash(0));
   EXPECT_NE(x.hash(0), x.hash(1)) << "the starting value is mixed in";
}

TEST(RouteKeys, Ipv4KeysIsEmptyOnlyWhenBothHalvesAreNull) {
   Ipv4UcastKey null = Ipv4UcastKey::nullKey(VrfId(1));
   EXPECT_FALSE(Ipv4Keys(null, null));
   EXPECT_TRUE(Ipv4Keys(null, k4(1, "10.0.0.0/8")));
   EXPECT_TRUE(Ipv4Keys(k4(1, "10.0.0.0/8"), null));
   EXPECT_TRUE(Ipv4Keys()) << "all-zero halves hold 0.0.0.0/0, which is not the null prefix";
}

TEST(RouteTypes, NamesReadBackAndUnknownNamesAreRangeErrors) {
   for (RouteType t : allRouteTypes)
      EXPECT_EQ(routeTypeFromString(toString(t)), t);
   for (unsigned i = 0; i <= 5; ++i)
      EXPECT_EQ(entryTypeFromString(toString(EntryType(i))), EntryType(i));
   EXPECT_EQ(fmt::format("{} {}", RouteType::v6Half, EntryType::v4Right), "v6Half v4Right");
   EXPECT_THROW(routeTypeFromString("v5"), std::range_error);
   EXPECT_THROW(entryTypeFromString(""), std::range_error);
}

namespace {
IndexRangeList list(std::initializer_list<IndexRange> runs) {
   IndexRangeList l;
   for (const IndexRange& r : runs)
      l.indexRangeIs(r);
   return l;
}
std::vector<IndexRange> runs(const IndexRangeList& l) {
   return {l.indexRange().begin(), l.indexRange().end()};
}
using V = std::vector<IndexRange>;
}  // namespace

TEST(IndexRange, ContainsBothEndsAndHashesStartFirst) {
   for (uint32_t i : {2u, 3u, 5u, 6u})
      EXPECT_EQ(IndexRange(3, 5).contains(i), i == 3 || i == 5) << i;
   EXPECT_FALSE(IndexRange(5, 3).contains(4));
   EXPECT_NE(IndexRange(1, 2).hash(), IndexRange(2, 1).hash()) << "start is fed before end";
   EXPECT_EQ(fmt::format("{}", IndexRange(1000, 2124)), "1000/2124");
}

TEST(IndexRangeList, MergeJoinsTouchingAndContainedRuns) {
   struct Case {
      std::initializer_list<IndexRange> in;
      V out;
   } cases[] = {
       {{{0, 4}, {5, 9}}, {{0, 9}}},
       {{{0, 4}, {6, 9}}, {{0, 4}, {6, 9}}},
       {{{0, 9}, {2, 3}}, {{0, 9}}},
       {{{3, 5}, {3, 8}}, {{3, 8}}},
       {{{10, 20}, {1, 2}, {3, 9}, {30, 31}, {21, 21}}, {{1, 21}, {30, 31}}},
       // end + 1 wraps to 0 after a run that ends at the top of the index space.
       {{{5, 0xFFFFFFFF}, {10, 20}}, {{5, 0xFFFFFFFF}, {10, 20}}},
       {{{0, 5}, {0, 0xFFFFFFFF}}, {{0, 0xFFFFFFFF}}},
   };
   for (const Case& c : cases) {
      IndexRangeList l = list(c.in);
      l.merge();
      EXPECT_EQ(runs(l), c.out) << l.toString();
   }
}

TEST(IndexRangeList, MergedFlagFollowsChanges) {
   IndexRangeList l = list({{0, 4}, {5, 9}});
   EXPECT_FALSE(l.merged());
   l.merge();
   l.indexRangeIs({0, 9});  // already present: no change
   EXPECT_TRUE(l.merged());
   l.indexRangeIs({10, 12});
   EXPECT_FALSE(l.merged());
   l.merge();
   EXPECT_EQ(runs(l), (V{{0, 12}}));

   EXPECT_FALSE(l.indexRangeDel({0, 9}));
   EXPECT_TRUE(l.merged()) << "a failed removal leaves the flag alone";
   EXPECT_TRUE(l.indexRangeDel({0, 12}));
   EXPECT_FALSE(l.merged());
   EXPECT_FALSE(l) << "no runs and not merged";
   l.merge();
   EXPECT_TRUE(l) << "an empty merged list is true";
   EXPECT_NE(IndexRangeList(true), IndexRangeList(false));
}

TEST(IndexRangeList, QueriesPopAndNoTextConstructor) {
   IndexRangeList l = list({{7, 9}, {2, 3}});
   EXPECT_TRUE(l.contains(2));
   EXPECT_FALSE(l.contains(5));
   IndexRangeList whole = list({{0, 9}});
   EXPECT_FALSE(whole.indexRangeHas({2, 3}));
   EXPECT_TRUE(whole.indexRangeHas({0, 9}));

   EXPECT_EQ(l.pop(), IndexRange(2, 3));
   EXPECT_EQ(runs(l), (V{{7, 9}}));
   EXPECT_EQ(l.pop(), IndexRange(7, 9));
   EXPECT_EQ(l.pop(), std::nullopt);

   EXPECT_EQ(failureOf([] { IndexRangeList::fromString("{1/2}"); }),
             "No String constructor for IndexRangeList - has collection");
}
