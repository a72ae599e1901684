#include "companion/text/ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace orvane {

ProgressBar::ProgressBar(bool wanted) : isWanted_(wanted && isatty(STDERR_FILENO) == 1) {}

void ProgressBar::show(size_t bytes, size_t total, const std::string& text) {
  constexpr size_t kWidth = 30;
  if (!isWanted_) return;
  const size_t filled = total == 0 ? kWidth : std::min(bytes, total) * kWidth / total;
  const size_t percent = total == 0 ? 100 : std::min(bytes, total) * 100 / total;
  const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, ' ');
  std::fprintf(stderr, "\r\x1b[K[%s] %3zu %%  %s", bar.c_str(), percent, text.c_str());
  std::fflush(stderr);
  isShown_ = true;
}

void ProgressBar::erase() {
  if (isShown_) std::fputs("\r\x1b[K", stderr);
  isShown_ = false;
}

}  // namespace orvane
