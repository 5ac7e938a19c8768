// The feature agents' shared common state: which interfaces have a VXLAN virtual port.
//
// Synopsis
//   auto fcsd = std::make_shared<VexloCentral::FeatureAgentCommonSmData>();
//   fcsd->virtualPortAssignedIs(intf, true);        writer side (the agent that assigns ports)
//   fcsd->vexloIntfToVirtualPortIs(intf, 17);
//   fcsd->isVirtualPortAssigned(intf)               reader side
//   fcsd->vexloIntfToVirtualPort(intf)              std::optional<uint16_t>, empty when absent
//
// The assignment flag and the interface-to-port map are kept apart on purpose: the agent that
// owns them sets the flag of a port channel before the port number is known, and readers must
// be able to see that state. Changes fire `changed` with the interface concerned.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace VexloCentral {

class FeatureAgentCommonSmData {
 public:
   bool isVirtualPortAssigned(Ulo::IntfId intf) const { return assigned_.contains(intf); }
   void virtualPortAssignedIs(Ulo::IntfId intf, bool assigned) {
      const bool changed = assigned ? assigned_.insert(intf).second : assigned_.erase(intf) > 0;
      if (changed) this->changed.notify(intf);
   }

   std::optional<uint16_t> vexloIntfToVirtualPort(Ulo::IntfId intf) const {
      auto it = intfToVirtualPort_.find(intf);
      if (it == intfToVirtualPort_.end()) return std::nullopt;
      return it->second;
   }
   const std::unordered_map<Ulo::IntfId, uint16_t>& vexloIntfToVirtualPort() const {
      return intfToVirtualPort_;
   }
   void vexloIntfToVirtualPortIs(Ulo::IntfId intf, uint16_t port) {
      auto [it, inserted] = intfToVirtualPort_.try_emplace(intf, port);
      if (!inserted && it->second == port) return;
      it->second = port;
      changed.notify(intf);
   }
   void vexloIntfToVirtualPortDel(Ulo::IntfId intf) {
      // Taken by value: intf may be the element's own key.
      if (intfToVirtualPort_.erase(intf)) changed.notify(intf);
   }
   void vexloIntfToVirtualPortDelAll() {
      while (!intfToVirtualPort_.empty())
         vexloIntfToVirtualPortDel(intfToVirtualPort_.begin()->first);
   }

   // Fires once per changed interface, after the change.
   Ulo::Notifier<Ulo::IntfId> changed;

 private:
   std::unordered_set<Ulo::IntfId> assigned_;
   std::unordered_map<Ulo::IntfId, uint16_t> intfToVirtualPort_;
};

}  // namespace VexloCentral
