#include "sim/Simulation.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <random>
#include <stdexcept>
#include <unordered_set>

#include "platform/Assert.h"
#include "platform/Trace.h"
#include "sim/TcamImage.h"

namespace VexloL3Common::sim {

namespace {

constexpr uint32_t notInstalled = std::numeric_limits<uint32_t>::max();
// Occupancy samples kept: between this many and twice as many, whatever the run's length.
constexpr size_t minSamples = 256;

uint64_t nowNs() {
   return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                       .count());
}

const char* familyWord(Route::Family f) {
   return f == Route::Family::mcast ? "multicast" : "unicast";
}

L3TcamManagerContext::Config multicastConfig(uint32_t size) {
   L3TcamManagerContext::Config c;
   c.tcamSize = size;
   c.v4Mcast = true;
   return c;
}

}  // namespace

std::string_view regionName(Region r) {
   switch (r) {
      case Region::v4:
         return "IPv4";
      case Region::v6Single:
         return "IPv6 <= /64 (single size)";
      case Region::v6Double:
         return "IPv6 > /64 (double size)";
      case Region::mcast:
         return "IPv4 multicast";
   }
   return "?";
}

Region regionOf(const Route& r) {
   switch (r.family) {
      case Route::Family::v4:
         return Region::v4;
      case Route::Family::v6:
         return r.len() <= 64 ? Region::v6Single : Region::v6Double;
      case Route::Family::mcast:
         return Region::mcast;
   }
   return Region::v4;
}

// ---- MoveHistogram ---------------------------------------------------------------------------

void MoveHistogram::add(uint64_t moves) {
   if (moves >= counts_.size()) counts_.resize(moves + 1, 0);
   ++counts_[moves];
   ++operations_;
   total_ += moves;
}

uint64_t MoveHistogram::percentile(double p) const {
   if (operations_ == 0) return 0;
   // The rank of the operation that p percent of them do not exceed, rounded up.
   const double want = p / 100.0 * double(operations_);
   uint64_t seen = 0;
   for (size_t m = 0; m < counts_.size(); ++m) {
      seen += counts_[m];
      if (double(seen) >= want) return m;
   }
   return max();
}

// ---- Statistics ------------------------------------------------------------------------------

uint64_t Statistics::placed() const {
   uint64_t n = 0;
   for (const Family& f : family)
      n += f.placed;
   return n;
}

uint64_t Statistics::refused() const {
   uint64_t n = 0;
   for (const Family& f : family)
      n += f.refused;
   return n;
}

uint64_t Statistics::Refusals::total() const {
   uint64_t n = 0;
   for (uint64_t c : count)
      n += c;
   return n;
}

uint64_t Statistics::installed() const {
   uint64_t n = 0;
   for (uint64_t r : routes)
      n += r;
   return n;
}

// ---- Simulation ------------------------------------------------------------------------------

// A layout the context cannot serve is a configuration error here, not a broken model: the
// simulator reports it and exits instead of aborting.
std::unique_ptr<EmulatedTable> Simulation::makeTable(const L3TcamManagerContext::Config& c,
                                                     bool urpf) const {
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      auto t = std::make_unique<EmulatedTable>(c, urpf, cfg_.emulate);
      if (t->emu()) {
         t->emu()->checkEveryMoveIs(cfg_.check);
         // An inconsistency is a finding of the run, reported with its figures, not a crash.
         t->emu()->onErrorIs(TcamEmulator::OnError::record);
      }
      return t;
   } catch (const Ulo::AssertionFailure& e) {
      throw std::range_error("the layout refuses this configuration: " + e.text +
                             (e.message.empty() ? "" : " (" + e.message + ")"));
   } catch (const std::range_error& e) {
      throw std::range_error(std::string("the layout refuses this configuration: ") + e.what());
   }
}

Simulation::Simulation(const SimulationConfig& cfg) : cfg_(cfg) {
   if (cfg.unicast.tcamSize) {
      L3TcamManagerContext::Config u = cfg.unicast;
      u.v4Mcast = false;
      unicast_ = makeTable(u, cfg.urpf);
   }
   if (cfg.mcastSize) {
      mcast_ = makeTable(multicastConfig(cfg.mcastSize), false);
   }
   if (!unicast_ && !mcast_)
      throw std::range_error("no table: the unicast and multicast sizes are 0");
   samples_.push_back(currentSample());
}

Simulation::~Simulation() = default;

EmulatedTable* Simulation::tableOf(Route::Family f) const {
   return f == Route::Family::mcast ? mcast_.get() : unicast_.get();
}

void Simulation::indexPool() {
   for (; indexed_ < pool_.size(); ++indexed_)
      poolIndex_.try_emplace(pool_[indexed_], uint32_t(indexed_));
}

uint32_t Simulation::intern(const Route& r) {
   indexPool();
   auto [it, added] = poolIndex_.try_emplace(r, uint32_t(pool_.size()));
   if (added) {
      ++indexed_;
      pool_.push_back(r);
      installedAt_.push_back(notInstalled);
      offered_.push_back(0);
   }
   return it->second;
}

void Simulation::beginPhase(const char* name) {
   VEXLO_ASSERT(!finished_, "!finished_");
   phaseStart_.push_back(ops_.size());
   stats_.phases.emplace_back().name = name;
}

ReportData::Sample Simulation::currentSample() const {
   ReportData::Sample s;
   s.op = stats_.operations;
   s.usedEntries = (unicast_ ? unicast_->usedEntries() : 0) + (mcast_ ? mcast_->usedEntries() : 0);
   s.routes.assign(stats_.routes.begin(), stats_.routes.end());
   return s;
}

void Simulation::sample() {
   samples_.push_back(currentSample());
   if (samples_.size() >= 2 * minSamples) {
      // Keep every other sample and sample half as often from now on.
      size_t j = 0;
      // The first sample is operation 0, so the even ones are the multiples of the new interval.
      for (size_t i = 0; i < samples_.size(); i += 2)
         samples_[j++] = std::move(samples_[i]);
      samples_.resize(j);
      sampleEvery_ *= 2;
   }
}

void Simulation::noteRefusal(const EmulatedTable& t, const Route& r) {
   const Refusal why = refusalOf(t.ctx(), r);
   Statistics::Refusals& rr = stats_.refusals[size_t(regionOf(r))];
   if (rr.count[size_t(why.reason)]++ == 0)
      rr.example[size_t(why.reason)] = r.toString() + ": " + why.detail;
   if (!why.border.empty()) rr.border = why.border;
}

void Simulation::noteWorst(uint32_t route, RouteOp::Kind kind, uint64_t moves) {
   std::vector<Statistics::Update>& w = stats_.worst;
   if (cfg_.worst == 0 || moves == 0 || (w.size() == cfg_.worst && moves <= w.back().moves)) return;
   // The list is short: an insertion in order costs less than a heap would save.
   auto at = std::upper_bound(w.begin(), w.end(), moves,
                              [](uint64_t m, const Statistics::Update& u) { return m > u.moves; });
   w.insert(at, Statistics::Update{stats_.operations, stats_.phases.back().name, kind,
                                   pool_[route].toString(), moves});
   if (w.size() > cfg_.worst) w.pop_back();
}

void Simulation::apply(uint32_t route, RouteOp::Kind kind) {
   const Route& r = pool_[route];
   EmulatedTable& t = *tableOf(r.family);
   Statistics::Family& fam = stats_.family[size_t(r.family)];
   const uint64_t movesBefore = t.moves();
   const uint64_t mergesBefore = t.merges();
   const uint32_t reallocBefore = t.ctx().stats()->reallocation();
   uint64_t& regionRoutes = stats_.routes[size_t(regionOf(r))];
   uint8_t placed = 0, removed = 0;
   offered_[route] = kind == RouteOp::Kind::add;
   if (kind == RouteOp::Kind::add) {
      if (t.add(r)) {
         placed = 1;
         ++fam.placed;
         ++regionRoutes;
         installedAt_[route] = uint32_t(installed_.size());
         installed_.push_back(route);
      } else {
         ++fam.refused;
         if (r.family == Route::Family::v6 && !t.v6Placeable(r.len())) ++stats_.v6WithoutEntries;
         noteRefusal(t, r);
      }
   } else if (installedAt_[route] == notInstalled) {
      // Its add was refused: there is nothing to delete.
      ++fam.skipped;
   } else {
      t.del(r);
      removed = 1;
      ++fam.deleted;
      --regionRoutes;
      const uint32_t at = installedAt_[route];
      installed_[at] = installed_.back();
      installedAt_[installed_[at]] = at;
      installed_.pop_back();
      installedAt_[route] = notInstalled;
   }
   ops_.push_back(Op{route, kind});
   effective_.push_back(placed | removed);

   const uint64_t moves = t.moves() - movesBefore;
   stats_.movesPerUpdate.add(moves);
   if (placed) {
      stats_.movesPerInsert.add(moves);
      stats_.phases.back().movesPerInsert.add(moves);
      if (moves > stats_.largestInsert.moves) {
         stats_.largestInsert = Statistics::Update{stats_.operations + 1, stats_.phases.back().name,
                                                   kind, r.toString(), moves};
      }
   }
   stats_.moves += moves;
   stats_.merges += t.merges() - mergesBefore;
   stats_.reallocations += t.ctx().stats()->reallocation() - reallocBefore;
   ++stats_.operations;
   Statistics::Phase& phase = stats_.phases.back();
   ++phase.operations;
   phase.moves += moves;
   phase.movesPerOperation.add(moves);
   noteWorst(route, kind, moves);
   phase.placed += placed;
   phase.refused += kind == RouteOp::Kind::add && !placed;

   for (unsigned i = 0; i < numRegions; ++i)
      stats_.highWatermark[i] = std::max(stats_.highWatermark[i], stats_.routes[i]);
   if (stats_.operations % sampleEvery_ == 0) sample();
}

void Simulation::checkFamilies(const std::vector<Route>& routes) const {
   for (const Route& r : routes) {
      if (!tableOf(r.family)) {
         throw std::invalid_argument(fmt::format("route {} needs a {} table, and there is none",
                                                 r.toString(), familyWord(r.family)));
      }
   }
}

void Simulation::load(const std::vector<Route>& routes, const Progress& progress) {
   checkFamilies(routes);
   beginPhase("load");
   const uint64_t start = nowNs();
   for (size_t i = 0; i < routes.size(); ++i) {
      apply(intern(routes[i]), RouteOp::Kind::add);
      if (progress && (i & 1023) == 0) progress(i, routes.size());
   }
   stats_.emulatedNs += nowNs() - start;
   if (progress) progress(routes.size(), routes.size());
}

void Simulation::load(std::vector<Route>&& routes, const Progress& progress) {
   if (!pool_.empty()) return load(routes, progress);
   checkFamilies(routes);
   // A table's routes are distinct (the readers refuse or collapse repeats): they become the pool
   // as they are, and the index is built only if a later phase needs it.
   pool_ = std::move(routes);
   installedAt_.assign(pool_.size(), notInstalled);
   offered_.assign(pool_.size(), 0);
   beginPhase("load");
   const uint64_t start = nowNs();
   for (size_t i = 0; i < pool_.size(); ++i) {
      apply(uint32_t(i), RouteOp::Kind::add);
      if (progress && (i & 1023) == 0) progress(i, pool_.size());
   }
   stats_.emulatedNs += nowNs() - start;
   if (progress) progress(pool_.size(), pool_.size());
}

void Simulation::replay(const std::vector<RouteOp>& ops, std::string_view name,
                        const Progress& progress) {
   // The whole trace is checked against what is announced before any of it runs.
   {
      std::unordered_set<Route> present;
      for (uint32_t idx = 0; idx < pool_.size(); ++idx) {
         if (offered_[idx]) present.insert(pool_[idx]);
      }
      for (const RouteOp& op : ops) {
         if (!tableOf(op.route.family)) {
            throw InputError(name, op.line,
                             fmt::format("{} route, and there is no {} table",
                                         familyWord(op.route.family), familyWord(op.route.family)));
         }
         if (op.kind == RouteOp::Kind::add) {
            if (!present.insert(op.route).second)
               throw InputError(name, op.line, "add of a route that is already announced");
         } else if (present.erase(op.route) == 0) {
            throw InputError(name, op.line, "del of a route that is not announced");
         }
      }
   }
   beginPhase("replay");
   const uint64_t start = nowNs();
   for (size_t i = 0; i < ops.size(); ++i) {
      apply(intern(ops[i].route), ops[i].kind);
      if (progress && (i & 1023) == 0) progress(i, ops.size());
   }
   stats_.emulatedNs += nowNs() - start;
   if (progress) progress(ops.size(), ops.size());
}

void Simulation::churn(uint64_t updates, uint64_t seed, const Progress& progress) {
   if (installed_.empty()) throw std::invalid_argument("churn needs routes in the table");
   beginPhase("churn");
   std::mt19937_64 rng(seed);
   // About one route in a hundred is down at any time; each announce picks one of them at random.
   const size_t down = std::max<size_t>(1, installed_.size() / 100);
   std::vector<uint32_t> withdrawn;
   bool refused = false;
   const uint64_t start = nowNs();
   for (uint64_t i = 0; i < updates; ++i) {
      // After a refused announce the next update is a withdraw, so a full table cannot stall.
      const bool withdraw =
          !installed_.empty() && (withdrawn.size() <= down || refused || withdrawn.empty());
      if (withdraw) {
         const uint32_t route = installed_[rng() % installed_.size()];
         apply(route, RouteOp::Kind::del);
         withdrawn.push_back(route);
         refused = false;
      } else {
         const size_t k = rng() % withdrawn.size();
         const uint32_t route = withdrawn[k];
         apply(route, RouteOp::Kind::add);
         refused = !effective_.back();
         if (!refused) {
            withdrawn[k] = withdrawn.back();
            withdrawn.pop_back();
         }
      }
      if (progress && (i & 1023) == 0) progress(i, updates);
   }
   stats_.emulatedNs += nowNs() - start;
   if (progress) progress(updates, updates);
}

void Simulation::finish(const Progress& progress) {
   VEXLO_ASSERT(!finished_, "!finished_");
   finished_ = true;
   if (cfg_.timeModel) timeOnTwins(progress);
   for (const EmulatedTable* t : {unicast_.get(), mcast_.get()}) {
      if (!t) continue;
      for (RouteType rt : allRouteTypes)
         stats_.conversions += t->ctx().stats()->conversion(rt);
   }
}

void Simulation::timeOnTwins(const Progress& progress) {
   // The twins only repeat what was traced already; tracing them would also spoil the timing.
   Ulo::ScopedTraceSilence quiet;
   const int64_t heapBefore = cfg_.heapBytes ? cfg_.heapBytes() : 0;
   std::unique_ptr<EmulatedTable> twinU, twinM;
   if (unicast_)
      twinU = std::make_unique<EmulatedTable>(unicast_->ctx().config(), cfg_.urpf, false);
   if (mcast_) twinM = std::make_unique<EmulatedTable>(mcast_->ctx().config(), false, false);
   phaseStart_.push_back(ops_.size());
   for (size_t p = 0; p + 1 < phaseStart_.size(); ++p) {
      const size_t first = phaseStart_[p], last = phaseStart_[p + 1];
      uint64_t divergence = 0;
      const uint64_t start = nowNs();
      for (size_t i = first; i < last; ++i) {
         if (progress && (i & 0xffff) == 0) progress(i, ops_.size());
         const Op& op = ops_[i];
         const Route& r = pool_[op.route];
         EmulatedTable& t = r.family == Route::Family::mcast ? *twinM : *twinU;
         if (op.kind == RouteOp::Kind::add) {
            divergence += uint8_t(t.add(r)) != effective_[i];
         } else if (effective_[i]) {
            t.del(r);
         }
      }
      stats_.phases[p].modelNs = nowNs() - start;
      VEXLO_ASSERT_MSG(divergence == 0, "divergence == 0", divergence,
                       " operations placed differently on the twin context");
   }
   phaseStart_.pop_back();
   if (cfg_.heapBytes) stats_.modelBytes = cfg_.heapBytes() - heapBefore;
}

std::unique_ptr<EmulatedTable> Simulation::replica(
    const EmulatedTable& t, const std::vector<TcamHardwareEntry>& image) const {
   const bool mcast = &t == mcast_.get();
   auto copy = std::make_unique<EmulatedTable>(t.ctx().config(), !mcast && cfg_.urpf, false);
   if (!cfg_.replicaByReplay) {
      copy->ctx().rebuildFromHardware(image, t.ctx().v4V6Border());
      return copy;
   }
   for (size_t i = 0; i < ops_.size(); ++i) {
      const Route& r = pool_[ops_[i].route];
      if ((r.family == Route::Family::mcast) != mcast) continue;
      if (ops_[i].kind == RouteOp::Kind::add) {
         copy->add(r);
      } else if (effective_[i]) {
         copy->del(r);
      }
   }
   return copy;
}

std::vector<std::string> Simulation::checkTables() const {
   std::vector<std::string> out;
   for (const EmulatedTable* t : {unicast_.get(), mcast_.get()}) {
      if (!t) continue;
      // Fatal unless the caller installed a throwing assertion handler: then it is one finding.
      try {
         t->ctx().verify();
      } catch (const Ulo::AssertionFailure& e) {
         out.push_back("model verification: " + e.text +
                       (e.message.empty() ? "" : ": " + e.message));
      }
      if (!t->emu()) continue;
      for (const Violation& v : t->emu()->checkAll())
         out.push_back(v.message);
      for (const std::string& e : t->emu()->errors())
         out.push_back(e);
   }
   return out;
}

}  // namespace VexloL3Common::sim
