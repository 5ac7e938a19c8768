// Show output of the software TCAM: summary, prefix-length ranges and the route table, written
// line by line to the caller's file descriptor. The report is never held whole in memory: a
// table of a hundred thousand routes streams straight to the reader.
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <string_view>
#include <system_error>
#include <utility>

#include "VexloL3Common/state/L3RoutesDir.h"
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("VexloL3CommonTcamTable");

// Writes all of text, however many writes it takes. A descriptor that refuses the output ends
// the report with std::system_error; nothing of the model depends on the report.
void writeAll(int fd, std::string_view text) {
   while (!text.empty()) {
      const ssize_t n = ::write(fd, text.data(), text.size());
      if (n > 0) {
         text.remove_prefix(size_t(n));
         continue;
      }
      if (n < 0 && errno == EINTR) continue;
      throw std::system_error(n < 0 ? errno : EIO, std::generic_category(),
                              "showSoftwareTcamTable: write");
   }
}

// Formats one line into a buffer on the stack and writes it.
template <class... Args>
void writeLine(int fd, fmt::format_string<Args...> format, Args&&... args) {
   fmt::memory_buffer line;
   fmt::format_to(std::back_inserter(line), format, std::forward<Args>(args)...);
   writeAll(fd, std::string_view(line.data(), line.size()));
}

}  // namespace

void L3TcamManagerContext::showSoftwareTcamTableSummary(int fd) const {
   TRACE(th, 8, "showSoftwareTcamTableSummary");
   VEXLO_ASSERT(!v4Mcast(), "!v4Mcast()");
   VEXLO_ASSERT(layoutDone_, "layoutDone()");
   const uint32_t e4 = entries(RouteType::v4);
   const uint32_t e6h = entries(RouteType::v6Half);
   const uint32_t e6f = entries(RouteType::v6Full);
   const uint32_t h = uint32_t(v4_->halfFullSize());
   // The capacity is always given as two less than the effective size, whatever the number of
   // reserved entries: readers of this report compare it across releases.
   writeLine(fd, "LPM table mode: {}, table usage: {}/{}\n", tcamMode(), e4 + e6h + 2 * e6f,
             effectiveSize_ - 2);
   writeLine(fd, "IPv4 entries: {} (full: {}, half full: {}), routes: {}\n", e4, e4 - h, h,
             2 * e4 - h);
   writeLine(fd, "IPv6 half size entries: {}, routes: {}\n", e6h, e6h);
   writeLine(fd, "IPv6 full size entries: {}, routes: {}\n", 2 * e6f, e6f);
   writeLine(fd, "uRPF enabled: {}, tcam size(effective): {}( {} )\n", int(urpfEnabled_),
             tcamSize(), effectiveSize_);
   writeLine(fd, "Entries moved IPv4: {}, IPv6 Half: {}, Full: {}\n\n",
             stats_->moveRoute(RouteType::v4), stats_->moveRoute(RouteType::v6Half),
             stats_->moveRoute(RouteType::v6Full));
}

void L3TcamManagerContext::showSoftwareTcamTableIndexRange(int fd) const {
   TRACE(th, 8, "showSoftwareTcamTableIndexRange");
   VEXLO_ASSERT(!v4Mcast(), "!v4Mcast()");
   VEXLO_ASSERT(layoutDone_, "layoutDone()");
   auto printRanges = [fd](const TcamBlock& blk) {
      blk.forEachLengthRange([fd](uint32_t len, const IndexRange& ir) {
         writeLine(fd, "Prefix length: {}, range: {}/{}\n", len, ir.start(), ir.end());
      });
   };
   writeLine(fd, "Index range for IPv4 routes\n");
   printRanges(*block(RouteType::v4));
   writeLine(fd, "\nIndex range for IPv6 routes (single size)\n");
   printRanges(*block(RouteType::v6Half));
   writeLine(fd, "\nIndex range for IPv6 routes (double size)\n");
   // Double-size ranges are in pair numbers; the hardware index of a pair needs the gap.
   VEXLO_ASSERT(occupancy_.gap() != 0, "lpmPairGap() != 0");
   block(RouteType::v6Full)->forEachLengthRange([this, fd](uint32_t len, const IndexRange& ir) {
      writeLine(fd, "Prefix length: {}, range: {}/{} (actual: {}/{})\n", len, ir.start(), ir.end(),
                pairToPhysical(ir.start()), pairToPhysical(ir.end()));
   });
}

void L3TcamManagerContext::showSoftwareTcamTable(int fd, bool detail) const {
   TRACE(th, 8, "showSoftwareTcamTable");
   showSoftwareTcamTableSummary(fd);
   if (detail) showSoftwareTcamTableIndexRange(fd);

   CliSorter sorter;
   v4_->forEachKeys([&sorter](uint32_t pos, const Ipv4Keys&) { sorter.entryIdIs(pos); });
   writeLine(fd, "IPv4 routes\n");
   writeLine(fd, "Entry   Position     Vrf   Route\n");
   for (uint32_t pos : sorter) {
      const Ipv4Keys k = v4_->keys(pos);
      if (!k.left.isNull()) {
         writeLine(fd, "{:5}   {:>8}   {:5}   {}\n", pos, "Left", k.left.vrfId.value(),
                   k.left.prefix.toString());
      }
      if (!k.right.isNull()) {
         writeLine(fd, "{:5}   {:>8}   {:5}   {}\n", pos, "Right", k.right.vrfId.value(),
                   k.right.prefix.toString());
      }
   }
   writeLine(fd, "\n");

   writeLine(fd, "IPv6 routes (single size)\n");
   writeLine(fd, "Entry     Vrf   Route\n");
   v6_->forEachEntryIdToKey([this, fd](uint32_t pos, const Ipv6UcastKey& key) {
      if (v6_->v6RouteTypeFromPos(pos) != RouteType::v6Half) return;
      writeLine(fd, "{:5}   {:5}   {}\n", pos, key.vrfId.value(), key.prefix.toString());
   });
   writeLine(fd, "\n");

   writeLine(fd, "IPv6 routes (double size)\n");
   writeLine(fd, "Entry1   Entry2     Vrf   Route\n");
   VEXLO_ASSERT(occupancy_.gap() != 0, "lpmPairGap() != 0");
   // The IPv6 mapping records a double-size route at the first entry of its pair.
   v6_->forEachEntryIdToKey([this, fd](uint32_t pos, const Ipv6UcastKey& key) {
      if (v6_->v6RouteTypeFromPos(pos) != RouteType::v6Full) return;
      writeLine(fd, "{:6}   {:6}   {:5}   {}\n", pos, pos + occupancy_.gap(), key.vrfId.value(),
                key.prefix.toString());
   });
   writeLine(fd, "\n");
}

}  // namespace VexloL3Common
