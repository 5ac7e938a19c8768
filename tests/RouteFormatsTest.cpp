// Route tables in the forms operators have them: which form a text is, bgpdump lines and the
// JSON of `ip -j route`, what each keeps, skips and collapses, and where an error points.

#include "sim/RouteFormats.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace VexloL3Common::sim {
namespace {

std::vector<std::string> texts(const ReadTable& t) {
   std::vector<std::string> out;
   for (const Route& r : t.routes)
      out.push_back(r.toString());
   return out;
}

std::string errorOf(std::string_view text, RouteFormat f) {
   try {
      readRouteText(text, "t", f);
   } catch (const InputError& e) {
      return e.what();
   }
   return "no error";
}

TEST(RouteFormats, FormIsRecognisedFromTheFirstLineThatSaysSomething) {
   EXPECT_EQ(detectRouteFormat("\n  \n[{\"dst\":\"default\"}]"), RouteFormat::iprouteJson);
   EXPECT_EQ(detectRouteFormat("TABLE_DUMP2|1|B|192.0.2.1|1|10.0.0.0/8|1|IGP|"),
             RouteFormat::bgpdump);
   EXPECT_EQ(detectRouteFormat("BGP4MP|1|A|192.0.2.1|1|10.0.0.0/8"), RouteFormat::bgpdump);
   EXPECT_EQ(detectRouteFormat("\n# a|b\n10.0.0.0/8\n"), RouteFormat::routes);
   EXPECT_EQ(detectRouteFormat("vrf 2 10.0.0.0/8|x"), RouteFormat::routes) << "not capitals";
   EXPECT_EQ(detectRouteFormat(""), RouteFormat::routes);
   EXPECT_THROW(routeFormatNamed("mrt"), std::invalid_argument);
}

TEST(RouteFormats, BgpdumpKeepsOneRoutePerPrefixAndSkipsWithdrawals) {
   const ReadTable t = readBgpdump(
       "TABLE_DUMP2|1732568400|B|192.0.2.1|64496|10.0.0.0/8|64496|IGP|192.0.2.1|0|0||NAG||\n"
       "TABLE_DUMP2|11/25/24 "
       "21:00:00|B|192.0.2.7|64511|10.0.0.0/8|64511|IGP|192.0.2.7|0|0||NAG||\r\n"
       "\n"
       "BGP4MP|1732568460|A|192.0.2.1|64496|2001:db8::/32|64496|IGP|2001:db8::1|0|0||NAG||\n"
       "BGP4MP|1732568470|W|192.0.2.1|64496|10.1.0.0/16\n"
       "BGP4MP|1732568471|STATE|192.0.2.1|64496|3|6\n",
       "rib");
   EXPECT_EQ(texts(t), (std::vector<std::string>{"10.0.0.0/8", "2001:db8::/32"}));
   EXPECT_EQ(t.duplicates, 1u);
   EXPECT_EQ(t.skipped, (std::vector<std::pair<std::string, uint64_t>>{{"withdrawal", 1},
                                                                       {"STATE record", 1}}));
   EXPECT_EQ(errorOf("TABLE_DUMP2|1|B|192.0.2.1|64496|10.0.0.1/8|\n", RouteFormat::bgpdump),
             "t:1: bad prefix '10.0.0.1/8': host bits set below /8");
   EXPECT_EQ(errorOf("TABLE_DUMP2|1|B|192.0.2.1|64496\n", RouteFormat::bgpdump),
             "t:1: bgpdump record without a prefix: 'TABLE_DUMP2|1|B|192.0.2.1|64496'");
   EXPECT_EQ(errorOf("\nTABLE_DUMP2|1\n", RouteFormat::bgpdump),
             "t:2: not a bgpdump record: 'TABLE_DUMP2|1'");
}

TEST(RouteFormats, IpRouteJsonMapsTablesToVrfsAndTellsTheFamilyOfDefault) {
   const ReadTable t = readIprouteJson(
       R"([{"dst":"default","gateway":"192.0.2.254","dev":"eth0"},
           {"dst":"192.0.2.7","dev":"eth0","table":"100"},
           {"dst":"10.0.0.0/8","dev":"eth0","metric":5},
           {"dst":"10.0.0.0/8","dev":"eth0","metric":10},
           {"type":"local","dst":"127.0.0.1","table":"local"},
           {"type":"unicast","dst":"172.16.0.0/12","table":"blue"},
           {"dst":"172.16.0.0/12","table":"254"}]
          [{"dst":"default","dev":"eth0","metric":1024,"pref":"medium"},
           {"dst":"default","gateway":"fe80::1","table":"blue"},
           {"type":"multicast","dst":"ff00::/8","table":"local"}])",
       "ip");
   EXPECT_EQ(texts(t), (std::vector<std::string>{"0.0.0.0/0", "vrf 100 192.0.2.7/32", "10.0.0.0/8",
                                                 "vrf 16777000 172.16.0.0/12", "172.16.0.0/12",
                                                 "::/0", "vrf 16777000 ::/0"}));
   EXPECT_EQ(t.duplicates, 1u);
   EXPECT_EQ(t.skipped,
             (std::vector<std::pair<std::string, uint64_t>>{{"local", 1}, {"multicast", 1}}));
}

TEST(RouteFormats, IpRouteJsonErrorsNameTheRoute) {
   EXPECT_EQ(errorOf(R"([{"dst":"10.0.0.0/8"},{"dev":"lo"}])", RouteFormat::iprouteJson),
             "t:2: route without \"dst\"");
   EXPECT_EQ(errorOf(R"([{"dst":"10.0.0.0/33"}])", RouteFormat::iprouteJson),
             "t:1: bad prefix '10.0.0.0/33': length 33 is past /32");
   EXPECT_EQ(errorOf(R"([{"dst":"10.0.0.0/8","table":"16777000"}])", RouteFormat::iprouteJson),
             "t:1: table 16777000 is past the VRF ids");
   EXPECT_EQ(errorOf(R"({"dst":"10.0.0.0/8"})", RouteFormat::iprouteJson),
             "t:0: expected a JSON array of routes");
   EXPECT_EQ(errorOf(R"([3])", RouteFormat::iprouteJson), "t:1: a route is not a JSON object");
   EXPECT_EQ(errorOf("[{\"dst\":", RouteFormat::iprouteJson).rfind("t:0: not JSON: ", 0), 0u);
}

}  // namespace
}  // namespace VexloL3Common::sim
