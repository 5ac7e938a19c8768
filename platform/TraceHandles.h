// The trace handles that exist, for a tool that checks a trace configuration against them
// before applying it (an unknown handle there is a typing error, not a handle created later).
//
// Synopsis
//   std::vector<std::string> names = Ulo::Trace::handleNames();   sorted, each once
//
// Single event-loop thread, as the rest of the trace facility.
#pragma once

#include <string>
#include <vector>

namespace Ulo::Trace {

std::vector<std::string> handleNames();

}  // namespace Ulo::Trace
