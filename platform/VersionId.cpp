#include "platform/VersionId.h"

#include <charconv>
#include <stdexcept>

namespace Ulo {

UloPdVersionId::UloPdVersionId(uint64_t version) : version_(version) {
   if (!isValid(version)) throw std::range_error(rangeErrorText);
}

UloPdVersionId UloPdVersionId::fromString(std::string_view text) {
   uint64_t v = 0;
   auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
   if (text.empty() || ec != std::errc() || ptr != text.data() + text.size()) {
      throw std::range_error(rangeErrorText);
   }
   return UloPdVersionId(v);
}

}  // namespace Ulo
