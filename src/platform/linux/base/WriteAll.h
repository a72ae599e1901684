#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// Writes all of a text to a file. False, with errno, where that fails.
inline bool write_all(const Descriptor& file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(file.get(), text.data(), text.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace orvane
