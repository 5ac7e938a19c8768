#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "platform/NetTypes.h"
#include "platform/VersionId.h"

using namespace Ulo;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

template <class T>
void expectRoundTrips(std::initializer_list<const char*> texts) {
   for (const char* text : texts)
      EXPECT_EQ(T::fromString(text).toString(), text);
}

template <class Parse>
void expectRangeErrors(Parse parse, std::initializer_list<const char*> texts) {
   for (const char* text : texts)
      EXPECT_THROW(parse(text), std::range_error) << text;
}

}  // namespace

TEST(NetTypes, TextFormsRoundTrip) {
   expectRoundTrips<Prefix>({"0.0.0.0/0", "10.0.0.0/8", "192.168.1.0/24", "1.2.3.4/32"});
   expectRoundTrips<Ip6Prefix>({"::/0", "2001:db8::/32", "2001:db8:0:1::/64", "fe80::1/128"});
   expectRoundTrips<IpGenAddr>({"10.1.2.3", "::", "2001:db8::7"});
   expectRoundTrips<IntfId>({"Ethernet7", "Port-Channel3", "Vlan10", "Loopback0", "Vxlan1"});
   expectRoundTrips<IpGenRouteKey>({"239.1.1.1/32,10.0.0.0/8"});
   EXPECT_EQ(EthAddr::fromString("00:1A:2b:3c:4d:5e").toString(), "00:1a:2b:3c:4d:5e");
   EXPECT_EQ(EthAddr::fromString("001a.2b3c.4d5e").toString(), "00:1a:2b:3c:4d:5e");
   EXPECT_EQ(fmt::format("{} {} {} {} {}", VrfId(3), AdjId(9), VlanId(10), VrfId::fromString("42"),
                         VlanId::fromString("4095")),
             "3 9 10 42 4095");
   EXPECT_EQ(fmt::format("{}", AddressFamily::ipv6), "ipv6");
}

TEST(NetTypes, BadTextIsARangeError) {
   expectRangeErrors(Prefix::fromString, {"", "10.0.0.0", "10.0.0.0/33", "10.0.0/8", "10.0.0.1/8",
                                          "x/8", "10.0.0.0/8/", "10.0.0.0/-1", "2001:db8::/32"});
   expectRangeErrors(Ip6Prefix::fromString,
                     {"2001:db8::1/64", "::/129", "1.2.3.4/8", "2001:db8::", "::/"});
   expectRangeErrors(IpGenAddr::fromString, {"1.2.3", "1.2.3.4.5", "gg::1", " 1.2.3.4"});
   expectRangeErrors(VrfId::fromString, {"16777216", "-1"});
   expectRangeErrors(VlanId::fromString, {"4096"});
   expectRangeErrors(IntfId::fromString, {"Ethernet", "Tunnel1"});
   expectRangeErrors(EthAddr::fromString, {"00:11:22:33:44", "00:11:22:33:44:zz"});
   expectRangeErrors(IpGenRouteKey::fromString, {"239.1.1.1/32,::/0"});
   for (int af : {3, 7})
      EXPECT_THAT([=] { addressFamilyFromInt(af); },
                  ThrowsMessage<std::range_error>(StrEq("Invalid AddressFamily type")));
}

TEST(NetTypes, PrefixesRefuseHostBitsButKeepTheNullPrefix) {
   EXPECT_THROW(Ip6Prefix(IpGenAddr::fromString("2001:db8::1").bytes(), 64), std::range_error);
   EXPECT_THROW(Ip6Prefix(IpGenAddr::fromString("2001:db8:0:0:8000::").bytes(), 64),
                std::range_error);
   EXPECT_NO_THROW(Ip6Prefix(IpGenAddr::fromString("2001:db8:0:0:8000::").bytes(), 65));
   EXPECT_THROW(Prefix(0x0a000001, 31), std::range_error);
   EXPECT_THROW(Prefix(0, 33), std::range_error);
   EXPECT_THROW(Prefix(1, 255), std::range_error);  // only address 0 may carry the null length
   Prefix null = Prefix::nullPrefix();
   EXPECT_TRUE(null.isNullPrefix());
   EXPECT_EQ(Prefix(0, 255), null);
   EXPECT_FALSE(Prefix().isNullPrefix()) << "a default prefix is 0.0.0.0/0, not the null prefix";
   EXPECT_FALSE(null.contains(0));
}

TEST(NetTypes, ContainmentFollowsTheLength) {
   Prefix p = Prefix::fromString("10.0.0.0/8");
   EXPECT_TRUE(p.contains(0x0affffff));
   EXPECT_FALSE(p.contains(0x0b000000));
   EXPECT_TRUE(Prefix().contains(0xffffffff));
   Ip6Prefix p6 = Ip6Prefix::fromString("2001:db8:8000::/33");
   EXPECT_TRUE(p6.contains(IpGenAddr::fromString("2001:db8:ffff::1").bytes()));
   EXPECT_FALSE(p6.contains(IpGenAddr::fromString("2001:db8:7fff::1").bytes()));
}

TEST(NetTypes, SpecialValuesAndPortChannels) {
   EXPECT_EQ(VrfId::invalidVrfId().value(), 0xffffffu);
   EXPECT_FALSE(VrfId::invalidVrfId().isValid());
   EXPECT_TRUE(VrfId(0).isValid());
   EXPECT_TRUE(isPortChannel(IntfId::portChannel(5)));
   EXPECT_FALSE(isPortChannel(IntfId::ethernet(5)));
   EXPECT_FALSE(IntfId().isPortChannel());
   EXPECT_EQ(IntfId().toString(), "");
   EXPECT_EQ(IpGenAddr().af(), AddressFamily::ipunknown);
   EXPECT_EQ(IpGenRouteKey::fromString("ff02::1/128,::/0").af(), AddressFamily::ipv6);
   EXPECT_EQ(IpGenPrefix::fromString("10.0.0.0/8").v4Prefix(), Prefix::fromString("10.0.0.0/8"));
   EXPECT_THROW(IpGenPrefix::fromString("10.0.0.0/8").v6Prefix(), std::range_error);
}

TEST(NetTypes, OrderingAndHashing) {
   // IPv4 addresses sort numerically, and all IPv4 before all IPv6.
   EXPECT_LT(IpGenAddr::fromString("9.255.255.255"), IpGenAddr::fromString("10.0.0.0"));
   EXPECT_LT(IpGenAddr::fromString("255.255.255.255"), IpGenAddr::fromString("::"));
   EXPECT_LT(Prefix::fromString("10.0.0.0/8"), Prefix::fromString("10.0.0.0/9"));
   EXPECT_NE(std::hash<Prefix>()(Prefix::fromString("10.0.0.0/8")),
             std::hash<Prefix>()(Prefix::fromString("10.0.0.0/9")));
}

TEST(UloPdVersionId, RefusesTheTwoReservedValuesWithTheExactText) {
   for (uint64_t good : {0ull, 0x7FFFFFFFFFFFFFFEull, 0x8000000000000000ull})
      EXPECT_EQ(UloPdVersionId(good).version(), good);
   for (uint64_t bad : {0x7FFFFFFFFFFFFFFFull, 0xFFFFFFFFFFFFFFFFull}) {
      EXPECT_THAT([=] { (void)UloPdVersionId(bad); },
                  ThrowsMessage<std::range_error>(
                      StrEq("Ulo::UloPdVersionId::version < 0 or > Ulo::UloPdVersionId::maxVersion "
                            "not allowed")));
   }
   EXPECT_EQ(UloPdVersionId::fromString("12").version(), 12u);
   expectRangeErrors(UloPdVersionId::fromString, {"18446744073709551615", "abc", "12x"});
}
