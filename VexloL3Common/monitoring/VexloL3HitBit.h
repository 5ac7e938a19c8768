// The chip-independent hit-bit reactor: watches the clients' request directories and hands every
// outstanding request to the chip-specific processHitBitHwTable.
//
// Synopsis
//   class ChipHitBitManager : public L3CommonHitBitManager {
//      void processHitBitHwTable(const std::string& dirName,
//                                const Ulo::HitBitRequestKey& key) override;   read and publish
//   };
//   ChipHitBitManager m(rootDir, statusDir);
//   m.initializedIs(true);             requests before this are traced and dropped
//
// Watchers: one on the root (children added, replaced, removed), one on each child that is a
// HitBitConfigDir (entries added, replaced, removed), one on each HitBitConfig in it (its request
// field). A new child's existing requests are each handled once. A watcher goes when its entity
// leaves its parent. Requests are not remembered: one that arrives before `initialized` is served
// only when it changes again.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "platform/HitBit.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

class L3CommonHitBitManager : public Ulo::Reactor {
 public:
   L3CommonHitBitManager(Ulo::Ptr<const Ulo::HitBitConfigRootDir> hitBitConfigRootDir,
                         Ulo::Ptr<Ulo::HitBitStatusDir> hitBitStatusDir);
   ~L3CommonHitBitManager() override;
   L3CommonHitBitManager(const L3CommonHitBitManager&) = delete;
   L3CommonHitBitManager& operator=(const L3CommonHitBitManager&) = delete;

   const Ulo::Ptr<const Ulo::HitBitConfigRootDir>& hitBitConfigRootDir() const {
      return hitBitConfigRootDir_;
   }
   const Ulo::Ptr<Ulo::HitBitStatusDir>& hitBitStatusDir() const { return hitBitStatusDir_; }
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

   // Serves one request if the manager is initialized and the request is outstanding. A dirName
   // that is not a HitBitConfigDir of the root is fatal.
   void handleHitBitRequestUpdate(const std::string& dirName,
                                  const Ulo::HitBitRequestKey& requestKey);

   // Reads the hardware table the request names and publishes into hitBitStatusDir().
   virtual void processHitBitHwTable(const std::string& dirName,
                                     const Ulo::HitBitRequestKey& requestKey) = 0;

 private:
   struct DirWatcher;

   void handleRootEntry(const std::string& dirName);
   void handleConfigEntry(const std::string& dirName, const Ulo::HitBitRequestKey& key);

   Ulo::Ptr<const Ulo::HitBitConfigRootDir> hitBitConfigRootDir_;
   Ulo::Ptr<Ulo::HitBitStatusDir> hitBitStatusDir_;
   bool initialized_ = false;
   std::unordered_map<std::string, std::unique_ptr<DirWatcher>> dirWatcher_;
};

}  // namespace VexloL3Common
