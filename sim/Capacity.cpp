// Capacity per region, as an operator must be able to trust it.
//
// "Free" is not a count of empty entries: an empty entry may be kept in reserve for moves, an
// IPv4 half can only take a route of the length of the other half, and a region may grow into
// its neighbour by converting entries or moving the IPv4/IPv6 border.
//
// Where the layout makes it exact, free is computed from the context's own counts, replaying the
// admission rules of an add on counters: multicast, and IPv4 where its partition is its own (a
// fixed pairing border, or a moving one that has given IPv6 nothing yet). There an add is
// admitted while the block has free entries beyond its swap reserve, the shifting engine reaches
// any free entry of the block, and an IPv4 route fills the free half of an entry of its length
// first: a free right half always, a free left half only while the reserve is not reached (the
// first route of an entry takes the right half). Elsewhere (blocks that overlap, entries that
// convert between sizes, a border that moves) free is measured: a software-only copy of the
// context, rebuilt from the model's image of the hardware (a restart rebuilds the same model, and
// the copy needs no emulated table), takes probe routes until it refuses one; a caller that is
// done with its tables lets one probe per table fill the table itself. The probes follow the
// region's own prefix-length mix (or a typical length when the region is empty), are added the way
// an agent adds routes (no swap reserve) and live in VRFs the table does not use, so they collide
// with nothing. Max is then used + free. Regions share space when entries convert or the border
// moves, so each region's free counts what it could take alone.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <numeric>
#include <optional>
#include <thread>

#include "platform/Trace.h"
#include "sim/Simulation.h"
#include "sim/TcamImage.h"

namespace VexloL3Common::sim {

namespace {

// Smooth weighted round robin over prefix lengths: every length appears in proportion to its
// weight, spread evenly, deterministically.
class LengthMix {
 public:
   void add(uint32_t len, uint64_t weight) {
      if (weight) items_.push_back({len, int64_t(weight), 0});
   }
   bool empty() const { return items_.empty(); }
   uint32_t next() {
      int64_t total = 0;
      Item* best = nullptr;
      for (Item& it : items_) {
         it.current += it.weight;
         total += it.weight;
         if (!best || it.current > best->current) best = &it;
      }
      best->current -= total;
      return best->len;
   }

 private:
   struct Item {
      uint32_t len;
      int64_t weight;
      int64_t current;
   };
   std::vector<Item> items_;
};

// Sets the low `width` bits of `value` as the bits [len - width, len) of an IPv6 address.
void placeBits(Ulo::Ip6Prefix::Bytes& bytes, uint32_t len, uint32_t width, uint64_t value) {
   for (uint32_t i = 0; i < width; ++i) {
      const uint32_t bit = len - 1 - i;  // bit 0 is the most significant
      if ((value >> i) & 1) bytes[bit / 8] |= uint8_t(0x80u >> (bit % 8));
   }
}

// The k-th probe of length len: the low bits of k go just above the length, the rest into the VRF
// offset, so that probes are distinct for any k.
struct ProbeKey {
   uint64_t vrfOffset;
   uint64_t bits;
   uint32_t width;
};
ProbeKey probeKey(uint64_t k, uint32_t len) {
   const uint32_t width = std::min<uint32_t>(len, 20);
   return {k >> width, k & ((uint64_t(1) << width) - 1), width};
}

Route probeRoute(Region region, uint32_t len, const ProbeKey& p, uint32_t vrf) {
   switch (region) {
      case Region::v4: {
         const auto addr = uint32_t(p.bits << (32 - len));
         return Route::of(Ipv4UcastKey(VrfId(vrf), Ulo::Prefix(addr, uint8_t(len))));
      }
      case Region::v6Single:
      case Region::v6Double: {
         Ulo::Ip6Prefix::Bytes b{};
         placeBits(b, len, p.width, p.bits);
         return Route::of(Ipv6UcastKey(VrfId(vrf), Ulo::Ip6Prefix(b, uint8_t(len))));
      }
      case Region::mcast: {
         // Group then source, 64 bits; lengths past 64 leave the extra bits out of the key.
         const uint32_t keyLen = std::min<uint32_t>(len, 64);
         const uint64_t key = keyLen ? p.bits << (64 - keyLen) : 0;
         return Route::of(IpMcastPrefixKey(uint16_t(vrf), 0,
                                           Ulo::IpGenAddr::v4(uint32_t(key >> 32)),
                                           Ulo::IpGenAddr::v4(uint32_t(key)), uint8_t(len)));
      }
   }
   return Route();
}

LengthMix mixOf(const L3TcamManagerContext& c, Region region) {
   LengthMix mix;
   const TcamStats& st = *c.stats();
   switch (region) {
      case Region::v4:
         for (uint32_t l = 0; l <= 32; ++l)
            mix.add(l, st.maskLengthsIpv4(l));
         if (mix.empty()) mix.add(24, 1);
         break;
      case Region::v6Single:
         for (uint32_t l = 0; l <= 64; ++l)
            mix.add(l, st.maskLengthsIpv6(l));
         if (mix.empty()) mix.add(48, 1);
         break;
      case Region::v6Double:
         for (uint32_t l = 65; l <= 128; ++l)
            mix.add(l, st.maskLengthsIpv6(l));
         if (mix.empty()) mix.add(128, 1);
         break;
      case Region::mcast:
         for (uint32_t l = 0; l <= 90; ++l)
            mix.add(l, st.maskLengthsMcastIpv4(l));
         if (mix.empty()) mix.add(64, 1);
         break;
   }
   return mix;
}

// The VRFs (multicast: VRF indices) the table does not use, in ascending order, found as the
// probes need them: the n-th one, or none when the space is used up.
class ProbeVrfs {
 public:
   ProbeVrfs(const L3TcamManagerContext& c, uint32_t limit) : limit_(limit) {
      if (c.v4())
         c.v4()->forEachKeys([&](uint32_t, const Ipv4Keys& k) {
            used_.push_back(k.left.vrfId.value());
            used_.push_back(k.right.vrfId.value());
         });
      if (c.v6())
         c.v6()->forEachEntryIdToKey(
             [&](uint32_t, const Ipv6UcastKey& k) { used_.push_back(k.vrfId.value()); });
      if (c.mcastV4())
         c.mcastV4()->forEachKey(
             [&](uint32_t, const IpMcastPrefixKey& k) { used_.push_back(k.vrfIndex); });
      std::sort(used_.begin(), used_.end());
      used_.erase(std::unique(used_.begin(), used_.end()), used_.end());
   }
   std::optional<uint32_t> at(uint64_t n) {
      while (free_.size() <= n) {
         while (next_ <= limit_ && std::binary_search(used_.begin(), used_.end(), next_))
            ++next_;
         if (next_ > limit_) return std::nullopt;
         free_.push_back(next_++);
      }
      return free_[n];
   }

 private:
   uint64_t limit_;
   uint64_t next_ = 0;
   std::vector<uint32_t> used_;
   std::vector<uint32_t> free_;
};

// ---- computed where exact

uint64_t freeV4(const L3TcamManagerContext& c, LengthMix mix) {
   uint64_t free = c.entriesFree(RouteType::v4);
   const uint64_t reserve = c.swapAreaSize(RouteType::v4);
   enum Half : uint8_t { none, left, right };  // the free half of the entry of a length
   std::array<Half, 33> open{};
   for (uint32_t len = 0; len <= 32; ++len) {
      if (const uint32_t e = c.v4()->halfFull(len))
         open[len] = c.v4()->keys(e).right.isNull() ? right : left;
   }
   uint64_t placed = 0;
   for (;;) {
      const uint32_t len = mix.next();
      if (open[len] != none) {
         if (open[len] == left && free <= reserve) break;
         open[len] = none;
      } else if (free > reserve) {
         --free;
         if (c.twoV4RoutesPerEntry()) open[len] = left;
      } else {
         break;
      }
      ++placed;
   }
   return placed;
}

uint64_t freeBeyond(uint64_t free, uint64_t reserve) {
   return free > reserve ? free - reserve : 0;
}

// The free figure computed from the counts, or nothing where only a probe can tell.
std::optional<uint64_t> computedFree(const L3TcamManagerContext& c, Region region) {
   switch (region) {
      case Region::mcast:
         return freeBeyond(c.entriesFree(RouteType::v4Mcast), c.swapAreaSize(RouteType::v4Mcast));
      case Region::v4:
         // A moving border that has given IPv6 nothing yet: the IPv4 partition is the table.
         if (c.borderMoves()) {
            return c.v4V6Border() == 0 ? std::optional(freeV4(c, mixOf(c, region))) : std::nullopt;
         }
         // A fixed pairing border: IPv4 has the entries above it to itself, and an add is
         // admitted only while the IPv6 blocks below keep more than their reserve (which IPv4
         // adds do not change).
         if (c.supportsDefipPairing() && c.v4V6InterleavingDisabled()) {
            const bool v6Room =
                c.entriesFree(RouteType::v6Half) > c.swapAreaSize(RouteType::v6Half) ||
                c.entriesFree(RouteType::v6Full) > c.swapAreaSize(RouteType::v6Full);
            return v6Room ? freeV4(c, mixOf(c, region)) : 0;
         }
         // Otherwise the IPv4 block overlaps the IPv6 ones, and whether an add is admitted
         // depends on which of them the engine's shifting takes its entry from.
         return std::nullopt;
      case Region::v6Single:
         return std::nullopt;
      case Region::v6Double:
         if (!c.supportsDefipPairing()) return 0;  // no double-size entries at all
         return std::nullopt;
   }
   return std::nullopt;
}

// progress(placed, estimate): the estimate is what the free entries could hold at most.
// Counts the probes placed into `placed` as it goes, for a progress bar on another thread.
// The length mix and the VRFs are read from the scratch table (as it stands before the first
// probe): the table it copies may be another probe's scratch.
uint64_t probeFree(EmulatedTable& scratch, Region region, std::atomic<uint64_t>& placed) {
   const L3TcamManagerContext& c = scratch.ctx();
   LengthMix mix = mixOf(c, region);
   ProbeVrfs vrfs(c, region == Region::mcast ? 0xffffu : VrfId::maxValue - 1);
   uint64_t n = 0;
   for (;;) {
      const uint32_t len = mix.next();
      const ProbeKey p = probeKey(n, len);
      const std::optional<uint32_t> vrf = vrfs.at(p.vrfOffset);
      if (!vrf || !scratch.add(probeRoute(region, len, p, *vrf))) break;
      ++n;
      if ((n & 1023) == 0) placed.store(n, std::memory_order_relaxed);
   }
   placed.store(n, std::memory_order_relaxed);
   return n;
}

}  // namespace

namespace {

RouteType entryTypeOf(Region region, const L3TcamManagerContext& c) {
   switch (region) {
      case Region::v4:
         return RouteType::v4;
      case Region::v6Single:
         return c.borderMoves() ? RouteType::v6Full : RouteType::v6Half;
      case Region::v6Double:
         return RouteType::v6Full;
      case Region::mcast:
         return RouteType::v4Mcast;
   }
   return RouteType::v4;
}

void severityOf(ReportData::CapacityRow& r, double warnPercent, double criticalPercent) {
   if (r.refused) {
      r.severity = "critical";
      r.warning = fmt::format("critical: {:.1f} % used, {} route{} refused", r.percentUsed,
                              r.refused, r.refused == 1 ? "" : "s");
   } else if (r.max && r.percentUsed >= criticalPercent) {
      r.severity = "critical";
      r.warning =
          fmt::format("critical: {:.1f} % used (threshold {:g} %)", r.percentUsed, criticalPercent);
   } else if (r.max && r.percentUsed >= warnPercent) {
      r.severity = "warning";
      r.warning =
          fmt::format("warning: {:.1f} % used (threshold {:g} %)", r.percentUsed, warnPercent);
   }
}

}  // namespace

// One region whose free figure only a probe can tell.
struct Simulation::ProbeJob {
   // Spelt out: the atomic keeps the job in place, and not every compiler builds an aggregate
   // from parentheses.
   ProbeJob(Region r, const EmulatedTable* t, size_t rowIndex, uint64_t most)
       : region(r), table(t), row(rowIndex), estimate(most) {}

   Region region;
   const EmulatedTable* table;
   EmulatedTable* inPlace = nullptr;  // the table itself, when the probe may fill it
   size_t row;
   uint64_t estimate;  // what the free entries could hold at most, for the progress bar
   std::atomic<uint64_t> placed{0};
};

void Simulation::runProbes(std::vector<ReportData::CapacityRow>& rows, std::deque<ProbeJob>& jobs,
                           const Progress& progress) const {
   // The probes are no operation of the caller's: nothing of them is traced.
   std::optional<Ulo::ScopedTraceSilence> quiet;
   if (cfg_.silenceProbes) quiet.emplace();
   // Each probe fills a replica of its own: they run side by side. The replicas of one table are
   // rebuilt from one image of it, taken before they start.
   // An image is let go as soon as its last replica stands: the probes grow the replicas.
   struct Image {
      std::vector<TcamHardwareEntry> entries;
      std::atomic<size_t> replicasToBuild{0};
   };
   std::map<const EmulatedTable*, Image> images;
   // A table that one probe fills itself is copied before any probe starts.
   for (const ProbeJob& j : jobs) {
      Image& image = images[j.table];
      if (!j.inPlace && !cfg_.replicaByReplay && image.replicasToBuild++ == 0)
         image.entries = imageOf(j.table->ctx());
   }
   // The probes that fill a table itself go last and wait until every image is let go, so that
   // no image is held while a table grows.
   std::vector<size_t> order(jobs.size());
   std::iota(order.begin(), order.end(), 0);
   std::stable_partition(order.begin(), order.end(),
                         [&](size_t i) { return jobs[i].inPlace == nullptr; });
   std::atomic<size_t> next{0}, done{0}, replicasToBuild{0};
   for (const ProbeJob& j : jobs)
      replicasToBuild += j.inPlace == nullptr;
   auto worker = [&] {
      for (size_t i = next++; i < jobs.size(); i = next++) {
         ProbeJob& j = jobs[order[i]];
         std::unique_ptr<EmulatedTable> copy;
         if (!j.inPlace) {
            Image& image = images.at(j.table);
            copy = replica(*j.table, image.entries);
            if (!cfg_.replicaByReplay && --image.replicasToBuild == 0)
               std::vector<TcamHardwareEntry>().swap(image.entries);
            --replicasToBuild;
         }
         while (j.inPlace && replicasToBuild > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
         rows[j.row].free = probeFree(j.inPlace ? *j.inPlace : *copy, j.region, j.placed);
         ++done;
      }
   };
   const unsigned threads = std::min<size_t>(
       jobs.size(),
       cfg_.probeThreads ? cfg_.probeThreads : std::max(1u, std::thread::hardware_concurrency()));
   std::vector<std::thread> pool;
   for (unsigned t = 0; t < threads; ++t)
      pool.emplace_back(worker);
   uint64_t total = 0;
   for (const ProbeJob& j : jobs)
      total += j.estimate;
   while (done < jobs.size()) {
      if (progress) {
         uint64_t placed = 0;
         for (const ProbeJob& j : jobs)
            placed += std::min(j.placed.load(std::memory_order_relaxed), j.estimate);
         progress(placed, total);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
   }
   for (std::thread& t : pool)
      t.join();
   if (progress) progress(total, total);
}

std::vector<ReportData::CapacityRow> Simulation::capacity(double warnPercent,
                                                          double criticalPercent,
                                                          const Progress& progress) const {
   return capacityRows(warnPercent, criticalPercent, progress, false);
}

std::vector<ReportData::CapacityRow> Simulation::capacitySpendingTables(double warnPercent,
                                                                        double criticalPercent,
                                                                        const Progress& progress) {
   return capacityRows(warnPercent, criticalPercent, progress, true);
}

std::vector<ReportData::CapacityRow> Simulation::capacityRows(double warnPercent,
                                                              double criticalPercent,
                                                              const Progress& progress,
                                                              bool spend) const {
   std::vector<ReportData::CapacityRow> rows;
   std::deque<ProbeJob> jobs;
   auto row = [&](Region region, const EmulatedTable& t) {
      ReportData::CapacityRow r;
      r.region = std::string(regionName(region));
      r.used = stats_.routes[size_t(region)];
      r.highWatermark = std::max(stats_.highWatermark[size_t(region)], r.used);
      const std::optional<uint64_t> computed =
          cfg_.probeCapacity ? std::nullopt : computedFree(t.ctx(), region);
      if (computed) {
         r.free = *computed;
      } else {
         const uint64_t free = t.ctx().tcamSize() - std::min(t.ctx().tcamSize(), t.usedEntries());
         jobs.emplace_back(region, &t, rows.size(), 2 * free);
      }
      const RouteType et = entryTypeOf(region, t.ctx());
      // Without pairing there are no double-size entries, whatever the block is called.
      if (region != Region::v6Double || t.ctx().supportsDefipPairing()) {
         r.usedEntries = t.ctx().entries(et) * (et == RouteType::v6Full ? 2 : 1);
         r.freeEntries = t.ctx().block(et) ? t.ctx().entriesFree(et) : 0;
      }
      r.refused = stats_.refusals[size_t(region)].total();
      rows.push_back(std::move(r));
   };
   if (unicast_) {
      const L3TcamManagerContext& c = unicast_->ctx();
      row(Region::v4, *unicast_);
      if (c.block(RouteType::v6Half) || c.block(RouteType::v6Full)) {
         row(Region::v6Single, *unicast_);
         row(Region::v6Double, *unicast_);
      }
   }
   if (mcast_) row(Region::mcast, *mcast_);
   if (spend) {
      // The first probe of each table fills the table itself; the tables are the caller's to
      // spend (capacitySpendingTables is not const).
      for (EmulatedTable* t : {unicast_.get(), mcast_.get()}) {
         const auto first = std::find_if(jobs.begin(), jobs.end(),
                                         [t](const ProbeJob& j) { return j.table == t; });
         if (first != jobs.end()) first->inPlace = t;
      }
   }
   if (!jobs.empty()) runProbes(rows, jobs, progress);
   for (ReportData::CapacityRow& r : rows) {
      r.max = r.used + r.free;
      r.percentUsed = r.max ? 100.0 * double(r.used) / double(r.max) : 0.0;
      severityOf(r, warnPercent, criticalPercent);
   }
   return rows;
}

}  // namespace VexloL3Common::sim
