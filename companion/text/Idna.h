#pragma once

#include <cstdint>
#include <string>

namespace orvane {

// What a system's library makes of one label of an international host name.
struct ALabel {
  enum class Status : uint8_t {
    Found,
    Forbidden,  // only by IDNA's own list of letters, or its rules about hyphens; browsers, which follow UTS #46 alone,
                // send such an A-label
    Invalid,
    NotUTF8,
    TooLong,  // more than 63 characters
    OutOfMemory,
  };

  Status status = Status::Invalid;
  std::string text;    // when found; empty where every letter of the label is mapped to nothing
  std::string reason;  // when forbidden or invalid: the library's words
};

// The A-label of a label in UTF-8, by UTS #46, non-transitional. A label that is one already gives the one that
// its letters have, or is invalid.
ALabel look_up_label(const std::string& label);

}  // namespace orvane
