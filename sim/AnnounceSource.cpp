#include "sim/AnnounceSource.h"

#include <fmt/format.h>

#include <array>

#include "platform/NetTypes.h"
#include "sim/SyntheticTable.h"

namespace VexloL3Common::sim {

namespace {

const char* familyText(Route::Family f) {
   return f == Route::Family::v4 ? "IPv4" : f == Route::Family::v6 ? "IPv6" : "multicast";
}

class SyntheticAnnounces final : public AnnounceSource {
 public:
   explicit SyntheticAnnounces(uint64_t seed) : seed_(seed) {}

   std::optional<Route> next(Route::Family f, const Announced& announced) override {
      const size_t k = size_t(f);
      // A batch that brings nothing new means the family's space is taken: give up after a few.
      for (int fruitless = 0; fruitless < maxFruitlessBatches;) {
         while (at_[k] < batch_[k].size()) {
            const Route& r = batch_[k][at_[k]++];
            if (!announced(r)) return r;
         }
         ++fruitless;
         refill(f);
      }
      return std::nullopt;
   }

   std::string why(Route::Family f) const override {
      return fmt::format("the generator found no {} route that is not announced", familyText(f));
   }

 private:
   static constexpr int maxFruitlessBatches = 16;
   static constexpr size_t batchRoutes = 4096;

   void refill(Route::Family f) {
      const size_t k = size_t(f);
      SyntheticMix mix;
      (f == Route::Family::v4 ? mix.v4 : f == Route::Family::v6 ? mix.v6 : mix.mcast) = batchRoutes;
      // Each family and batch draws from a seed of its own, scrambled so that a churn seed equal
      // to the table's seed does not draw the table's own sequence of prefixes again.
      mix.seed = Ulo::hashMix(0, seed_ + 0x9e3779b97f4a7c15ull * (3 * batches_[k]++ + k));
      batch_[k] = syntheticTable(mix);
      at_[k] = 0;
   }

   uint64_t seed_;
   std::array<std::vector<Route>, 3> batch_;
   std::array<size_t, 3> at_{};
   std::array<uint64_t, 3> batches_{};
};

class ListAnnounces final : public AnnounceSource {
 public:
   ListAnnounces(const std::vector<Route>& routes, std::string name) : name_(std::move(name)) {
      for (const Route& r : routes)
         routes_[size_t(r.family)].push_back(r);
   }

   std::optional<Route> next(Route::Family f, const Announced& announced) override {
      const size_t k = size_t(f);
      const std::vector<Route>& list = routes_[k];
      for (size_t tried = 0; tried < list.size(); ++tried) {
         const Route& r = list[at_[k]];
         if (++at_[k] == list.size()) {
            at_[k] = 0;
            ++restarts_;
         }
         if (!announced(r)) return r;
      }
      return std::nullopt;
   }

   std::string why(Route::Family f) const override {
      if (routes_[size_t(f)].empty())
         return fmt::format("{} has no {} route", name_, familyText(f));
      return fmt::format("every {} route of {} is announced", familyText(f), name_);
   }

   uint64_t restarts() const override { return restarts_; }

 private:
   std::string name_;
   std::array<std::vector<Route>, 3> routes_;
   std::array<size_t, 3> at_{};
   uint64_t restarts_ = 0;
};

}  // namespace

std::unique_ptr<AnnounceSource> syntheticAnnounces(uint64_t seed) {
   return std::make_unique<SyntheticAnnounces>(seed);
}

std::unique_ptr<AnnounceSource> announcesFrom(const std::vector<Route>& routes, std::string name) {
   return std::make_unique<ListAnnounces>(routes, std::move(name));
}

}  // namespace VexloL3Common::sim
