// The `ip -j route` reader (sim/RouteFormats.h): JSON arrays of route objects, one after another,
// parsed by nlohmann::json.
#include <charconv>
#include <map>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "sim/Quote.h"
#include "sim/RouteFormats.h"

namespace VexloL3Common::sim {

namespace {

using nlohmann::json;

// Named routing tables other than main and default get VRFs from here up.
constexpr uint32_t firstNamedTableVrf = 16777000;

std::string stringField(const json& r, const char* key) {
   const auto it = r.find(key);
   if (it == r.end()) return "";
   if (it->is_string()) return it->get<std::string>();
   if (it->is_number_unsigned()) return std::to_string(it->get<uint64_t>());
   throw std::invalid_argument(std::string("\"") + key + "\" is neither a string nor a number");
}

class Tables {
 public:
   uint32_t vrfOf(const std::string& table) {
      if (table.empty() || table == "main") return 0;
      if (table == "default") return 253;
      uint64_t n = 0;
      const auto [end, ec] = std::from_chars(table.data(), table.data() + table.size(), n);
      if (ec == std::errc() && end == table.data() + table.size()) {
         if (n >= firstNamedTableVrf)
            throw std::invalid_argument("table " + clipped(table) + " is past the VRF ids");
         return n == 254 ? 0 : uint32_t(n);
      }
      auto [it, added] = named_.try_emplace(table, firstNamedTableVrf + uint32_t(named_.size()));
      if (it->second >= VrfId::maxValue)
         throw std::invalid_argument("too many named tables ('" + clipped(table) + "')");
      return it->second;
   }

 private:
   std::map<std::string, uint32_t> named_;
};

bool hasColon(const std::string& s) {
   return s.find(':') != std::string::npos;
}

void readEntry(ReadTable& t, const json& r, Tables& tables) {
   if (!r.is_object()) throw std::invalid_argument("a route is not a JSON object");
   const std::string type = stringField(r, "type");
   if (!type.empty() && type != "unicast") return t.skip(clipped(type));
   std::string dst = stringField(r, "dst");
   if (dst.empty()) throw std::invalid_argument("route without \"dst\"");
   const bool v6 = hasColon(dst) || hasColon(stringField(r, "gateway")) ||
                   hasColon(stringField(r, "prefsrc")) || r.contains("pref");
   if (dst == "default") dst = v6 ? "::/0" : "0.0.0.0/0";
   if (dst.find('/') == std::string::npos) dst += v6 ? "/128" : "/32";
   const uint32_t vrf = tables.vrfOf(stringField(r, "table"));
   t.add(parseRoute(vrf ? "vrf " + std::to_string(vrf) + " " + dst : dst));
}

}  // namespace

ReadTable readIprouteJson(std::string_view text, std::string_view name) {
   ReadTable t;
   Tables tables;
   std::istringstream in{std::string(text)};
   uint32_t position = 0;
   while ((in >> std::ws) && in.peek() != std::char_traits<char>::eof()) {
      json doc;
      try {
         in >> doc;
      } catch (const json::exception& e) {
         throw InputError(name, 0, "not JSON: " + clipped(e.what(), 160));
      }
      if (!doc.is_array()) throw InputError(name, 0, "expected a JSON array of routes");
      for (const json& r : doc) {
         ++position;
         try {
            readEntry(t, r, tables);
         } catch (const std::invalid_argument& e) {
            throw InputError(name, position, e.what());
         } catch (const json::exception& e) {
            throw InputError(name, position, clipped(e.what(), 160));
         }
      }
   }
   return t;
}

}  // namespace VexloL3Common::sim
