// What the seeded random runs share: their knobs, the pools of routes they draw from, the set of
// pool members installed so far, and the digest that fingerprints a run's behaviour.
//
// VEXLO_RANDOM_OPS sets the operations per run and VEXLO_RANDOM_SEED the first seed. With
// VEXLO_RANDOM_DIGESTS=FILE every run that records its digest appends one line to FILE:
//   <test> <run name> seed <s> ops <n> digest <16 hex digits>
// Two builds that make the same decisions write the same lines (compare them sorted: parallel
// test programs append in any order).
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "VexloL3Common/types/L3RouteTypes.h"

namespace VexloL3Common::testing {

inline uint64_t envNumber(const char* name, uint64_t fallback) {
   const char* v = std::getenv(name);
   return v && *v ? std::strtoull(v, nullptr, 10) : fallback;
}

inline uint32_t netmask(uint32_t len) {
   return len == 0 ? 0 : ~0u << (32 - len);
}

// Prefixes the way routing tables nest them: covering prefixes, more-specifics anywhere inside
// them, and the same prefix again in another VRF.
inline std::vector<Ipv4UcastKey> makePool(std::mt19937_64& rng, size_t n) {
   std::vector<Ipv4UcastKey> pool;
   std::unordered_set<Ipv4UcastKey> seen;
   while (pool.size() < n) {
      Ipv4UcastKey key(VrfId(1 + uint32_t(rng() % 3)), Ulo::Prefix());
      if (!pool.empty() && rng() % 100 < 35) {
         const Ipv4UcastKey& base = pool[rng() % pool.size()];
         if (rng() % 4 == 0) {
            key.prefix = base.prefix;
         } else {
            const uint32_t len = std::min(32u, base.len() + 1 + uint32_t(rng() % 8));
            const uint32_t inside = uint32_t(rng()) & netmask(len) & ~netmask(base.len());
            key = Ipv4UcastKey(base.vrfId, Ulo::Prefix(base.prefix.addr() | inside, uint8_t(len)));
         }
      } else {
         const uint32_t r = uint32_t(rng() % 100);
         const uint32_t len = r < 50 ? 24u
                                     : (r < 80   ? 16u
                                        : r < 90 ? 8u
                                                 : 25u) +
                                           uint32_t(rng() % 8);
         key.prefix = Ulo::Prefix(uint32_t(rng()) & netmask(len), uint8_t(len));
      }
      if (seen.insert(key).second) pool.push_back(key);
   }
   return pool;
}

inline std::vector<Ipv6UcastKey> makePool6(std::mt19937_64& rng, size_t n, uint32_t maxLen) {
   std::vector<Ipv6UcastKey> pool;
   std::unordered_set<Ipv6UcastKey> seen;
   while (pool.size() < n) {
      const uint32_t r = uint32_t(rng() % 4);
      const uint32_t len = r == 0 ? 48 : r == 1 ? maxLen : uint32_t(rng() % (maxLen + 1));
      Ulo::Ip6Prefix::Bytes b{};
      for (auto& x : b)
         x = uint8_t(rng() % 4);  // few distinct values: plenty of nesting
      for (uint32_t bit = len; bit < 128; ++bit)
         b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
      Ipv6UcastKey key(VrfId(1 + uint32_t(rng() % 2)), Ulo::Ip6Prefix(b, uint8_t(len)));
      if (seen.insert(key).second) pool.push_back(key);
   }
   return pool;
}

inline std::vector<IpMcastPrefixKey> makePoolM(std::mt19937_64& rng, size_t n) {
   std::vector<IpMcastPrefixKey> pool;
   for (size_t i = 0; i < n; ++i) {
      const uint8_t len = rng() % 3 == 0 ? 32 : uint8_t(40 + rng() % 25);
      const uint32_t src = len == 32 ? 0 : uint32_t(rng()) & (~0u << (64 - len));
      pool.emplace_back(uint16_t(rng() % 2), 0,
                        Ulo::IpGenAddr::v4(0xef000000u | uint32_t(rng() % 64)),
                        Ulo::IpGenAddr::v4(src), len);
   }
   std::sort(pool.begin(), pool.end());
   pool.erase(std::unique(pool.begin(), pool.end()), pool.end());
   return pool;
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
