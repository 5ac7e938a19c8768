// The trace facility: named handles with levels 0 to 9.
//
// Synopsis
//   static Ulo::TraceHandle th("VexloL3CommonTcamTable");   // one per source unit
//   TRACE(th, 7, "start: ", start, ", end: ", end);          // pieces joined with no separator
//   TRACE_FMT(th, 6, "Range/{} start {} end {}", len, s, e);  // {fmt} format string
//
//   VEXLO_TRACE='VexloL3CommonTcamTable=1-8,VexloL3HitBit=4'  switches levels on at start-up
//   VEXLO_TRACE_FILE=path                                    sends lines to a file instead of
//   stderr Ulo::Trace::enable("VexloL3HitBit", 0, 9);               the same from code
//   Ulo::ScopedTraceCapture cap("VexloL3HitBit", 4);         tests: capture lines in memory
//
// A level that is off costs one load and one predictable branch: the pieces of a TRACE line are
// not evaluated and nothing is formatted. A line that is on is formatted into a stack buffer and
// handed to the current sink.
//
// Configuration grammar (VEXLO_TRACE and Trace::configure): comma-separated items "name=levels",
// where levels is a number 0-9, a range "a-b", or "*" (all); name "*" stands for every handle.
// A bare "name" means all levels. Later items override earlier ones for the same handle.
//
// Single event-loop thread: handles, sinks and configuration are not locked.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Join.h"

namespace Ulo {

class TraceSink {
 public:
   virtual ~TraceSink() = default;
   virtual void write(std::string_view handle, unsigned level, std::string_view line) = 0;
};

class TraceHandle {
 public:
   static constexpr unsigned maxLevel = 9;

   explicit TraceHandle(const char* name);
   ~TraceHandle();
   TraceHandle(const TraceHandle&) = delete;
   TraceHandle& operator=(const TraceHandle&) = delete;

   const char* name() const { return name_; }
   bool enabled(unsigned level) const { return (levels_ >> level) & 1u; }
   uint16_t levels() const { return levels_; }
   void levelsIs(uint16_t mask) { levels_ = mask & 0x3ffu; }

   template <class... Pieces>
   void emit(unsigned level, const Pieces&... pieces) const {
      fmt::memory_buffer line;
      appendPieces(line, pieces...);
      write(level, std::string_view(line.data(), line.size()));
   }

   template <class... Args>
   void emitFormat(unsigned level, fmt::format_string<Args...> format, Args&&... args) const {
      fmt::memory_buffer line;
      fmt::format_to(std::back_inserter(line), format, std::forward<Args>(args)...);
      write(level, std::string_view(line.data(), line.size()));
   }

 private:
   void write(unsigned level, std::string_view line) const;

   const char* name_;
   uint16_t levels_ = 0;
};

// Level mask for the inclusive range [lo, hi].
constexpr uint16_t traceLevels(unsigned lo, unsigned hi) {
   uint16_t mask = 0;
   for (unsigned l = lo; l <= hi && l <= TraceHandle::maxLevel; ++l)
      mask |= uint16_t(1u << l);
   return mask;
}

namespace Trace {

// Switches levels [lo, hi] on for a handle ("*" for all handles), now and for handles created
// later.
void enable(std::string_view handle, unsigned lo = 0, unsigned hi = TraceHandle::maxLevel);
// Switches every level of a handle ("*" for all) off.
void disable(std::string_view handle);
// Applies a configuration string (grammar above); throws std::range_error on a malformed one,
// applying nothing.
void configure(std::string_view config);
// The levels a handle of this name has or would get.
uint16_t levels(std::string_view handle);
// Sets exactly this level mask for a handle ("*" for all).
void levelsIs(std::string_view handle, uint16_t mask);
// Where lines go; nullptr restores the default (stderr, or VEXLO_TRACE_FILE).
void sinkIs(std::shared_ptr<TraceSink> sink);
std::shared_ptr<TraceSink> sink();

}  // namespace Trace

// Writes "handle level: line" to stderr.
class StderrTraceSink : public TraceSink {
 public:
   void write(std::string_view handle, unsigned level, std::string_view line) override;
};

// Appends "handle level: line" to a file; throws std::runtime_error when it cannot be opened.
class FileTraceSink : public TraceSink {
 public:
   explicit FileTraceSink(const std::string& path);
   ~FileTraceSink() override;
   void write(std::string_view handle, unsigned level, std::string_view line) override;

 private:
   std::FILE* file_;
};

// Keeps every line in memory, for tests.
class CapturingTraceSink : public TraceSink {
 public:
   struct Line {
      std::string handle;
      unsigned level;
      std::string text;
   };
   void write(std::string_view handle, unsigned level, std::string_view line) override;
   const std::vector<Line>& lines() const { return lines_; }
   // The texts alone, in order.
   std::vector<std::string> texts() const;
   // Whether some line's text contains the fragment.
   bool contains(std::string_view fragment) const;
   void clear() { lines_.clear(); }

 private:
   std::vector<Line> lines_;
};

// For tests: captures the lines of one handle at the given levels while alive, then restores the
// previous sink and levels.
// Switches every handle off while it lives and restores the configuration after: for work that
// is not the caller's to trace (a replay run only to time it, a probe of a scratch copy).
class ScopedTraceSilence {
 public:
   ScopedTraceSilence();
   ~ScopedTraceSilence();
   ScopedTraceSilence(const ScopedTraceSilence&) = delete;
   ScopedTraceSilence& operator=(const ScopedTraceSilence&) = delete;

 private:
   struct Saved;
   std::unique_ptr<Saved> saved_;
};

class ScopedTraceCapture {
 public:
   ScopedTraceCapture(std::string_view handle, unsigned lo = 0,
                      unsigned hi = TraceHandle::maxLevel);
   ~ScopedTraceCapture();
   ScopedTraceCapture(const ScopedTraceCapture&) = delete;
   ScopedTraceCapture& operator=(const ScopedTraceCapture&) = delete;

   CapturingTraceSink& sink() { return *sink_; }
   std::vector<std::string> texts() const { return sink_->texts(); }
   bool contains(std::string_view fragment) const { return sink_->contains(fragment); }

 private:
   std::string handle_;
   uint16_t previousLevels_;
   std::shared_ptr<TraceSink> previousSink_;
   std::shared_ptr<CapturingTraceSink> sink_;
};

}  // namespace Ulo

#define TRACE(handle, level, ...)               \
   do {                                         \
      if ((handle).enabled(level)) [[unlikely]] \
         (handle).emit((level), __VA_ARGS__);   \
   } while (0)

#define TRACE_FMT(handle, level, ...)               \
   do {                                             \
      if ((handle).enabled(level)) [[unlikely]]     \
         (handle).emitFormat((level), __VA_ARGS__); \
   } while (0)
