// The state database's VXLAN multicast decapsulation table: multicast route key -> VLAN.
//
// Synopsis
//   auto t = Ulo::mrouteVxlanDecapTableFactory("mrouteVxlanDecapTable");
//   t->entryIs(key, VlanId(10));            add, or rewrite (also with the same VLAN)
//   t->entryDel(key);  t->entryDelAll();    remove; an absent key is a no-op
//   t->entry(key)                           the entry or nullptr; t->entries() to iterate
//   auto s = t->entryChanged().subscribe([](const IpGenRouteKey& k) { ... });
//
// Every write fires entryChanged once, after the change, with the key written: an add, a
// rewrite (even one that stores the same VLAN, since the table reports writes and leaves it to
// readers to tell what changed) and a removal all look alike; a reader looks the key up to tell
// them apart. entryDelAll fires once per removed key. An agent keeps one table per address
// family. A real platform replaces this stand-in with the mounted shared-memory table.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace Ulo {

struct MrouteVxlanDecapEntry {
   IpGenRouteKey key;
   VlanId vlanId;
   bool operator==(const MrouteVxlanDecapEntry&) const = default;
};

class MrouteVxlanDecapTable {
 public:
   using Entries = std::unordered_map<IpGenRouteKey, MrouteVxlanDecapEntry>;

   explicit MrouteVxlanDecapTable(std::string name) : name_(std::move(name)) {}
   MrouteVxlanDecapTable(const MrouteVxlanDecapTable&) = delete;
   MrouteVxlanDecapTable& operator=(const MrouteVxlanDecapTable&) = delete;

   const std::string& name() const { return name_; }
   const Entries& entries() const { return entries_; }
   size_t size() const { return entries_.size(); }
   // nullptr when absent.
   const MrouteVxlanDecapEntry* entry(const IpGenRouteKey& key) const;

   void entryIs(const IpGenRouteKey& key, VlanId vlanId);
   void entryDel(const IpGenRouteKey& key);
   void entryDelAll();

   Notifier<IpGenRouteKey>& entryChanged() { return entryChanged_; }

 private:
   std::string name_;
   Entries entries_;
   Notifier<IpGenRouteKey> entryChanged_;
};

std::shared_ptr<MrouteVxlanDecapTable> mrouteVxlanDecapTableFactory(const std::string& name);

}  // namespace Ulo
