// Route text and files: the three families and the multicast key lengths, every kind of bad line
// with its line number and one-line message, duplicates, traces, and the round trip of a
// generated table through the text form.

#include "sim/Route.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sim/Quote.h"
#include "sim/SyntheticTable.h"

namespace VexloL3Common::sim {
namespace {

Route v4(const char* prefix, uint32_t vrf = 0) {
   return Route::of(Ipv4UcastKey(VrfId(vrf), Ulo::Prefix::fromString(prefix)));
}
Route mc(const char* group, const char* source, uint8_t len, uint16_t vrf = 0, uint16_t t = 0) {
   return Route::of(IpMcastPrefixKey(vrf, t, Ulo::IpGenAddr::fromString(group),
                                     Ulo::IpGenAddr::fromString(source), len));
}

// The InputError text of reading `text`, or "" when it reads.
template <class Reader>
std::string errorOf(Reader read, const std::string& text, const char* name) {
   std::istringstream in(text);
   try {
      read(in, name);
   } catch (const InputError& e) {
      return e.what();
   }
   return "";
}
std::string tableError(const std::string& text) {
   return errorOf(readRouteTable, text, "t.routes");
}

// Each form parses to its key (multicast lengths count group then source bits) and prints back
// in its shortest spelling.
TEST(RouteText, FormsParseToTheirKeysAndPrintShortest) {
   const struct {
      const char* text;
      Route route;
      const char* shortest;
   } cases[] = {
       {"10.1.0.0/16", v4("10.1.0.0/16"), "10.1.0.0/16"},
       {"vrf 3 10.1.0.0/16", v4("10.1.0.0/16", 3), "vrf 3 10.1.0.0/16"},
       {"vrf \t3   0.0.0.0/0", v4("0.0.0.0/0", 3), "vrf 3 0.0.0.0/0"},
       {"vrf 7 2001:db8::/32",
        Route::of(Ipv6UcastKey(VrfId(7), Ulo::Ip6Prefix::fromString("2001:db8::/32"))),
        "vrf 7 2001:db8::/32"},
       {"mcast 239.0.0.0/8", mc("239.0.0.0", "0.0.0.0", 8), "mcast 239.0.0.0/8"},
       {"mcast 232.1.1.1/32", mc("232.1.1.1", "0.0.0.0", 32), "mcast 232.1.1.1"},
       {"mcast 232.1.1.1 10.0.0.0/8", mc("232.1.1.1", "10.0.0.0", 40),
        "mcast 232.1.1.1 10.0.0.0/8"},
       {"mcast 232.1.1.1 10.0.0.1/32", mc("232.1.1.1", "10.0.0.1", 64), "mcast 232.1.1.1 10.0.0.1"},
       {"mcast table 9 vrf 5 232.1.1.1 10.0.0.1", mc("232.1.1.1", "10.0.0.1", 64, 5, 9),
        "mcast vrf 5 table 9 232.1.1.1 10.0.0.1"},
       {"mcast 224.0.0.0/4", mc("224.0.0.0", "0.0.0.0", 4), "mcast 224.0.0.0/4"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.text);
      EXPECT_EQ(parseRoute(c.text), c.route);
      EXPECT_EQ(c.route.toString(), c.shortest);
   }
}

TEST(RouteFile, EachErrorReportsItsLineAndOneLineMessage) {
   const std::pair<const char*, const char*> cases[] = {
       {"10.1.0.0/33", "bad prefix '10.1.0.0/33': length 33 is past /32"},
       {"10.1.0.0/8", "bad prefix '10.1.0.0/8': host bits set below /8"},
       {"2001:db8::1/32", "bad prefix '2001:db8::1/32': host bits set below /32"},
       {"2001:db8::/129", "bad prefix '2001:db8::/129': length 129 is past /128"},
       {"10.1.0/16", "bad prefix '10.1.0/16': '10.1.0' is not an IPv4 address"},
       {"10.1.0.0", "bad prefix '10.1.0.0': no /LEN after the address"},
       {"10.1.0.0/x", "bad prefix '10.1.0.0/x': length 'x' is not a number"},
       {"foo 10.0.0.0/8", "unknown word 'foo'"},
       {"vrf x 10.0.0.0/8", "'vrf' needs a number, not 'x'"},
       {"vrf 3", "missing prefix after 'vrf 3'"},
       {"vrf 16777215 10.0.0.0/8", "VRF 16777215 is the invalid VRF"},
       {"vrf 16777216 10.0.0.0/8", "bad VRF '16777216': VrfId 16777216 above 16777215"},
       {"10.0.0.0/8 10.1.0.0/16", "unexpected '10.1.0.0/16' after the route"},
       {"mcast", "missing multicast group"},
       {"mcast 10.0.0.0", "multicast group 10.0.0.0 is not in 224.0.0.0/4"},
       {"mcast 224.0.0.0/3", "multicast group 224.0.0.0/3 is not in 224.0.0.0/4"},
       {"mcast ff02::1", "multicast group 'ff02::1' is not IPv4"},
       {"mcast 239.0.0.0/8 10.0.0.1", "a source needs a /32 group, not 239.0.0.0/8"},
       {"mcast 232.1.1.1 10.0.0.1/8", "bad prefix '10.0.0.1/8': host bits set below /8"},
       {"mcast vrf 65536 232.1.1.1", "multicast vrf 65536 is not below 65536"},
       {"mcast table 1 table 2 232.1.1.1", "'table' given twice"},
       {"mcast 232.1.1.1 10.0.0.1 extra", "unexpected 'extra' after the route"},
   };
   for (const auto& [line, message] : cases) {
      SCOPED_TRACE(line);
      std::string file = "# header\n\n  \t\n# more\n10.0.0.0/8   # first\n\n" + std::string(line) +
                         "\n10.2.0.0/16\n";
      EXPECT_EQ(tableError(file), std::string("t.routes:7: ") + message);
      try {
         parseRoute(line);
         ADD_FAILURE() << "parsed";
      } catch (const std::invalid_argument& e) {
         EXPECT_STREQ(e.what(), message);
      }
   }
}

// A line of any length or content costs one short printable message: 60 characters of it at
// most, bytes outside printable ASCII escaped (an escape never cut in half).
TEST(RouteFile, OffendingTextIsQuotedShortAndEscaped) {
   const std::pair<std::string, std::string> cases[] = {
       {std::string(100000, 'x'), "unknown word '" + std::string(60, 'x') + "...'"},
       {std::string("\x01\x1b[31m\xff/8", 9), "bad prefix '\\x01\\x1b[31m\\xff/8': "},
       {"vrf " + std::string(70, '9') + " 10.0.0.0/8",
        "'vrf' needs a number, not '" + std::string(60, '9') + "...'"},
       {std::string(58, 'y') + "\x7f", "unknown word '" + std::string(58, 'y') + "...'"},
   };
   for (const auto& [line, message] : cases) {
      SCOPED_TRACE(message);
      const std::string e = tableError(line + "\n");
      EXPECT_EQ(e.substr(0, 12 + message.size()), "t.routes:1: " + message);
      EXPECT_LT(e.size(), 200u);
      EXPECT_TRUE(std::all_of(e.begin(), e.end(), [](char c) { return c >= 0x20 && c < 0x7f; }));
   }
   EXPECT_EQ(clipped(std::string(60, 'a')), std::string(60, 'a'));
   EXPECT_EQ(printable("a\nb"), "a\\x0ab");
}

TEST(RouteFile, DuplicateRouteNamesTheFirstLineEvenWhenSpelledDifferently) {
   EXPECT_EQ(tableError("10.0.0.0/8\nvrf 1 10.0.0.0/8\n\nvrf 0 10.0.0.0/8\n"),
             "t.routes:4: duplicate route, first on line 1");
   EXPECT_EQ(tableError("# g\nmcast 232.1.1.1\nmcast 232.1.1.1/32 0.0.0.0/0\n"),
             "t.routes:3: duplicate route, first on line 2");
}

TEST(RouteFile, CommentsBlanksAndCarriageReturnsAreIgnored) {
   std::istringstream in("# c\r\n  10.0.0.0/8\t# x\r\n\r\n#\nvrf 2 10.0.0.0/8");
   EXPECT_EQ(readRouteTable(in, "t"), (std::vector<Route>{v4("10.0.0.0/8"), v4("10.0.0.0/8", 2)}));
   std::ifstream missing("/nonexistent/dir/t.routes");
   EXPECT_THROW(readRouteTable(missing, "t.routes"), InputError);
}

TEST(RouteTrace, OperationsKeepKindRouteAndLine) {
   std::istringstream in(
       "add 10.0.0.0/8\n# c\ndel   10.0.0.0/8 \nadd 10.0.0.0/8\nadd mcast 239.0.0.0/8\n");
   std::vector<std::string> ops;
   for (const RouteOp& op : readTrace(in, "t.trace")) {
      bool add = op.kind == RouteOp::Kind::add;
      ops.push_back(fmt::format("{} {} @{}", add ? "add" : "del", op.route.toString(), op.line));
   }
   EXPECT_EQ(ops, (std::vector<std::string>{"add 10.0.0.0/8 @1", "del 10.0.0.0/8 @3",
                                            "add 10.0.0.0/8 @4", "add mcast 239.0.0.0/8 @5"}));
   EXPECT_EQ(errorOf(readTrace, "add 10.0.0.0/8\nput 10.0.0.0/8\n", "t.trace"),
             "t.trace:2: expected 'add' or 'del', not 'put'");
   EXPECT_EQ(errorOf(readTrace, "del\n", "t.trace"), "t.trace:1: missing route after 'del'");
}

TEST(RouteFile, GeneratedTableRoundTripsThroughText) {
   for (uint32_t vrf : {0u, 12u}) {
      std::vector<Route> table = syntheticTable({.v4 = 3000, .v6 = 1000, .mcast = 500, .vrf = vrf});
      std::stringstream file;
      writeRouteTable(file, table, "made by\n\na test");
      EXPECT_EQ(file.str().substr(0, 21), "# made by\n#\n# a test\n");
      EXPECT_EQ(readRouteTable(file, "t.routes"), table);
   }
}

}  // namespace
}  // namespace VexloL3Common::sim
