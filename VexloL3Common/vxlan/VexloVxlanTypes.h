// VXLAN state and configuration records shared by the forwarding agents.
//
// Synopsis
//   VexloVxlanState            local VTEP addresses, UDP ports, TTL, tunnel indices, init flags;
//                              getLocalVtep(af) / setLocalVtep(addr) pick the field by family
//   VexloVxlanBootStatus       boot progress flags on top of the central VxlanBootStatus
//   VexloVxlanConfig / VexloVxlanStatus   handles to the VLAN-mapping and L3-status directories
//   VxlanTunnelKey             value: (vti, sip, dstPort, srcPortValid, srcPort, ttl), ttl 1..64
//   VxlanDvpToVtepMap, VxlanTunnelIndexToVtepMap, VxlanMrouteHitbitAction, VxlanClearHitBitConfig
//   EncapId                    value: an encapsulation identifier
//   VexloVxlanVtepNextHop, VexloVxlanBumVtepConfig(Dir)      BUM replication per remote VTEP
//   EncapIdToBumVtepIpConfig(Dir)                           reverse index: encapId -> VTEP;
//                              syncReverseConfig() rebuilds it from the forward directory
//   FloodUnderlayVlanToVtepList(Dir)                        flood list per underlay VLAN
//   VtepToVtepBridgingConfig / VtepToVtepBridgingStatus
//
// Entities follow one pattern: attribute `x()` / `xIs(v)`, where the writer notifies `changed()`
// with the attribute's name only when the value changes; collection `c()` (iteration, hash order),
// `c(k)` (lookup: the value, or null for entities), `cIs(k, ...)` (insert or overwrite; for
// entities find-or-create and return the entity), `cDel(k)` (no-op when absent), `cDelAll()`.
// Collections notify with their name when their content changes. Factories `<type>Factory(name)`.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include "VexloL3Common/vxlan/VexloVxlanDefs.h"
#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace VexloCentral {

// Stand-in for the central library's boot record, which owns its real layout.
class VxlanBootStatus {
 public:
   explicit VxlanBootStatus(std::string name) : name_(std::move(name)) {}
   virtual ~VxlanBootStatus() = default;
   const std::string& name() const { return name_; }

 private:
   std::string name_;
};

}  // namespace VexloCentral

namespace VexloL3Common {

using Ulo::AddressFamily;
using Ulo::EthAddr;
using Ulo::IntfId;
using Ulo::IpGenAddr;
using Ulo::VlanId;

// Base of the entities below: one notifier, fired with the name of what changed.
class VxlanEntity {
 public:
   VxlanEntity() = default;
   VxlanEntity(const VxlanEntity&) = delete;
   VxlanEntity& operator=(const VxlanEntity&) = delete;
   virtual ~VxlanEntity() = default;

   Ulo::Notifier<std::string_view>& changed() { return changed_; }

 protected:
   template <class T>
   void update(T& field, const T& value, std::string_view attr) {
      if (field == value) return;
      field = value;
      changed_.notify(attr);
   }
   void notify(std::string_view attr) { changed_.notify(attr); }

   // Shared by the collections: insert or overwrite, notify when the content changed.
   template <class Map, class K, class V>
   void mapIs(Map& map, const K& key, const V& value, std::string_view attr) {
      auto [it, inserted] = map.try_emplace(key, value);
      if (!inserted) {
         if (it->second == value) return;
         it->second = value;
      }
      changed_.notify(attr);
   }
   template <class Map, class K>
   void mapDel(Map& map, const K& key, std::string_view attr) {
      if (map.erase(key)) changed_.notify(attr);
   }
   template <class Map>
   void mapDelAll(Map& map, std::string_view attr) {
      if (map.empty()) return;
      map.clear();
      changed_.notify(attr);
   }

 private:
   Ulo::Notifier<std::string_view> changed_;
};

// ---- Local VTEP state --------------------------------------------------------------------

class VexloVxlanState : public VxlanEntity {
 public:
   static constexpr uint16_t egrL3TunnelIndexInvalid = VexloL3Common::egrL3TunnelIndexInvalid;

   explicit VexloVxlanState(std::string name);

   const std::string& name() const { return name_; }
   uint16_t egrL3TunnelIndex() const { return egrL3TunnelIndex_; }
   void egrL3TunnelIndexIs(uint16_t v) { update(egrL3TunnelIndex_, v, "egrL3TunnelIndex"); }
   uint16_t egrL3TunnelIndex6() const { return egrL3TunnelIndex6_; }
   void egrL3TunnelIndex6Is(uint16_t v) { update(egrL3TunnelIndex6_, v, "egrL3TunnelIndex6"); }
   uint16_t udpSrcPort() const { return udpSrcPort_; }
   void udpSrcPortIs(uint16_t v) { update(udpSrcPort_, v, "udpSrcPort"); }
   uint16_t udpPort() const { return udpPort_; }
   void udpPortIs(uint16_t v) { update(udpPort_, v, "udpPort"); }
   const IpGenAddr& localVtep() const { return localVtep_; }
   void localVtepIs(const IpGenAddr& v) { update(localVtep_, v, "localVtep"); }
   const IpGenAddr& localVtep6() const { return localVtep6_; }
   void localVtep6Is(const IpGenAddr& v) { update(localVtep6_, v, "localVtep6"); }
   const IpGenAddr& vArpVtepAddr() const { return vArpVtepAddr_; }
   void vArpVtepAddrIs(const IpGenAddr& v) { update(vArpVtepAddr_, v, "vArpVtepAddr"); }
   const IpGenAddr& vArpVtepAddr6() const { return vArpVtepAddr6_; }
   void vArpVtepAddr6Is(const IpGenAddr& v) { update(vArpVtepAddr6_, v, "vArpVtepAddr6"); }
   const IpGenAddr& mlagVtepAddr() const { return mlagVtepAddr_; }
   void mlagVtepAddrIs(const IpGenAddr& v) { update(mlagVtepAddr_, v, "mlagVtepAddr"); }
   const IpGenAddr& mlagVtepAddr6() const { return mlagVtepAddr6_; }
   void mlagVtepAddr6Is(const IpGenAddr& v) { update(mlagVtepAddr6_, v, "mlagVtepAddr6"); }
   bool udpSrcPortValid() const { return udpSrcPortValid_; }
   void udpSrcPortValidIs(bool v) { update(udpSrcPortValid_, v, "udpSrcPortValid"); }
   uint8_t ttl() const { return ttl_; }
   void ttlIs(uint8_t v) { update(ttl_, v, "ttl"); }
   bool egrL3TunnelDefaultInit() const { return egrL3TunnelDefaultInit_; }
   void egrL3TunnelDefaultInitIs(bool v) {
      update(egrL3TunnelDefaultInit_, v, "egrL3TunnelDefaultInit");
   }
   bool vpDefaultInit() const { return vpDefaultInit_; }
   void vpDefaultInitIs(bool v) { update(vpDefaultInit_, v, "vpDefaultInit"); }
   bool nextHop2DefaultInit() const { return nextHop2DefaultInit_; }
   void nextHop2DefaultInitIs(bool v) { update(nextHop2DefaultInit_, v, "nextHop2DefaultInit"); }

   // localVtep for IPv4, localVtep6 for IPv6; range error "Invalid AddressFamily type" otherwise.
   const IpGenAddr& getLocalVtep(AddressFamily af) const;
   // Stores by the address's own family, bypassing the change notification of localVtepIs;
   // range error "Invalid AddressFamily type" for an address of neither family.
   void setLocalVtep(const IpGenAddr& addr);

 private:
   std::string name_;
   uint16_t egrL3TunnelIndex_ = egrL3TunnelIndexInvalid;
   uint16_t egrL3TunnelIndex6_ = egrL3TunnelIndexInvalid;
   uint16_t udpSrcPort_ = 0;
   uint16_t udpPort_ = vxlanDefaultUdpPort;
   IpGenAddr localVtep_;
   IpGenAddr localVtep6_;
   IpGenAddr vArpVtepAddr_;
   IpGenAddr vArpVtepAddr6_;
   IpGenAddr mlagVtepAddr_;
   IpGenAddr mlagVtepAddr6_;
   bool udpSrcPortValid_ = false;
   uint8_t ttl_ = vxlanDefaultTtl;
   bool egrL3TunnelDefaultInit_ = false;
   bool vpDefaultInit_ = false;
   bool nextHop2DefaultInit_ = false;
};

Ulo::Ptr<VexloVxlanState> vexloVxlanStateFactory(const std::string& name);

class VexloVxlanBootStatus : public VexloCentral::VxlanBootStatus, public VxlanEntity {
 public:
   using VexloCentral::VxlanBootStatus::VxlanBootStatus;

   bool uloTunnelSmInitialized() const { return uloTunnelSmInitialized_; }
   void uloTunnelSmInitializedIs(bool v) {
      update(uloTunnelSmInitialized_, v, "uloTunnelSmInitialized");
   }
   bool hwTunnelStatusInitialized() const { return hwTunnelStatusInitialized_; }
   void hwTunnelStatusInitializedIs(bool v) {
      update(hwTunnelStatusInitialized_, v, "hwTunnelStatusInitialized");
   }
   bool vxlanUcTunnelsReconcileStarted() const { return vxlanUcTunnelsReconcileStarted_; }
   void vxlanUcTunnelsReconcileStartedIs(bool v) {
      update(vxlanUcTunnelsReconcileStarted_, v, "vxlanUcTunnelsReconcileStarted");
   }

 private:
   bool uloTunnelSmInitialized_ = false;
   bool hwTunnelStatusInitialized_ = false;
   bool vxlanUcTunnelsReconcileStarted_ = false;
};

Ulo::Ptr<VexloVxlanBootStatus> vexloVxlanBootStatusFactory(const std::string& name);

// ---- Configuration and status directories ------------------------------------------------

// VLAN to VNI mapping of the VXLAN interface.
class VlanMappingDir : public VxlanEntity {
 public:
   explicit VlanMappingDir(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   const std::unordered_map<VlanId, uint32_t>& vlanMapping() const { return vlanMapping_; }
   std::optional<uint32_t> vlanMapping(VlanId vlan) const;
   void vlanMappingIs(VlanId vlan, uint32_t vni) { mapIs(vlanMapping_, vlan, vni, "vlanMapping"); }
   void vlanMappingDel(VlanId vlan) { mapDel(vlanMapping_, vlan, "vlanMapping"); }
   void vlanMappingDelAll() { mapDelAll(vlanMapping_, "vlanMapping"); }

 private:
   std::string name_;
   std::unordered_map<VlanId, uint32_t> vlanMapping_;
};

// The L3 VNI each VRF has been given in hardware.
class VxlanL3StatusEntryDir : public VxlanEntity {
 public:
   explicit VxlanL3StatusEntryDir(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   const std::unordered_map<Ulo::VrfId, uint32_t>& vxlanL3StatusEntry() const { return entries_; }
   std::optional<uint32_t> vxlanL3StatusEntry(Ulo::VrfId vrf) const;
   void vxlanL3StatusEntryIs(Ulo::VrfId vrf, uint32_t vni) {
      mapIs(entries_, vrf, vni, "vxlanL3StatusEntry");
   }
   void vxlanL3StatusEntryDel(Ulo::VrfId vrf) { mapDel(entries_, vrf, "vxlanL3StatusEntry"); }
   void vxlanL3StatusEntryDelAll() { mapDelAll(entries_, "vxlanL3StatusEntry"); }

 private:
   std::string name_;
   std::unordered_map<Ulo::VrfId, uint32_t> entries_;
};

class VexloVxlanConfig : public VxlanEntity {
 public:
   explicit VexloVxlanConfig(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   const Ulo::Ptr<VlanMappingDir>& vlanMappingDir() const { return vlanMappingDir_; }
   void vlanMappingDirIs(const Ulo::Ptr<VlanMappingDir>& d) {
      update(vlanMappingDir_, d, "vlanMappingDir");
   }

 private:
   std::string name_;
   Ulo::Ptr<VlanMappingDir> vlanMappingDir_;
};

Ulo::Ptr<VexloVxlanConfig> vexloVxlanConfigFactory(const std::string& name);

class VexloVxlanStatus : public VxlanEntity {
 public:
   const Ulo::Ptr<VxlanL3StatusEntryDir>& vxlanL3StatusEntryDir() const { return dir_; }
   void vxlanL3StatusEntryDirIs(const Ulo::Ptr<VxlanL3StatusEntryDir>& d) {
      update(dir_, d, "vxlanL3StatusEntryDir");
   }

 private:
   Ulo::Ptr<VxlanL3StatusEntryDir> dir_;
};

Ulo::Ptr<VexloVxlanStatus> vexloVxlanStatusFactory();

// ---- Tunnel key --------------------------------------------------------------------------

// A VXLAN tunnel as the hardware sees it. A default key has the default UDP port and TTL.
// Text form: "vti: Vxlan1, sip: 10.0.0.1, dstPort: 4789, srcPortValid: false, srcPort: 0,
// ttl: 64"; fromString takes the same "name: value" items in any order, missing ones default.
class VxlanTunnelKey {
 public:
   static constexpr const char* ttlRangeErrorText =
       "VexloL3Common::VxlanTunnelKey::ttl < 1 or > 64 not allowed";

   VxlanTunnelKey() = default;
   // Range error (ttlRangeErrorText) when ttl is 0 or above 64.
   VxlanTunnelKey(IntfId vti, const IpGenAddr& sip, uint16_t dstPort, bool srcPortValid,
                  uint16_t srcPort, uint8_t ttl);
   // Range error on an unknown or repeated name, a bad value, or a ttl out of range.
   static VxlanTunnelKey fromString(std::string_view text);

   IntfId vti() const { return vti_; }
   const IpGenAddr& sip() const { return sip_; }
   uint16_t dstPort() const { return dstPort_; }
   bool srcPortValid() const { return srcPortValid_; }
   uint16_t srcPort() const { return srcPort_; }
   uint8_t ttl() const { return ttl_; }

   auto operator<=>(const VxlanTunnelKey&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;

 private:
   IntfId vti_;
   IpGenAddr sip_;
   uint16_t dstPort_ = vxlanDefaultUdpPort;
   bool srcPortValid_ = false;
   uint16_t srcPort_ = 0;
   uint8_t ttl_ = vxlanDefaultTtl;
};

// ---- Maps from hardware indices back to VTEPs --------------------------------------------

class VxlanDvpToVtepMap : public VxlanEntity {
 public:
   explicit VxlanDvpToVtepMap(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   const std::unordered_map<uint16_t, IpGenAddr>& dvpToVtepMap() const { return map_; }
   std::optional<IpGenAddr> dvpToVtepMap(uint16_t dvp) const;
   void dvpToVtepMapIs(uint16_t dvp, const IpGenAddr& vtep) {
      mapIs(map_, dvp, vtep, "dvpToVtepMap");
   }
   void dvpToVtepMapDel(uint16_t dvp) { mapDel(map_, dvp, "dvpToVtepMap"); }
   void dvpToVtepMapDelAll() { mapDelAll(map_, "dvpToVtepMap"); }

 private:
   std::string name_;
   std::unordered_map<uint16_t, IpGenAddr> map_;
};

class VxlanTunnelIndexToVtepMap : public VxlanEntity {
 public:
   explicit VxlanTunnelIndexToVtepMap(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   const std::unordered_map<uint16_t, IpGenAddr>& tunnelIndexToVtepMap() const { return map_; }
   std::optional<IpGenAddr> tunnelIndexToVtepMap(uint16_t index) const;
   void tunnelIndexToVtepMapIs(uint16_t index, const IpGenAddr& vtep) {
      mapIs(map_, index, vtep, "tunnelIndexToVtepMap");
   }
   void tunnelIndexToVtepMapDel(uint16_t index) { mapDel(map_, index, "tunnelIndexToVtepMap"); }
   void tunnelIndexToVtepMapDelAll() { mapDelAll(map_, "tunnelIndexToVtepMap"); }

 private:
   std::string name_;
   std::unordered_map<uint16_t, IpGenAddr> map_;
};

// ---- Hit bits of VXLAN multicast routes --------------------------------------------------

class VxlanMrouteHitbitAction : public VxlanEntity {
 public:
   explicit VxlanMrouteHitbitAction(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   // The flexible-counter action collecting the hit bits; 0 until one is allocated.
   uint32_t actionId() const { return actionId_; }
   void actionIdIs(uint32_t v) { update(actionId_, v, "actionId"); }

 private:
   std::string name_;
   uint32_t actionId_ = 0;
};

class VxlanClearHitBitConfig : public VxlanEntity {
 public:
   explicit VxlanClearHitBitConfig(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   uint32_t clearReqId() const { return clearReqId_; }
   void clearReqIdIs(uint32_t v) { update(clearReqId_, v, "clearReqId"); }
   // Each increment is one clear request; the counter wraps modulo 2^32.
   void clearReqIdInc(uint32_t n = 1) { clearReqIdIs(clearReqId_ + n); }

 private:
   std::string name_;
   uint32_t clearReqId_ = 0;
};

// ---- BUM replication ---------------------------------------------------------------------

class EncapId {
 public:
   constexpr EncapId() = default;
   constexpr explicit EncapId(uint32_t value) : value_(value) {}
   static EncapId fromString(std::string_view text);
   constexpr uint32_t value() const { return value_; }
   auto operator<=>(const EncapId&) const = default;
   std::string toString() const { return std::to_string(value_); }

 private:
   uint32_t value_ = 0;
};

}  // namespace VexloL3Common

// EncapId keys the reverse index below, so its hash comes first.
template <>
struct std::hash<VexloL3Common::EncapId> {
   size_t operator()(const VexloL3Common::EncapId& e) const noexcept {
      return Ulo::hashMix(0, e.value());
   }
};
template <>
struct fmt::formatter<VexloL3Common::EncapId> : fmt::formatter<uint32_t> {
   template <class Ctx>
   auto format(const VexloL3Common::EncapId& v, Ctx& ctx) const {
      return fmt::formatter<uint32_t>::format(v.value(), ctx);
   }
};

namespace VexloL3Common {

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

// ---- VTEP-to-VTEP bridging ---------------------------------------------------------------

// The three attributes the configuration asks for and the status acknowledges.
class VtepToVtepBridgingAttrs : public VxlanEntity {
 public:
   bool vtepToVtepBridging() const { return vtepToVtepBridging_; }
   void vtepToVtepBridgingIs(bool v) { update(vtepToVtepBridging_, v, "vtepToVtepBridging"); }
   bool vtepSourcePruningAll() const { return vtepSourcePruningAll_; }
   void vtepSourcePruningAllIs(bool v) { update(vtepSourcePruningAll_, v, "vtepSourcePruningAll"); }
   const std::set<IpGenAddr>& vtepSetForSourcePruning() const { return pruning_; }
   bool vtepSetForSourcePruning(const IpGenAddr& vtep) const { return pruning_.contains(vtep); }
   void vtepSetForSourcePruningIs(const IpGenAddr& vtep) {
      if (pruning_.insert(vtep).second) notify("vtepSetForSourcePruning");
   }
   void vtepSetForSourcePruningDel(const IpGenAddr& vtep) {
      if (pruning_.erase(vtep)) notify("vtepSetForSourcePruning");
   }
   void vtepSetForSourcePruningDelAll() {
      if (pruning_.empty()) return;
      pruning_.clear();
      notify("vtepSetForSourcePruning");
   }

 protected:
   void copyFrom(const VtepToVtepBridgingAttrs& o);

 private:
   bool vtepToVtepBridging_ = false;
   bool vtepSourcePruningAll_ = false;
   std::set<IpGenAddr> pruning_;
};

class VtepToVtepBridgingConfig : public VtepToVtepBridgingAttrs {
 public:
   explicit VtepToVtepBridgingConfig(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }

 private:
   std::string name_;
};

Ulo::Ptr<VtepToVtepBridgingConfig> vtepToVtepBridgingConfigFactory(const std::string& name);

class VtepToVtepBridgingStatus : public VtepToVtepBridgingAttrs {
 public:
   // Acknowledges a configuration: takes over its three attributes, notifying what changed.
   void ackConfig(const VtepToVtepBridgingConfig& config) { copyFrom(config); }
};

Ulo::Ptr<VtepToVtepBridgingStatus> vtepToVtepBridgingStatusFactory();

}  // namespace VexloL3Common

template <>
struct fmt::formatter<VexloL3Common::VxlanTunnelKey>
    : Ulo::ToStringFormatter<VexloL3Common::VxlanTunnelKey> {};
template <>
struct fmt::formatter<VexloL3Common::FloodUnderlayVlanToVtepList>
    : Ulo::ToStringFormatter<VexloL3Common::FloodUnderlayVlanToVtepList> {};

template <>
struct std::hash<VexloL3Common::VxlanTunnelKey> {
   size_t operator()(const VexloL3Common::VxlanTunnelKey& k) const noexcept { return k.hash(); }
};
template <>
struct std::hash<VexloL3Common::FloodUnderlayVlanToVtepList> {
   size_t operator()(const VexloL3Common::FloodUnderlayVlanToVtepList& l) const noexcept {
      return l.hash();
   }
};
