// The JSON statistics for scripts: the same figures as the text, with the verdict.
#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

// A minimal JSON writer: objects, arrays, numbers, strings and null, with commas placed.
class Json {
 public:
   std::string str() const { return out_ + "\n"; }
   Json& open(const char* key, char bracket) {
      this->key(key);
      out_ += bracket;
      first_ = true;
      return *this;
   }
   Json& close(char bracket) {
      out_ += bracket;
      first_ = false;
      return *this;
   }
   template <class T>
   Json& num(const char* key, T v) {
      this->key(key);
      if constexpr (std::is_floating_point_v<T>) {
         out_ += fmt::format("{:.6g}", v);
      } else {
         out_ += fmt::format("{}", v);
      }
      return *this;
   }
   Json& boolean(const char* key, bool v) {
      this->key(key);
      out_ += v ? "true" : "false";
      return *this;
   }
   Json& null(const char* key) {
      this->key(key);
      out_ += "null";
      return *this;
   }
   Json& string(const char* key, std::string_view v) {
      this->key(key);
      quote(v);
      return *this;
   }

 private:
   // key nullptr: an array element or the top-level value.
   void key(const char* k) {
      if (!first_) out_ += ',';
      first_ = false;
      if (k) {
         quote(k);
         out_ += ':';
      }
   }
   void quote(std::string_view v) {
      out_ += '"';
      for (char ch : v) {
         const unsigned char c = static_cast<unsigned char>(ch);
         if (c == '"' || c == '\\') {
            out_ += '\\';
            out_ += ch;
         } else if (c < 0x20 || c >= 0x80) {
            // Bytes past ASCII are written as the code points of the same value, so that the
            // output is valid UTF-8 whatever a file name holds.
            out_ += fmt::format("\\u{:04x}", c);
         } else {
            out_ += ch;
         }
      }
      out_ += '"';
   }
   std::string out_;
   bool first_ = true;
};

void histogramJson(Json& j, const char* key, const sim::MoveHistogram& h) {
   j.open(key, '{')
       .num("operations", h.operations())
       .num("mean", h.mean())
       .num("p99", h.percentile(99))
       .num("max", h.max());
   j.open("counts", '[');
   for (uint64_t c : h.counts())
      j.num(nullptr, c);
   j.close(']').close('}');
}

void optionalString(Json& j, const char* key, const std::string& v) {
   if (v.empty()) {
      j.null(key);
   } else {
      j.string(key, v);
   }
}

void updateJson(Json& j, const char* key, const sim::Statistics::Update& u) {
   j.open(key, '{')
       .num("operation", u.operation)
       .string("phase", u.phase)
       .string("kind", u.kind == sim::RouteOp::Kind::add ? "add" : "del")
       .string("route", u.route)
       .num("moves", u.moves)
       .close('}');
}

// Per route placed by the load, per withdraw+announce pair of churn, the largest single insert.
void insertsJson(Json& j, const sim::Statistics& st) {
   const sim::Statistics::Phase *load = nullptr, *churn = nullptr;
   for (const auto& p : st.phases) {
      if (p.name == "load") load = &p;
      if (p.name == "churn") churn = &p;
   }
   if (load) {
      const sim::MoveHistogram& h = load->movesPerInsert;
      j.open("loadPerInsert", '{')
          .num("inserts", h.operations())
          .num("mean", h.mean())
          .num("p99", h.percentile(99))
          .num("max", h.max())
          .close('}');
   } else {
      j.null("loadPerInsert");
   }
   if (churn) {
      j.open("churnPerPair", '{').num("pairs", churn->pairs()).num("mean", churn->movesPerPair());
      j.num("restarts", st.churnRestarts);
      optionalString(j, "stopped", st.churnStopped);
      j.close('}');
   } else {
      j.null("churnPerPair");
   }
   if (st.largestInsert.moves) {
      updateJson(j, "largestInsert", st.largestInsert);
   } else {
      j.null("largestInsert");
   }
}

}  // namespace

namespace {

// The options the run was made with, and where its table came from.
void configJson(Json& j, const Options& o, const sim::Simulation& sim, const Input& in) {
   j.open("config", '{')
       .num("size", o.size)
       .num("mode", o.mode)
       .num("blocks", o.blocks)
       .boolean("twoV4PerEntry", o.twoV4PerEntry)
       .boolean("pairing", o.pairing)
       .boolean("dynamicBorder", o.dynamicBorder)
       .num("pairGap", o.pairGap)
       .boolean("urpf", o.urpf);
   if (o.fallbackVrf >= 0) {
      j.num("fallbackVrf", o.fallbackVrf);
   } else {
      j.null("fallbackVrf");
   }
   j.boolean("interleave", o.interleave)
       .boolean("reAddAllowed", o.reAddAllowed)
       .num("mcastSize", sim.config().mcastSize)
       .string("placement", o.placement);
   optionalString(j, "weights", o.weights);
   j.open("churn", '{')
       .num("updates", o.churn)
       .num("seed", o.churnSeed)
       .string("kind", o.churnKind);
   optionalString(j, "routes", o.churnRoutes);
   j.close('}').close('}');
   j.open("input", '{')
       .string("description", in.description)
       .string("format", in.format)
       .num("duplicates", in.duplicates);
   j.open("skipped", '{');
   for (const auto& [kind, n] : in.skipped)
      j.num(kind.c_str(), n);
   j.close('}').num("routes", in.routeCount).close('}');
}

// Routes placed, refused and deleted per family; moves, merges, conversions, reallocations.
void routesJson(Json& j, const sim::Statistics& st) {
   static const char* const families[] = {"ipv4", "ipv6", "multicast"};
   j.open("routes", '{')
       .num("placed", st.placed())
       .num("refused", st.refused())
       .num("installed", st.installed());
   for (size_t i = 0; i < st.family.size(); ++i) {
      const auto& f = st.family[i];
      j.open(families[i], '{')
          .num("placed", f.placed)
          .num("refused", f.refused)
          .num("deleted", f.deleted)
          .num("skipped", f.skipped)
          .close('}');
   }
   j.close('}');
   j.open("moves", '{').num("total", st.moves);
   histogramJson(j, "perInsert", st.movesPerInsert);
   histogramJson(j, "perUpdate", st.movesPerUpdate);
   insertsJson(j, st);
   j.close('}');
   j.num("merges", st.merges)
       .num("conversions", st.conversions)
       .num("reallocations", st.reallocations);
   j.num("operations", st.operations);
}

// The model's time per phase and its memory.
void timingJson(Json& j, const sim::Statistics& st) {
   j.open("timing", '{');
   j.open("phases", '[');
   for (const auto& p : st.phases) {
      j.open(nullptr, '{')
          .string("name", p.name)
          .num("operations", p.operations)
          .num("modelNs", p.modelNs)
          .num("nsPerOperation", nsPerOp(p))
          .num("placed", p.placed)
          .num("refused", p.refused)
          .num("moves", p.moves)
          .close('}');
   }
   j.close(']');
   j.num("modelNs", modelNs(st)).num("emulatedNs", st.emulatedNs).close('}');
   if (st.modelBytes >= 0) {
      j.num("modelBytes", st.modelBytes);
   } else {
      j.null("modelBytes");
   }
}

// The show summary's figures of the unicast table; null without one.
void summaryJson(Json& j, const sim::Simulation& sim) {
   if (const sim::EmulatedTable* u = sim.unicast()) {
      const Summary s = summaryOf(u->ctx());
      j.open("summary", '{')
          .num("tableMode", s.mode)
          .num("usedEntries", s.used)
          .num("usableEntries", s.usable)
          .num("ipv4Entries", s.e4)
          .num("ipv4FullEntries", s.e4 - s.halfFull)
          .num("ipv4HalfFullEntries", s.halfFull)
          .num("ipv4Routes", 2 * s.e4 - s.halfFull)
          .num("ipv6SingleEntries", s.e6h)
          .num("ipv6DoubleEntries", 2 * s.e6f)
          .num("ipv6DoubleRoutes", s.e6f)
          .num("movedIpv4", s.movedV4)
          .num("movedIpv6Half", s.movedV6Half)
          .num("movedIpv6Full", s.movedV6Full)
          .close('}');
   } else {
      j.null("summary");
   }
}

void capacityJson(Json& j, const std::vector<sim::ReportData::CapacityRow>& capacity) {
   j.open("capacity", '[');
   for (const auto& r : capacity) {
      j.open(nullptr, '{')
          .string("region", r.region)
          .num("max", r.max)
          .num("used", r.used)
          .num("free", r.free)
          .num("percentUsed", r.percentUsed)
          .num("highWatermark", r.highWatermark)
          .string("warning", r.warning)
          .string("severity", r.severity)
          .num("refused", r.refused)
          .num("usedEntries", r.usedEntries)
          .num("freeEntries", r.freeEntries)
          .close('}');
   }
   j.close(']');
}

// Refused adds per region and reason, each reason with its first route.
void refusalsJson(Json& j, const sim::Statistics& st) {
   j.open("refusals", '[');
   for (unsigned i = 0; i < sim::numRegions; ++i) {
      const sim::Statistics::Refusals& rr = st.refusals[i];
      if (rr.total() == 0) continue;
      j.open(nullptr, '{')
          .string("region", sim::regionName(sim::Region(i)))
          .num("refused", rr.total());
      j.open("reasons", '[');
      for (unsigned k = 0; k < sim::numRefusalReasons; ++k) {
         if (rr.count[k] == 0) continue;
         j.open(nullptr, '{')
             .string("reason", sim::reasonName(sim::RefusalReason(k)))
             .num("count", rr.count[k])
             .string("first", rr.example[k])
             .close('}');
      }
      j.close(']');
      if (rr.border.empty()) {
         j.null("border");
      } else {
         j.string("border", rr.border);
      }
      j.close('}');
   }
   j.close(']');
}

void worstJson(Json& j, const sim::Statistics& st) {
   j.open("worstUpdates", '[');
   for (const auto& u : st.worst)
      updateJson(j, nullptr, u);
   j.close(']');
}

void verdictJson(Json& j, const Verdict& v) {
   j.string("severity", v.severity);
   j.num("violations", v.inconsistencies.size());
   j.open("inconsistencies", '[');
   for (const std::string& s : v.inconsistencies)
      j.string(nullptr, s);
   j.close(']');
   if (v.failedOn.empty()) {
      j.null("failedOn");
   } else {
      j.string("failedOn", v.failedOn);
   }
   j.num("exitStatus", v.exitStatus);
}

}  // namespace

std::string jsonStatistics(const Options& o, const sim::Simulation& sim, const Input& in,
                           const std::vector<sim::ReportData::CapacityRow>& capacity,
                           const Verdict& verdict) {
   const sim::Statistics& st = sim.statistics();
   Json j;
   j.open(nullptr, '{');
   configJson(j, o, sim, in);
   routesJson(j, st);
   timingJson(j, st);
   summaryJson(j, sim);
   capacityJson(j, capacity);
   refusalsJson(j, st);
   worstJson(j, st);
   verdictJson(j, verdict);
   j.close('}');
   return j.str();
}

std::string fitJson(const FitReport& rep, const FitOptions& f, const Input& in,
                    const Options& base) {
   Json j;
   j.open(nullptr, '{');
   j.open("input", '{')
       .string("description", in.description)
       .string("format", in.format)
       .num("routes", in.routeCount)
       .close('}');
   j.num("churn", base.churn);
   // Only when it differs from re-announcing, so that the other outputs stay as they were.
   if (base.churn && base.churnKind == "new") j.string("churnKind", base.churnKind);
   j.num("headroomPercent", f.headroom);
   j.open("sizes", '[');
   for (uint32_t s : rep.sizes)
      j.num(nullptr, s);
   j.close(']');
   j.num("tried", rep.tried).num("refusedByLayout", rep.refusedLayouts);
   j.open("fitting", '[');
   for (const FitReport::Row& r : rep.fitting) {
      j.open(nullptr, '{')
          .num("size", r.config.size)
          .num("mode", r.config.mode)
          .num("blocks", r.config.blocks)
          .boolean("twoV4PerEntry", r.config.twoV4PerEntry)
          .boolean("pairing", r.config.pairing)
          .boolean("dynamicBorder", r.config.dynamicBorder)
          .string("placement", r.config.placement)
          .num("headroomPercent", r.headroom)
          .num("movesPerRoute", r.movesPerRoute)
          .num("movesPerUpdate", r.movesPerUpdate)
          .num("maxMoves", r.maxMoves)
          .string("options", fitConfigText(r.config))
          .close('}');
   }
   j.close(']');
   j.open("inconsistencies", '[');
   for (const std::string& s : rep.faults)
      j.string(nullptr, s);
   j.close(']');
   j.num("exitStatus", !rep.faults.empty()   ? exitInconsistent
                       : rep.fitting.empty() ? exitNotFitted
                                             : exitFitted);
   j.close('}');
   return j.str();
}

}  // namespace VexloL3Common::tool
