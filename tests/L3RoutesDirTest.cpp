// Route and pivot directories, adjacency reference counts and CliSorter.

#include "VexloL3Common/state/L3RoutesDir.h"

#include <gtest/gtest.h>

#include <set>
#include <unordered_set>
#include <vector>

#include "TcamFixture.h"

namespace VexloL3Common {
namespace {

using testing::failureOf;
using testing::k4;
using testing::k6;
using Ulo::AdjId;

// Records every key a notifier fires with.
template <class K>
struct Recorder {
   explicit Recorder(Ulo::Notifier<K>& n)
       : sub(n.subscribe([this](const K& k) { keys.push_back(k); })) {}
   std::vector<K> keys;
   Ulo::Subscription sub;
};

TEST(L3RoutesDirTest, RouteCollectionNotifiesOncePerChangedKey) {
   auto dir = routes4DirFactory("routes4");
   Recorder<Ipv4UcastKey> rec(dir->routeChanged());
   const auto a = k4(1, "10.0.0.0/8");
   const auto b = k4(2, "10.0.0.0/8");
   auto r1 = routeFactory();
   auto r2 = routeFactory();

   dir->routeIs(a, r1);
   dir->routeIs(a, r1);  // the same handle again is no change
   EXPECT_EQ(rec.keys.size(), 1u);
   dir->routeIs(a, r2);  // an equal route behind another handle is
   EXPECT_EQ(dir->route(a), r2);
   dir->routeIs(b, r1);
   dir->routeDel(k4(1, "192.168.0.0/16"));  // absent: nothing
   EXPECT_EQ(rec.keys, (std::vector<Ipv4UcastKey>{a, a, b}));

   rec.keys.clear();
   dir->routeDelAll();
   EXPECT_TRUE(dir->route().empty());
   EXPECT_EQ(std::unordered_set<Ipv4UcastKey>(rec.keys.begin(), rec.keys.end()),
             (std::unordered_set<Ipv4UcastKey>{a, b}));
   EXPECT_EQ(rec.keys.size(), 2u);
}

TEST(L3RoutesDirTest, PivotDirectoriesKeepTheirHandlesPerFamily) {
   auto pivots = pivotsDirSingletonFactory("pivots");
   ASSERT_TRUE(pivots->pivots4() && pivots->pivots6());
   Recorder<Ipv6UcastKey> rec(pivots->pivots6()->pivotsChanged());
   auto p = pivotFactory();
   p->positionIs(AlpmPos{300, 1});
   const auto k = k6(1, "2001:db8::/32");
   pivots->pivots6()->pivotsIs(k, p);
   EXPECT_EQ(fmt::format("{}", pivots->pivots6()->pivots(k)->position()), "300.1");
   EXPECT_EQ(pivots->pivots4()->pivots(k4(1, "10.0.0.0/8")), nullptr);
   pivots->pivots6()->pivotsDel(k);
   pivots->pivots6()->pivotsDel(k);
   EXPECT_EQ(rec.keys, (std::vector<Ipv6UcastKey>{k, k}));
}

TEST(L3RoutesDirTest, RefCountDelOfAbsentAdjacencyChangesNothing) {
   auto routes = routesDirSingletonFactory("routes");
   ASSERT_TRUE(routes->routes4() && routes->routes6() && routes->adjRefCount());
   auto& rc = *routes->adjRefCount();
   Recorder<AdjId> rec(rc.refCountChanged());
   rc.refCountIs(AdjId(3), 2);
   rc.refCountIs(AdjId(3), 2);
   rc.refCountDel(AdjId(9));
   EXPECT_EQ(rc.refCount(AdjId(3)), 2u);
   EXPECT_EQ(rc.refCount(AdjId(9)), 0u);
   EXPECT_EQ(rc.refCount().size(), 1u);
   EXPECT_EQ(rec.keys, std::vector<AdjId>{AdjId(3)});
   rc.refCountIs(AdjId(3), 3);
   rc.refCountDelAll();
   EXPECT_TRUE(rc.refCount().empty());
   EXPECT_EQ(rec.keys, (std::vector<AdjId>{AdjId(3), AdjId(3), AdjId(3)}));
}

TEST(L3RoutesDirTest, NextHopInfoHashesAndPrintsEveryField) {
   NextHopInfo base;
   base.routeType = NextHopRouteType::forward;
   base.adjId = AdjId(5);
   std::vector<NextHopInfo> v(7, base);
   v[1].routeType = NextHopRouteType::receive;
   v[2].adjId = AdjId(6);
   v[3].underlayAdjId = AdjId(5);
   v[4].ecmp = true;
   v[5].vxlan = true;
   v[6].mpls = true;
   std::set<size_t> hashes;
   for (const NextHopInfo& n : v)
      hashes.insert(std::hash<NextHopInfo>()(n));
   EXPECT_EQ(hashes.size(), v.size());
   v[0].underlayAdjId = AdjId(9);
   v[0].vxlan = true;
   EXPECT_EQ(fmt::format("{} | {}", v[0], NextHopInfo()),
             "forward adj 5 underlay 9 vxlan | none adj 0 underlay 0");
}

TEST(L3RoutesDirTest, CliSorterYieldsAscendingUniqueIdsAndHasNoTextConstructor) {
   CliSorter s;
   for (uint32_t id : {5u, 1u, 3u, 3u})
      s.entryIdIs(id);
   EXPECT_EQ(fmt::format("{}", s), "{1, 3, 5}");
   CliSorter copy = s;
   EXPECT_EQ(std::hash<CliSorter>()(copy), std::hash<CliSorter>()(s));
   EXPECT_EQ(*copy.entryIdDel(copy.begin()), 3u);
   copy.entryIdDel(42);  // absent
   EXPECT_EQ(std::vector<uint32_t>(copy.begin(), copy.end()), (std::vector<uint32_t>{3, 5}));
   EXPECT_NE(std::hash<CliSorter>()(copy), std::hash<CliSorter>()(s));
   EXPECT_EQ(failureOf([] { CliSorter::fromString("{1, 3}"); }),
             "No String constructor for CliSorter - has collection");
}

}  // namespace
}  // namespace VexloL3Common
