#include "platform/MrouteVxlanDecapTable.h"

#include <vector>

namespace Ulo {

const MrouteVxlanDecapEntry* MrouteVxlanDecapTable::entry(const IpGenRouteKey& key) const {
   auto it = entries_.find(key);
   return it == entries_.end() ? nullptr : &it->second;
}

void MrouteVxlanDecapTable::entryIs(const IpGenRouteKey& key, VlanId vlanId) {
   entries_.insert_or_assign(key, MrouteVxlanDecapEntry{key, vlanId});
   entryChanged_.notify(key);
}

void MrouteVxlanDecapTable::entryDel(const IpGenRouteKey& key) {
   // Subscribers get a key of their own: the caller's may live in the node being erased.
   const IpGenRouteKey removed = key;
   if (entries_.erase(removed)) entryChanged_.notify(removed);
}

void MrouteVxlanDecapTable::entryDelAll() {
   std::vector<IpGenRouteKey> keys;
   keys.reserve(entries_.size());
   for (const auto& [key, entry] : entries_)
      keys.push_back(key);
   for (const auto& key : keys)
      entryDel(key);
}

std::shared_ptr<MrouteVxlanDecapTable> mrouteVxlanDecapTableFactory(const std::string& name) {
   return std::make_shared<MrouteVxlanDecapTable>(name);
}

}  // namespace Ulo
