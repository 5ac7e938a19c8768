// The forwarding-abstraction layer's route-programming version number.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace Ulo {

// An unsigned 64-bit version. 0x7FFFFFFFFFFFFFFF and 0xFFFFFFFFFFFFFFFF are reserved by the layer
// and refused with a range error; every other value is a version.
class UloPdVersionId {
 public:
   static constexpr uint64_t maxVersion = 0x7FFFFFFFFFFFFFFEull;
   static constexpr const char* rangeErrorText =
       "Ulo::UloPdVersionId::version < 0 or > Ulo::UloPdVersionId::maxVersion not allowed";

   constexpr UloPdVersionId() = default;
   explicit UloPdVersionId(uint64_t version);
   static bool isValid(uint64_t version) {
      return version != 0x7FFFFFFFFFFFFFFFull && version != 0xFFFFFFFFFFFFFFFFull;
   }
   static UloPdVersionId fromString(std::string_view text);

   constexpr uint64_t version() const { return version_; }
   auto operator<=>(const UloPdVersionId&) const = default;
   std::string toString() const { return std::to_string(version_); }

 private:
   uint64_t version_ = 0;
};

}  // namespace Ulo

template <>
struct fmt::formatter<Ulo::UloPdVersionId> : fmt::formatter<uint64_t> {
   template <class Ctx>
   auto format(const Ulo::UloPdVersionId& v, Ctx& ctx) const {
      return fmt::formatter<uint64_t>::format(v.version(), ctx);
   }
};

template <>
struct std::hash<Ulo::UloPdVersionId> {
   size_t operator()(const Ulo::UloPdVersionId& v) const noexcept {
      return std::hash<uint64_t>()(v.version());
   }
};
