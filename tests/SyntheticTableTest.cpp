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

SyntheticMix mixOf(size_t v4, size_t v6, size_t mcast, uint64_t seed = 1, uint32_t vrf = 0) {
   return SyntheticMix{v4, v6, mcast, seed, vrf};
}

// Percent of the routes of `family` whose length lies in [lo, hi].
double percentIn(const std::vector<Route>& t, Family family, uint32_t lo, uint32_t hi) {
   size_t all = 0, in = 0;
   for (const Route& r : t) {
      if (r.family != family) continue;
      ++all;
      in += r.len() >= lo && r.len() <= hi;
   }
   return all ? 100.0 * double(in) / double(all) : 0;
}

// Percent of the IPv4 routes with a shorter route of the table covering them.
double percentCovered(const std::vector<Route>& t) {
   std::unordered_set<uint64_t> present;
   for (const Route& r : t)
      present.insert((uint64_t(r.v4.prefix.addr()) << 8) | r.v4.len());
   size_t covered = 0;
   for (const Route& r : t) {
      for (uint32_t len = 0; len < r.v4.len(); ++len) {
         uint32_t mask = len ? ~uint32_t(0) << (32 - len) : 0;
         if (present.count((uint64_t(r.v4.prefix.addr() & mask) << 8) | len)) {
            ++covered;
            break;
         }
      }
   }
   return 100.0 * double(covered) / double(t.size());
}

TEST(SyntheticTable, SameSeedSameTableOtherSeedOtherTable) {
   std::vector<Route> a = syntheticTable(mixOf(2000, 500, 200, 7));
   EXPECT_EQ(syntheticTable(mixOf(2000, 500, 200, 7)), a);
   std::vector<Route> b = syntheticTable(mixOf(2000, 500, 200, 8));
   std::set<Route> inA(a.begin(), a.end());
   size_t shared = 0;
   for (const Route& r : b)
      shared += inA.count(r);
   EXPECT_LT(shared, b.size() / 10) << "another seed must give mostly other routes";
   // Shuffled, not grouped by family or length: the family changes often along the table.
   size_t changes = 0;
   for (size_t i = 1; i < a.size(); ++i)
      changes += a[i].family != a[i - 1].family;
   EXPECT_GT(changes, a.size() / 5);
   EXPECT_TRUE(syntheticTable(SyntheticMix{}).empty());
}

TEST(SyntheticTable, CountsAreExactRoutesDistinctAndInTheVrf) {
   std::vector<Route> t = syntheticTable(mixOf(30000, 5000, 1000, 3, 9));
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

TEST(SyntheticTable, LengthSharesFollowAnInternetTable) {
   std::vector<Route> t = syntheticTable(mixOf(30000, 10000, 0, 5));
   EXPECT_NEAR(percentIn(t, Family::v4, 24, 24), 60, 2);
   EXPECT_NEAR(percentIn(t, Family::v4, 22, 22), 12, 1);
   EXPECT_NEAR(percentIn(t, Family::v4, 23, 23), 10, 1);
   EXPECT_NEAR(percentIn(t, Family::v4, 21, 21), 6, 1);
   EXPECT_NEAR(percentIn(t, Family::v4, 20, 20), 5, 1);
   EXPECT_NEAR(percentIn(t, Family::v4, 8, 19), 6, 1.5);
   EXPECT_NEAR(percentIn(t, Family::v4, 25, 32), 1, 0.7);
   EXPECT_EQ(percentIn(t, Family::v4, 0, 7), 0);
   EXPECT_NEAR(percentIn(t, Family::v6, 48, 48), 45, 2);
   EXPECT_NEAR(percentIn(t, Family::v6, 32, 32), 13, 1);
   EXPECT_NEAR(percentIn(t, Family::v6, 65, 128), 2.5, 1);
   EXPECT_EQ(percentIn(t, Family::v6, 0, 28), 0);
}

TEST(SyntheticTable, ManyRoutesNestInCoveringRoutesAndSomeStandAlone) {
   double covered = percentCovered(syntheticTable(mixOf(30000, 0, 0, 11)));
   EXPECT_GT(covered, 30);
   EXPECT_LT(covered, 80);
}

TEST(SyntheticTable, MulticastIsMostlySourceSpecificWithSomeAnySource) {
   std::vector<Route> t = syntheticTable(mixOf(0, 0, 2000, 4, 3));
   size_t sg = 0, starG = 0, ranges = 0;
   for (const Route& r : t) {
      const IpMcastPrefixKey& k = r.mcast;
      uint32_t group = k.group.v4Addr();
      ASSERT_TRUE(k.group.isV4() && k.source.isV4()) << r.toString();
      EXPECT_EQ(k.tableId, 0);
      if (k.len == 64) {
         ++sg;
         EXPECT_EQ(group >> 24, 232u) << r.toString();
         EXPECT_FALSE(k.source.isZero()) << r.toString();
         continue;
      }
      ASSERT_LE(k.len, 32) << r.toString();
      EXPECT_TRUE(k.source.isZero()) << r.toString();
      EXPECT_EQ(group >> 24, 239u) << r.toString();
      EXPECT_EQ(group & ~(~uint32_t(0) << (32 - k.len)), 0u) << "host bits " << r.toString();
      ++(k.len == 32 ? starG : ranges);
   }
   EXPECT_NEAR(double(sg) / 20, 80, 3);
   EXPECT_NEAR(double(starG) / 20, 17, 3);
   EXPECT_GT(ranges, 20u);
}

TEST(SyntheticTable, VrfsOutsideTheirRangeAreRangeErrors) {
   EXPECT_THROW(syntheticTable(mixOf(10, 0, 10, 1, 65536)), std::range_error);
   EXPECT_EQ(syntheticTable(mixOf(10, 0, 0, 1, 65536)).size(), 10u);
   EXPECT_THROW(syntheticTable(mixOf(10, 0, 0, 1, 0xffffff)), std::range_error);
   EXPECT_THROW(syntheticTable(mixOf(10, 0, 0, 1, 0x1000000)), std::range_error);
}

}  // namespace
}  // namespace VexloL3Common::sim
