#include "companion/text/Sha256.h"

#include <CommonCrypto/CommonDigest.h>

#include <array>
#include <cstddef>
#include <limits>

namespace orvane {

std::string sha256_text(std::string_view bytes) {
  CC_SHA256_CTX context;
  CC_SHA256_Init(&context);
  while (!bytes.empty()) {
    const auto part = bytes.substr(0, std::numeric_limits<CC_LONG>::max());
    CC_SHA256_Update(&context, part.data(), static_cast<CC_LONG>(part.size()));
    bytes.remove_prefix(part.size());
  }
  std::array<unsigned char, CC_SHA256_DIGEST_LENGTH> digest{};
  CC_SHA256_Final(digest.data(), &context);
  std::string text;
  for (const unsigned char byte : digest) {
    for (const int digit : {byte >> 4, byte & 15}) text += "0123456789abcdef"[digit];
  }
  return text;
}

}  // namespace orvane
