// Where churn that announces new prefixes takes them from: the generator, or a list of routes
// (a route file), one family at a time.
//
// Synopsis
//   auto src = syntheticAnnounces(/*seed*/ 7);              never runs dry in practice
//   auto src = announcesFrom(routes, "new.routes");         starts over at its end
//   std::optional<Route> r = src->next(Route::Family::v4, isAnnounced);
//   if (!r) src->why(Route::Family::v4)                     "new.routes has no IPv4 route"
//
// A source hands out only routes the caller says are not announced. The generator draws batches
// of its family, each from a seed derived from the churn seed and the batch number, so that the
// same seed gives the same announces on every machine and a churn seed equal to the table's seed
// does not replay the table. A list hands out its routes of the family in file order; at its end it
// starts over, skipping those announced meanwhile, and when a whole pass finds none it is dry.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/Route.h"

namespace VexloL3Common::sim {

class AnnounceSource {
 public:
   using Announced = std::function<bool(const Route&)>;
   virtual ~AnnounceSource() = default;
   // A route of family f for which announced() is false; nullopt when there is none.
   virtual std::optional<Route> next(Route::Family f, const Announced& announced) = 0;
   // Why next(f) gave nothing, for the operator.
   virtual std::string why(Route::Family f) const = 0;
   // How many times the source started over from its beginning (a list only).
   virtual uint64_t restarts() const { return 0; }
};

std::unique_ptr<AnnounceSource> syntheticAnnounces(uint64_t seed);
std::unique_ptr<AnnounceSource> announcesFrom(const std::vector<Route>& routes, std::string name);

}  // namespace VexloL3Common::sim
