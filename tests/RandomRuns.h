// What the seeded random runs share: their knobs, the set of pool members installed so far, and
// the digest that fingerprints a run's behaviour.
//
// VEXLO_RANDOM_OPS sets the operations per run and VEXLO_RANDOM_SEED the first seed. With
// VEXLO_RANDOM_DIGESTS=FILE every run that records its digest appends one line to FILE:
//   <test> <run name> seed <s> ops <n> digest <16 hex digits>
// Two builds that make the same decisions write the same lines (compare them sorted: parallel
// test programs append in any order).
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string_view>
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

// 64-bit FNV-1a over the little-endian bytes of the values folded in, each widened to 64 bits.
struct Digest {
   uint64_t value = 0xcbf29ce484222325u;
   template <class... T>
   void add(T... values) {
      for (uint64_t v : {uint64_t(values)...}) {
         for (int i = 0; i < 8; ++i, v >>= 8)
            value = (value ^ (v & 0xff)) * 0x100000001b3u;
      }
   }
};

// Appends the run's line to the VEXLO_RANDOM_DIGESTS file, if one is named. The line goes out in
// one write in append mode, so lines of test programs run in parallel do not interleave.
inline void recordDigest(std::string_view run, uint64_t seed, uint64_t ops, uint64_t digest) {
   const char* path = std::getenv("VEXLO_RANDOM_DIGESTS");
   if (!path || !*path) return;
   const ::testing::TestInfo* t = ::testing::UnitTest::GetInstance()->current_test_info();
   std::ofstream out(path, std::ios::app);
   out << fmt::format("{}.{} {} seed {} ops {} digest {:016x}\n", t ? t->test_suite_name() : "",
                      t ? t->name() : "", run, seed, ops, digest);
   EXPECT_TRUE(out.flush()) << "cannot append to " << path;
}

}  // namespace VexloL3Common::testing
