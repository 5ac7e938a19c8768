// Churn that announces new prefixes: the table's routes are replaced one by one by routes it has
// not held, as a table grows and moves instead of flapping in place.
#include <fmt/format.h>

#include <chrono>
#include <random>
#include <stdexcept>

#include "sim/Simulation.h"

namespace VexloL3Common::sim {

namespace {

uint64_t nowNs() {
   return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                       .count());
}

}  // namespace

bool Simulation::announced(const Route& r) {
   indexPool();
   const auto it = poolIndex_.find(r);
   return it != poolIndex_.end() && offered_[it->second];
}

void Simulation::churnNew(uint64_t updates, uint64_t seed, AnnounceSource& source,
                          const Progress& progress) {
   if (installed_.empty()) throw std::invalid_argument("churn needs routes in the table");
   beginPhase("churn");
   std::mt19937_64 rng(seed);
   const AnnounceSource::Announced isAnnounced = [this](const Route& r) { return announced(r); };
   Route::Family family = Route::Family::v4;
   const uint64_t start = nowNs();
   for (uint64_t i = 0; i < updates; ++i) {
      if (progress && (i & 1023) == 0) progress(i, updates);
      if (i % 2 == 0) {
         // Refused announces leave fewer routes installed each time: a full table can empty.
         if (installed_.empty()) {
            stats_.churnStopped =
                fmt::format("after {} of {} updates: no route left to withdraw", i, updates);
            break;
         }
         const uint32_t route = installed_[rng() % installed_.size()];
         family = pool_[route].family;
         apply(route, RouteOp::Kind::del);
         continue;
      }
      const std::optional<Route> fresh = source.next(family, isAnnounced);
      if (!fresh) {
         stats_.churnStopped =
             fmt::format("after {} of {} updates: {}", i, updates, source.why(family));
         break;
      }
      apply(intern(*fresh), RouteOp::Kind::add);
   }
   stats_.churnRestarts = source.restarts();
   stats_.emulatedNs += nowNs() - start;
   if (progress) progress(updates, updates);
}

}  // namespace VexloL3Common::sim
