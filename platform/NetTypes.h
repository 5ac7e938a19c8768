// Network value types of the platform layer.
//
// Synopsis
//   VrfId(5), VrfId::invalidVrfId()          VRF identifier; 0xffffff means "none"
//   AdjId, IntfId (Ethernet/Port-Channel/Vlan/Loopback/Vxlan), VlanId (0-4095)
//   AddressFamily::ipv4 / ipv6               numeric values 1 and 2
//   IpGenAddr                                IPv4 or IPv6 address
//   Prefix                                   IPv4 prefix; Prefix::nullPrefix() has length 255
//   Ip6Prefix                                IPv6 prefix; host bits are refused
//   IpGenPrefix                              either of the two
//   IpGenRouteKey                            multicast route key: group prefix and source prefix
//   EthAddr                                  MAC address
//
// Every type is a plain value with <=>, ==, std::hash, a {fmt} formatter, toString() and
// fromString(). Text that cannot be parsed, and values out of range, raise std::range_error and
// construct nothing: these types sit at the boundary where callers' input arrives.
//
// Single event-loop thread; the types hold no shared state.
#pragma once

#include <fmt/format.h>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Ulo {

// Hash mixer shared by the value types: feeds one value into a running seed.
constexpr size_t hashMix(size_t seed, uint64_t value) {
   uint64_t x = value + 0x9e3779b97f4a7c15ull + (uint64_t(seed) << 6) + (uint64_t(seed) >> 2);
   x ^= x >> 30;
   x *= 0xbf58476d1ce4e5b9ull;
   x ^= x >> 27;
   x *= 0x94d049bb133111ebull;
   x ^= x >> 31;
   return size_t(x ^ seed);
}

class VrfId {
 public:
   static constexpr uint32_t maxValue = 0xffffff;
   constexpr VrfId() = default;
   // Range error above 0xffffff.
   explicit VrfId(uint32_t value);
   static constexpr VrfId invalidVrfId() { return VrfId(maxValue, Unchecked{}); }
   constexpr uint32_t value() const { return value_; }
   constexpr bool isValid() const { return value_ != maxValue; }
   auto operator<=>(const VrfId&) const = default;
   std::string toString() const;
   static VrfId fromString(std::string_view text);

 private:
   struct Unchecked {};
   constexpr VrfId(uint32_t value, Unchecked) : value_(value) {}
   uint32_t value_ = 0;
};

class AdjId {
 public:
   constexpr AdjId() = default;
   constexpr explicit AdjId(uint32_t value) : value_(value) {}
   constexpr uint32_t value() const { return value_; }
   auto operator<=>(const AdjId&) const = default;
   std::string toString() const;
   static AdjId fromString(std::string_view text);

 private:
   uint32_t value_ = 0;
};

// An interface: the kind lives in the top byte, the number below it. Text forms "Ethernet7",
// "Port-Channel3", "Vlan10", "Loopback0", "Vxlan1"; the null interface prints as "".
class IntfId {
 public:
   enum class Kind : uint8_t { none = 0, ethernet, portChannel, vlan, loopback, vxlan };
   static constexpr uint32_t maxNumber = 0xffffff;

   constexpr IntfId() = default;
   constexpr explicit IntfId(uint32_t raw) : raw_(raw) {}
   // Range error when the number exceeds 0xffffff or the kind is none with a number.
   static IntfId make(Kind kind, uint32_t number);
   static IntfId ethernet(uint32_t n) { return make(Kind::ethernet, n); }
   static IntfId portChannel(uint32_t n) { return make(Kind::portChannel, n); }
   static IntfId vlan(uint32_t n) { return make(Kind::vlan, n); }

   constexpr uint32_t raw() const { return raw_; }
   constexpr Kind kind() const { return Kind(raw_ >> 24); }
   constexpr uint32_t number() const { return raw_ & maxNumber; }
   constexpr bool isPortChannel() const { return kind() == Kind::portChannel; }
   auto operator<=>(const IntfId&) const = default;
   std::string toString() const;
   static IntfId fromString(std::string_view text);

 private:
   uint32_t raw_ = 0;
};

inline bool isPortChannel(IntfId intf) {
   return intf.isPortChannel();
}

class VlanId {
 public:
   static constexpr uint16_t maxValue = 4095;
   constexpr VlanId() = default;
   // Range error above 4095.
   explicit VlanId(uint16_t value);
   constexpr uint16_t value() const { return value_; }
   auto operator<=>(const VlanId&) const = default;
   std::string toString() const;
   static VlanId fromString(std::string_view text);

 private:
   uint16_t value_ = 0;
};

enum class AddressFamily : uint8_t { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

// Range error "Invalid AddressFamily type" for any number other than 0, 1, 2.
AddressFamily addressFamilyFromInt(int value);
std::string_view toString(AddressFamily af);
AddressFamily addressFamilyFromString(std::string_view text);

// An address of either family. IPv4 addresses keep their four bytes at the front of the array in
// network order. A default address has the unknown family and prints as "".
class IpGenAddr {
 public:
   using Bytes = std::array<uint8_t, 16>;
   constexpr IpGenAddr() = default;
   // IPv4 from a host-order integer.
   static IpGenAddr v4(uint32_t hostOrder);
   static IpGenAddr v6(const Bytes& bytes);
   // Either family, chosen by the text.
   static IpGenAddr fromString(std::string_view text);

   AddressFamily af() const { return af_; }
   bool isV4() const { return af_ == AddressFamily::ipv4; }
   bool isV6() const { return af_ == AddressFamily::ipv6; }
   // Host-order IPv4 value; 0 for other families.
   uint32_t v4Addr() const;
   const Bytes& bytes() const { return bytes_; }
   bool isZero() const;
   auto operator<=>(const IpGenAddr&) const = default;
   std::string toString() const;

 private:
   AddressFamily af_ = AddressFamily::ipunknown;
   Bytes bytes_{};
};

// An IPv4 prefix. Lengths 0 to 32; the null prefix (address 0, length 255) marks an empty half of
// a TCAM entry. Host bits below the length are refused.
class Prefix {
 public:
   static constexpr uint8_t nullLen = 255;
   constexpr Prefix() = default;  // 0.0.0.0/0
   // Range error when len > 32 (other than the null prefix) or host bits are set.
   Prefix(uint32_t hostOrderAddr, uint8_t len);
   static constexpr Prefix nullPrefix() { return Prefix(0, nullLen, Unchecked{}); }
   static Prefix fromString(std::string_view text);

   constexpr uint32_t addr() const { return addr_; }
   constexpr uint8_t len() const { return len_; }
   constexpr bool isNullPrefix() const { return len_ == nullLen; }
   IpGenAddr address() const { return IpGenAddr::v4(addr_); }
   bool contains(uint32_t hostOrderAddr) const;
   auto operator<=>(const Prefix&) const = default;
   std::string toString() const;

 private:
   struct Unchecked {};
   constexpr Prefix(uint32_t a, uint8_t l, Unchecked) : addr_(a), len_(l) {}
   uint32_t addr_ = 0;
   uint8_t len_ = 0;
};

// An IPv6 prefix, lengths 0 to 128; host bits below the length are refused.
class Ip6Prefix {
 public:
   using Bytes = IpGenAddr::Bytes;
   constexpr Ip6Prefix() = default;  // ::/0
   Ip6Prefix(const Bytes& bytes, uint8_t len);
   static Ip6Prefix fromString(std::string_view text);

   const Bytes& bytes() const { return bytes_; }
   uint8_t len() const { return len_; }
   IpGenAddr address() const { return IpGenAddr::v6(bytes_); }
   bool contains(const Bytes& addr) const;
   auto operator<=>(const Ip6Prefix&) const = default;
   std::string toString() const;

 private:
   Bytes bytes_{};
   uint8_t len_ = 0;
};

// A prefix of either family; a default one has the unknown family.
class IpGenPrefix {
 public:
   constexpr IpGenPrefix() = default;
   IpGenPrefix(const Prefix& p);     // NOLINT: implicit on purpose, a prefix is a generic prefix
   IpGenPrefix(const Ip6Prefix& p);  // NOLINT
   static IpGenPrefix fromString(std::string_view text);

   AddressFamily af() const { return af_; }
   uint8_t len() const { return len_; }
   IpGenAddr address() const;
   Prefix v4Prefix() const;     // range error unless IPv4
   Ip6Prefix v6Prefix() const;  // range error unless IPv6
   auto operator<=>(const IpGenPrefix&) const = default;
   std::string toString() const;

 private:
   AddressFamily af_ = AddressFamily::ipunknown;
   IpGenAddr::Bytes bytes_{};
   uint8_t len_ = 0;
};

// A multicast route key: a group prefix and a source prefix. Its address family is the group's.
// Text form "group,source", e.g. "239.1.1.1/32,10.0.0.0/8".
class IpGenRouteKey {
 public:
   IpGenRouteKey() = default;
   IpGenRouteKey(const IpGenPrefix& group, const IpGenPrefix& source)
       : group_(group), source_(source) {}
   static IpGenRouteKey fromString(std::string_view text);

   const IpGenPrefix& group() const { return group_; }
   const IpGenPrefix& source() const { return source_; }
   AddressFamily af() const { return group_.af(); }
   auto operator<=>(const IpGenRouteKey&) const = default;
   std::string toString() const;

 private:
   IpGenPrefix group_;
   IpGenPrefix source_;
};

// Text form "00:1a:2b:3c:4d:5e"; parsing also takes "001a.2b3c.4d5e".
class EthAddr {
 public:
   using Bytes = std::array<uint8_t, 6>;
   constexpr EthAddr() = default;
   constexpr explicit EthAddr(const Bytes& b) : bytes_(b) {}
   static EthAddr fromString(std::string_view text);
   const Bytes& bytes() const { return bytes_; }
   auto operator<=>(const EthAddr&) const = default;
   std::string toString() const;

 private:
   Bytes bytes_{};
};

size_t hashValue(const IpGenAddr& a, size_t seed = 0);
size_t hashValue(const Prefix& p, size_t seed = 0);
size_t hashValue(const Ip6Prefix& p, size_t seed = 0);
size_t hashValue(const IpGenPrefix& p, size_t seed = 0);
size_t hashValue(const IpGenRouteKey& k, size_t seed = 0);
size_t hashValue(const EthAddr& e, size_t seed = 0);
inline size_t hashValue(VrfId v, size_t seed = 0) {
   return hashMix(seed, v.value());
}
inline size_t hashValue(AdjId v, size_t seed = 0) {
   return hashMix(seed, v.value());
}
inline size_t hashValue(IntfId v, size_t seed = 0) {
   return hashMix(seed, v.raw());
}
inline size_t hashValue(VlanId v, size_t seed = 0) {
   return hashMix(seed, v.value());
}

// {fmt} support for every type with toString(): "{}" prints its text form.
template <class T>
struct ToStringFormatter : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(const T& value, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(value.toString(), ctx);
   }
};

}  // namespace Ulo

// Small integer wrappers print as their number without building a string.
#define VEXLO_NUMBER_FORMATTER(T, getter)                                    \
   template <>                                                               \
   struct fmt::formatter<T> : fmt::formatter<uint32_t> {                     \
      template <class Ctx>                                                   \
      auto format(const T& v, Ctx& ctx) const {                              \
         return fmt::formatter<uint32_t>::format(uint32_t(v.getter()), ctx); \
      }                                                                      \
   }
VEXLO_NUMBER_FORMATTER(Ulo::VrfId, value);
VEXLO_NUMBER_FORMATTER(Ulo::AdjId, value);
VEXLO_NUMBER_FORMATTER(Ulo::VlanId, value);
#undef VEXLO_NUMBER_FORMATTER

template <>
struct fmt::formatter<Ulo::IntfId> : Ulo::ToStringFormatter<Ulo::IntfId> {};
template <>
struct fmt::formatter<Ulo::IpGenAddr> : Ulo::ToStringFormatter<Ulo::IpGenAddr> {};
template <>
struct fmt::formatter<Ulo::Prefix> : Ulo::ToStringFormatter<Ulo::Prefix> {};
template <>
struct fmt::formatter<Ulo::Ip6Prefix> : Ulo::ToStringFormatter<Ulo::Ip6Prefix> {};
template <>
struct fmt::formatter<Ulo::IpGenPrefix> : Ulo::ToStringFormatter<Ulo::IpGenPrefix> {};
template <>
struct fmt::formatter<Ulo::IpGenRouteKey> : Ulo::ToStringFormatter<Ulo::IpGenRouteKey> {};
template <>
struct fmt::formatter<Ulo::EthAddr> : Ulo::ToStringFormatter<Ulo::EthAddr> {};
template <>
struct fmt::formatter<Ulo::AddressFamily> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(Ulo::AddressFamily af, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(Ulo::toString(af), ctx);
   }
};

#define VEXLO_STD_HASH(T)                                                        \
   template <>                                                                   \
   struct std::hash<T> {                                                         \
      size_t operator()(const T& v) const noexcept { return Ulo::hashValue(v); } \
   }
VEXLO_STD_HASH(Ulo::VrfId);
VEXLO_STD_HASH(Ulo::AdjId);
VEXLO_STD_HASH(Ulo::IntfId);
VEXLO_STD_HASH(Ulo::VlanId);
VEXLO_STD_HASH(Ulo::IpGenAddr);
VEXLO_STD_HASH(Ulo::Prefix);
VEXLO_STD_HASH(Ulo::Ip6Prefix);
VEXLO_STD_HASH(Ulo::IpGenPrefix);
VEXLO_STD_HASH(Ulo::IpGenRouteKey);
VEXLO_STD_HASH(Ulo::EthAddr);
#undef VEXLO_STD_HASH
