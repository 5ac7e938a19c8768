#include "VexloL3Common/vxlan/VexloVxlanUnderlayMulticastBaseSm.h"

#include <vector>

#include "VexloL3Common/vxlan/VexloVxlanDefs.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

Ulo::TraceHandle th("VexloVxlanUnderlayMulticastBaseSm");

}  // namespace

VexloVxlanUnderlayMulticastBaseSm::VexloVxlanUnderlayMulticastBaseSm(
    Ulo::Ptr<Ulo::EntityManager> stateDbEm,
    Ulo::Ptr<const VexloCentral::FeatureAgentCommonSmData> fcsd,
    Ulo::Ptr<Ulo::MrouteVxlanDecapTable> mrouteVxlanDecapTable,
    Ulo::Ptr<Ulo::MrouteVxlanDecapTable> mrouteVxlanIpv6DecapTable)
    : stateDbEm_(std::move(stateDbEm)),
      fcsd_(std::move(fcsd)),
      v4Table_(std::move(mrouteVxlanDecapTable)),
      v6Table_(std::move(mrouteVxlanIpv6DecapTable)) {
   auto onChange = [this](const Ulo::IpGenRouteKey& key) { handleVxlanMroute(key); };
   if (v4Table_) watch(v4Table_->entryChanged(), onChange);
   if (v6Table_) watch(v6Table_->entryChanged(), onChange);
}

Ulo::VlanId VexloVxlanUnderlayMulticastBaseSm::mrouteKeyToVlan(
    const Ulo::IpGenRouteKey& key) const {
   auto it = mrouteKeyToVlan_.find(key);
   return it == mrouteKeyToVlan_.end() ? Ulo::VlanId(defaultMrouteVlan) : it->second;
}

void VexloVxlanUnderlayMulticastBaseSm::handleVxlanMroute(Ulo::IpGenRouteKey key) {
   TRACE(th, 4, "handleVxlanMroute", " mroute key : ", key);
   const Ulo::MrouteVxlanDecapTable* table = nullptr;
   switch (key.af()) {
      case Ulo::AddressFamily::ipv4:
         table = v4Table_.get();
         break;
      case Ulo::AddressFamily::ipv6:
         table = v6Table_.get();
         break;
      default:
         TRACE(th, 0, "Invalid address family");
         return;
   }
   const Ulo::MrouteVxlanDecapEntry* entry = table ? table->entry(key) : nullptr;
   if (!entry) {
      TRACE(th, 4, "handleVxlanMroute", " deleting mroute : ", key);
      deleteEntry(key, mrouteKeyToVlan(key));
      mrouteKeyToVlanDel(key);
      return;
   }
   // Read before any subclass call, which may touch the table.
   const Ulo::VlanId newVlan = entry->vlanId;
   auto known = mrouteKeyToVlan_.find(key);
   if (known != mrouteKeyToVlan_.end()) {
      const Ulo::VlanId oldVlan = known->second;
      TRACE(th, 4, "handleVxlanMroute", " update mroute oldVlan : ", oldVlan,
            "newVlan : ", newVlan);
      if (oldVlan == newVlan) return;
      deleteEntry(key, oldVlan);
      mrouteKeyToVlanDel(key);
   }
   TRACE(th, 4, "handleVxlanMroute", " adding mroute : ", key);
   programEntry(key);
   mrouteKeyToVlanIs(key, newVlan);
}

void VexloVxlanUnderlayMulticastBaseSm::handleInitialized() {
   TRACE(th, 4, "handleInitialized");
   for (const auto& table : {v4Table_, v6Table_}) {
      if (!table) continue;
      // Keys first: a subclass call may write to the table while we walk it.
      std::vector<Ulo::IpGenRouteKey> keys;
      keys.reserve(table->size());
      for (const auto& [key, entry] : table->entries())
         keys.push_back(key);
      for (const auto& key : keys)
         handleVxlanMroute(key);
   }
}

}  // namespace VexloL3Common
