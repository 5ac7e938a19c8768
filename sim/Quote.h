// Quoting text that came from outside (a route file, an option) into a one-line message: at most
// `maxChars` characters of it, bytes that are not printable ASCII escaped as \xNN, and "..." when
// it was cut. A 10 MB line or binary junk then costs one short, harmless line on a terminal.
//
// Synopsis
//   clipped("10.0.0.0/33")           "10.0.0.0/33"
//   clipped("ab\x01")                "ab\x01" (the four characters backslash, x, 0, 1)
//   clipped(std::string(100, 'a'))   60 'a' followed by "..."
//
// Plain functions; nothing is shared between threads.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

namespace VexloL3Common::sim {

inline constexpr size_t maxQuotedChars = 60;

std::string clipped(std::string_view text, size_t maxChars = maxQuotedChars);
// Every byte that is not printable ASCII escaped, nothing cut: for whole messages.
std::string printable(std::string_view text);

// For message arguments: text is clipped, anything else (a number) passes as it is.
template <class T>
decltype(auto) clippedIfText(const T& v) {
   if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      return clipped(v);
   } else {
      return (v);
   }
}

}  // namespace VexloL3Common::sim
