// Chip-independent base of the state machine that keeps the hardware's VXLAN underlay multicast
// decapsulation entries in step with the IPv4 and IPv6 decap tables of the state database.
//
// Synopsis
//   class MySm : public VexloL3Common::VexloVxlanUnderlayMulticastBaseSm {
//      void programEntry(const Ulo::IpGenRouteKey& key) override;           // reads the table
//      void deleteEntry(const Ulo::IpGenRouteKey& key, Ulo::VlanId vlan) override;
//   };
//   MySm sm(stateDbEm, fcsd, ipv4DecapTable, ipv6DecapTable);   // subscribes IPv4, then IPv6
//   sm.handleInitialized();          // once the tables are mounted: programs every entry
//   ... each table write then drives handleVxlanMroute(key)
//   sm.hasNotificationActiveIs(false)   stops reacting to the tables
//
// The base remembers the VLAN it programmed per key (`mrouteKeyToVlan`, VLAN 1 for a key it has
// no record of) and turns every change into subclass calls: a new key is programmed; a VLAN
// change is deleteEntry(old VLAN) then programEntry, never an in-place change; a removed key is
// deleted with the remembered VLAN, which is VLAN 1 for a key that was never programmed, so
// subclasses must accept that call. The map is updated after the subclass call returns. Keys of
// the unknown address family are traced at level 0 and ignored. A null table is watched by
// nobody and looks empty.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <unordered_map>

#include "platform/EntityManager.h"
#include "platform/FeatureAgent.h"
#include "platform/MrouteVxlanDecapTable.h"
#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

class VexloVxlanUnderlayMulticastBaseSm : public Ulo::Reactor {
 public:
   using MrouteKeyToVlan = std::unordered_map<Ulo::IpGenRouteKey, Ulo::VlanId>;

   VexloVxlanUnderlayMulticastBaseSm(
       Ulo::Ptr<Ulo::EntityManager> stateDbEm,
       Ulo::Ptr<const VexloCentral::FeatureAgentCommonSmData> fcsd,
       Ulo::Ptr<Ulo::MrouteVxlanDecapTable> mrouteVxlanDecapTable,
       Ulo::Ptr<Ulo::MrouteVxlanDecapTable> mrouteVxlanIpv6DecapTable);

   const Ulo::Ptr<Ulo::EntityManager>& stateDbEm() const { return stateDbEm_; }
   const Ulo::Ptr<const VexloCentral::FeatureAgentCommonSmData>& fcsd() const { return fcsd_; }
   const Ulo::Ptr<Ulo::MrouteVxlanDecapTable>& mrouteVxlanDecapTable() const { return v4Table_; }
   const Ulo::Ptr<Ulo::MrouteVxlanDecapTable>& mrouteVxlanIpv6DecapTable() const {
      return v6Table_;
   }

   // Program the hardware entry of `key`; the entry and its VLAN are read from the table.
   virtual void programEntry(const Ulo::IpGenRouteKey& key) = 0;
   // Remove what was programmed for `key` under `vlanId`.
   virtual void deleteEntry(const Ulo::IpGenRouteKey& key, Ulo::VlanId vlanId) = 0;
   // Walks the IPv4 table, then the IPv6 table, handling every key. Keys remembered but no longer
   // in either table are not swept.
   virtual void handleInitialized();

   // The reaction to one changed key of either table. Takes its own copy of the key, which may
   // outlive the table node it came from.
   void handleVxlanMroute(Ulo::IpGenRouteKey key);

   const MrouteKeyToVlan& mrouteKeyToVlan() const { return mrouteKeyToVlan_; }
   // VLAN 1 for a key with no record.
   Ulo::VlanId mrouteKeyToVlan(const Ulo::IpGenRouteKey& key) const;
   void mrouteKeyToVlanIs(const Ulo::IpGenRouteKey& key, Ulo::VlanId vlanId) {
      mrouteKeyToVlan_.insert_or_assign(key, vlanId);
   }
   void mrouteKeyToVlanDel(const Ulo::IpGenRouteKey& key) { mrouteKeyToVlan_.erase(key); }
   void mrouteKeyToVlanDelAll() { mrouteKeyToVlan_.clear(); }

 private:
   Ulo::Ptr<Ulo::EntityManager> stateDbEm_;
   Ulo::Ptr<const VexloCentral::FeatureAgentCommonSmData> fcsd_;
   Ulo::Ptr<Ulo::MrouteVxlanDecapTable> v4Table_;
   Ulo::Ptr<Ulo::MrouteVxlanDecapTable> v6Table_;
   MrouteKeyToVlan mrouteKeyToVlan_;
};

}  // namespace VexloL3Common
