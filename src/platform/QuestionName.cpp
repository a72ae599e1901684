#include "platform/QuestionName.h"

namespace orvane {
namespace {

constexpr size_t kMaxName = 255;  // RFC 1035, section 2.3.4: octets of a name, including its length octets
constexpr uint8_t kMaxLabel = 63;

}  // namespace

size_t question_name_length(std::span<const uint8_t> bytes) {
  for (size_t at = 0; at < bytes.size() && at < kMaxName;) {
    uint8_t label = bytes[at];
    if (label == 0) return at + 1;
    if (label > kMaxLabel) return 0;
    at += 1 + size_t{label};
  }
  return 0;
}

}  // namespace orvane
