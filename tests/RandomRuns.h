// What the seeded random runs share: their knobs and the set of pool members installed so far.
//
// VEXLO_RANDOM_OPS sets the operations per run and VEXLO_RANDOM_SEED the first seed.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <unordered_map>
#include <vector>

namespace VexloL3Common::testing {

inline uint64_t envNumber(const char* name, uint64_t fallback) {
   const char* v = std::getenv(name);
   return v && *v ? std::strtoull(v, nullptr, 10) : fallback;
}

// Installed members of a pool (by index), pickable at random.
struct Present {
   std::vector<size_t> items;
   std::unordered_map<size_t, size_t> where;
   void add(size_t i) {
      where[i] = items.size();
      items.push_back(i);
   }
   void remove(size_t i) {
      const size_t at = where[i];
      where[items.back()] = at;
      items[at] = items.back();
      items.pop_back();
      where.erase(i);
   }
   bool has(size_t i) const { return where.count(i) != 0; }
};

}  // namespace VexloL3Common::testing
