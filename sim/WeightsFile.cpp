#include "sim/WeightsFile.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>
#include <vector>

#include "sim/Quote.h"
#include "sim/Route.h"

namespace VexloL3Common::sim {

namespace {

bool isBlank(char c) {
   return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

std::vector<std::string_view> wordsOf(std::string_view line) {
   std::vector<std::string_view> words;
   size_t i = 0;
   while (i < line.size()) {
      while (i < line.size() && isBlank(line[i]))
         ++i;
      const size_t start = i;
      while (i < line.size() && !isBlank(line[i]))
         ++i;
      if (i > start) words.push_back(line.substr(start, i - start));
   }
   return words;
}

bool parseNumber(std::string_view text, uint32_t& out) {
   if (text.empty()) return false;
   const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
   return ec == std::errc() && ptr == text.data() + text.size();
}

// One line's words into w; the message for the operator when they are not a weight.
std::string parseLine(const std::vector<std::string_view>& words, PlacementWeights& w,
                      std::vector<uint32_t>& firstLine, uint32_t line) {
   if (words.size() != 3) {
      std::string text;
      for (std::string_view word : words) {
         if (!text.empty()) text += ' ';
         text.append(word);
      }
      return fmt::format("expected 'v4 /LENGTH WEIGHT' or 'v6 /LENGTH WEIGHT', got '{}'",
                         clipped(text));
   }
   const bool v4 = words[0] == "v4";
   if (!v4 && words[0] != "v6")
      return fmt::format("unknown family '{}' (v4 or v6)", clipped(words[0]));
   const uint32_t maxLen = v4 ? 32 : 128;
   uint32_t len = 0, weight = 0;
   if (words[1].size() < 2 || words[1][0] != '/' || !parseNumber(words[1].substr(1), len) ||
       len > maxLen) {
      return fmt::format("length '{}' is not /0 to /{}", clipped(words[1]), maxLen);
   }
   if (!parseNumber(words[2], weight) || weight > maxPlacementWeight) {
      return fmt::format("weight '{}' is not a whole number from 0 to {}", clipped(words[2]),
                         maxPlacementWeight);
   }
   // v4 lengths first, then v6, in one array of first lines.
   uint32_t& first = firstLine[v4 ? len : 33 + len];
   if (first) return fmt::format("{} /{} given twice (first on line {})", words[0], len, first);
   first = line;
   (v4 ? w.v4[len] : w.v6[len]) = weight;
   return {};
}

}  // namespace

PlacementWeights readWeightsText(std::string_view text, std::string_view name) {
   PlacementWeights w;
   std::vector<uint32_t> firstLine(33 + 129, 0);
   uint32_t line = 0;
   bool any = false;
   while (!text.empty()) {
      ++line;
      const size_t end = text.find('\n');
      std::string_view l = text.substr(0, end);
      text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
      if (const size_t hash = l.find('#'); hash != std::string_view::npos) l = l.substr(0, hash);
      const std::vector<std::string_view> words = wordsOf(l);
      if (words.empty()) continue;
      const std::string error = parseLine(words, w, firstLine, line);
      if (!error.empty()) throw InputError(clipped(name), line, error);
      any = true;
   }
   if (!any) {
      throw std::invalid_argument(
          fmt::format("{}: no weights; each line is 'v4 /LENGTH WEIGHT' or 'v6 /LENGTH WEIGHT'",
                      clipped(name)));
   }
   return w;
}

std::string weightsText(const PlacementWeights& w) {
   std::string out;
   for (size_t len = 0; len < w.v4.size(); ++len)
      if (w.v4[len]) out += fmt::format("v4 /{} {}\n", len, w.v4[len]);
   for (size_t len = 0; len < w.v6.size(); ++len)
      if (w.v6[len]) out += fmt::format("v6 /{} {}\n", len, w.v6[len]);
   return out;
}

}  // namespace VexloL3Common::sim
