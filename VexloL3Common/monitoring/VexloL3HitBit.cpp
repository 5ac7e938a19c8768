#include "VexloL3Common/monitoring/VexloL3HitBit.h"

#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("VexloL3HitBit");
}

struct L3CommonHitBitManager::DirWatcher {
   std::weak_ptr<const Ulo::HitBitConfigDir> dir;
   Ulo::Subscription dirSubscription;
   struct ConfigWatcher {
      std::weak_ptr<const Ulo::HitBitConfig> config;
      Ulo::Subscription subscription;
   };
   std::unordered_map<Ulo::HitBitRequestKey, ConfigWatcher> configWatcher;
};

L3CommonHitBitManager::L3CommonHitBitManager(
    Ulo::Ptr<const Ulo::HitBitConfigRootDir> hitBitConfigRootDir,
    Ulo::Ptr<Ulo::HitBitStatusDir> hitBitStatusDir)
    : hitBitConfigRootDir_(std::move(hitBitConfigRootDir)),
      hitBitStatusDir_(std::move(hitBitStatusDir)) {
   watch(hitBitConfigRootDir_->entryChanged(),
         [this](const std::string& dirName) { handleRootEntry(dirName); });
   for (const auto& [dirName, child] : hitBitConfigRootDir_->entry())
      handleRootEntry(dirName);
}

L3CommonHitBitManager::~L3CommonHitBitManager() = default;

// A child of the root was added, replaced or removed.
void L3CommonHitBitManager::handleRootEntry(const std::string& dirName) {
   auto dir =
       std::dynamic_pointer_cast<const Ulo::HitBitConfigDir>(hitBitConfigRootDir_->entry(dirName));
   auto it = dirWatcher_.find(dirName);
   if (!dir) {
      // Gone, or not a request directory: nothing to watch.
      if (it != dirWatcher_.end()) dirWatcher_.erase(it);
      return;
   }
   if (it != dirWatcher_.end() && it->second->dir.lock() == dir) return;

   auto watcher = std::make_unique<DirWatcher>();
   watcher->dir = dir;
   watcher->dirSubscription =
       dir->hitBitConfigChanged().subscribe([this, dirName](const Ulo::HitBitRequestKey& key) {
          if (hasNotificationActive()) handleConfigEntry(dirName, key);
       });
   dirWatcher_[dirName] = std::move(watcher);
   // Copy the keys first: serving a request may change the directory.
   std::vector<Ulo::HitBitRequestKey> keys;
   keys.reserve(dir->hitBitConfig().size());
   for (const auto& [key, config] : dir->hitBitConfig())
      keys.push_back(key);
   for (const auto& key : keys)
      handleConfigEntry(dirName, key);
}

// An entry of a watched directory was added, replaced or removed.
void L3CommonHitBitManager::handleConfigEntry(const std::string& dirName,
                                              const Ulo::HitBitRequestKey& key) {
   auto dirIt = dirWatcher_.find(dirName);
   if (dirIt == dirWatcher_.end()) return;
   DirWatcher& watcher = *dirIt->second;
   auto dir = watcher.dir.lock();
   Ulo::Ptr<const Ulo::HitBitConfig> config = dir ? dir->hitBitConfig(key) : nullptr;
   if (!config) {
      watcher.configWatcher.erase(key);
   } else {
      DirWatcher::ConfigWatcher& cw = watcher.configWatcher[key];
      if (cw.config.lock() != config) {
         cw.config = config;
         cw.subscription = config->requestChanged().subscribe([this, dirName, key]() {
            if (hasNotificationActive()) handleHitBitRequestUpdate(dirName, key);
         });
      }
   }
   handleHitBitRequestUpdate(dirName, key);
}

void L3CommonHitBitManager::handleHitBitRequestUpdate(const std::string& dirName,
                                                      const Ulo::HitBitRequestKey& requestKey) {
   TRACE_FMT(th, 4, "dirName {} requestKey {}", dirName, requestKey);
   if (!initialized_) {
      TRACE(th, 4, "SM not inited");
      return;
   }
   auto dir =
       std::dynamic_pointer_cast<const Ulo::HitBitConfigDir>(hitBitConfigRootDir_->entry(dirName));
   VEXLO_ASSERT_MSG(dir, "hitBitRootConfig is null for dirName {}",
                    "hitBitRootConfig is null for dirName ", dirName);
   auto config = dir->hitBitConfig(requestKey);
   if (!config || config->request() == 0) return;
   processHitBitHwTable(dirName, requestKey);
}

}  // namespace VexloL3Common
