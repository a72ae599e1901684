#pragma once

#include <cstdint>
#include <string>

namespace orvane {

// The system library's answer about one label of an international host name.
struct ALabel {
  enum class Status : uint8_t {
    Found,
    Forbidden,  // IDNA forbids a letter or a hyphen of the label, but UTS #46 allows it: browsers send the A-label
    Invalid,
    NotUTF8,
    TooLong,  // more than 63 characters
    OutOfMemory,
  };

  Status status = Status::Invalid;
  std::string text;    // if Found: the A-label; empty if UTS #46 maps every letter of the label to nothing
  std::string reason;  // if Forbidden or Invalid: the library's message
};

// Converts a label in UTF-8 to its A-label, by UTS #46, non-transitional. A label that already is an A-label is decoded
// and encoded again.
ALabel look_up_label(const std::string& label);

// Converts an A-label to Unicode, in UTF-8. Empty if look_up_label() does not find the same A-label for the result. So
// on Linux, the result contains only letters that IDNA allows.
std::string unicode_label(const std::string& label);

}  // namespace orvane
