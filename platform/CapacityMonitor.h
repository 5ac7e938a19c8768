// Capacity-monitoring configuration of the forwarding-abstraction layer: which hardware tables a
// capacity-reporting service watches, and where it publishes their status.
//
// Synopsis
//   checkCapacityTableKey(table, feature, chip)        range error for an invalid key
//   auto t = uloAdjCapacityTableMonitorConfigFactory(UloCapacityTableKey{...});
//   t->featureMapPush(1);                              per-table feature values, in order
//   auto g = uloCapacityTableGroupMonitorConfigFactory(CapacityTableType::adjacency, "chip0");
//   g->statusPathIs("hardware/capacity/status/l3");
//   g->tableConfigPush(t);                             monitored tables, in order
//
// The three names of a key become components of the status path, so each must be non-empty and
// free of '/'.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Reactor.h"

namespace Ulo {

// Kinds of monitored table groups; the adjacency tables come first.
enum class CapacityTableType : uint8_t { adjacency = 0, route = 1, multicast = 2 };
std::string_view toString(CapacityTableType t);

struct UloCapacityTableKey {
   std::string tableName;
   std::string featureName;
   std::string chipName;
   auto operator<=>(const UloCapacityTableKey&) const = default;
   std::string toString() const;
};

// Raises std::range_error naming the offending field, e.g.
// "Ulo::UloCapacityTableKey::featureName empty or containing '/' not allowed".
void checkCapacityTableKey(std::string_view tableName, std::string_view featureName,
                           std::string_view chipName);

class UloCapacityTableMonitorConfig {
 public:
   explicit UloCapacityTableMonitorConfig(UloCapacityTableKey key) : key_(std::move(key)) {}
   virtual ~UloCapacityTableMonitorConfig() = default;
   const UloCapacityTableKey& key() const { return key_; }

 private:
   UloCapacityTableKey key_;
};

// An adjacency table: the key plus the feature values the reporting service counts per table.
class UloAdjCapacityTableMonitorConfig : public UloCapacityTableMonitorConfig {
 public:
   using UloCapacityTableMonitorConfig::UloCapacityTableMonitorConfig;
   const std::vector<uint32_t>& featureMap() const { return featureMap_; }
   void featureMapPush(uint32_t value) { featureMap_.push_back(value); }

 private:
   std::vector<uint32_t> featureMap_;
};

class UloCapacityTableGroupMonitorConfig {
 public:
   UloCapacityTableGroupMonitorConfig(CapacityTableType tableType, std::string chipName)
       : tableType_(tableType), chipName_(std::move(chipName)) {}

   CapacityTableType tableType() const { return tableType_; }
   const std::string& chipName() const { return chipName_; }
   const std::string& statusPath() const { return statusPath_; }
   void statusPathIs(std::string path) { statusPath_ = std::move(path); }
   const std::vector<Ptr<const UloCapacityTableMonitorConfig>>& tableConfig() const {
      return tableConfig_;
   }
   void tableConfigPush(Ptr<const UloCapacityTableMonitorConfig> config) {
      tableConfig_.push_back(std::move(config));
   }

 private:
   CapacityTableType tableType_;
   std::string chipName_;
   std::string statusPath_;
   std::vector<Ptr<const UloCapacityTableMonitorConfig>> tableConfig_;
};

// Checks the key first (range error when invalid).
Ptr<UloAdjCapacityTableMonitorConfig> uloAdjCapacityTableMonitorConfigFactory(
    const UloCapacityTableKey& key);
Ptr<UloCapacityTableGroupMonitorConfig> uloCapacityTableGroupMonitorConfigFactory(
    CapacityTableType tableType, const std::string& chipName);

}  // namespace Ulo

template <>
struct fmt::formatter<Ulo::CapacityTableType> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(Ulo::CapacityTableType t, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(Ulo::toString(t), ctx);
   }
};
