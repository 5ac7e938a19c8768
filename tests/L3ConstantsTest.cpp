// String forms of the constant enumerations, and the properties the constant tables promise.

#include "VexloL3Common/common/L3Constants.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace VexloL3Common {
namespace {

// Every value of E that has a name (of 0-255, or of the eight single bits) round-trips through
// it, and the names are distinct.
template <class E, class Parse>
std::vector<E> checkNamed(Parse parse, bool singleBits = false) {
   std::vector<E> named;
   std::set<std::string> names;
   for (unsigned i = 0; i < (singleBits ? 8u : 256u); ++i) {
      const E e = E(singleBits ? 1u << i : i);
      const std::string_view name = toString(e);
      if (name == "unknown") continue;
      named.push_back(e);
      EXPECT_TRUE(names.insert(std::string(name)).second) << "duplicate name " << name;
      EXPECT_EQ(parse(name), e) << name;
      EXPECT_EQ(fmt::format("{}", e), name);
   }
   return named;
}

TEST(L3ConstantsTest, EveryEnumeratorRoundTripsAndUnknownTextIsARangeError) {
   EXPECT_EQ(checkNamed<TrapPriority>(trapPriorityFromString).size(), 4u);
   EXPECT_EQ(checkNamed<L3TrapReason>(l3TrapReasonFromString).size(), 6u);
   EXPECT_EQ(checkNamed<EcmpHashMode>(ecmpHashModeFromString).size(), 4u);
   EXPECT_EQ(checkNamed<EcmpHashField>(ecmpHashFieldFromString, true).size(), 7u);
   try {
      ecmpHashModeFromString("FiveTuple");  // names are case-sensitive
      ADD_FAILURE() << "no range error";
   } catch (const std::range_error& e) {
      EXPECT_STREQ(e.what(), "Invalid EcmpHashMode \"FiveTuple\"");
   }
   EXPECT_THROW(trapPriorityFromString(""), std::range_error);
   EXPECT_THROW(l3TrapReasonFromString("glean "), std::range_error);
   EXPECT_THROW(ecmpHashFieldFromString("srcIp,dstIp"), std::range_error);
}

TEST(L3ConstantsTest, SwitchBoundControlOutranksEveryTransitException) {
   for (L3TrapReason r : checkNamed<L3TrapReason>(l3TrapReasonFromString)) {
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
   EXPECT_EQ(five & ip, ip);
   EXPECT_EQ(ecmpHashFields(EcmpHashMode::innerFiveTuple) & ~uint8_t(EcmpHashField::innerHeader),
             five);
   EXPECT_TRUE(
       hasField(ecmpHashFields(EcmpHashMode::srcDstIpFlowLabel), EcmpHashField::ipv6FlowLabel));
}

}  // namespace
}  // namespace VexloL3Common
