// VXLAN BUM replication: the remote VTEPs flooded traffic is replicated to, with their next hops
// and encapsulations, the reverse index from encapsulation to VTEP, and the flood list of each
// underlay VLAN.
//
// Synopsis
//   VexloVxlanVtepNextHop, VexloVxlanBumVtepConfig(Dir)      BUM replication per remote VTEP
//   EncapIdToBumVtepIpConfig(Dir)                           reverse index: encapId -> VTEP;
//                              syncReverseConfig() rebuilds it from the forward directory
//   FloodUnderlayVlanToVtepList(Dir)                        flood list per underlay VLAN
//
// The entity pattern is described in VexloVxlanTypes.h. Single event-loop thread: nothing here is
// locked.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include "VexloL3Common/vxlan/VexloVxlanEntity.h"
#include "VexloL3Common/vxlan/VexloVxlanKeys.h"
#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

// ---- BUM replication ---------------------------------------------------------------------

// A next hop towards a remote VTEP. Every attribute is fixed at construction.
class VexloVxlanVtepNextHop : public VxlanEntity {
 public:
   VexloVxlanVtepNextHop(IntfId l3Intf, const IpGenAddr& nexthopIp, const EthAddr& nexthopMac)
       : l3Intf_(l3Intf), nexthopIp_(nexthopIp), nexthopMac_(nexthopMac) {}
   IntfId l3Intf() const { return l3Intf_; }
   const IpGenAddr& nexthopIp() const { return nexthopIp_; }
   const EthAddr& nexthopMac() const { return nexthopMac_; }

 private:
   const IntfId l3Intf_;
   const IpGenAddr nexthopIp_;
   const EthAddr nexthopMac_;
};

// BUM replication towards one remote VTEP: its encapsulation and the next hops that reach it.
class VexloVxlanBumVtepConfig : public VxlanEntity {
 public:
   VexloVxlanBumVtepConfig(const IpGenAddr& vtepIp, EncapId encapId)
       : vtepIp_(vtepIp), encapId_(encapId) {}
   const IpGenAddr& vtepIp() const { return vtepIp_; }
   EncapId encapId() const { return encapId_; }

   using NextHops = std::unordered_map<IntfId, Ulo::Ptr<VexloVxlanVtepNextHop>>;
   const NextHops& nextHops() const { return nextHops_; }
   Ulo::Ptr<VexloVxlanVtepNextHop> nextHops(IntfId l3Intf) const;
   // Returns the present next hop when it has these attributes; otherwise a new one replaces it,
   // since a next hop's attributes never change after construction.
   Ulo::Ptr<VexloVxlanVtepNextHop> nextHopsIs(IntfId l3Intf, const IpGenAddr& nexthopIp,
                                              const EthAddr& nexthopMac);
   void nextHopsDel(IntfId l3Intf) { mapDel(nextHops_, l3Intf, "nextHops"); }
   void nextHopsDelAll() { mapDelAll(nextHops_, "nextHops"); }

   uint64_t version() const { return version_; }
   void versionIs(uint64_t v) { update(version_, v, "version"); }

 private:
   const IpGenAddr vtepIp_;
   const EncapId encapId_;
   NextHops nextHops_;
   uint64_t version_ = 0;
};

class VexloVxlanBumVtepConfigDir : public VxlanEntity {
 public:
   using Map = std::unordered_map<IpGenAddr, Ulo::Ptr<VexloVxlanBumVtepConfig>>;
   explicit VexloVxlanBumVtepConfigDir(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   const Map& bumVtepConfig() const { return map_; }
   Ulo::Ptr<VexloVxlanBumVtepConfig> bumVtepConfig(const IpGenAddr& vtepIp) const;
   // Returns the present config when it has this encapId; otherwise a new one (without next hops)
   // replaces it.
   Ulo::Ptr<VexloVxlanBumVtepConfig> bumVtepConfigIs(const IpGenAddr& vtepIp, EncapId encapId);
   void bumVtepConfigDel(const IpGenAddr& vtepIp) { mapDel(map_, vtepIp, "bumVtepConfig"); }
   void bumVtepConfigDelAll() { mapDelAll(map_, "bumVtepConfig"); }

 private:
   std::string name_;
   Map map_;
};

Ulo::Ptr<VexloVxlanBumVtepConfigDir> vexloVxlanBumVtepConfigDirFactory(const std::string& name);

class EncapIdToBumVtepIpConfig : public VxlanEntity {
 public:
   explicit EncapIdToBumVtepIpConfig(EncapId encapId) : encapId_(encapId) {}
   EncapId encapId() const { return encapId_; }
   // The unspecified address (no family) until set.
   const IpGenAddr& vtepIp() const { return vtepIp_; }
   void vtepIpIs(const IpGenAddr& v) { update(vtepIp_, v, "vtepIp"); }

 private:
   const EncapId encapId_;
   IpGenAddr vtepIp_;
};

class EncapIdToBumVtepIpConfigDir : public VxlanEntity {
 public:
   using Map = std::unordered_map<EncapId, Ulo::Ptr<EncapIdToBumVtepIpConfig>>;
   explicit EncapIdToBumVtepIpConfigDir(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   const Map& vxlanReverseConfig() const { return map_; }
   Ulo::Ptr<EncapIdToBumVtepIpConfig> vxlanReverseConfig(EncapId encapId) const;
   // The present entity for this key, or a new one.
   Ulo::Ptr<EncapIdToBumVtepIpConfig> vxlanReverseConfigIs(EncapId encapId);
   void vxlanReverseConfigDel(EncapId encapId) { mapDel(map_, encapId, "vxlanReverseConfig"); }
   void vxlanReverseConfigDelAll() { mapDelAll(map_, "vxlanReverseConfig"); }

 private:
   std::string name_;
   Map map_;
};

Ulo::Ptr<EncapIdToBumVtepIpConfigDir> encapIdToBumVtepIpConfigDirFactory(const std::string& name);

// Makes `reverse` the reverse index of `forward`: one entry per encapId in use, naming its VTEP;
// entries for encapIds no longer in use are removed. Entities that are already right are kept,
// so their subscribers see no change. Two VTEPs sharing one encapId is a broken configuration:
// fatal "encapId used by two VTEPs".
void syncReverseConfig(const VexloVxlanBumVtepConfigDir& forward,
                       EncapIdToBumVtepIpConfigDir& reverse);

// ---- Flood lists -------------------------------------------------------------------------

// The remote VTEPs that flooded traffic of one underlay VLAN is replicated to.
class FloodUnderlayVlanToVtepList {
 public:
   using Set = std::set<IpGenAddr>;
   FloodUnderlayVlanToVtepList() = default;
   // Holds a collection, so it has no text form to be built from: fatal.
   [[noreturn]] static FloodUnderlayVlanToVtepList fromString(std::string_view text);

   const Set& vtepIpList() const { return vtepIpList_; }
   bool vtepIpList(const IpGenAddr& vtep) const { return vtepIpList_.contains(vtep); }
   void vtepIpListIs(const IpGenAddr& vtep) { vtepIpList_.insert(vtep); }
   void vtepIpListDel(const IpGenAddr& vtep) { vtepIpList_.erase(vtep); }
   void vtepIpListDelAll() { vtepIpList_.clear(); }
   size_t size() const { return vtepIpList_.size(); }

   auto operator<=>(const FloodUnderlayVlanToVtepList&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;  // "{1.1.1.1, 2.2.2.2}"

 private:
   Set vtepIpList_;
};

class FloodUnderlayVlanToVtepListDir : public VxlanEntity {
 public:
   using Map = std::unordered_map<VlanId, FloodUnderlayVlanToVtepList>;
   explicit FloodUnderlayVlanToVtepListDir(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   const Map& floodUnderlayVlanToVtepList() const { return map_; }
   std::optional<FloodUnderlayVlanToVtepList> floodUnderlayVlanToVtepList(VlanId vlan) const;
   // Stores a copy: later changes to `list` do not reach the directory.
   void floodUnderlayVlanToVtepListIs(VlanId vlan, const FloodUnderlayVlanToVtepList& list) {
      mapIs(map_, vlan, list, "floodUnderlayVlanToVtepList");
   }
   void floodUnderlayVlanToVtepListDel(VlanId vlan) {
      mapDel(map_, vlan, "floodUnderlayVlanToVtepList");
   }
   void floodUnderlayVlanToVtepListDelAll() { mapDelAll(map_, "floodUnderlayVlanToVtepList"); }

 private:
   std::string name_;
   Map map_;
};

Ulo::Ptr<FloodUnderlayVlanToVtepListDir> floodUnderlayVlanToVtepListDirFactory(
    const std::string& name);

}  // namespace VexloL3Common

template <>
struct fmt::formatter<VexloL3Common::FloodUnderlayVlanToVtepList>
    : Ulo::ToStringFormatter<VexloL3Common::FloodUnderlayVlanToVtepList> {};

template <>
struct std::hash<VexloL3Common::FloodUnderlayVlanToVtepList> {
   size_t operator()(const VexloL3Common::FloodUnderlayVlanToVtepList& l) const noexcept {
      return l.hash();
   }
};
