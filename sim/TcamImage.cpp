#include "sim/TcamImage.h"

#include "platform/Assert.h"

namespace VexloL3Common::sim {

std::vector<TcamHardwareEntry> imageOf(const TcamEmulator& emu) {
   std::vector<TcamHardwareEntry> image;
   emu.forEachEntry([&](uint32_t pos, const TcamEntry& e) {
      TcamHardwareEntry h;
      h.pos = pos;
      switch (e.kind) {
         case EntryKind::v4:
            h.kind = TcamHardwareEntry::Kind::v4;
            h.v4 = e.v4;
            break;
         case EntryKind::v6Single:
            h.kind = TcamHardwareEntry::Kind::v6Single;
            h.v6 = e.v6;
            break;
         case EntryKind::v6DoubleFirst:
            h.kind = TcamHardwareEntry::Kind::v6Double;
            h.v6 = e.v6;
            break;
         case EntryKind::v6DoubleSecond:
            h.kind = TcamHardwareEntry::Kind::v6DoubleSecond;
            h.v6 = e.v6;
            break;
         case EntryKind::mcast:
            h.kind = TcamHardwareEntry::Kind::mcast;
            h.mcast = e.mcast;
            break;
         case EntryKind::empty:
            VEXLO_UNREACHABLE("forEachEntry visits non-empty entries only");
      }
      image.push_back(h);
   });
   return image;
}

}  // namespace VexloL3Common::sim
