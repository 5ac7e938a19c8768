#include "sim/Route.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "platform/Trace.h"
#include "sim/Quote.h"

namespace VexloL3Common::sim {

namespace {

Ulo::TraceHandle th("RouteFile");

constexpr uint32_t mcastGroupBase = 0xE0000000;  // 224.0.0.0/4
constexpr uint32_t maxMcastIdentifier = 0xFFFF;

// ---- words -------------------------------------------------------------------------------

constexpr bool isBlank(char c) {
   return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

std::string_view trimmed(std::string_view s) {
   while (!s.empty() && isBlank(s.front()))
      s.remove_prefix(1);
   while (!s.empty() && isBlank(s.back()))
      s.remove_suffix(1);
   return s;
}

// Hands out the blank-separated words of a line, one at a time; an empty word means the line
// has no more.
class Words {
 public:
   explicit Words(std::string_view text) : rest_(text) {}

   std::string_view next() {
      rest_ = trimmed(rest_);
      size_t end = 0;
      while (end < rest_.size() && !isBlank(rest_[end]))
         ++end;
      std::string_view word = rest_.substr(0, end);
      rest_.remove_prefix(end);
      return word;
   }
   // Everything not yet handed out, without surrounding blanks.
   std::string_view rest() const { return trimmed(rest_); }

 private:
   std::string_view rest_;
};

// ---- messages ----------------------------------------------------------------------------

// Text from the input is clipped and escaped (sim/Quote.h); numbers pass as they are.
template <class... Args>
[[noreturn]] void fail(fmt::format_string<decltype(clippedIfText(std::declval<Args>()))...> format,
                       Args&&... args) {
   throw std::invalid_argument(fmt::format(format, clippedIfText(args)...));
}

bool parseUnsigned(std::string_view text, uint32_t& out) {
   if (text.empty()) return false;
   auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
   return ec == std::errc() && ptr == text.data() + text.size();
}

// Bits of `a` at or past `len`, looking at the first `width` bits only.
bool hostBitsSet(const Ulo::IpGenAddr& a, unsigned len, unsigned width) {
   const auto& b = a.bytes();
   for (unsigned i = 0; i < width / 8; ++i) {
      unsigned first = i * 8;
      uint8_t hostMask = len <= first      ? 0xff
                         : len < first + 8 ? uint8_t(0xffu >> (len - first))
                                           : 0;
      if (b[i] & hostMask) return true;
   }
   return false;
}

// Why the platform refused `word` as a prefix of `width` bits, in the operator's terms. Only
// called after the platform parser failed, so the fast path stays a single parse.
[[noreturn]] void badPrefix(std::string_view word, unsigned width, const std::exception& cause) {
   std::string_view family = width == 32 ? "IPv4" : "IPv6";
   size_t slash = word.find('/');
   if (slash == std::string_view::npos) fail("bad prefix '{}': no /LEN after the address", word);
   std::string_view addrText = word.substr(0, slash);
   std::string_view lenText = word.substr(slash + 1);
   uint32_t len = 0;
   if (!parseUnsigned(lenText, len)) {
      fail("bad prefix '{}': length '{}' is not a number", word, lenText);
   }
   Ulo::IpGenAddr addr;
   try {
      addr = Ulo::IpGenAddr::fromString(addrText);
   } catch (const std::range_error&) {
      fail("bad prefix '{}': '{}' is not an {} address", word, addrText, family);
   }
   if ((width == 32) != addr.isV4()) {
      fail("bad prefix '{}': '{}' is not an {} address", word, addrText, family);
   }
   if (len > width) fail("bad prefix '{}': length {} is past /{}", word, len, width);
   if (hostBitsSet(addr, len, width)) fail("bad prefix '{}': host bits set below /{}", word, len);
   fail("bad prefix '{}': {}", word, cause.what());
}

// A word that cannot be the start of an address: it is a keyword this form does not have.
bool isKeywordLike(std::string_view word) {
   char c = word.front();
   bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
   return letter && word.find(':') == std::string_view::npos;
}

void noMoreWords(Words& words) {
   std::string_view extra = words.next();
   if (!extra.empty()) fail("unexpected '{}' after the route", extra);
}

// ---- the three forms ---------------------------------------------------------------------

VrfId parseVrf(std::string_view text) {
   if (text.empty()) fail("'vrf' needs a number");
   VrfId vrf;
   try {
      vrf = VrfId::fromString(text);
   } catch (const std::range_error& e) {
      uint32_t n = 0;
      if (!parseUnsigned(text, n)) fail("'vrf' needs a number, not '{}'", text);
      fail("bad VRF '{}': {}", text, e.what());
   }
   if (!vrf.isValid()) fail("VRF {} is the invalid VRF", text);
   return vrf;
}

Route parseUnicast(std::string_view word, VrfId vrf) {
   if (isKeywordLike(word)) fail("unknown word '{}'", word);
   if (word.find(':') != std::string_view::npos) {
      try {
         return Route::of(Ipv6UcastKey(vrf, Ulo::Ip6Prefix::fromString(word)));
      } catch (const std::range_error& e) {
         badPrefix(word, 128, e);
      }
   }
   try {
      return Route::of(Ipv4UcastKey(vrf, Ulo::Prefix::fromString(word)));
   } catch (const std::range_error& e) {
      badPrefix(word, 32, e);
   }
}

// An IPv4 prefix where a bare address stands for its /32.
Ulo::Prefix parseV4PrefixOrHost(std::string_view word, std::string_view role) {
   if (word.find('/') != std::string_view::npos) {
      if (word.find(':') != std::string_view::npos) fail("{} '{}' is not IPv4", role, word);
      try {
         return Ulo::Prefix::fromString(word);
      } catch (const std::range_error& e) {
         badPrefix(word, 32, e);
      }
   }
   Ulo::IpGenAddr a;
   try {
      a = Ulo::IpGenAddr::fromString(word);
   } catch (const std::range_error&) {
      fail("bad {} '{}': not an address", role, word);
   }
   if (!a.isV4()) fail("{} '{}' is not IPv4", role, word);
   return Ulo::Prefix(a.v4Addr(), 32);
}

uint16_t parseMcastIdentifier(std::string_view keyword, std::string_view text) {
   uint32_t n = 0;
   if (text.empty()) fail("'{}' needs a number", keyword);
   if (!parseUnsigned(text, n)) fail("'{}' needs a number, not '{}'", keyword, text);
   if (n > maxMcastIdentifier) {
      fail("multicast {} {} is not below {}", keyword, n, maxMcastIdentifier + 1);
   }
   return uint16_t(n);
}

Route parseMcast(Words& words) {
   uint16_t vrf = 0, table = 0;
   bool haveVrf = false, haveTable = false;
   std::string_view word = words.next();
   for (;; word = words.next()) {
      if (word == "vrf" || word == "table") {
         bool& have = word == "vrf" ? haveVrf : haveTable;
         if (have) fail("'{}' given twice", word);
         have = true;
         (word == "vrf" ? vrf : table) = parseMcastIdentifier(word, words.next());
      } else {
         break;
      }
   }
   if (word.empty()) fail("missing multicast group");
   if (isKeywordLike(word)) fail("unknown word '{}'", word);
   Ulo::Prefix group = parseV4PrefixOrHost(word, "multicast group");
   if (group.len() < 4 || (group.addr() & 0xF0000000) != mcastGroupBase) {
      fail("multicast group {} is not in 224.0.0.0/4", word);
   }
   Ulo::IpGenAddr groupAddr = Ulo::IpGenAddr::v4(group.addr());
   std::string_view sourceWord = words.next();
   if (sourceWord.empty()) {
      return Route::of(IpMcastPrefixKey(vrf, table, groupAddr, Ulo::IpGenAddr::v4(0), group.len()));
   }
   if (group.len() != 32) fail("a source needs a /32 group, not {}", word);
   if (isKeywordLike(sourceWord)) fail("unknown word '{}'", sourceWord);
   Ulo::Prefix source = parseV4PrefixOrHost(sourceWord, "source");
   noMoreWords(words);
   return Route::of(IpMcastPrefixKey(vrf, table, groupAddr, Ulo::IpGenAddr::v4(source.addr()),
                                     uint8_t(32 + source.len())));
}

// ---- text form ---------------------------------------------------------------------------

void appendRoute(fmt::memory_buffer& out, const Route& r) {
   auto to = std::back_inserter(out);
   switch (r.family) {
      case Route::Family::v4:
         if (r.v4.vrfId.value() != 0) fmt::format_to(to, "vrf {} ", r.v4.vrfId);
         fmt::format_to(to, "{}", r.v4.prefix);
         return;
      case Route::Family::v6:
         if (r.v6.vrfId.value() != 0) fmt::format_to(to, "vrf {} ", r.v6.vrfId);
         fmt::format_to(to, "{}", r.v6.prefix);
         return;
      case Route::Family::mcast: {
         const IpMcastPrefixKey& k = r.mcast;
         fmt::format_to(to, "mcast");
         if (k.vrfIndex != 0) fmt::format_to(to, " vrf {}", k.vrfIndex);
         if (k.tableId != 0) fmt::format_to(to, " table {}", k.tableId);
         if (k.len <= 32) {
            fmt::format_to(to, " {}", k.group);
            if (k.len != 32) fmt::format_to(to, "/{}", k.len);
            return;
         }
         fmt::format_to(to, " {} {}", k.group, k.source);
         if (k.len != 64) fmt::format_to(to, "/{}", k.len - 32);
         return;
      }
   }
}

// The whole input: reading it in one piece and cutting lines out of it is much cheaper than a
// getline per line.
std::string readAll(std::istream& in, std::string_view name) {
   if (!in) throw InputError(name, 0, "cannot read the input");
   std::string all;
   char chunk[1 << 16];
   while (in.read(chunk, sizeof chunk) || in.gcount() > 0)
      all.append(chunk, size_t(in.gcount()));
   if (in.bad()) throw InputError(name, 0, "read error");
   return all;
}

size_t lineCount(std::string_view text) {
   return size_t(std::count(text.begin(), text.end(), '\n')) + 1;
}

// Calls onLine(text, lineNumber) for every line that holds more than blanks and a comment, with
// the comment and surrounding blanks removed. Turns the parser's complaints into InputError.
template <class OnLine>
void forEachLine(std::string_view all, std::string_view name, OnLine&& onLine) {
   std::string_view rest = all;
   uint32_t lineNo = 0;
   while (!rest.empty()) {
      ++lineNo;
      size_t end = rest.find('\n');
      std::string_view line = rest.substr(0, end);
      rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
      if (size_t hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);
      line = trimmed(line);
      if (line.empty()) continue;
      try {
         onLine(line, lineNo);
      } catch (const std::invalid_argument& e) {
         throw InputError(name, lineNo, e.what());
      }
   }
}

// Which routes of a table were seen before: positions in the table in an open-addressing array
// kept at most half full, each beside the upper half of its route's hash so that a probe rarely
// has to look at another route. A node-based map costs an allocation and two cache misses per
// route, which dominates reading a large table.
class FirstOccurrence {
 public:
   static constexpr uint32_t none = ~uint32_t(0);

   explicit FirstOccurrence(size_t expected) { resize(2 * expected); }

   // Records routes[i]; returns the position of an equal route recorded earlier, or none.
   uint32_t insert(const std::vector<Route>& routes, size_t i) {
      if (2 * (count_ + 1) > slots_.size()) grow(routes);
      uint64_t h = routes[i].hash();
      uint64_t tag = h >> 32 << 32;
      for (size_t s = h & mask_;; s = (s + 1) & mask_) {
         if (slots_[s] == empty) {
            slots_[s] = tag | i;
            ++count_;
            return none;
         }
         if ((slots_[s] & ~uint64_t(none)) == tag && routes[uint32_t(slots_[s])] == routes[i]) {
            return uint32_t(slots_[s]);
         }
      }
   }

 private:
   static constexpr uint64_t empty = ~uint64_t(0);

   void resize(size_t atLeast) {
      size_t cap = 1024;
      while (cap < atLeast)
         cap *= 2;
      slots_.assign(cap, empty);
      mask_ = cap - 1;
   }

   void grow(const std::vector<Route>& routes) {
      std::vector<uint64_t> old = std::move(slots_);
      resize(2 * old.size());
      for (uint64_t slot : old) {
         if (slot == empty) continue;
         size_t s = routes[uint32_t(slot)].hash() & mask_;
         while (slots_[s] != empty)
            s = (s + 1) & mask_;
         slots_[s] = slot;
      }
   }

   std::vector<uint64_t> slots_;
   size_t mask_ = 0;
   size_t count_ = 0;
};

std::string oneLine(std::string_view message) {
   std::string s(message);
   for (char& c : s) {
      if (c == '\n' || c == '\r') c = ' ';
   }
   return s;
}

}  // namespace

// ---- Route -------------------------------------------------------------------------------

Route Route::of(const Ipv4UcastKey& k) {
   Route r;
   r.family = Family::v4;
   r.v4 = k;
   return r;
}

Route Route::of(const Ipv6UcastKey& k) {
   Route r;
   r.family = Family::v6;
   r.v6 = k;
   return r;
}

Route Route::of(const IpMcastPrefixKey& k) {
   Route r;
   r.family = Family::mcast;
   r.mcast = k;
   return r;
}

uint32_t Route::len() const {
   switch (family) {
      case Family::v4:
         return v4.len();
      case Family::v6:
         return v6.len();
      case Family::mcast:
         return mcast.len;
   }
   return 0;
}

size_t Route::hash() const {
   size_t seed = Ulo::hashMix(0, uint64_t(family));
   switch (family) {
      case Family::v4:
         return v4.hash(seed);
      case Family::v6:
         return v6.hash(seed);
      case Family::mcast:
         return mcast.hash(seed);
   }
   return seed;
}

std::string Route::toString() const {
   fmt::memory_buffer buf;
   appendRoute(buf, *this);
   return fmt::to_string(buf);
}

InputError::InputError(std::string_view name, uint32_t line, std::string_view message)
    : std::runtime_error(fmt::format("{}:{}: {}", name, line, oneLine(message))), line_(line) {}

// ---- parsing and files -------------------------------------------------------------------

Route parseRoute(std::string_view text) {
   Words words(text);
   std::string_view word = words.next();
   if (word.empty()) fail("empty route");
   if (word == "mcast") return parseMcast(words);
   VrfId vrf;
   if (word == "vrf") {
      vrf = parseVrf(words.next());
      word = words.next();
      if (word.empty()) fail("missing prefix after 'vrf {}'", vrf);
   }
   Route r = parseUnicast(word, vrf);
   noMoreWords(words);
   return r;
}

std::vector<Route> readRouteTable(std::istream& in, std::string_view name) {
   std::string all = readAll(in, name);
   size_t lines = lineCount(all);
   std::vector<Route> routes;
   std::vector<uint32_t> lineOf;
   routes.reserve(lines);
   lineOf.reserve(lines);
   FirstOccurrence seen(lines);
   forEachLine(all, name, [&](std::string_view line, uint32_t lineNo) {
      routes.push_back(parseRoute(line));
      if (uint32_t first = seen.insert(routes, routes.size() - 1); first != FirstOccurrence::none) {
         fail("duplicate route, first on line {}", lineOf[first]);
      }
      lineOf.push_back(lineNo);
   });
   TRACE(th, 1, "read ", routes.size(), " routes from ", name);
   return routes;
}

std::vector<RouteOp> readTrace(std::istream& in, std::string_view name) {
   std::string all = readAll(in, name);
   std::vector<RouteOp> ops;
   ops.reserve(lineCount(all));
   forEachLine(all, name, [&](std::string_view line, uint32_t lineNo) {
      Words words(line);
      std::string_view verb = words.next();
      RouteOp op;
      if (verb == "add") {
         op.kind = RouteOp::Kind::add;
      } else if (verb == "del") {
         op.kind = RouteOp::Kind::del;
      } else {
         fail("expected 'add' or 'del', not '{}'", verb);
      }
      std::string_view route = words.rest();
      if (route.empty()) fail("missing route after '{}'", verb);
      op.route = parseRoute(route);
      op.line = lineNo;
      ops.push_back(op);
   });
   TRACE(th, 1, "read ", ops.size(), " operations from ", name);
   return ops;
}

void writeRouteTable(std::ostream& out, const std::vector<Route>& routes,
                     std::string_view comment) {
   fmt::memory_buffer buf;
   auto to = std::back_inserter(buf);
   while (!comment.empty()) {
      size_t end = comment.find('\n');
      std::string_view line = comment.substr(0, end);
      comment.remove_prefix(end == std::string_view::npos ? comment.size() : end + 1);
      if (line.empty()) {
         fmt::format_to(to, "#\n");
      } else {
         fmt::format_to(to, "# {}\n", line);
      }
   }
   for (const Route& r : routes) {
      appendRoute(buf, r);
      buf.push_back('\n');
      if (buf.size() > (1u << 16)) {
         out.write(buf.data(), std::streamsize(buf.size()));
         buf.clear();
      }
   }
   out.write(buf.data(), std::streamsize(buf.size()));
}

}  // namespace VexloL3Common::sim
