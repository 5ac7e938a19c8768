#include "platform/HitBit.h"

namespace Ulo {

Ptr<HitBitConfig> HitBitConfigDir::hitBitConfig(const HitBitRequestKey& key) const {
   auto it = hitBitConfig_.find(key);
   return it == hitBitConfig_.end() ? nullptr : it->second;
}

void HitBitConfigDir::hitBitConfigIs(const HitBitRequestKey& key, Ptr<HitBitConfig> config) {
   auto [it, inserted] = hitBitConfig_.try_emplace(key, config);
   if (!inserted) {
      if (it->second == config) return;
      it->second = std::move(config);
   }
   changed_.notify(key);
}

void HitBitConfigDir::hitBitConfigDel(const HitBitRequestKey& key) {
   auto it = hitBitConfig_.find(key);
   if (it == hitBitConfig_.end()) return;
   const HitBitRequestKey removed = it->first;  // key may be the element's own
   hitBitConfig_.erase(it);
   changed_.notify(removed);
}

void HitBitConfigDir::hitBitConfigDelAll() {
   while (!hitBitConfig_.empty())
      hitBitConfigDel(hitBitConfig_.begin()->first);
}

Ptr<Entity> HitBitConfigRootDir::entry(const std::string& name) const {
   auto it = entry_.find(name);
   return it == entry_.end() ? nullptr : it->second;
}

void HitBitConfigRootDir::entryIs(const std::string& name, Ptr<Entity> child) {
   auto [it, inserted] = entry_.try_emplace(name, child);
   if (!inserted) {
      if (it->second == child) return;
      it->second = std::move(child);
   }
   changed_.notify(name);
}

void HitBitConfigRootDir::entryDel(const std::string& name) {
   auto it = entry_.find(name);
   if (it == entry_.end()) return;
   const std::string removed = it->first;  // name may be the element's own
   entry_.erase(it);
   changed_.notify(removed);
}

HitBitStatus HitBitStatusDir::hitBitStatus(const HitBitStatusKey& key) const {
   auto it = hitBitStatus_.find(key);
   return it == hitBitStatus_.end() ? HitBitStatus() : it->second;
}

void HitBitStatusDir::hitBitStatusIs(const HitBitStatusKey& key, const HitBitStatus& status) {
   auto [it, inserted] = hitBitStatus_.try_emplace(key, status);
   if (!inserted) {
      if (it->second == status) return;
      it->second = status;
   }
   changed_.notify(key);
}

void HitBitStatusDir::hitBitStatusDel(const HitBitStatusKey& key) {
   if (hitBitStatus_.erase(key)) changed_.notify(key);
}

}  // namespace Ulo
