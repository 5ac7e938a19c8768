// Joining of message pieces, shared by trace lines and assertion messages.
//
// A line is built from pieces in order, each formatted with {fmt}'s "{}", with nothing between
// them: joinPieces("len: ", 24, ", pos: ", 7) is "len: 24, pos: 7". Bools print as true/false.
#pragma once

#include <fmt/format.h>

#include <string>

namespace Ulo {

template <class... Pieces>
void appendPieces(fmt::memory_buffer& out, const Pieces&... pieces) {
   (fmt::format_to(std::back_inserter(out), "{}", pieces), ...);
}

template <class... Pieces>
std::string joinPieces(const Pieces&... pieces) {
   fmt::memory_buffer out;
   appendPieces(out, pieces...);
   return fmt::to_string(out);
}

inline std::string joinPieces() {
   return std::string();
}

}  // namespace Ulo
