// The hit-bit library's request and result directories.
//
// Synopsis
//   HitBitRequestKey{"l3Route", 42}                 one request: a hardware table and an entry
//   auto root = std::make_shared<HitBitConfigRootDir>();
//   auto dir = std::make_shared<HitBitConfigDir>("client1");
//   root->entryIs("client1", dir);                  one child directory per client
//   auto cfg = std::make_shared<HitBitConfig>(); cfg->requestIs(1);
//   dir->hitBitConfigIs(key, cfg);                  request outstanding while request() != 0
//   status->hitBitStatusIs({"client1", key}, HitBitStatus{1, true});   the agent's answer
//
// Every collection fires its notifier once per changed key after the change (insert, replace
// with another handle, delete); a HitBitConfig fires when its request field changes. Notifiers
// are reachable through read-only handles, so a reader that holds Ptr<const ...> can watch.
//
// The root may hold children of any entity type (Entity); clients put HitBitConfigDirs there,
// readers must check the type.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace Ulo {

// A named node of a directory tree.
class Entity {
 public:
   explicit Entity(std::string name) : name_(std::move(name)) {}
   virtual ~Entity() = default;
   const std::string& name() const { return name_; }

 private:
   std::string name_;
};

struct HitBitRequestKey {
   std::string tableName;  // the hardware table whose hit bits are asked for
   uint32_t entryId = 0;   // the entry in that table

   auto operator<=>(const HitBitRequestKey&) const = default;
   std::string toString() const { return fmt::format("{}/{}", tableName, entryId); }
};

}  // namespace Ulo

template <>
struct std::hash<Ulo::HitBitRequestKey> {
   size_t operator()(const Ulo::HitBitRequestKey& k) const noexcept {
      return Ulo::hashMix(std::hash<std::string>()(k.tableName), k.entryId);
   }
};

namespace Ulo {

class HitBitConfig {
 public:
   // Nonzero while a request is outstanding; clients bump it to ask again.
   uint32_t request() const { return request_; }
   void requestIs(uint32_t v) {
      if (v == request_) return;
      request_ = v;
      requestChanged_.notify();
   }
   Notifier<>& requestChanged() const { return requestChanged_; }

 private:
   uint32_t request_ = 0;
   mutable Notifier<> requestChanged_;
};

class HitBitConfigDir : public Entity {
 public:
   using Map = std::unordered_map<HitBitRequestKey, Ptr<HitBitConfig>>;
   using Entity::Entity;

   Ptr<HitBitConfig> hitBitConfig(const HitBitRequestKey& key) const;
   const Map& hitBitConfig() const { return hitBitConfig_; }
   void hitBitConfigIs(const HitBitRequestKey& key, Ptr<HitBitConfig> config);
   void hitBitConfigDel(const HitBitRequestKey& key);
   void hitBitConfigDelAll();
   Notifier<HitBitRequestKey>& hitBitConfigChanged() const { return changed_; }

 private:
   Map hitBitConfig_;
   mutable Notifier<HitBitRequestKey> changed_;
};

// The root of the request directories: children by name.
class HitBitConfigRootDir {
 public:
   using Map = std::unordered_map<std::string, Ptr<Entity>>;

   Ptr<Entity> entry(const std::string& name) const;
   const Map& entry() const { return entry_; }
   void entryIs(const std::string& name, Ptr<Entity> child);
   void entryDel(const std::string& name);
   Notifier<std::string>& entryChanged() const { return changed_; }

 private:
   Map entry_;
   mutable Notifier<std::string> changed_;
};

// One answer: the request value that was served and whether the entry was hit since the last.
struct HitBitStatus {
   uint32_t request = 0;
   bool hit = false;
   auto operator<=>(const HitBitStatus&) const = default;
};

struct HitBitStatusKey {
   std::string dirName;
   HitBitRequestKey requestKey;
   auto operator<=>(const HitBitStatusKey&) const = default;
};

}  // namespace Ulo

template <>
struct std::hash<Ulo::HitBitStatusKey> {
   size_t operator()(const Ulo::HitBitStatusKey& k) const noexcept {
      return Ulo::hashMix(std::hash<std::string>()(k.dirName),
                          std::hash<Ulo::HitBitRequestKey>()(k.requestKey));
   }
};

namespace Ulo {

class HitBitStatusDir {
 public:
   using Map = std::unordered_map<HitBitStatusKey, HitBitStatus>;

   // The status of a request, or a default (request 0) one when none was published.
   HitBitStatus hitBitStatus(const HitBitStatusKey& key) const;
   const Map& hitBitStatus() const { return hitBitStatus_; }
   void hitBitStatusIs(const HitBitStatusKey& key, const HitBitStatus& status);
   void hitBitStatusDel(const HitBitStatusKey& key);
   Notifier<HitBitStatusKey>& hitBitStatusChanged() const { return changed_; }

 private:
   Map hitBitStatus_;
   mutable Notifier<HitBitStatusKey> changed_;
};

}  // namespace Ulo

template <>
struct fmt::formatter<Ulo::HitBitRequestKey> : Ulo::ToStringFormatter<Ulo::HitBitRequestKey> {};
