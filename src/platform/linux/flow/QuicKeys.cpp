#include "platform/linux/flow/QuicKeys.h"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

#include <algorithm>
#include <string_view>

namespace orvane {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kSecretLength = 32;  // SHA-256
constexpr size_t kSampleLength = 16;  // RFC 9001, section 5.4.2: one block of AES
constexpr size_t kSampleOffset = 4;   // from the first byte of the packet number
constexpr size_t kTagLength = 16;

// What differs between the versions: RFC 9001, sections 5.1 and 5.2; RFC 9369, section 3.3.
struct Constants {
  std::array<uint8_t, 20> salt;
  std::string_view key, iv, headerKey;
};
constexpr Constants kV1{{0x38, 0x76, 0x2c, 0xf7, 0xf5, 0x59, 0x34, 0xb3, 0x4d, 0x17,
                         0x9a, 0xe6, 0xa4, 0xc8, 0x0c, 0xad, 0xcc, 0xbb, 0x7f, 0x0a},
                        "quic key",
                        "quic iv",
                        "quic hp"};
constexpr Constants kV2{{0x0d, 0xed, 0xe3, 0xde, 0xf7, 0x00, 0xa6, 0xdb, 0x81, 0x93,
                         0x81, 0xbe, 0x6e, 0x26, 0x9d, 0xcb, 0xf9, 0xbd, 0x2e, 0xd9},
                        "quicv2 key",
                        "quicv2 iv",
                        "quicv2 hp"};

gnutls_datum_t datum(Bytes bytes) { return {const_cast<uint8_t*>(bytes.data()), static_cast<unsigned>(bytes.size())}; }

// HKDF-Expand-Label with an empty context (RFC 8446, section 7.1). Returns whether it succeeded.
bool expand_label(Bytes secret, std::string_view label, std::span<uint8_t> output) {
  constexpr std::string_view kPrefix = "tls13 ";
  std::vector<uint8_t> text{0, static_cast<uint8_t>(output.size()),
                            static_cast<uint8_t>(kPrefix.size() + label.size())};
  text.insert(text.end(), kPrefix.begin(), kPrefix.end());
  text.insert(text.end(), label.begin(), label.end());
  text.push_back(0);
  const gnutls_datum_t key = datum(secret), info = datum(text);
  return gnutls_hkdf_expand(GNUTLS_MAC_SHA256, &key, &info, output.data(), output.size()) == 0;
}

// Returns the mask that hides a packet's first byte and its packet number (RFC 9001, section 5.4.3): the sample,
// encrypted with AES in ECB mode. GnuTLS has no ECB mode; for one block, CBC mode with an initialization vector of
// zeros gives the same result.
std::optional<std::array<uint8_t, kSampleLength>> header_mask(Bytes headerKey, Bytes sample) {
  const std::array<uint8_t, kSampleLength> zeros{};
  std::array<uint8_t, kSampleLength> mask;
  const gnutls_datum_t key = datum(headerKey), iv = datum(zeros);
  gnutls_cipher_hd_t cipher = nullptr;
  if (gnutls_cipher_init(&cipher, GNUTLS_CIPHER_AES_128_CBC, &key, &iv) != 0) return std::nullopt;
  const int status = gnutls_cipher_encrypt2(cipher, sample.data(), sample.size(), mask.data(), mask.size());
  gnutls_cipher_deinit(cipher);
  if (status != 0) return std::nullopt;
  return mask;
}

// The whole packet number, of which a sender leaves out the upper bytes (RFC 9000, appendix A.3).
uint64_t whole_number(uint64_t sent, size_t bytes, uint64_t next) {
  const uint64_t window = uint64_t{1} << (8 * bytes), half = window / 2;
  const uint64_t candidate = (next & ~(window - 1)) | sent;
  if (candidate + half <= next) return candidate + window;
  return candidate > next + half && candidate >= window ? candidate - window : candidate;
}

}  // namespace

std::optional<QuicKeys> QuicKeys::derive(QuicVersion version, Bytes destination) {
  const Constants& constants = version == QuicVersion::V1 ? kV1 : kV2;
  std::array<uint8_t, kSecretLength> initial, client;
  const gnutls_datum_t input = datum(destination), salt = datum(constants.salt);
  QuicKeys keys;
  if (gnutls_hkdf_extract(GNUTLS_MAC_SHA256, &input, &salt, initial.data()) != 0 ||
      !expand_label(initial, "client in", client) || !expand_label(client, constants.key, keys.key_) ||
      !expand_label(client, constants.iv, keys.iv_) || !expand_label(client, constants.headerKey, keys.headerKey_)) {
    return std::nullopt;
  }
  return keys;
}

std::optional<std::vector<uint8_t>> QuicKeys::open(Bytes packet, size_t numberOffset) {
  if (packet.size() < numberOffset + kSampleOffset + kSampleLength) return std::nullopt;
  const auto mask = header_mask(headerKey_, packet.subspan(numberOffset + kSampleOffset, kSampleLength));
  if (!mask) return std::nullopt;

  // The header without its protection is the additional data of the AEAD. The nonce is the packet number XOR the IV.
  std::vector<uint8_t> header(packet.begin(), packet.begin() + static_cast<ptrdiff_t>(numberOffset));
  header[0] ^= (*mask)[0] & 0x0f;
  const size_t numberLength = 1 + (header[0] & 0x03U);
  uint64_t sent = 0;
  for (size_t i = 0; i < numberLength; ++i) {
    header.push_back(packet[numberOffset + i] ^ (*mask)[1 + i]);
    sent = sent << 8 | header.back();
  }
  const uint64_t number = whole_number(sent, numberLength, nextNumber_);
  auto nonce = iv_;
  for (size_t i = 0; i < 8; ++i) nonce[nonce.size() - 1 - i] ^= static_cast<uint8_t>(number >> (8 * i));

  const Bytes sealed = packet.subspan(header.size());
  std::vector<uint8_t> frames(sealed.size());
  size_t length = frames.size();
  const gnutls_datum_t key = datum(key_);
  gnutls_aead_cipher_hd_t cipher = nullptr;
  if (gnutls_aead_cipher_init(&cipher, GNUTLS_CIPHER_AES_128_GCM, &key) != 0) return std::nullopt;
  const int status = gnutls_aead_cipher_decrypt(cipher, nonce.data(), nonce.size(), header.data(), header.size(),
                                                kTagLength, sealed.data(), sealed.size(), frames.data(), &length);
  gnutls_aead_cipher_deinit(cipher);
  if (status != 0) return std::nullopt;
  nextNumber_ = std::max(nextNumber_, number + 1);
  frames.resize(length);
  return frames;
}

}  // namespace orvane
