// VxlanEntity: the base of the VXLAN state and configuration records, one notifier fired with the
// name of the attribute or collection that changed.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <string_view>

#include "platform/Reactor.h"

namespace VexloL3Common {

// Base of the entities below: one notifier, fired with the name of what changed.
class VxlanEntity {
 public:
   VxlanEntity() = default;
   VxlanEntity(const VxlanEntity&) = delete;
   VxlanEntity& operator=(const VxlanEntity&) = delete;
   virtual ~VxlanEntity() = default;

   Ulo::Notifier<std::string_view>& changed() { return changed_; }

 protected:
   template <class T>
   void update(T& field, const T& value, std::string_view attr) {
      if (field == value) return;
      field = value;
      changed_.notify(attr);
   }
   void notify(std::string_view attr) { changed_.notify(attr); }

   // Shared by the collections: insert or overwrite, notify when the content changed.
   template <class Map, class K, class V>
   void mapIs(Map& map, const K& key, const V& value, std::string_view attr) {
      auto [it, inserted] = map.try_emplace(key, value);
      if (!inserted) {
         if (it->second == value) return;
         it->second = value;
      }
      changed_.notify(attr);
   }
   template <class Map, class K>
   void mapDel(Map& map, const K& key, std::string_view attr) {
      if (map.erase(key)) changed_.notify(attr);
   }
   template <class Map>
   void mapDelAll(Map& map, std::string_view attr) {
      if (map.empty()) return;
      map.clear();
      changed_.notify(attr);
   }

 private:
   Ulo::Notifier<std::string_view> changed_;
};

}  // namespace VexloL3Common
