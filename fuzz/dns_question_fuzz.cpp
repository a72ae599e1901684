#include <cstdint>
#include <cstring>

#include "platform/DNS.h"

using namespace orvane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  auto* question = dns_parse_question(reinterpret_cast<const char*>(bytes), static_cast<uint32_t>(size));
  // A name has at most 255 octets, and an escaped octet takes at most four characters.
  if (question != nullptr && question->name != nullptr && std::strlen(question->name) > 1020) __builtin_trap();
  dns_free_question(question);
  return 0;
}
