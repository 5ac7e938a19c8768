// A placement weight table in text, for trying `weighted` placement with a table's own mix of
// prefix lengths instead of the built-in Internet-like one.
//
// Synopsis
//   PlacementWeights w = readWeightsText(text, "mix.weights");   InputError "mix.weights:LINE: ..."
//   std::string text = weightsText(PlacementWeights::internetLike());   what readWeightsText reads
//
// Text form, one weight per line; '#' starts a comment that runs to the end of the line; blank
// lines and surrounding blanks are ignored; words are separated by blanks:
//   FAMILY /LENGTH WEIGHT        "v4 /24 38", "v6 /48 20"
// FAMILY is v4 (lengths /0-/32) or v6 (/0-/128); WEIGHT a whole number from 0 to 1000000000, in any
// unit (only the proportions count). The file replaces the built-in table whole: a length it does
// not name weighs 0, which placement counts as the smallest share. A length named twice is an
// error, and so is a file that names none.
//
// Errors quote at most 60 characters of the offending text (sim/Quote.h); nothing is returned
// from a file with an error.
//
// Plain functions; nothing is shared between threads.
#pragma once

#include <string>
#include <string_view>

#include "VexloL3Common/tcam/L3TcamPlacement.h"

namespace VexloL3Common::sim {

inline constexpr uint32_t maxPlacementWeight = 1'000'000'000;

PlacementWeights readWeightsText(std::string_view text, std::string_view name);
// Every nonzero weight, v4 then v6, shortest length first.
std::string weightsText(const PlacementWeights& w);

}  // namespace VexloL3Common::sim
