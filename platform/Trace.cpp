#include "platform/Trace.h"

#include "platform/TraceHandles.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>

namespace Ulo {

namespace {

struct Registry {
   std::vector<TraceHandle*> handles;
   std::map<std::string, uint16_t, std::less<>> named;
   uint16_t everyHandle = 0;
   std::shared_ptr<TraceSink> sink;

   uint16_t levelsOf(std::string_view name) const {
      auto it = named.find(name);
      return it != named.end() ? it->second : everyHandle;
   }
   void refresh() {
      for (TraceHandle* h : handles)
         h->levelsIs(levelsOf(h->name()));
   }
   void set(std::string_view name, uint16_t mask) {
      if (name == "*") {
         named.clear();
         everyHandle = mask;
      } else {
         named[std::string(name)] = mask;
      }
   }
};

std::shared_ptr<TraceSink> defaultSink() {
   if (const char* path = std::getenv("VEXLO_TRACE_FILE"); path && *path) {
      try {
         return std::make_shared<FileTraceSink>(path);
      } catch (const std::exception& e) {
         std::fprintf(stderr, "VEXLO_TRACE_FILE: %s; tracing to stderr\n", e.what());
      }
   }
   return std::make_shared<StderrTraceSink>();
}

std::vector<std::pair<std::string, uint16_t>> parseConfig(std::string_view config);

// Handles are static objects of many translation units; the registry must outlive all of them,
// so it is created on first use and never destroyed.
Registry& registry() {
   static Registry* r = [] {
      auto* reg = new Registry;
      if (const char* env = std::getenv("VEXLO_TRACE"); env && *env) {
         try {
            for (auto& [name, mask] : parseConfig(env))
               reg->set(name, mask);
         } catch (const std::range_error& e) {
            std::fprintf(stderr, "VEXLO_TRACE ignored: %s\n", e.what());
         }
      }
      return reg;
   }();
   return *r;
}

unsigned parseLevel(std::string_view text, std::string_view item) {
   unsigned value = 0;
   auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
   if (text.empty() || ec != std::errc() || ptr != text.data() + text.size() ||
       value > TraceHandle::maxLevel) {
      throw std::range_error("trace level must be 0-9 in \"" + std::string(item) + "\"");
   }
   return value;
}

std::string_view trim(std::string_view s) {
   while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
      s.remove_prefix(1);
   while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
      s.remove_suffix(1);
   return s;
}

std::vector<std::pair<std::string, uint16_t>> parseConfig(std::string_view config) {
   std::vector<std::pair<std::string, uint16_t>> items;
   while (!config.empty()) {
      size_t comma = config.find(',');
      std::string_view item = trim(config.substr(0, comma));
      config = comma == std::string_view::npos ? std::string_view() : config.substr(comma + 1);
      if (item.empty()) continue;
      size_t eq = item.find('=');
      std::string_view name = trim(item.substr(0, eq));
      if (name.empty())
         throw std::range_error("trace handle name missing in \"" + std::string(item) + "\"");
      uint16_t mask = traceLevels(0, TraceHandle::maxLevel);
      if (eq != std::string_view::npos) {
         std::string_view levels = trim(item.substr(eq + 1));
         if (levels != "*") {
            size_t dash = levels.find('-');
            unsigned lo = parseLevel(trim(levels.substr(0, dash)), item);
            unsigned hi = dash == std::string_view::npos
                              ? lo
                              : parseLevel(trim(levels.substr(dash + 1)), item);
            if (lo > hi)
               throw std::range_error("trace level range is reversed in \"" + std::string(item) +
                                      "\"");
            mask = traceLevels(lo, hi);
         }
      }
      items.emplace_back(std::string(name), mask);
   }
   return items;
}

}  // namespace

TraceHandle::TraceHandle(const char* name) : name_(name) {
   Registry& r = registry();
   r.handles.push_back(this);
   levels_ = r.levelsOf(name_);
}

TraceHandle::~TraceHandle() {
   auto& handles = registry().handles;
   handles.erase(std::remove(handles.begin(), handles.end(), this), handles.end());
}

void TraceHandle::write(unsigned level, std::string_view line) const {
   Registry& r = registry();
   if (!r.sink) r.sink = defaultSink();
   r.sink->write(name_, level, line);
}

namespace Trace {

void enable(std::string_view handle, unsigned lo, unsigned hi) {
   Registry& r = registry();
   uint16_t mask = traceLevels(lo, hi);
   if (handle == "*") {
      r.everyHandle |= mask;
      for (auto& [name, m] : r.named)
         m |= mask;
   } else {
      r.named[std::string(handle)] = uint16_t(r.levelsOf(handle) | mask);
   }
   r.refresh();
}

void disable(std::string_view handle) {
   levelsIs(handle, 0);
}

void levelsIs(std::string_view handle, uint16_t mask) {
   Registry& r = registry();
   r.set(handle, uint16_t(mask & traceLevels(0, TraceHandle::maxLevel)));
   r.refresh();
}

void configure(std::string_view config) {
   auto items = parseConfig(config);  // throws before anything is applied
   Registry& r = registry();
   for (auto& [name, mask] : items)
      r.set(name, mask);
   r.refresh();
}

std::vector<std::string> handleNames() {
   std::vector<std::string> names;
   for (const TraceHandle* h : registry().handles)
      names.emplace_back(h->name());
   std::sort(names.begin(), names.end());
   names.erase(std::unique(names.begin(), names.end()), names.end());
   return names;
}

uint16_t levels(std::string_view handle) {
   return registry().levelsOf(handle);
}

void sinkIs(std::shared_ptr<TraceSink> s) {
   registry().sink = std::move(s);
}

std::shared_ptr<TraceSink> sink() {
   Registry& r = registry();
   if (!r.sink) r.sink = defaultSink();
   return r.sink;
}

}  // namespace Trace

struct ScopedTraceSilence::Saved {
   std::map<std::string, uint16_t, std::less<>> named;
   uint16_t everyHandle;
};

ScopedTraceSilence::ScopedTraceSilence() {
   Registry& r = registry();
   saved_.reset(new Saved{r.named, r.everyHandle});
   r.named.clear();
   r.everyHandle = 0;
   r.refresh();
}

ScopedTraceSilence::~ScopedTraceSilence() {
   Registry& r = registry();
   r.named = std::move(saved_->named);
   r.everyHandle = saved_->everyHandle;
   r.refresh();
}

void StderrTraceSink::write(std::string_view handle, unsigned level, std::string_view line) {
   fmt::print(stderr, "{} {}: {}\n", handle, level, line);
}

FileTraceSink::FileTraceSink(const std::string& path) : file_(std::fopen(path.c_str(), "a")) {
   if (!file_) throw std::runtime_error("cannot open trace file " + path);
}

FileTraceSink::~FileTraceSink() {
   std::fclose(file_);
}

void FileTraceSink::write(std::string_view handle, unsigned level, std::string_view line) {
   fmt::print(file_, "{} {}: {}\n", handle, level, line);
   std::fflush(file_);
}

void CapturingTraceSink::write(std::string_view handle, unsigned level, std::string_view line) {
   lines_.push_back(Line{std::string(handle), level, std::string(line)});
}

std::vector<std::string> CapturingTraceSink::texts() const {
   std::vector<std::string> out;
   out.reserve(lines_.size());
   for (const Line& l : lines_)
      out.push_back(l.text);
   return out;
}

bool CapturingTraceSink::contains(std::string_view fragment) const {
   return std::any_of(lines_.begin(), lines_.end(),
                      [&](const Line& l) { return l.text.find(fragment) != std::string::npos; });
}

ScopedTraceCapture::ScopedTraceCapture(std::string_view handle, unsigned lo, unsigned hi)
    : handle_(handle),
      previousLevels_(Trace::levels(handle)),
      previousSink_(Trace::sink()),
      sink_(std::make_shared<CapturingTraceSink>()) {
   Trace::sinkIs(sink_);
   Trace::levelsIs(handle_, traceLevels(lo, hi));
}

ScopedTraceCapture::~ScopedTraceCapture() {
   Trace::levelsIs(handle_, previousLevels_);
   Trace::sinkIs(previousSink_);
}

}  // namespace Ulo
