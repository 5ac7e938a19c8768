// Diagnostics of the VXLAN agents: the transient-status line and the VXLAN show commands.
//
// Synopsis
//   TransientStatus{name, state, since, count}       something in progress and how long it has been
//   transientStatusHeader()                          "Name ... State ... Age ... Count" column
//   titles formatTransientStatus(status, now)               one aligned line, '\n'-terminated
//   printTransientStatus(fd, status, now)            the same line written to a caller's descriptor
//   formatAge(duration)                              "0:00:05", "26:03:00" below a week, "8d03h"
//   above
//
//   VxlanDebugCommand::fromString("show vxlan flood-list vlan 10 vtep 10.0.0.1")
//   VxlanDebugCommand(VxlanDebugTable::decap, VlanId(10))   tables: vtep, flood-list, decap
//   showVtepTable(cmd, bumDir) / showFloodList(cmd, floodDir) / showDecapTable(cmd, v4, v6)
//
// Columns of a status line are fixed (name 32, state 16, age 10, count 10, right-aligned numbers);
// a longer name or state keeps its full text and pushes the rest of the line right, one space
// apart, so nothing is cut. Which filters a table takes: vtep table a VTEP, flood list a VLAN and
// a VTEP, decap table a VLAN; any other combination is a range error, as is text that does not
// parse. Show output lists entries in key order, one per line.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <fmt/format.h>

#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "VexloL3Common/vxlan/VexloVxlanTypes.h"
#include "platform/MrouteVxlanDecapTable.h"
#include "platform/NetTypes.h"

namespace VexloL3Common {

// ---- Transient status --------------------------------------------------------------------

using StatusClock = std::chrono::steady_clock;

struct TransientStatus {
   std::string name;
   std::string state;                             // e.g. toString() of the owner's state enum
   std::optional<StatusClock::time_point> since;  // when `state` was entered; empty: "never"
   uint64_t count = 0;                            // retries, pending entries, ...
};

// A negative age (a clock read before `since`) prints as zero.
std::string formatAge(StatusClock::duration age);
std::string transientStatusHeader();
std::string formatTransientStatus(const TransientStatus& status, StatusClock::time_point now);
// False when the descriptor refuses the write (errno tells why); partial writes are completed.
bool printTransientStatus(int fd, const TransientStatus& status, StatusClock::time_point now);

// ---- Show commands -----------------------------------------------------------------------

enum class VxlanDebugTable : uint8_t { vtep = 0, floodList = 1, decap = 2 };
std::string_view toString(VxlanDebugTable t);  // "vtep", "flood-list", "decap"

// "show vxlan <table> [vlan <id>] [vtep <address>]", filters in either order.
class VxlanDebugCommand {
 public:
   // Range error when a filter is given that the table does not take.
   explicit VxlanDebugCommand(VxlanDebugTable table, std::optional<Ulo::VlanId> vlan = {},
                              std::optional<Ulo::IpGenAddr> vtep = {});
   // Range error "invalid VXLAN debug command "<text>": <reason>".
   static VxlanDebugCommand fromString(std::string_view text);

   VxlanDebugTable table() const { return table_; }
   const std::optional<Ulo::VlanId>& vlan() const { return vlan_; }
   const std::optional<Ulo::IpGenAddr>& vtep() const { return vtep_; }
   // No filter matches everything.
   bool matchesVlan(Ulo::VlanId vlan) const { return !vlan_ || *vlan_ == vlan; }
   bool matchesVtep(const Ulo::IpGenAddr& vtep) const { return !vtep_ || *vtep_ == vtep; }

   auto operator<=>(const VxlanDebugCommand&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;

 private:
   VxlanDebugTable table_;
   std::optional<Ulo::VlanId> vlan_;
   std::optional<Ulo::IpGenAddr> vtep_;
};

// Each renders the table its command names; a command for another table is fatal
// ("command for another table").
//   vtep 10.0.0.1 encapId 5 version 2
//      Ethernet1 nexthop 10.1.1.2 mac 00:00:00:00:00:01
std::string showVtepTable(const VxlanDebugCommand& cmd, const VexloVxlanBumVtepConfigDir& dir);
//   vlan 10: {10.0.0.1, 10.0.0.2}        (a VTEP filter keeps the VLANs that flood to it)
std::string showFloodList(const VxlanDebugCommand& cmd, const FloodUnderlayVlanToVtepListDir& dir);
//   239.1.1.1/32,10.0.0.0/8 vlan 10       (IPv4 table first; either table may be null)
std::string showDecapTable(const VxlanDebugCommand& cmd, const Ulo::MrouteVxlanDecapTable* v4,
                           const Ulo::MrouteVxlanDecapTable* v6);

}  // namespace VexloL3Common

template <>
struct fmt::formatter<VexloL3Common::VxlanDebugTable> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(VexloL3Common::VxlanDebugTable t, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(VexloL3Common::toString(t), ctx);
   }
};
template <>
struct fmt::formatter<VexloL3Common::VxlanDebugCommand>
    : Ulo::ToStringFormatter<VexloL3Common::VxlanDebugCommand> {};
template <>
struct std::hash<VexloL3Common::VxlanDebugCommand> {
   size_t operator()(const VexloL3Common::VxlanDebugCommand& c) const noexcept { return c.hash(); }
};
