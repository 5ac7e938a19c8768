// Fatal assertions for broken invariants.
//
// Synopsis
//   VEXLO_ASSERT(cond, "text")                      fatal unless cond holds
//   VEXLO_ASSERT_MSG(cond, "text", pieces...)       same, with a message joined from pieces by
//   {fmt} VEXLO_UNREACHABLE("message")                    a path that must never be taken
//   Ulo::ScopedThrowingAssertHandler guard;         tests: failures throw Ulo::AssertionFailure
//
// A failed assertion means the model is broken; the default handler prints the text, the message
// and the source line to stderr and aborts. Input that a caller can get wrong never reaches an
// assertion: value types raise std::range_error instead. The pieces of a message are evaluated only
// when the assertion fails.
//
// Single event-loop thread: the handler is process-wide and not locked.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "platform/Join.h"

namespace Ulo {

// What a throwing handler raises: the assertion's fixed text and its joined message.
struct AssertionFailure : std::exception {
   AssertionFailure(std::string t, std::string m, const char* f, int l);
   const char* what() const noexcept override { return what_.c_str(); }

   std::string text;
   std::string message;
   const char* file;
   int line;

 private:
   std::string what_;
};

// A handler must not return: it aborts, or throws.
using AssertHandler = void (*)(const char* text, const std::string& message, const char* file,
                               int line);

// Installs a handler and returns the previous one; nullptr restores the default.
AssertHandler assertHandlerIs(AssertHandler handler);

[[noreturn]] void assertFailed(const char* text, const std::string& message, const char* file,
                               int line);

// For tests: while alive, failed assertions throw AssertionFailure instead of aborting.
class ScopedThrowingAssertHandler {
 public:
   ScopedThrowingAssertHandler();
   ~ScopedThrowingAssertHandler();
   ScopedThrowingAssertHandler(const ScopedThrowingAssertHandler&) = delete;
   ScopedThrowingAssertHandler& operator=(const ScopedThrowingAssertHandler&) = delete;

 private:
   AssertHandler previous_;
};

}  // namespace Ulo

#define VEXLO_ASSERT(cond, text)                                         \
   do {                                                                  \
      if (!(cond)) [[unlikely]]                                          \
         ::Ulo::assertFailed((text), std::string(), __FILE__, __LINE__); \
   } while (0)

#define VEXLO_ASSERT_MSG(cond, text, ...)                                                 \
   do {                                                                                   \
      if (!(cond)) [[unlikely]]                                                           \
         ::Ulo::assertFailed((text), ::Ulo::joinPieces(__VA_ARGS__), __FILE__, __LINE__); \
   } while (0)

#define VEXLO_UNREACHABLE(message) \
   ::Ulo::assertFailed("unreachable", std::string(message), __FILE__, __LINE__)
