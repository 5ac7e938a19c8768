#include "platform/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Ulo {

namespace {

[[noreturn]] void abortingHandler(const char* text, const std::string& message, const char* file,
                                  int line) {
   std::fprintf(stderr, "Assertion failed: %s %s (%s:%d)\n", text, message.c_str(), file, line);
   std::fflush(stderr);
   std::abort();
}

void throwingHandler(const char* text, const std::string& message, const char* file, int line) {
   throw AssertionFailure(text, message, file, line);
}

AssertHandler currentHandler = abortingHandler;

}  // namespace

AssertionFailure::AssertionFailure(std::string t, std::string m, const char* f, int l)
    : text(std::move(t)), message(std::move(m)), file(f), line(l) {
   what_ = message.empty() ? text : text + " " + message;
}

AssertHandler assertHandlerIs(AssertHandler handler) {
   AssertHandler previous = currentHandler;
   currentHandler = handler ? handler : abortingHandler;
   return previous;
}

void assertFailed(const char* text, const std::string& message, const char* file, int line) {
   currentHandler(text, message, file, line);
   // A handler that returns would let a broken model go on.
   abortingHandler(text, message, file, line);
}

ScopedThrowingAssertHandler::ScopedThrowingAssertHandler()
    : previous_(assertHandlerIs(throwingHandler)) {}

ScopedThrowingAssertHandler::~ScopedThrowingAssertHandler() {
   assertHandlerIs(previous_);
}

}  // namespace Ulo
