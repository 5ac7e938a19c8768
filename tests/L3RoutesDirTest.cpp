// Route and pivot directories, adjacency reference counts and CliSorter.

#include "VexloL3Common/L3RoutesDir.h"

#include <gtest/gtest.h>

#include <unordered_set>
#include <vector>

#include "platform/Assert.h"

namespace VexloL3Common {
namespace {

using Ulo::AdjId;
using Ulo::VrfId;

Ipv4UcastKey key4(const char* p, uint32_t vrf = 1) {
   return Ipv4UcastKey(VrfId(vrf), Ulo::Prefix::fromString(p));
}
Ipv6UcastKey key6(const char* p, uint32_t vrf = 1) {
   return Ipv6UcastKey(VrfId(vrf), Ulo::Ip6Prefix::fromString(p));
}

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
   const auto a = key4("10.0.0.0/8");
   const auto b = key4("10.0.0.0/8", 2);
   auto r1 = routeFactory();
   auto r2 = routeFactory();

   dir->routeIs(a, r1);
   dir->routeIs(a, r1);  // the same handle again is no change
   EXPECT_EQ(rec.keys.size(), 1u);
   dir->routeIs(a, r2);  // an equal route behind another handle is
   EXPECT_EQ(dir->route(a), r2);
   dir->routeIs(b, r1);
   dir->routeDel(key4("192.168.0.0/16"));  // absent: nothing
   EXPECT_EQ(rec.keys, (std::vector<Ipv4UcastKey>{a, a, b}));
   EXPECT_EQ(dir->route(key4("192.168.0.0/16")), nullptr);

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
   EXPECT_EQ(*p, Pivot());
   EXPECT_EQ(p->alpmBktId(), 0u);
   EXPECT_EQ(p->position(), AlpmPos());
   p->alpmBktIdIs(7);
   p->positionIs(AlpmPos{300, 1});
   p->bankMaskIs(0xf0);
   const auto k = key6("2001:db8::/32");
   pivots->pivots6()->pivotsIs(k, p);
   EXPECT_EQ(pivots->pivots6()->pivots(k)->position(), (AlpmPos{300, 1}));
   EXPECT_EQ(pivots->pivots4()->pivots(key4("10.0.0.0/8")), nullptr);
   pivots->pivots6()->pivotsDel(k);
   pivots->pivots6()->pivotsDel(k);
   EXPECT_EQ(rec.keys, (std::vector<Ipv6UcastKey>{k, k}));
   EXPECT_EQ(fmt::format("{}", AlpmPos{300, 1}), "300.1");
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

TEST(L3RoutesDirTest, RouteStartsEmptyAndComparesByEveryField) {
   std::vector<Route> variants(7);
   const Route& r = variants[0];
   EXPECT_EQ(fmt::format("{} {} {} {} {}", r.tcamIndex(), r.hwEgressId(), r.entryType(),
                         r.classId(), r.flags()),
             "0 0 none 0 0");
   EXPECT_EQ(r.nextHopInfo(), NextHopInfo());
   variants[1].tcamIndexIs(1);
   variants[2].hwEgressIdIs(1);
   variants[3].entryTypeIs(EntryType::v4Right);
   variants[4].classIdIs(1);
   variants[5].flagsIs(Route::flagPendingFibAck);
   NextHopInfo drop;
   drop.routeType = NextHopRouteType::drop;
   variants[6].nextHopInfoIs(drop);
   for (size_t i = 0; i < variants.size(); ++i) {
      for (size_t j = 0; j < variants.size(); ++j)
         EXPECT_EQ(variants[i] == variants[j], i == j);
   }
}

TEST(L3RoutesDirTest, NextHopInfoDistinguishesEveryField) {
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
   EXPECT_EQ(std::unordered_set<NextHopInfo>(v.begin(), v.end()).size(), v.size());
   for (size_t i = 1; i < v.size(); ++i)
      EXPECT_NE(v[0], v[i]) << i;
   EXPECT_LT(v[0], v[2]);
   v[0].underlayAdjId = AdjId(9);
   v[0].vxlan = true;
   EXPECT_EQ(fmt::format("{}", v[0]), "forward adj 5 underlay 9 vxlan");
}

TEST(L3RoutesDirTest, CliSorterYieldsAscendingUniqueIdsAndHasNoTextConstructor) {
   CliSorter s;
   for (uint32_t id : {5u, 1u, 3u, 3u})
      s.entryIdIs(id);
   EXPECT_EQ(s.size(), 3u);
   EXPECT_EQ(fmt::format("{}", s), "{1, 3, 5}");
   CliSorter copy = s;
   EXPECT_EQ(copy, s);
   EXPECT_EQ(std::hash<CliSorter>()(copy), std::hash<CliSorter>()(s));
   EXPECT_EQ(*copy.entryIdDel(copy.begin()), 3u);
   copy.entryIdDel(42);  // absent
   EXPECT_EQ(std::vector<uint32_t>(copy.begin(), copy.end()), (std::vector<uint32_t>{3, 5}));
   EXPECT_NE(copy, s);
   copy.entryIdDelAll();
   EXPECT_EQ(copy.size(), 0u);
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      CliSorter::fromString("{1, 3}");
      ADD_FAILURE() << "no assertion";
   } catch (const Ulo::AssertionFailure& e) {
      EXPECT_EQ(e.text, "No String constructor for CliSorter - has collection");
   }
}

}  // namespace
}  // namespace VexloL3Common
