// VXLAN state and configuration records: the local VTEP, boot progress, the VLAN-mapping and
// L3-status directories, maps from hardware indices back to VTEPs, hit bits of VXLAN multicast
// routes, and VTEP-to-VTEP bridging.
//
// Synopsis
//   VexloVxlanState            local VTEP addresses, UDP ports, TTL, tunnel indices, init flags;
//                              getLocalVtep(af) / setLocalVtep(addr) pick the field by family
//   VexloVxlanBootStatus       boot progress flags on top of the central VxlanBootStatus
//   VexloVxlanConfig / VexloVxlanStatus   handles to the VLAN-mapping and L3-status directories
//   VxlanDvpToVtepMap, VxlanTunnelIndexToVtepMap, VxlanMrouteHitbitAction, VxlanClearHitBitConfig
//   VtepToVtepBridgingConfig / VtepToVtepBridgingStatus
//
// The entity pattern is described in VexloVxlanTypes.h. Single event-loop thread: nothing here is
// locked.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

#include "VexloL3Common/vxlan/VexloVxlanDefs.h"
#include "VexloL3Common/vxlan/VexloVxlanEntity.h"
#include "VexloL3Common/vxlan/VexloVxlanKeys.h"
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
