// The transient-status line and the VXLAN show commands: text forms, filters and rendering.

#include "VexloL3Common/vxlan/VexloVxlanDebug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "TcamFixture.h"

namespace VexloL3Common {
namespace {

using namespace std::chrono_literals;
using testing::failureOf;
using ::testing::StartsWith;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using Ulo::VlanId;

const auto ip = [](const char* text) { return IpGenAddr::fromString(text); };

TEST(TransientStatusTest, AgeIsClockTimeBelowAWeekAndDaysAbove) {
   EXPECT_EQ(formatAge(5s), "0:00:05");
   EXPECT_EQ(formatAge(26h + 3min), "26:03:00");
   EXPECT_EQ(formatAge(167h + 59min + 59s), "167:59:59");
   EXPECT_EQ(formatAge(8 * 24h + 3h + 10min), "8d03h");
   EXPECT_EQ(formatAge(-4s), "0:00:00");
}

TEST(TransientStatusTest, LinesLineUpWithTheHeaderAndLongNamesAreKeptWhole) {
   const auto now = StatusClock::now();
   const std::string header = transientStatusHeader();
   const std::string line =
       formatTransientStatus({"vxlanUcTunnelsReconcile", "running", now - 65s, 12}, now);
   EXPECT_EQ(line.size(), header.size());
   EXPECT_EQ(line.back(), '\n');
   EXPECT_EQ(line.find("running"), header.find("State"));
   // Right-aligned columns end where their titles end.
   EXPECT_EQ(line.find("0:01:05") + 7, header.find("Age") + 3);
   EXPECT_EQ(line.rfind("12") + 2, header.find("Count") + 5);
   EXPECT_NE(formatTransientStatus({"boot", "idle", std::nullopt, 0}, now).find("never"),
             std::string::npos);
   const std::string name(40, 'n');
   EXPECT_EQ(
       formatTransientStatus({name, "waiting", std::nullopt, 1}, {}).rfind(name + " waiting", 0),
       0u);
}

TEST(TransientStatusTest, PrintsToACallersDescriptor) {
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   const auto now = StatusClock::now();
   const TransientStatus status{"hwTunnelStatus", "init", now, 3};
   EXPECT_TRUE(printTransientStatus(fds[1], status, now));
   close(fds[1]);
   char buf[256] = {};
   const ssize_t n = read(fds[0], buf, sizeof buf);
   close(fds[0]);
   EXPECT_EQ(std::string(buf, size_t(std::max<ssize_t>(n, 0))), formatTransientStatus(status, now));
   EXPECT_FALSE(printTransientStatus(-1, status, now));
}

TEST(VxlanDebugCommandTest, TextFormRoundTripsWithFiltersInEitherOrder) {
   const auto c = VxlanDebugCommand::fromString("show vxlan flood-list vtep 10.0.0.1 vlan 10");
   EXPECT_EQ(c, VxlanDebugCommand(VxlanDebugTable::floodList, VlanId(10), ip("10.0.0.1")));
   EXPECT_EQ(c.toString(), "show vxlan flood-list vlan 10 vtep 10.0.0.1");
   EXPECT_EQ(VxlanDebugCommand::fromString(c.toString()), c);
   EXPECT_EQ(VxlanDebugCommand::fromString("  show  vxlan decap ").table(), VxlanDebugTable::decap);
   EXPECT_EQ(fmt::format("{}", VxlanDebugCommand(VxlanDebugTable::vtep)), "show vxlan vtep");
   EXPECT_NE(std::hash<VxlanDebugCommand>()(c),
             std::hash<VxlanDebugCommand>()(VxlanDebugCommand(VxlanDebugTable::floodList)));
}

TEST(VxlanDebugCommandTest, BadTextIsARangeErrorNamingTheText) {
   EXPECT_THAT([] { VxlanDebugCommand::fromString("show vxlan tunnels"); },
               ThrowsMessage<std::range_error>(StrEq(
                   "invalid VXLAN debug command \"show vxlan tunnels\": unknown table tunnels")));
   for (const char* bad : {"", "show", "show ip decap", "show vxlan decap vlan",
                           "show vxlan decap vlan 4096", "show vxlan decap vlan 1 vlan 2",
                           "show vxlan decap port 1", "show vxlan decap vtep 10.0.0.1",
                           "show vxlan vtep vlan 10", "show vxlan vtep vtep 10.0.0.300"}) {
      EXPECT_THAT([=] { VxlanDebugCommand::fromString(bad); },
                  ThrowsMessage<std::range_error>(
                      StartsWith(fmt::format("invalid VXLAN debug command \"{}\"", bad))));
   }
}

TEST(VxlanShowTest, FloodListHonoursVlanAndVtepFilters) {
   FloodUnderlayVlanToVtepListDir dir("flood");
   FloodUnderlayVlanToVtepList a, b;
   a.vtepIpListIs(ip("10.0.0.1"));
   a.vtepIpListIs(ip("10.0.0.2"));
   b.vtepIpListIs(ip("10.0.0.2"));
   dir.floodUnderlayVlanToVtepListIs(VlanId(20), b);
   dir.floodUnderlayVlanToVtepListIs(VlanId(10), a);
   const auto show = [&](const char* cmd) {
      return showFloodList(VxlanDebugCommand::fromString(cmd), dir);
   };
   EXPECT_EQ(show("show vxlan flood-list"), "vlan 10: {10.0.0.1, 10.0.0.2}\nvlan 20: {10.0.0.2}\n");
   EXPECT_EQ(show("show vxlan flood-list vlan 20"), "vlan 20: {10.0.0.2}\n");
   EXPECT_EQ(show("show vxlan flood-list vtep 10.0.0.1"), "vlan 10: {10.0.0.1, 10.0.0.2}\n");
}

TEST(VxlanShowTest, DecapTableListsIpv4ThenIpv6AndFiltersByVlan) {
   Ulo::MrouteVxlanDecapTable v4("v4"), v6("v6");
   v4.entryIs(Ulo::IpGenRouteKey::fromString("239.1.1.2/32,10.0.0.0/8"), VlanId(20));
   v4.entryIs(Ulo::IpGenRouteKey::fromString("239.1.1.1/32,10.0.0.0/8"), VlanId(10));
   v6.entryIs(Ulo::IpGenRouteKey::fromString("ff0e::1/128,2001:db8::/32"), VlanId(10));
   EXPECT_EQ(showDecapTable(VxlanDebugCommand(VxlanDebugTable::decap), &v4, &v6),
             "239.1.1.1/32,10.0.0.0/8 vlan 10\n239.1.1.2/32,10.0.0.0/8 vlan 20\n"
             "ff0e::1/128,2001:db8::/32 vlan 10\n");
   EXPECT_EQ(showDecapTable(VxlanDebugCommand(VxlanDebugTable::decap, VlanId(10)), nullptr, &v6),
             "ff0e::1/128,2001:db8::/32 vlan 10\n");
}

TEST(VxlanShowTest, VtepTableShowsNextHopsAndRefusesOtherCommands) {
   VexloVxlanBumVtepConfigDir dir("bum");
   auto c = dir.bumVtepConfigIs(ip("10.0.0.1"), EncapId(5));
   c->versionIs(2);
   c->nextHopsIs(Ulo::IntfId::vlan(10), ip("10.1.1.2"),
                 Ulo::EthAddr::fromString("00:00:00:00:00:01"));
   dir.bumVtepConfigIs(ip("10.0.0.2"), EncapId(6));
   const std::string first =
       "vtep 10.0.0.1 encapId 5 version 2\n   Vlan10 nexthop 10.1.1.2 mac 00:00:00:00:00:01\n";
   EXPECT_EQ(showVtepTable(VxlanDebugCommand::fromString("show vxlan vtep vtep 10.0.0.1"), dir),
             first);
   EXPECT_EQ(showVtepTable(VxlanDebugCommand(VxlanDebugTable::vtep), dir),
             first + "vtep 10.0.0.2 encapId 6 version 0\n");
   EXPECT_EQ(failureOf([&] { showVtepTable(VxlanDebugCommand(VxlanDebugTable::decap), dir); }),
             "command for another table");
}

}  // namespace
}  // namespace VexloL3Common
