// Multicast forwarding directories: who receives the multicast traffic of a virtual forwarding
// instance (VFI).
//
// Synopsis
//   McastSourceGroup{source, group}   value: (S,G), or (*,G) with the unspecified source;
//                                     text "(10.0.0.1, 239.1.1.1)" / "(*, 239.1.1.1)"
//   PortVlan{intf, vlan}              value: one output port in one VLAN; text "Ethernet1:10"
//   PortVlanSet                       set of PortVlan
//   FilteredOifSet                    output interfaces minus a filter (ingress port, pruned
//                                     ports): `has`, `size`, `effective` see only what is left
//   McastGroup                        entity: one (S,G) of a VFI and its FilteredOifSet
//   VfiMcastGroups                    entity: the groups of one VFI; lookup(S, G) falls back to
//                                     (*,G) when there is no (S,G) entry
//   VfiMcastGroupsDir                 directory: VFI id -> VfiMcastGroups
//
// Collections have `c()` (iteration), `cIs`, `cDel` (no-op when absent), `cDelAll`, lookup and
// size. Types that hold a collection have no text form to be built from: their fromString is
// fatal ("No String constructor for <type> - has collection").
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

class McastSourceGroup {
 public:
   McastSourceGroup() = default;
   // Range error unless `group` is a multicast address and `source` is either unspecified
   // (default-constructed: any source) or of the group's family.
   McastSourceGroup(const Ulo::IpGenAddr& source, const Ulo::IpGenAddr& group);
   static McastSourceGroup fromString(std::string_view text);

   const Ulo::IpGenAddr& source() const { return source_; }
   const Ulo::IpGenAddr& group() const { return group_; }
   bool anySource() const { return source_.af() == Ulo::AddressFamily::ipunknown; }

   auto operator<=>(const McastSourceGroup&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;

 private:
   Ulo::IpGenAddr source_;
   Ulo::IpGenAddr group_;
};

struct PortVlan {
   Ulo::IntfId intf;
   Ulo::VlanId vlan;

   PortVlan() = default;
   PortVlan(Ulo::IntfId i, Ulo::VlanId v) : intf(i), vlan(v) {}
   static PortVlan fromString(std::string_view text);
   auto operator<=>(const PortVlan&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;
};

class PortVlanSet {
 public:
   using Set = std::set<PortVlan>;
   PortVlanSet() = default;
   PortVlanSet(std::initializer_list<PortVlan> items) : portVlan_(items) {}
   [[noreturn]] static PortVlanSet fromString(std::string_view text);

   const Set& portVlan() const { return portVlan_; }
   bool portVlan(const PortVlan& pv) const { return portVlan_.contains(pv); }
   void portVlanIs(const PortVlan& pv) { portVlan_.insert(pv); }
   void portVlanDel(const PortVlan& pv) { portVlan_.erase(pv); }
   void portVlanDelAll() { portVlan_.clear(); }
   size_t size() const { return portVlan_.size(); }
   bool empty() const { return portVlan_.empty(); }

   auto operator<=>(const PortVlanSet&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;  // "{Ethernet1:10, Ethernet2:10}"

 private:
   Set portVlan_;
};

// The output interfaces of a group and the ones to leave out of them. A filtered member stays
// in `oif` and comes back once its filter is removed.
class FilteredOifSet {
 public:
   FilteredOifSet() = default;
   [[noreturn]] static FilteredOifSet fromString(std::string_view text);

   const PortVlanSet& oif() const { return oif_; }
   void oifIs(const PortVlan& pv) { oif_.portVlanIs(pv); }
   void oifDel(const PortVlan& pv) { oif_.portVlanDel(pv); }
   void oifDelAll() { oif_.portVlanDelAll(); }
   const PortVlanSet& filter() const { return filter_; }
   void filterIs(const PortVlan& pv) { filter_.portVlanIs(pv); }
   void filterDel(const PortVlan& pv) { filter_.portVlanDel(pv); }
   void filterDelAll() { filter_.portVlanDelAll(); }

   // In the output set and not filtered.
   bool has(const PortVlan& pv) const { return oif_.portVlan(pv) && !filter_.portVlan(pv); }
   size_t size() const;
   PortVlanSet effective() const;
   template <class F>
   void forEachEffective(F&& f) const {
      for (const auto& pv : oif_.portVlan()) {
         if (!filter_.portVlan(pv)) f(pv);
      }
   }

   auto operator<=>(const FilteredOifSet&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;  // "oif: {...} filter: {...}"

 private:
   PortVlanSet oif_;
   PortVlanSet filter_;
};

}  // namespace VexloL3Common

#define VEXLO_TEXT_FORMATTER(T) \
   template <>                  \
   struct fmt::formatter<T> : Ulo::ToStringFormatter<T> {}
VEXLO_TEXT_FORMATTER(VexloL3Common::McastSourceGroup);
VEXLO_TEXT_FORMATTER(VexloL3Common::PortVlan);
VEXLO_TEXT_FORMATTER(VexloL3Common::PortVlanSet);
VEXLO_TEXT_FORMATTER(VexloL3Common::FilteredOifSet);
#undef VEXLO_TEXT_FORMATTER

#define VEXLO_MEMBER_HASH(T)                                            \
   template <>                                                          \
   struct std::hash<T> {                                                \
      size_t operator()(const T& v) const noexcept { return v.hash(); } \
   }
VEXLO_MEMBER_HASH(VexloL3Common::McastSourceGroup);
VEXLO_MEMBER_HASH(VexloL3Common::PortVlan);
VEXLO_MEMBER_HASH(VexloL3Common::PortVlanSet);
VEXLO_MEMBER_HASH(VexloL3Common::FilteredOifSet);
#undef VEXLO_MEMBER_HASH

namespace VexloL3Common {

class McastGroup {
 public:
   explicit McastGroup(const McastSourceGroup& sg) : sg_(sg) {}
   const McastSourceGroup& sg() const { return sg_; }
   FilteredOifSet& oifSet() { return oifSet_; }
   const FilteredOifSet& oifSet() const { return oifSet_; }

 private:
   const McastSourceGroup sg_;
   FilteredOifSet oifSet_;
};

class VfiMcastGroups {
 public:
   using Map = std::unordered_map<McastSourceGroup, Ulo::Ptr<McastGroup>>;
   explicit VfiMcastGroups(uint32_t vfi) : vfi_(vfi) {}
   [[noreturn]] static VfiMcastGroups fromString(std::string_view text);

   uint32_t vfi() const { return vfi_; }
   const Map& group() const { return group_; }
   Ulo::Ptr<McastGroup> group(const McastSourceGroup& sg) const;
   // The present group, or a new one with no output interfaces.
   Ulo::Ptr<McastGroup> groupIs(const McastSourceGroup& sg);
   void groupDel(const McastSourceGroup& sg) { group_.erase(sg); }
   void groupDelAll() { group_.clear(); }
   size_t size() const { return group_.size(); }

   // The group that forwards traffic from `source` to `group`: the (S,G) entry, else the (*,G)
   // entry, else null.
   Ulo::Ptr<McastGroup> lookup(const Ulo::IpGenAddr& source, const Ulo::IpGenAddr& group) const;

 private:
   const uint32_t vfi_;
   Map group_;
};

class VfiMcastGroupsDir {
 public:
   using Map = std::unordered_map<uint32_t, Ulo::Ptr<VfiMcastGroups>>;
   explicit VfiMcastGroupsDir(std::string name) : name_(std::move(name)) {}
   [[noreturn]] static VfiMcastGroupsDir fromString(std::string_view text);

   const std::string& name() const { return name_; }
   const Map& vfiMcastGroups() const { return map_; }
   Ulo::Ptr<VfiMcastGroups> vfiMcastGroups(uint32_t vfi) const;
   Ulo::Ptr<VfiMcastGroups> vfiMcastGroupsIs(uint32_t vfi);
   void vfiMcastGroupsDel(uint32_t vfi) { map_.erase(vfi); }
   void vfiMcastGroupsDelAll() { map_.clear(); }
   size_t size() const { return map_.size(); }

 private:
   std::string name_;
   Map map_;
};

Ulo::Ptr<VfiMcastGroupsDir> vfiMcastGroupsDirFactory(const std::string& name);

}  // namespace VexloL3Common
