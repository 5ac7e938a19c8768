// What vexlo-tcam prints and writes: the statistics and capacity table an operator reads, the
// report's facts, and output files that appear whole or not at all.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

std::string bytesText(int64_t bytes) {
   if (bytes < 0) return "not counted";
   if (bytes < 10 * 1024) return fmt::format("{} B", bytes);
   if (bytes < 10 * 1024 * 1024) return fmt::format("{:.1f} KiB", double(bytes) / 1024);
   return fmt::format("{:.1f} MiB", double(bytes) / (1024 * 1024));
}

}  // namespace

// ---- shared with the JSON output

double nsPerOp(const sim::Statistics::Phase& p) {
   return p.operations ? double(p.modelNs) / double(p.operations) : 0.0;
}

uint64_t modelNs(const sim::Statistics& st) {
   uint64_t ns = 0;
   for (const auto& p : st.phases)
      ns += p.modelNs;
   return ns;
}

Summary summaryOf(const L3TcamManagerContext& c) {
   Summary s;
   s.mode = c.tcamMode();
   s.e4 = c.entries(RouteType::v4);
   s.e6h = c.entries(RouteType::v6Half);
   s.e6f = c.entries(RouteType::v6Full);
   s.halfFull = uint32_t(c.v4()->halfFullSize());
   s.used = s.e4 + s.e6h + 2 * s.e6f;
   s.usable = c.effectiveSize() - 2;
   s.movedV4 = c.stats()->moveRoute(RouteType::v4);
   s.movedV6Half = c.stats()->moveRoute(RouteType::v6Half);
   s.movedV6Full = c.stats()->moveRoute(RouteType::v6Full);
   return s;
}

namespace {

// Where an output path really leads: a symbolic link is written through, not replaced.
std::filesystem::path resolved(const std::string& path) {
   namespace fs = std::filesystem;
   std::error_code ec;
   if (fs::is_symlink(path, ec)) {
      const fs::path target = fs::weakly_canonical(path, ec);
      if (!ec) return target;
   }
   return path;
}

// A FIFO, a terminal or a device: written to as it stands, since it cannot be replaced.
bool isSpecial(const std::filesystem::path& p) {
   namespace fs = std::filesystem;
   std::error_code ec;
   const fs::file_status st = fs::status(p, ec);
   return !ec && fs::exists(st) && !fs::is_regular_file(st) && !fs::is_directory(st);
}

}  // namespace

void checkWritable(const std::string& path) {
   namespace fs = std::filesystem;
   const fs::path target = resolved(path);
   std::error_code ec;
   if (fs::is_directory(target, ec)) throw UsageError("'" + path + "' is a directory");
   if (isSpecial(target)) {
      if (::access(target.c_str(), W_OK) != 0)
         throw UsageError("cannot write '" + path + "': " + std::strerror(errno));
      return;
   }
   fs::path dir = target.parent_path();
   if (dir.empty()) dir = ".";
   if (!fs::is_directory(dir, ec))
      throw UsageError("cannot write '" + path + "': no directory '" + dir.string() + "'");
   if (::access(dir.c_str(), W_OK) != 0)
      throw UsageError("cannot write '" + path + "': " + std::strerror(errno));
}

void writeFileAtomically(const std::string& path, const std::string& contents) {
   const std::filesystem::path target = resolved(path);
   const bool special = isSpecial(target);
   // A regular file is written beside its final name and renamed into place, so that it appears
   // whole or not at all.
   const std::string tmp =
       special ? target.string() : target.string() + ".tmp." + std::to_string(::getpid());
   std::FILE* f = std::fopen(tmp.c_str(), "wb");
   if (!f) throw UsageError("cannot write '" + path + "': " + std::strerror(errno));
   const bool ok = std::fwrite(contents.data(), 1, contents.size(), f) == contents.size();
   const bool closed = std::fclose(f) == 0;
   if (special) {
      if (!ok || !closed) throw UsageError("cannot write '" + path + "': " + std::strerror(errno));
      return;
   }
   if (!ok || !closed || std::rename(tmp.c_str(), target.c_str()) != 0) {
      const int err = errno;
      std::remove(tmp.c_str());
      throw UsageError("cannot write '" + path + "': " + std::strerror(err));
   }
}

std::string configLine(const Options& o, const sim::Simulation& sim) {
   std::string s =
       fmt::format("{}-entry table, mode {}, {} blocks, {} IPv4 route{} per entry", o.size, o.mode,
                   o.blocks, o.twoV4PerEntry ? "two" : "one", o.twoV4PerEntry ? "s" : "");
   if (o.pairing) s += ", pairing";
   if (o.dynamicBorder) s += ", moving border";
   if (o.pairGap) s += fmt::format(", pair gap {}", o.pairGap);
   if (o.urpf) s += ", uRPF";
   if (o.fallbackVrf >= 0) s += fmt::format(", fallback VRF {}", o.fallbackVrf);
   if (o.interleave) s += ", interleaved";
   if (o.reAddAllowed) s += ", re-add allowed";
   // Classic placement is the default that goes unsaid; weights of one's own are named.
   if (!o.weights.empty()) {
      s += fmt::format(", weighted placement (weights of {})", o.weights);
   } else if (o.placement == "weighted") {
      s += ", weighted placement";
   }
   if (o.borderInRanges) s += ", border moves in ranges";
   if (sim.multicast()) s += fmt::format("; {}-entry multicast table", sim.config().mcastSize);
   return s;
}

void printStatistics(const sim::Simulation& sim) {
   const sim::Statistics& st = sim.statistics();
   static const char* const names[] = {"IPv4", "IPv6", "multicast"};
   std::printf("Statistics\n");
   std::printf("  %-22s %12s %12s %12s %12s\n", "routes", "placed", "refused", "deleted",
               "skipped");
   for (size_t i = 0; i < st.family.size(); ++i) {
      const auto& f = st.family[i];
      if (f.placed + f.refused + f.deleted + f.skipped == 0) continue;
      std::printf("  %-22s %12llu %12llu %12llu %12llu\n", names[i], (unsigned long long)f.placed,
                  (unsigned long long)f.refused, (unsigned long long)f.deleted,
                  (unsigned long long)f.skipped);
   }
   auto hist = [](const char* label, const sim::MoveHistogram& h) {
      std::printf("  %-22s mean %.2f, p99 %llu, max %llu (%llu operations)\n", label, h.mean(),
                  (unsigned long long)h.percentile(99), (unsigned long long)h.max(),
                  (unsigned long long)h.operations());
   };
   hist("moves per insert", st.movesPerInsert);
   hist("moves per update", st.movesPerUpdate);
   std::printf("  %-22s %llu\n", "moves", (unsigned long long)st.moves);
   std::printf("  %-22s %llu\n", "merges", (unsigned long long)st.merges);
   std::printf("  %-22s %llu\n", "conversions", (unsigned long long)st.conversions);
   std::printf("  %-22s %llu\n", "reallocations", (unsigned long long)st.reallocations);
   for (const auto& p : st.phases) {
      std::printf("  %-22s %.0f ns per operation (%llu operations, model alone)\n",
                  fmt::format("time, {}", p.name).c_str(), nsPerOp(p),
                  (unsigned long long)p.operations);
   }
   if (st.v6WithoutEntries) {
      std::printf(
          "  %-22s %llu IPv6 routes longer than /64 refused: they need double-size "
          "entries (--pairing)\n",
          "note", (unsigned long long)st.v6WithoutEntries);
   }
   const uint64_t routes = st.installed();
   std::printf("  %-22s %s", "model memory", bytesText(st.modelBytes).c_str());
   if (st.modelBytes >= 0 && routes)
      std::printf(" (%.1f bytes per installed route)", double(st.modelBytes) / double(routes));
   std::printf("\n");
   std::printf("  %-22s %.1f ms (model, emulator and checks)\n\n", "emulated run",
               double(st.emulatedNs) / 1e6);
}

void printCapacity(const std::vector<sim::ReportData::CapacityRow>& rows) {
   std::printf("Capacity (routes; free = what can still be placed)\n");
   std::printf("  %-26s %10s %10s %10s %8s %10s\n", "region", "max", "used", "free", "used %",
               "high mark");
   for (const auto& r : rows) {
      // A region with no room at all has no meaningful percentage.
      const std::string percent = r.max ? fmt::format("{:.1f}%", r.percentUsed) : "-";
      std::printf("  %-26s %10llu %10llu %10llu %8s %10llu%s%s\n", r.region.c_str(),
                  (unsigned long long)r.max, (unsigned long long)r.used, (unsigned long long)r.free,
                  percent.c_str(), (unsigned long long)r.highWatermark,
                  r.warning.empty() ? "" : "  ", r.warning.c_str());
   }
}

std::vector<std::pair<std::string, std::string>> reportFacts(const sim::Simulation& sim,
                                                             const Input& in, const Verdict& v) {
   const sim::Statistics& st = sim.statistics();
   std::vector<std::pair<std::string, std::string>> f;
   f.emplace_back("input", fmt::format("{}, {} routes", in.description, in.routeCount));
   f.emplace_back("result", !v.inconsistencies.empty()
                                ? "inconsistent (" + inconsistencyLine(v) + ")"
                            : st.refused() ? "did not fit"
                                           : "fitted");
   f.emplace_back("severity", v.severity);
   f.emplace_back("route adds placed / refused", fmt::format("{} / {}", st.placed(), st.refused()));
   if (const sim::EmulatedTable* u = sim.unicast()) {
      const Summary s = summaryOf(u->ctx());
      f.emplace_back("unicast entries used",
                     fmt::format("{} of {} ({:.1f} %)", s.used, s.usable,
                                 s.usable ? 100.0 * s.used / s.usable : 0.0));
   }
   for (const auto& p : st.phases) {
      const sim::MoveHistogram& h = p.movesPerOperation;
      f.emplace_back(
          fmt::format("moves per {}, {}", p.name == "load" ? "route" : "update", p.name),
          fmt::format("mean {:.2f}, p99 {}, max {}", h.mean(), h.percentile(99), h.max()));
   }
   f.emplace_back(
       "moves / merges / conversions / reallocations",
       fmt::format("{} / {} / {} / {}", st.moves, st.merges, st.conversions, st.reallocations));
   for (const auto& p : st.phases) {
      f.emplace_back(
          fmt::format("model time, {}", p.name),
          fmt::format("{:.0f} ns per operation ({} operations)", nsPerOp(p), p.operations));
   }
   f.emplace_back("model memory", bytesText(st.modelBytes));
   return f;
}

}  // namespace VexloL3Common::tool