#include "VexloL3Common/vxlan/VexloVxlanDebug.h"

#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include "platform/Assert.h"

namespace VexloL3Common {

namespace {

constexpr std::string_view tableNames[] = {"vtep", "flood-list", "decap"};

bool writeAll(int fd, std::string_view text) {
   while (!text.empty()) {
      const ssize_t n = ::write(fd, text.data(), text.size());
      if (n < 0) {
         if (errno == EINTR) continue;
         return false;
      }
      text.remove_prefix(size_t(n));
   }
   return true;
}

[[noreturn]] void badCommand(std::string_view text, std::string_view reason) {
   throw std::range_error(fmt::format("invalid VXLAN debug command \"{}\": {}", text, reason));
}

template <class Map>
std::vector<typename Map::key_type> sortedKeys(const Map& map) {
   std::vector<typename Map::key_type> keys;
   keys.reserve(map.size());
   for (const auto& kv : map)
      keys.push_back(kv.first);
   std::sort(keys.begin(), keys.end());
   return keys;
}

}  // namespace

// ---- Transient status --------------------------------------------------------------------

std::string formatAge(StatusClock::duration age) {
   using namespace std::chrono;
   const int64_t secs = std::max<int64_t>(0, duration_cast<seconds>(age).count());
   constexpr int64_t day = 24 * 3600;
   if (secs >= 7 * day) return fmt::format("{}d{:02}h", secs / day, secs % day / 3600);
   return fmt::format("{}:{:02}:{:02}", secs / 3600, secs % 3600 / 60, secs % 60);
}

std::string transientStatusHeader() {
   return fmt::format("{:<32} {:<16} {:>10} {:>10}\n", "Name", "State", "Age", "Count");
}

std::string formatTransientStatus(const TransientStatus& status, StatusClock::time_point now) {
   const std::string age = status.since ? formatAge(now - *status.since) : "never";
   return fmt::format("{:<32} {:<16} {:>10} {:>10}\n", status.name, status.state, age,
                      status.count);
}

bool printTransientStatus(int fd, const TransientStatus& status, StatusClock::time_point now) {
   return writeAll(fd, formatTransientStatus(status, now));
}

// ---- VxlanDebugCommand -------------------------------------------------------------------

std::string_view toString(VxlanDebugTable t) {
   unsigned i = unsigned(t);
   return i < std::size(tableNames) ? tableNames[i] : std::string_view("unknown");
}

VxlanDebugCommand::VxlanDebugCommand(VxlanDebugTable table, std::optional<Ulo::VlanId> vlan,
                                     std::optional<Ulo::IpGenAddr> vtep)
    : table_(table), vlan_(vlan), vtep_(vtep) {
   if (vlan_ && table_ == VxlanDebugTable::vtep)
      throw std::range_error(fmt::format("filter vlan not valid for table {}", table_));
   if (vtep_ && table_ == VxlanDebugTable::decap)
      throw std::range_error(fmt::format("filter vtep not valid for table {}", table_));
}

VxlanDebugCommand VxlanDebugCommand::fromString(std::string_view text) {
   std::vector<std::string_view> words;
   for (size_t pos = 0; pos < text.size();) {
      const size_t start = text.find_first_not_of(' ', pos);
      if (start == std::string_view::npos) break;
      const size_t end = std::min(text.find(' ', start), text.size());
      words.push_back(text.substr(start, end - start));
      pos = end;
   }
   if (words.size() < 3 || words[0] != "show" || words[1] != "vxlan")
      badCommand(text, "expected \"show vxlan <table>\"");
   const auto* name = std::find(std::begin(tableNames), std::end(tableNames), words[2]);
   if (name == std::end(tableNames)) badCommand(text, fmt::format("unknown table {}", words[2]));
   std::optional<Ulo::VlanId> vlan;
   std::optional<Ulo::IpGenAddr> vtep;
   try {
      for (size_t i = 3; i < words.size(); i += 2) {
         const std::string_view filter = words[i];
         if (filter != "vlan" && filter != "vtep")
            badCommand(text, fmt::format("unknown filter {}", filter));
         if (i + 1 == words.size()) badCommand(text, fmt::format("{} needs a value", filter));
         if ((filter == "vlan" && vlan) || (filter == "vtep" && vtep))
            badCommand(text, fmt::format("repeated filter {}", filter));
         if (filter == "vlan") {
            vlan = Ulo::VlanId::fromString(words[i + 1]);
         } else {
            vtep = Ulo::IpGenAddr::fromString(words[i + 1]);
         }
      }
      return VxlanDebugCommand(VxlanDebugTable(name - std::begin(tableNames)), vlan, vtep);
   } catch (const std::range_error& e) {
      if (std::string_view(e.what()).starts_with("invalid VXLAN debug command")) throw;
      badCommand(text, e.what());
   }
}

size_t VxlanDebugCommand::hash(size_t seed) const {
   seed = Ulo::hashMix(seed, unsigned(table_));
   if (vlan_) seed = Ulo::hashValue(*vlan_, seed);
   if (vtep_) seed = Ulo::hashValue(*vtep_, seed);
   return seed;
}

std::string VxlanDebugCommand::toString() const {
   std::string out = fmt::format("show vxlan {}", table_);
   if (vlan_) out += fmt::format(" vlan {}", *vlan_);
   if (vtep_) out += fmt::format(" vtep {}", *vtep_);
   return out;
}

// ---- Show output -------------------------------------------------------------------------

std::string showVtepTable(const VxlanDebugCommand& cmd, const VexloVxlanBumVtepConfigDir& dir) {
   VEXLO_ASSERT_MSG(cmd.table() == VxlanDebugTable::vtep, "command for another table", cmd);
   std::string out;
   for (const auto& vtep : sortedKeys(dir.bumVtepConfig())) {
      if (!cmd.matchesVtep(vtep)) continue;
      const auto& config = *dir.bumVtepConfig().at(vtep);
      out +=
          fmt::format("vtep {} encapId {} version {}\n", vtep, config.encapId(), config.version());
      for (const auto& intf : sortedKeys(config.nextHops())) {
         const auto& nh = *config.nextHops().at(intf);
         out += fmt::format("   {} nexthop {} mac {}\n", intf, nh.nexthopIp(), nh.nexthopMac());
      }
   }
   return out;
}

std::string showFloodList(const VxlanDebugCommand& cmd, const FloodUnderlayVlanToVtepListDir& dir) {
   VEXLO_ASSERT_MSG(cmd.table() == VxlanDebugTable::floodList, "command for another table", cmd);
   std::string out;
   for (const auto& vlan : sortedKeys(dir.floodUnderlayVlanToVtepList())) {
      const auto& list = dir.floodUnderlayVlanToVtepList().at(vlan);
      if (!cmd.matchesVlan(vlan) || (cmd.vtep() && !list.vtepIpList(*cmd.vtep()))) continue;
      out += fmt::format("vlan {}: {}\n", vlan, list);
   }
   return out;
}

std::string showDecapTable(const VxlanDebugCommand& cmd, const Ulo::MrouteVxlanDecapTable* v4,
                           const Ulo::MrouteVxlanDecapTable* v6) {
   VEXLO_ASSERT_MSG(cmd.table() == VxlanDebugTable::decap, "command for another table", cmd);
   std::string out;
   for (const auto* table : {v4, v6}) {
      if (!table) continue;
      for (const auto& key : sortedKeys(table->entries())) {
         const Ulo::VlanId vlan = table->entries().at(key).vlanId;
         if (cmd.matchesVlan(vlan)) out += fmt::format("{} vlan {}\n", key, vlan);
      }
   }
   return out;
}

}  // namespace VexloL3Common
