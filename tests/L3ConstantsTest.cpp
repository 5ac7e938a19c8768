// String forms of the constant enumerations, and the properties the constant tables promise.

#include "VexloL3Common/L3Constants.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace VexloL3Common {
namespace {

// Every value of E that has a name round-trips through it, and the names are distinct.
template <class E, class Parse>
std::vector<E> checkNamed(const std::vector<unsigned>& candidates, Parse parse) {
   std::vector<E> named;
   std::set<std::string> names;
   for (unsigned raw : candidates) {
      const E e = E(raw);
      const std::string_view name = toString(e);
      if (name == "unknown") continue;
      named.push_back(e);
      EXPECT_TRUE(names.insert(std::string(name)).second) << "duplicate name " << name;
      EXPECT_EQ(parse(name), e) << name;
      EXPECT_EQ(fmt::format("{}", e), name);
   }
   return named;
}

std::vector<unsigned> upTo(unsigned n) {
   std::vector<unsigned> v;
   for (unsigned i = 0; i < n; ++i)
      v.push_back(i);
   return v;
}

TEST(L3ConstantsTest, EveryEnumeratorRoundTripsThroughItsName) {
   EXPECT_EQ(checkNamed<TrapPriority>(upTo(256), trapPriorityFromString).size(), 4u);
   EXPECT_EQ(checkNamed<L3TrapReason>(upTo(256), l3TrapReasonFromString).size(), 6u);
   EXPECT_EQ(checkNamed<EcmpHashMode>(upTo(256), ecmpHashModeFromString).size(), 4u);
   std::vector<unsigned> bits;
   for (unsigned b = 0; b < 8; ++b)
      bits.push_back(1u << b);
   EXPECT_EQ(checkNamed<EcmpHashField>(bits, ecmpHashFieldFromString).size(), 7u);
}

TEST(L3ConstantsTest, UnknownTextIsARangeError) {
   try {
      ecmpHashModeFromString("FiveTuple");  // names are case-sensitive
      FAIL() << "no range error";
   } catch (const std::range_error& e) {
      EXPECT_STREQ(e.what(), "Invalid EcmpHashMode \"FiveTuple\"");
   }
   EXPECT_THROW(trapPriorityFromString(""), std::range_error);
   EXPECT_THROW(l3TrapReasonFromString("glean "), std::range_error);
   EXPECT_THROW(ecmpHashFieldFromString("srcIp,dstIp"), std::range_error);
}

TEST(L3ConstantsTest, SwitchBoundControlOutranksEveryTransitException) {
   const auto reasons = checkNamed<L3TrapReason>(upTo(256), l3TrapReasonFromString);
   for (L3TrapReason r : reasons) {
      if (r == L3TrapReason::l3Receive) continue;
      EXPECT_GT(trapPriority(L3TrapReason::l3Receive), trapPriority(r)) << toString(r);
      if (r != L3TrapReason::glean) {
         EXPECT_GT(trapPriority(L3TrapReason::glean), trapPriority(r)) << toString(r);
      }
   }
}

TEST(L3ConstantsTest, HashModesNestTheirFields) {
   const uint8_t ip = ecmpHashFields(EcmpHashMode::srcDstIp);
   const uint8_t five = ecmpHashFields(EcmpHashMode::fiveTuple);
   const uint8_t inner = ecmpHashFields(EcmpHashMode::innerFiveTuple);
   EXPECT_EQ(five & ip, ip);
   EXPECT_EQ(inner & ~uint8_t(EcmpHashField::innerHeader), five);
   EXPECT_TRUE(
       hasField(ecmpHashFields(EcmpHashMode::srcDstIpFlowLabel), EcmpHashField::ipv6FlowLabel));
}

}  // namespace
}  // namespace VexloL3Common
