#pragma once

#include <cstddef>
#include <string>

namespace orvane {

// A progress bar on standard error, if that is a terminal. Erase the bar before any other output to standard error.
class ProgressBar {
 public:
  explicit ProgressBar(bool wanted);
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  ~ProgressBar() { erase(); }

  // `text`: what is shown beside the bar. If `total` is 0, because it is unknown, there is only the text.
  void show(size_t bytes, size_t total, const std::string& text);
  void erase();

 private:
  const bool isWanted_;
  bool isShown_ = false;
};

}  // namespace orvane
