// What the TCAM benchmarks share: an Internet-like IPv4 table and a context wired to a writer
// that acknowledges every move and merge at once, as the hardware writer does.
#pragma once

#include <cstdint>
#include <random>
#include <unordered_set>
#include <vector>

#include "VexloL3Common/tcam/L3TcamTable.h"

namespace VexloL3Common::bench {

// About 60 % /24, 12 % /22, 10 % /23, 6 % /21, 5 % /20, the rest over /8-/19 and a few longer than
// /24; a third of the routes are more-specifics of earlier ones.
inline std::vector<Ipv4UcastKey> internetLike(size_t n, uint64_t seed) {
   std::mt19937_64 rng(seed);
   std::vector<Ipv4UcastKey> out;
   std::unordered_set<Ipv4UcastKey> seen;
   auto pickLen = [&]() -> uint32_t {
      const uint32_t r = uint32_t(rng() % 1000);
      if (r < 600) return 24;
      if (r < 720) return 22;
      if (r < 820) return 23;
      if (r < 880) return 21;
      if (r < 930) return 20;
      if (r < 990) return 8 + uint32_t(rng() % 12);
      return 25 + uint32_t(rng() % 8);
   };
   while (out.size() < n) {
      const uint32_t len = pickLen();
      uint32_t addr = uint32_t(rng());
      if (!out.empty() && rng() % 3 == 0) {
         const Ipv4UcastKey& base = out[rng() % out.size()];
         if (base.len() < len) addr = base.prefix.addr() | (addr & ~(~0u << (32 - base.len())));
      }
      Ipv4UcastKey key(VrfId(0), Ulo::Prefix(addr & (~0u << (32 - len)), uint8_t(len)));
      if (seen.insert(key).second) out.push_back(key);
   }
   return out;
}

// A 16 K-entry mode-2 table of eight blocks, two IPv4 routes per entry, unless changed.
inline L3TcamManagerContext::Config benchConfig() {
   L3TcamManagerContext::Config c;
   c.tcamSize = 16384;
   c.tcamMode = 2;
   c.numUcastDefipBlocks = 8;
   c.twoV4RoutesPerEntry = true;
   return c;
}

struct AckedContext {
   Ulo::Ptr<RouteMove> move = routeMoveFactory(), moveStatus = routeMoveFactory();
   Ulo::Ptr<RouteMerge> merge = routeMergeFactory(), mergeStatus = routeMergeFactory();
   Ulo::Subscription s1, s2;
   Ulo::Ptr<L3TcamManagerContext> ctx;
   explicit AckedContext(L3TcamManagerContext::Config c = benchConfig()) {
      s1 = move->changed().subscribe([this](const RoutePosition& p) { moveStatus->posIs(p); });
      s2 = merge->changed().subscribe([this](const RouteMergeInfo& m) { mergeStatus->mergeIs(m); });
      c.routeMove = move;
      c.routeMoveStatus = moveStatus;
      c.routeMerge = merge;
      c.routeMergeStatus = mergeStatus;
      ctx = l3TcamManagerContextFactory(c);
      ctx->handleInitialized(true);
   }
   // The subscriptions hold `this`.
   AckedContext(const AckedContext&) = delete;
   AckedContext& operator=(const AckedContext&) = delete;
   uint64_t moves() const { return ctx->stats()->moveRoute(RouteType::v4); }
};

}  // namespace VexloL3Common::bench
