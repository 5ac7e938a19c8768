// What a route-programming agent has programmed: routes and ALPM pivots per address family,
// adjacency reference counts, and the ordered id set that show commands print from.
//
// Synopsis
//   auto routes = routesDirSingletonFactory("routes");     holds routes4, routes6, adjRefCount
//   auto r = routeFactory(); r->tcamIndexIs(17); r->nextHopInfoIs(nh);
//   routes->routes4()->routeIs(key4, r);                   insert or replace the handle
//   routes->routes4()->route(key4)                         the handle, or null
//   routes->routes4()->routeChanged()                      Notifier<Ipv4UcastKey>
//   routes->adjRefCount()->refCountIs(AdjId(3), 2);        refCount(adj) is 0 when absent
//   auto pivots = pivotsDirSingletonFactory("pivots");     holds pivots4, pivots6
//   CliSorter s; s.entryIdIs(5); for (uint32_t id : s) ...  ascending
//
// Every collection is a hash map (iteration order unspecified) and fires its notifier once per
// changed key after an insert, a replacement by a different value, or a delete; cDelAll fires
// per key. Storing the same handle again is not a change.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

// What a route resolves to.
enum class NextHopRouteType : uint8_t { none = 0, forward, drop, receive, cpu };
std::string_view toString(NextHopRouteType t);

// The next-hop record of a route. With `ecmp` the adjacency is an ECMP group; with `vxlan` or
// `mpls` the adjacency is the overlay next hop and `underlayAdjId` the adjacency that carries it.
struct NextHopInfo {
   NextHopRouteType routeType = NextHopRouteType::none;
   Ulo::AdjId adjId;
   Ulo::AdjId underlayAdjId;
   bool ecmp = false;
   bool vxlan = false;
   bool mpls = false;

   auto operator<=>(const NextHopInfo&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;  // "forward adj 5 underlay 0 ecmp vxlan"
};

// One installed route. All fields are zero or empty until the agent fills them.
class Route {
 public:
   // Bits of flags().
   static constexpr uint8_t flagPendingHwWrite = 0x1;  // placed by the model, not yet in hardware
   static constexpr uint8_t flagPendingFibAck = 0x2;   // in hardware, version not yet acknowledged

   const NextHopInfo& nextHopInfo() const { return nextHopInfo_; }
   void nextHopInfoIs(const NextHopInfo& v) { nextHopInfo_ = v; }
   // The TCAM entry that holds the route; 0 while it is not placed.
   uint32_t tcamIndex() const { return tcamIndex_; }
   void tcamIndexIs(uint32_t v) { tcamIndex_ = v; }
   // The hardware egress object (next hop or ECMP group) the entry points at; 0 for none.
   uint32_t hwEgressId() const { return hwEgressId_; }
   void hwEgressIdIs(uint32_t v) { hwEgressId_ = v; }
   // Which part of the entry the route occupies (left or right IPv4 half, IPv6, ...).
   EntryType entryType() const { return entryType_; }
   void entryTypeIs(EntryType v) { entryType_ = v; }
   // Class id that ACL lookups match on; 0 for none.
   uint8_t classId() const { return classId_; }
   void classIdIs(uint8_t v) { classId_ = v; }
   uint8_t flags() const { return flags_; }
   void flagsIs(uint8_t v) { flags_ = v; }

   bool operator==(const Route&) const = default;

 private:
   NextHopInfo nextHopInfo_;
   uint32_t tcamIndex_ = 0;
   uint32_t hwEgressId_ = 0;
   EntryType entryType_ = EntryType::none;
   uint8_t classId_ = 0;
   uint8_t flags_ = 0;
};

using AlpmBktId = uint32_t;

// Where a pivot sits: a TCAM entry and, for an entry shared by two IPv4 pivots, its half
// (0 left or whole entry, 1 right).
struct AlpmPos {
   uint32_t tcamIndex = 0;
   uint8_t half = 0;

   auto operator<=>(const AlpmPos&) const = default;
   size_t hash(size_t seed = 0) const {
      return Ulo::hashMix(seed, (uint64_t(tcamIndex) << 8) | half);
   }
   std::string toString() const { return fmt::format("{}.{}", tcamIndex, half); }
};

class Pivot {
 public:
   AlpmBktId alpmBktId() const { return alpmBktId_; }
   void alpmBktIdIs(AlpmBktId v) { alpmBktId_ = v; }
   uint32_t coveringFecId() const { return coveringFecId_; }
   void coveringFecIdIs(uint32_t v) { coveringFecId_ = v; }
   const AlpmPos& position() const { return position_; }
   void positionIs(const AlpmPos& v) { position_ = v; }
   uint8_t format() const { return format_; }
   void formatIs(uint8_t v) { format_ = v; }
   bool hasDefaultCoveringPrefix() const { return hasDefaultCoveringPrefix_; }
   void hasDefaultCoveringPrefixIs(bool v) { hasDefaultCoveringPrefix_ = v; }
   uint16_t bankMask() const { return bankMask_; }
   void bankMaskIs(uint16_t v) { bankMask_ = v; }

   bool operator==(const Pivot&) const = default;

 private:
   AlpmBktId alpmBktId_ = 0;
   uint32_t coveringFecId_ = 0;
   AlpmPos position_;
   uint8_t format_ = 0;
   bool hasDefaultCoveringPrefix_ = false;
   uint16_t bankMask_ = 0;
};

namespace internal {

// A hash map that fires `changed` once per changed key, after the change.
template <class K, class V>
class NotifyingMap {
 public:
   using Map = std::unordered_map<K, V>;

   const V* find(const K& k) const {
      auto it = map_.find(k);
      return it == map_.end() ? nullptr : &it->second;
   }
   void is(const K& k, V v) {
      auto [it, inserted] = map_.try_emplace(k, v);
      if (!inserted) {
         if (it->second == v) return;
         it->second = std::move(v);
      }
      changed_.notify(k);
   }
   void del(const K& k) {
      auto it = map_.find(k);
      if (it == map_.end()) return;
      const K key = it->first;  // k may be the element's own key
      map_.erase(it);
      changed_.notify(key);
   }
   void delAll() {
      while (!map_.empty())
         del(map_.begin()->first);
   }
   const Map& map() const { return map_; }
   Ulo::Notifier<K>& changed() const { return changed_; }

 private:
   Map map_;
   mutable Ulo::Notifier<K> changed_;
};

}  // namespace internal

// Installed routes of one address family (Routes4Dir, Routes6Dir).
template <class Key>
class RoutesDir {
 public:
   using Map = std::unordered_map<Key, Ulo::Ptr<Route>>;
   explicit RoutesDir(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }

   Ulo::Ptr<Route> route(const Key& k) const {
      const Ulo::Ptr<Route>* r = route_.find(k);
      return r ? *r : nullptr;
   }
   const Map& route() const { return route_.map(); }
   void routeIs(const Key& k, Ulo::Ptr<Route> r) { route_.is(k, std::move(r)); }
   void routeDel(const Key& k) { route_.del(k); }
   void routeDelAll() { route_.delAll(); }
   Ulo::Notifier<Key>& routeChanged() const { return route_.changed(); }

 private:
   std::string name_;
   internal::NotifyingMap<Key, Ulo::Ptr<Route>> route_;
};

// ALPM pivots of one address family (Pivots4Dir, Pivots6Dir).
template <class Key>
class PivotsDir {
 public:
   using Map = std::unordered_map<Key, Ulo::Ptr<Pivot>>;
   explicit PivotsDir(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }

   Ulo::Ptr<Pivot> pivots(const Key& k) const {
      const Ulo::Ptr<Pivot>* p = pivots_.find(k);
      return p ? *p : nullptr;
   }
   const Map& pivots() const { return pivots_.map(); }
   void pivotsIs(const Key& k, Ulo::Ptr<Pivot> p) { pivots_.is(k, std::move(p)); }
   void pivotsDel(const Key& k) { pivots_.del(k); }
   void pivotsDelAll() { pivots_.delAll(); }
   Ulo::Notifier<Key>& pivotsChanged() const { return pivots_.changed(); }

 private:
   std::string name_;
   internal::NotifyingMap<Key, Ulo::Ptr<Pivot>> pivots_;
};

using Routes4Dir = RoutesDir<Ipv4UcastKey>;
using Routes6Dir = RoutesDir<Ipv6UcastKey>;
using Pivots4Dir = PivotsDir<Ipv4UcastKey>;
using Pivots6Dir = PivotsDir<Ipv6UcastKey>;

// How many routes use each adjacency.
class AdjRefCount {
 public:
   using Map = std::unordered_map<Ulo::AdjId, uint32_t>;
   explicit AdjRefCount(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }

   uint32_t refCount(Ulo::AdjId adj) const {
      const uint32_t* n = refCount_.find(adj);
      return n ? *n : 0;
   }
   const Map& refCount() const { return refCount_.map(); }
   void refCountIs(Ulo::AdjId adj, uint32_t n) { refCount_.is(adj, n); }
   void refCountDel(Ulo::AdjId adj) { refCount_.del(adj); }
   void refCountDelAll() { refCount_.delAll(); }
   Ulo::Notifier<Ulo::AdjId>& refCountChanged() const { return refCount_.changed(); }

 private:
   std::string name_;
   internal::NotifyingMap<Ulo::AdjId, uint32_t> refCount_;
};

class RoutesDirSingleton {
 public:
   explicit RoutesDirSingleton(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }

   const Ulo::Ptr<Routes4Dir>& routes4() const { return routes4_; }
   void routes4Is(Ulo::Ptr<Routes4Dir> d) { routes4_ = std::move(d); }
   const Ulo::Ptr<Routes6Dir>& routes6() const { return routes6_; }
   void routes6Is(Ulo::Ptr<Routes6Dir> d) { routes6_ = std::move(d); }
   const Ulo::Ptr<AdjRefCount>& adjRefCount() const { return adjRefCount_; }
   void adjRefCountIs(Ulo::Ptr<AdjRefCount> d) { adjRefCount_ = std::move(d); }

 private:
   std::string name_;
   Ulo::Ptr<Routes4Dir> routes4_;
   Ulo::Ptr<Routes6Dir> routes6_;
   Ulo::Ptr<AdjRefCount> adjRefCount_;
};

class PivotsDirSingleton {
 public:
   explicit PivotsDirSingleton(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }

   const Ulo::Ptr<Pivots4Dir>& pivots4() const { return pivots4_; }
   void pivots4Is(Ulo::Ptr<Pivots4Dir> d) { pivots4_ = std::move(d); }
   const Ulo::Ptr<Pivots6Dir>& pivots6() const { return pivots6_; }
   void pivots6Is(Ulo::Ptr<Pivots6Dir> d) { pivots6_ = std::move(d); }

 private:
   std::string name_;
   Ulo::Ptr<Pivots4Dir> pivots4_;
   Ulo::Ptr<Pivots6Dir> pivots6_;
};

Ulo::Ptr<Route> routeFactory();
Ulo::Ptr<Pivot> pivotFactory();
Ulo::Ptr<Routes4Dir> routes4DirFactory(const std::string& name);
Ulo::Ptr<Routes6Dir> routes6DirFactory(const std::string& name);
Ulo::Ptr<Pivots4Dir> pivots4DirFactory(const std::string& name);
Ulo::Ptr<Pivots6Dir> pivots6DirFactory(const std::string& name);
Ulo::Ptr<AdjRefCount> adjRefCountFactory(const std::string& name);
// The singletons come with their children made ("routes4", "routes6", "adjRefCount";
// "pivots4", "pivots6"); an agent that mounts its own can replace them.
Ulo::Ptr<RoutesDirSingleton> routesDirSingletonFactory(const std::string& name);
Ulo::Ptr<PivotsDirSingleton> pivotsDirSingletonFactory(const std::string& name);

// Entry identifiers in ascending order, for show output.
class CliSorter {
 public:
   using Set = std::set<uint32_t>;
   using const_iterator = Set::const_iterator;

   // It holds a collection and has no text form to be built from: fatal.
   [[noreturn]] static CliSorter fromString(std::string_view text);

   const Set& entryId() const { return entryId_; }
   void entryIdIs(uint32_t id) { entryId_.insert(id); }
   void entryIdDel(uint32_t id) { entryId_.erase(id); }
   const_iterator entryIdDel(const_iterator it) { return entryId_.erase(it); }
   void entryIdDelAll() { entryId_.clear(); }
   size_t size() const { return entryId_.size(); }
   const_iterator begin() const { return entryId_.begin(); }
   const_iterator end() const { return entryId_.end(); }

   auto operator<=>(const CliSorter&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;  // "{1, 3, 5}"

 private:
   Set entryId_;
};

}  // namespace VexloL3Common

template <>
struct fmt::formatter<VexloL3Common::NextHopRouteType> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(VexloL3Common::NextHopRouteType t, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(VexloL3Common::toString(t), ctx);
   }
};
template <>
struct fmt::formatter<VexloL3Common::NextHopInfo>
    : Ulo::ToStringFormatter<VexloL3Common::NextHopInfo> {};
template <>
struct fmt::formatter<VexloL3Common::AlpmPos> : Ulo::ToStringFormatter<VexloL3Common::AlpmPos> {};
template <>
struct fmt::formatter<VexloL3Common::CliSorter> : Ulo::ToStringFormatter<VexloL3Common::CliSorter> {
};

#define VEXLO_ROUTES_DIR_HASH(T)                                        \
   template <>                                                          \
   struct std::hash<T> {                                                \
      size_t operator()(const T& v) const noexcept { return v.hash(); } \
   }
VEXLO_ROUTES_DIR_HASH(VexloL3Common::NextHopInfo);
VEXLO_ROUTES_DIR_HASH(VexloL3Common::AlpmPos);
VEXLO_ROUTES_DIR_HASH(VexloL3Common::CliSorter);
#undef VEXLO_ROUTES_DIR_HASH
