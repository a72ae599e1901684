#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "companion/text/TimeText.h"

namespace orvane {

// What a signature says about its file. The comment is signed, too.
struct SignedFile {
  std::string trustedComment;
  std::optional<Moment> timestamp;  // the "timestamp:" that minisign writes into the comment by default
};

// Verifies a signature in the form of minisign(1): Ed25519 of the content ("Ed"), or of its BLAKE2b-512 hash ("ED").
// `signature` is the text of the .minisig file, `key` the public key in Base64. Throws InputError if the signature or
// the key is invalid.
SignedFile verify_signature(std::string_view content, std::string_view signature, std::string_view key);

}  // namespace orvane
