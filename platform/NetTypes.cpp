#include "platform/NetTypes.h"

#include <arpa/inet.h>

#include <charconv>
#include <stdexcept>

namespace Ulo {

namespace {

[[noreturn]] void badText(std::string_view what, std::string_view text) {
   throw std::range_error(fmt::format("invalid {} \"{}\"", what, text));
}

// Whole-text unsigned decimal, or nothing.
template <class T>
bool parseNumber(std::string_view text, T& out) {
   if (text.empty()) return false;
   auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
   return ec == std::errc() && ptr == text.data() + text.size();
}

bool parseV4(std::string_view text, uint32_t& hostOrder) {
   if (text.size() > INET_ADDRSTRLEN) return false;
   std::string s(text);
   in_addr a{};
   if (inet_pton(AF_INET, s.c_str(), &a) != 1) return false;
   hostOrder = ntohl(a.s_addr);
   return true;
}

bool parseV6(std::string_view text, IpGenAddr::Bytes& bytes) {
   if (text.size() > INET6_ADDRSTRLEN) return false;
   std::string s(text);
   return inet_pton(AF_INET6, s.c_str(), bytes.data()) == 1;
}

// Splits "addr/len"; a missing "/len" is an error.
bool splitPrefix(std::string_view text, std::string_view& addr, unsigned& len) {
   size_t slash = text.find('/');
   if (slash == std::string_view::npos) return false;
   addr = text.substr(0, slash);
   return parseNumber(text.substr(slash + 1), len);
}

bool v6HostBitsClear(const IpGenAddr::Bytes& b, unsigned len) {
   for (unsigned i = 0; i < 16; ++i) {
      unsigned first = i * 8;  // first bit of this byte
      uint8_t hostMask = 0;
      if (len <= first)
         hostMask = 0xff;
      else if (len < first + 8)
         hostMask = uint8_t(0xffu >> (len - first));
      if (b[i] & hostMask) return false;
   }
   return true;
}

constexpr uint32_t v4Mask(unsigned len) {
   return len == 0 ? 0 : ~uint32_t(0) << (32 - len);
}

struct KindName {
   IntfId::Kind kind;
   std::string_view name;
};
constexpr KindName kindNames[] = {
    {IntfId::Kind::ethernet, "Ethernet"}, {IntfId::Kind::portChannel, "Port-Channel"},
    {IntfId::Kind::vlan, "Vlan"},         {IntfId::Kind::loopback, "Loopback"},
    {IntfId::Kind::vxlan, "Vxlan"},
};

}  // namespace

// ---- VrfId, AdjId, VlanId ----------------------------------------------------------------

VrfId::VrfId(uint32_t value) : value_(value) {
   if (value > maxValue) throw std::range_error(fmt::format("VrfId {} above {}", value, maxValue));
}

std::string VrfId::toString() const {
   return std::to_string(value_);
}

VrfId VrfId::fromString(std::string_view text) {
   uint32_t v = 0;
   if (!parseNumber(text, v)) badText("VrfId", text);
   return VrfId(v);
}

std::string AdjId::toString() const {
   return std::to_string(value_);
}

AdjId AdjId::fromString(std::string_view text) {
   uint32_t v = 0;
   if (!parseNumber(text, v)) badText("AdjId", text);
   return AdjId(v);
}

VlanId::VlanId(uint16_t value) : value_(value) {
   if (value > maxValue) throw std::range_error(fmt::format("VlanId {} above {}", value, maxValue));
}

std::string VlanId::toString() const {
   return std::to_string(value_);
}

VlanId VlanId::fromString(std::string_view text) {
   uint32_t v = 0;
   if (!parseNumber(text, v) || v > maxValue) badText("VlanId", text);
   return VlanId(uint16_t(v));
}

// ---- IntfId ------------------------------------------------------------------------------

IntfId IntfId::make(Kind kind, uint32_t number) {
   if (number > maxNumber)
      throw std::range_error(fmt::format("interface number {} too large", number));
   if (kind == Kind::none && number != 0) throw std::range_error("interface without a kind");
   if (uint8_t(kind) > uint8_t(Kind::vxlan)) throw std::range_error("unknown interface kind");
   return IntfId((uint32_t(kind) << 24) | number);
}

std::string IntfId::toString() const {
   for (const auto& kn : kindNames) {
      if (kn.kind == kind()) return fmt::format("{}{}", kn.name, number());
   }
   return raw_ == 0 ? std::string() : fmt::format("Intf0x{:x}", raw_);
}

IntfId IntfId::fromString(std::string_view text) {
   if (text.empty()) return IntfId();
   for (const auto& kn : kindNames) {
      if (text.substr(0, kn.name.size()) == kn.name) {
         uint32_t n = 0;
         if (!parseNumber(text.substr(kn.name.size()), n) || n > maxNumber) break;
         return make(kn.kind, n);
      }
   }
   badText("interface", text);
}

// ---- AddressFamily -----------------------------------------------------------------------

AddressFamily addressFamilyFromInt(int value) {
   if (value < 0 || value > 2) throw std::range_error("Invalid AddressFamily type");
   return AddressFamily(value);
}

std::string_view toString(AddressFamily af) {
   switch (af) {
      case AddressFamily::ipv4:
         return "ipv4";
      case AddressFamily::ipv6:
         return "ipv6";
      case AddressFamily::ipunknown:
         return "ipunknown";
   }
   return "ipunknown";
}

AddressFamily addressFamilyFromString(std::string_view text) {
   if (text == "ipv4") return AddressFamily::ipv4;
   if (text == "ipv6") return AddressFamily::ipv6;
   if (text == "ipunknown") return AddressFamily::ipunknown;
   throw std::range_error("Invalid AddressFamily type");
}

// ---- IpGenAddr ---------------------------------------------------------------------------

IpGenAddr IpGenAddr::v4(uint32_t hostOrder) {
   IpGenAddr a;
   a.af_ = AddressFamily::ipv4;
   a.bytes_[0] = uint8_t(hostOrder >> 24);
   a.bytes_[1] = uint8_t(hostOrder >> 16);
   a.bytes_[2] = uint8_t(hostOrder >> 8);
   a.bytes_[3] = uint8_t(hostOrder);
   return a;
}

IpGenAddr IpGenAddr::v6(const Bytes& bytes) {
   IpGenAddr a;
   a.af_ = AddressFamily::ipv6;
   a.bytes_ = bytes;
   return a;
}

IpGenAddr IpGenAddr::fromString(std::string_view text) {
   uint32_t v4addr = 0;
   if (parseV4(text, v4addr)) return v4(v4addr);
   Bytes b{};
   if (parseV6(text, b)) return v6(b);
   badText("address", text);
}

uint32_t IpGenAddr::v4Addr() const {
   if (!isV4()) return 0;
   return (uint32_t(bytes_[0]) << 24) | (uint32_t(bytes_[1]) << 16) | (uint32_t(bytes_[2]) << 8) |
          bytes_[3];
}

bool IpGenAddr::isZero() const {
   for (uint8_t b : bytes_) {
      if (b) return false;
   }
   return true;
}

std::string IpGenAddr::toString() const {
   char buf[INET6_ADDRSTRLEN] = {};
   if (isV4()) {
      inet_ntop(AF_INET, bytes_.data(), buf, sizeof buf);
      return buf;
   }
   if (isV6()) {
      inet_ntop(AF_INET6, bytes_.data(), buf, sizeof buf);
      return buf;
   }
   return std::string();
}

// ---- Prefix ------------------------------------------------------------------------------

Prefix::Prefix(uint32_t hostOrderAddr, uint8_t len) : addr_(hostOrderAddr), len_(len) {
   if (len == nullLen && hostOrderAddr == 0) return;
   if (len > 32) throw std::range_error(fmt::format("IPv4 prefix length {} above 32", len));
   if (hostOrderAddr & ~v4Mask(len)) {
      throw std::range_error(
          fmt::format("IPv4 prefix {}/{} has host bits set", IpGenAddr::v4(hostOrderAddr), len));
   }
}

Prefix Prefix::fromString(std::string_view text) {
   std::string_view addrText;
   unsigned len = 0;
   uint32_t a = 0;
   if (!splitPrefix(text, addrText, len) || !parseV4(addrText, a) || len > 32) {
      badText("IPv4 prefix", text);
   }
   return Prefix(a, uint8_t(len));
}

bool Prefix::contains(uint32_t hostOrderAddr) const {
   return !isNullPrefix() && ((hostOrderAddr ^ addr_) & v4Mask(len_)) == 0;
}

std::string Prefix::toString() const {
   return fmt::format("{}/{}", IpGenAddr::v4(addr_), len_);
}

// ---- Ip6Prefix ---------------------------------------------------------------------------

Ip6Prefix::Ip6Prefix(const Bytes& bytes, uint8_t len) : bytes_(bytes), len_(len) {
   if (len > 128) throw std::range_error(fmt::format("IPv6 prefix length {} above 128", len));
   if (!v6HostBitsClear(bytes, len)) {
      throw std::range_error(
          fmt::format("IPv6 prefix {}/{} has host bits set", IpGenAddr::v6(bytes), len));
   }
}

Ip6Prefix Ip6Prefix::fromString(std::string_view text) {
   std::string_view addrText;
   unsigned len = 0;
   Bytes b{};
   if (!splitPrefix(text, addrText, len) || !parseV6(addrText, b) || len > 128) {
      badText("IPv6 prefix", text);
   }
   return Ip6Prefix(b, uint8_t(len));
}

bool Ip6Prefix::contains(const Bytes& addr) const {
   unsigned full = len_ / 8;
   for (unsigned i = 0; i < full; ++i) {
      if (addr[i] != bytes_[i]) return false;
   }
   unsigned rest = len_ % 8;
   if (rest == 0) return true;
   uint8_t mask = uint8_t(0xffu << (8 - rest));
   return (addr[full] & mask) == bytes_[full];
}

std::string Ip6Prefix::toString() const {
   return fmt::format("{}/{}", IpGenAddr::v6(bytes_), len_);
}

// ---- IpGenPrefix -------------------------------------------------------------------------

IpGenPrefix::IpGenPrefix(const Prefix& p)
    : af_(AddressFamily::ipv4), bytes_(p.address().bytes()), len_(p.len()) {}

IpGenPrefix::IpGenPrefix(const Ip6Prefix& p)
    : af_(AddressFamily::ipv6), bytes_(p.bytes()), len_(p.len()) {}

IpGenPrefix IpGenPrefix::fromString(std::string_view text) {
   if (text.find(':') != std::string_view::npos) return Ip6Prefix::fromString(text);
   return Prefix::fromString(text);
}

IpGenAddr IpGenPrefix::address() const {
   if (af_ == AddressFamily::ipv4) return IpGenAddr::v4(v4Prefix().addr());
   if (af_ == AddressFamily::ipv6) return IpGenAddr::v6(bytes_);
   return IpGenAddr();
}

Prefix IpGenPrefix::v4Prefix() const {
   if (af_ != AddressFamily::ipv4) throw std::range_error("not an IPv4 prefix");
   uint32_t a = (uint32_t(bytes_[0]) << 24) | (uint32_t(bytes_[1]) << 16) |
                (uint32_t(bytes_[2]) << 8) | bytes_[3];
   return Prefix(a, len_);
}

Ip6Prefix IpGenPrefix::v6Prefix() const {
   if (af_ != AddressFamily::ipv6) throw std::range_error("not an IPv6 prefix");
   return Ip6Prefix(bytes_, len_);
}

std::string IpGenPrefix::toString() const {
   if (af_ == AddressFamily::ipv4) return v4Prefix().toString();
   if (af_ == AddressFamily::ipv6) return v6Prefix().toString();
   return std::string();
}

// ---- IpGenRouteKey -----------------------------------------------------------------------

IpGenRouteKey IpGenRouteKey::fromString(std::string_view text) {
   size_t comma = text.find(',');
   if (comma == std::string_view::npos) badText("multicast route key", text);
   IpGenPrefix group = IpGenPrefix::fromString(text.substr(0, comma));
   IpGenPrefix source = IpGenPrefix::fromString(text.substr(comma + 1));
   if (group.af() != source.af()) badText("multicast route key (mixed families)", text);
   return IpGenRouteKey(group, source);
}

std::string IpGenRouteKey::toString() const {
   return fmt::format("{},{}", group_.toString(), source_.toString());
}

// ---- EthAddr -----------------------------------------------------------------------------

EthAddr EthAddr::fromString(std::string_view text) {
   auto hex = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
   };
   std::string digits;
   if (text.size() == 17) {  // aa:bb:cc:dd:ee:ff
      for (size_t i = 0; i < 17; ++i) {
         if (i % 3 == 2) {
            if (text[i] != ':' && text[i] != '-') badText("MAC address", text);
         } else {
            digits.push_back(text[i]);
         }
      }
   } else if (text.size() == 14) {  // aabb.ccdd.eeff
      for (size_t i = 0; i < 14; ++i) {
         if (i % 5 == 4) {
            if (text[i] != '.') badText("MAC address", text);
         } else {
            digits.push_back(text[i]);
         }
      }
   } else {
      badText("MAC address", text);
   }
   Bytes b{};
   for (size_t i = 0; i < 6; ++i) {
      int hi = hex(digits[2 * i]), lo = hex(digits[2 * i + 1]);
      if (hi < 0 || lo < 0) badText("MAC address", text);
      b[i] = uint8_t(hi * 16 + lo);
   }
   return EthAddr(b);
}

std::string EthAddr::toString() const {
   return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", bytes_[0], bytes_[1], bytes_[2],
                      bytes_[3], bytes_[4], bytes_[5]);
}

// ---- hashes ------------------------------------------------------------------------------

namespace {
size_t hashBytes(const uint8_t* data, size_t n, size_t seed) {
   uint64_t word = 0;
   for (size_t i = 0; i < n; ++i) {
      word = (word << 8) | data[i];
      if (i % 8 == 7) {
         seed = hashMix(seed, word);
         word = 0;
      }
   }
   if (n % 8) seed = hashMix(seed, word);
   return seed;
}
}  // namespace

size_t hashValue(const IpGenAddr& a, size_t seed) {
   return hashBytes(a.bytes().data(), 16, hashMix(seed, uint64_t(a.af())));
}
size_t hashValue(const Prefix& p, size_t seed) {
   return hashMix(seed, (uint64_t(p.addr()) << 8) | p.len());
}
size_t hashValue(const Ip6Prefix& p, size_t seed) {
   return hashBytes(p.bytes().data(), 16, hashMix(seed, p.len()));
}
size_t hashValue(const IpGenPrefix& p, size_t seed) {
   return hashValue(p.address(), hashMix(seed, p.len()));
}
size_t hashValue(const IpGenRouteKey& k, size_t seed) {
   return hashValue(k.source(), hashValue(k.group(), seed));
}
size_t hashValue(const EthAddr& e, size_t seed) {
   return hashBytes(e.bytes().data(), 6, seed);
}

}  // namespace Ulo
