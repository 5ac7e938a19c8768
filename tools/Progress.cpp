// The progress bar: redrawn in place on stderr, only when stderr is a terminal (or asked for),
// and only when the shown permille changes, so that it costs nothing measurable.
#include <unistd.h>

#include <cstdio>

#include "tools/Tool.h"

namespace VexloL3Common::tool {

ProgressBar::ProgressBar(const std::string& mode)
    : on_(mode == "always" || (mode == "auto" && ::isatty(STDERR_FILENO))) {}

ProgressBar::~ProgressBar() {
   done();
}

sim::Simulation::Progress ProgressBar::phase(std::string label) {
   if (!on_) return {};
   lastPermille_ = -1;
   return [this, label = std::move(label)](uint64_t done, uint64_t total) {
      const int permille = total ? int(done * 1000 / total) : 1000;
      if (permille == lastPermille_) return;
      lastPermille_ = permille;
      constexpr int width = 40;
      char bar[width + 1];
      const int filled = permille * width / 1000;
      for (int i = 0; i < width; ++i)
         bar[i] = i < filled ? '#' : ' ';
      bar[width] = '\0';
      std::fprintf(stderr, "\r[%s] %5.1f %% %s\033[K", bar, permille / 10.0, label.c_str());
      drawn_ = true;
      std::fflush(stderr);
   };
}

void ProgressBar::done() {
   if (drawn_) {
      // Erase the bar so that what follows starts on a clean line.
      std::fprintf(stderr, "\r\033[K");
      std::fflush(stderr);
   }
   drawn_ = false;
   lastPermille_ = -1;
}

}  // namespace VexloL3Common::tool
