// The synthetic table generator: reproducibility, exact counts of distinct routes, the prefix
// length shares and nesting of an Internet table, the multicast mix, and bad VRFs.

#include "sim/SyntheticTable.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <stdexcept>
#include <unordered_set>
#include <vector>

namespace VexloL3Common::sim {
namespace {

using Family = Route::Family;

// Percent of the routes of `family` whose length lies in [lo, hi].
double percentIn(const std::vector<Route>& t, Family family, uint32_t lo, uint32_t hi) {
   size_t all = 0, in = 0;
   for (const Route& r : t) {
      all += r.family == family;
      in += r.family == family && r.len() >= lo && r.len() <= hi;
   }
   return 100.0 * double(in) / double(all);
}

// Percent of the IPv4 routes with a shorter route of the table covering them.
double percentCovered(const std::vector<Route>& t) {
   std::unordered_set<uint64_t> present;
   for (const Route& r : t)
      present.insert((uint64_t(r.v4.prefix.addr()) << 8) | r.v4.len());
   size_t covered = 0;
   for (const Route& r : t) {
      bool in = false;
      for (uint32_t len = 0; len < r.v4.len() && !in; ++len)
         in = present.count((uint64_t(r.v4.prefix.addr() & (len ? ~0u << (32 - len) : 0)) << 8) |
                            len);
      covered += in;
   }
   return 100.0 * double(covered) / double(t.size());
}

TEST(SyntheticTable, SameSeedSameTableOtherSeedOtherTable) {
   std::vector<Route> a = syntheticTable({2000, 500, 200, 7});
   EXPECT_EQ(syntheticTable({2000, 500, 200, 7}), a);
   std::vector<Route> b = syntheticTable({2000, 500, 200, 8});
   const std::set<Route> inA(a.begin(), a.end());
   EXPECT_LT(std::count_if(b.begin(), b.end(), [&](const Route& r) { return inA.count(r); }),
             b.size() / 10)
       << "another seed must give mostly other routes";
   // Shuffled, not grouped by family or length: the family changes often along the table.
   size_t changes = 0;
   for (size_t i = 1; i < a.size(); ++i)
      changes += a[i].family != a[i - 1].family;
   EXPECT_GT(changes, a.size() / 5);
   EXPECT_TRUE(syntheticTable(SyntheticMix{}).empty());
}

TEST(SyntheticTable, CountsAreExactRoutesDistinctAndInTheVrf) {
   std::vector<Route> t = syntheticTable({30000, 5000, 1000, 3, 9});
   std::map<Family, size_t> perFamily;
   for (const Route& r : t) {
      ++perFamily[r.family];
      uint32_t vrf = r.family == Family::v4   ? r.v4.vrfId.value()
                     : r.family == Family::v6 ? r.v6.vrfId.value()
                                              : r.mcast.vrfIndex;
      EXPECT_EQ(vrf, 9u) << r.toString();
   }
   EXPECT_EQ(perFamily, (std::map<Family, size_t>{
                            {Family::v4, 30000}, {Family::v6, 5000}, {Family::mcast, 1000}}));
   EXPECT_EQ(std::unordered_set<Route>(t.begin(), t.end()).size(), t.size());
}

// Shares of lengths, and many routes nested in covering routes while some stand alone.
TEST(SyntheticTable, LengthSharesAndNestingFollowAnInternetTable) {
   std::vector<Route> t = syntheticTable({30000, 10000, 0, 5});
   const struct {
      Family family;
      uint32_t lo, hi;
      double percent, within;
   } shares[] = {
       {Family::v4, 24, 24, 60, 2},  {Family::v4, 22, 22, 12, 1},   {Family::v4, 23, 23, 10, 1},
       {Family::v4, 21, 21, 6, 1},   {Family::v4, 20, 20, 5, 1},    {Family::v4, 8, 19, 6, 1.5},
       {Family::v4, 25, 32, 1, 0.7}, {Family::v4, 0, 7, 0, 0},      {Family::v6, 48, 48, 45, 2},
       {Family::v6, 32, 32, 13, 1},  {Family::v6, 65, 128, 2.5, 1}, {Family::v6, 0, 28, 0, 0}};
   for (const auto& s : shares)
      EXPECT_NEAR(percentIn(t, s.family, s.lo, s.hi), s.percent, s.within) << s.lo << "-" << s.hi;
   double covered = percentCovered(syntheticTable({30000, 0, 0, 11}));
   EXPECT_GT(covered, 30);
   EXPECT_LT(covered, 80);
}

TEST(SyntheticTable, MulticastIsMostlySourceSpecificWithSomeAnySource) {
   std::vector<Route> t = syntheticTable({0, 0, 2000, 4, 3});
   size_t sg = 0, starG = 0, ranges = 0;
   for (const Route& r : t) {
      SCOPED_TRACE(r.toString());
      const IpMcastPrefixKey& k = r.mcast;
      const uint32_t group = k.group.v4Addr();
      const bool sourceSpecific = k.len == 64;
      ASSERT_TRUE(k.group.isV4() && k.source.isV4());
      EXPECT_EQ(k.tableId, 0);
      EXPECT_EQ(group >> 24, sourceSpecific ? 232u : 239u);
      EXPECT_EQ(k.source.isZero(), !sourceSpecific);
      ASSERT_TRUE(sourceSpecific || k.len <= 32);
      EXPECT_EQ(sourceSpecific ? 0u : group & ~(~0u << (32 - k.len)), 0u) << "host bits";
      ++(sourceSpecific ? sg : k.len == 32 ? starG : ranges);
   }
   EXPECT_NEAR(double(sg) / 20, 80, 3);
   EXPECT_NEAR(double(starG) / 20, 17, 3);
   EXPECT_GT(ranges, 20u);
}

TEST(SyntheticTable, VrfsOutsideTheirRangeAreRangeErrors) {
   EXPECT_THROW(syntheticTable({10, 0, 10, 1, 65536}), std::range_error);
   EXPECT_EQ(syntheticTable({10, 0, 0, 1, 65536}).size(), 10u);
   EXPECT_THROW(syntheticTable({10, 0, 0, 1, 0xffffff}), std::range_error);
   EXPECT_THROW(syntheticTable({10, 0, 0, 1, 0x1000000}), std::range_error);
}

}  // namespace
}  // namespace VexloL3Common::sim
