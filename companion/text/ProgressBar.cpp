#include "companion/text/ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace orvane {

ProgressBar::ProgressBar(bool wanted) : isWanted_(wanted && isatty(STDERR_FILENO) == 1) {}

void ProgressBar::show(size_t bytes, size_t total, const std::string& text) {
  constexpr size_t kWidth = 30;
  if (!isWanted_) return;
  std::fputs("\r\x1b[K", stderr);
  if (total > 0) {
    const size_t done = std::min(bytes, total);
    const std::string bar(done * kWidth / total, '#');
    std::fprintf(stderr, "[%-*s] %3zu %%  ", static_cast<int>(kWidth), bar.c_str(), done * 100 / total);
  }
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
  isShown_ = true;
}

void ProgressBar::erase() {
  if (isShown_) std::fputs("\r\x1b[K", stderr);
  isShown_ = false;
}

}  // namespace orvane
