#include "sim/Quote.h"

#include <fmt/format.h>

namespace VexloL3Common::sim {

namespace {

bool isPrintable(unsigned char c) {
   return c >= 0x20 && c < 0x7f;
}

// Appends c, escaped when it is not printable; false (and nothing appended) when that would take
// the text past maxChars.
bool append(std::string& out, unsigned char c, size_t maxChars) {
   const size_t width = isPrintable(c) ? 1 : 4;
   if (out.size() + width > maxChars) return false;
   if (width == 1) {
      out += char(c);
   } else {
      out += fmt::format("\\x{:02x}", c);
   }
   return true;
}

}  // namespace

std::string clipped(std::string_view text, size_t maxChars) {
   std::string out;
   for (size_t i = 0; i < text.size(); ++i) {
      if (!append(out, static_cast<unsigned char>(text[i]), maxChars)) return out + "...";
   }
   return out;
}

std::string printable(std::string_view text) {
   return clipped(text, std::string::npos);
}

}  // namespace VexloL3Common::sim
