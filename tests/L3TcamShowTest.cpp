#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "TcamFixture.h"
#include "platform/Trace.h"

using namespace VexloL3Common;
using namespace VexloL3Common::testing;

namespace {

// Runs f with a descriptor of a temporary file and returns what f wrote to it.
std::string captured(const std::function<void(int fd)>& f) {
   std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
   EXPECT_NE(file, nullptr);
   if (!file) return "";
   f(fileno(file.get()));
   std::rewind(file.get());
   std::string out;
   char buf[4096];
   for (size_t n; (n = std::fread(buf, 1, sizeof(buf), file.get())) > 0;)
      out.append(buf, n);
   return out;
}

L3TcamManagerContext::Config paired(uint32_t size, bool interleaving = false) {
   L3TcamManagerContext::Config c = layout(size, 2, 8);
   c.supportsDefipPairing = true;
   c.v4V6InterleavingDisabled = !interleaving;
   return c;
}

const char* const summary =
    "LPM table mode: 2, table usage: 8/1022\n"
    "IPv4 entries: 3 (full: 1, half full: 2), routes: 4\n"
    "IPv6 half size entries: 1, routes: 1\n"
    "IPv6 full size entries: 4, routes: 2\n"
    "uRPF enabled: 0, tcam size(effective): 1024( 1024 )\n"
    "Entries moved IPv4: 7, IPv6 Half: 3, Full: 5000000000\n"
    "\n";

const char* const ranges =
    "Index range for IPv4 routes\n"
    "Prefix length: 12, range: 632/632\n"
    "Prefix length: 16, range: 512/512\n"
    "Prefix length: 24, range: 264/264\n"
    "\n"
    "Index range for IPv6 routes (single size)\n"
    "Prefix length: 48, range: 454/454\n"
    "\n"
    "Index range for IPv6 routes (double size)\n"
    "Prefix length: 96, range: 2/2 (actual: 2/2)\n"
    "Prefix length: 128, range: 1/1 (actual: 1/1)\n";

const char* const routes =
    "IPv4 routes\n"
    "Entry   Position     Vrf   Route\n"
    "  264      Right       2   192.168.1.0/24\n"
    "  512       Left       1   10.2.0.0/16\n"
    "  512      Right       1   10.1.0.0/16\n"
    "  632       Left       1   172.32.0.0/12\n"
    "\n"
    "IPv6 routes (single size)\n"
    "Entry     Vrf   Route\n"
    "  454       1   2001:db8::/48\n"
    "\n"
    "IPv6 routes (double size)\n"
    "Entry1   Entry2     Vrf   Route\n"
    "     1      129       1   2001:db8::1/128\n"
    "     2      130       7   2001:db8:2::/96\n"
    "\n";

}  // namespace

TEST(TcamShow, ReportIsExactAndTracedWithRangesOnlyOnDetail) {
   // Single- and double-size IPv6 regions (gap 128) below an IPv4 block over the whole table.
   TcamHarness h(paired(1024, true));
   h.shareRegions(256);
   h.add4(k4(1, "10.1.0.0/16"));
   h.add4(k4(1, "10.2.0.0/16"));     // full entry
   h.add4(k4(2, "192.168.1.0/24"));  // right half only
   h.add4(k4(3, "172.16.0.0/12"));
   h.add4(k4(1, "172.32.0.0/12"));
   h.del4(k4(3, "172.16.0.0/12"), false);  // left half only
   h.add6(k6(1, "2001:db8::/48"));
   h.add6(k6(1, "2001:db8::1/128"));
   h.add6(k6(7, "2001:db8:2::/96"));
   h.ctx().stats()->moveRouteIs(RouteType::v4, 7);
   h.ctx().stats()->moveRouteIs(RouteType::v6Half, 3);
   h.ctx().stats()->moveRouteIs(RouteType::v6Full, 5000000000);

   Ulo::ScopedTraceCapture cap("VexloL3CommonTcamTable", 8, 8);
   EXPECT_EQ(captured([&](int fd) { h.ctx().showSoftwareTcamTable(fd, true); }),
             std::string(summary) + ranges + routes);
   EXPECT_EQ(cap.texts(),
             (std::vector<std::string>{"showSoftwareTcamTable", "showSoftwareTcamTableSummary",
                                       "showSoftwareTcamTableIndexRange"}));
   EXPECT_EQ(captured([&](int fd) { h.ctx().showSoftwareTcamTable(fd, false); }),
             std::string(summary) + routes);
}

TEST(TcamShow, EmptyTableUsageAndPairRangesInHardwareEntries) {
   TcamHarness h(paired(8192));
   const std::string s = captured([&](int fd) { h.ctx().showSoftwareTcamTableSummary(fd); });
   EXPECT_EQ(s.substr(0, s.find('\n')), "LPM table mode: 2, table usage: 0/8190");

   // Pair p stands at p + (p / gap) * gap: the lower half of each double bank.
   ASSERT_EQ(h.ctx().lpmPairGap(), 1024u);
   h.ctx().block(RouteType::v6Full)->lengthRangeIs(100, IndexRange(1000, 1100));
   h.ctx().block(RouteType::v6Full)->lengthRangeIs(120, IndexRange(2048, 3071));
   EXPECT_EQ(captured([&](int fd) { h.ctx().showSoftwareTcamTableIndexRange(fd); }),
             "Index range for IPv4 routes\n"
             "\n"
             "Index range for IPv6 routes (single size)\n"
             "\n"
             "Index range for IPv6 routes (double size)\n"
             "Prefix length: 100, range: 1000/1100 (actual: 1000/2124)\n"
             "Prefix length: 120, range: 2048/3071 (actual: 4096/5119)\n");
}

TEST(TcamShow, MulticastTableAndUnwritableDescriptorAreRefused) {
   auto c = layout(2048, 1, 1);
   c.v4Mcast = true;  // no pair gap: the double-size sections cannot be computed
   TcamHarness mc(c);
   EXPECT_EQ(failureOf([&] { mc.ctx().showSoftwareTcamTable(1, true); }), "!v4Mcast()");
   TcamHarness h(layout(1024, 2, 8));
   EXPECT_THROW(h.ctx().showSoftwareTcamTableSummary(-1), std::system_error);
}
