#include "companion/subscriptions/Signature.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <stdexcept>

#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"

namespace orvane {
namespace {

const unsigned char* bytes_of(std::string_view text) { return reinterpret_cast<const unsigned char*>(text.data()); }

// A public key, or a signature with the key that made it. The algorithm is a text of two letters.
constexpr size_t kAlgorithmSize = 2, kIdSize = 8;
constexpr size_t kKeySize = kAlgorithmSize + kIdSize + crypto_sign_PUBLICKEYBYTES;
constexpr size_t kSignatureSize = kAlgorithmSize + kIdSize + crypto_sign_BYTES;

// Decodes Base64 into exactly `size` bytes. False for any other text.
template <size_t size>
bool decode(std::string_view text, std::array<char, size>& bytes) {
  size_t got = 0;
  const char* end = nullptr;
  return sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()), size, text.data(), text.size(), nullptr,
                           &got, &end, sodium_base64_VARIANT_ORIGINAL) == 0 &&
         got == size && end == text.data() + text.size();
}

template <size_t size>
std::string_view part(const std::array<char, size>& bytes, size_t begin, size_t length) {
  return std::string_view(bytes.data(), size).substr(begin, length);
}

std::string_view take_line(std::string_view& text) {
  const size_t end = std::min(text.find('\n'), text.size());
  std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

bool is_signed(std::string_view signature, std::string_view message, std::string_view key) {
  return crypto_sign_verify_detached(bytes_of(signature), bytes_of(message), message.size(), bytes_of(key)) == 0;
}

std::string blake2b_512(std::string_view content) {
  std::string hash(crypto_generichash_BYTES_MAX, '\0');
  crypto_generichash(reinterpret_cast<unsigned char*>(hash.data()), hash.size(), bytes_of(content), content.size(),
                     nullptr, 0);
  return hash;
}

std::optional<Moment> timestamp_in(std::string_view comment) {
  constexpr std::string_view kTimestamp = "timestamp:";
  constexpr int64_t kLatest = 253402300799;  // the end of the year 9999
  const size_t at = comment.find(kTimestamp);
  if (at == std::string_view::npos) return std::nullopt;
  comment.remove_prefix(at + kTimestamp.size());
  int64_t seconds = 0;
  if (std::from_chars(comment.data(), comment.data() + comment.size(), seconds).ec != std::errc()) return std::nullopt;
  return Moment(std::chrono::seconds(std::clamp<int64_t>(seconds, 0, kLatest)));
}

}  // namespace

SignedFile verify_signature(std::string_view content, std::string_view signature, std::string_view key) {
  constexpr std::string_view kTrusted = "trusted comment: ";
  if (sodium_init() < 0) throw std::runtime_error("libsodium does not start");
  std::array<char, kKeySize> publicKey{};
  if (!decode(key, publicKey) || part(publicKey, 0, kAlgorithmSize) != "Ed")
    throw InputError("the subscription's key is no public key of minisign: give another one with --key");
  take_line(signature);  // the untrusted comment
  std::array<char, kSignatureSize> ofContent{};
  std::array<char, crypto_sign_BYTES> ofComment{};
  const bool hasSignature = decode(trimmed(take_line(signature)), ofContent);
  std::string_view comment = take_line(signature);
  if (!hasSignature || !comment.starts_with(kTrusted) || !decode(trimmed(take_line(signature)), ofComment))
    throw InputError("its signature is no file of minisign: sign the list again");
  comment.remove_prefix(kTrusted.size());

  const std::string_view algorithm = part(ofContent, 0, kAlgorithmSize);
  if (algorithm != "Ed" && algorithm != "ED")
    throw InputError("its signature uses an unknown algorithm: sign the list with minisign");
  if (part(ofContent, kAlgorithmSize, kIdSize) != part(publicKey, kAlgorithmSize, kIdSize))
    throw InputError("it is signed with another key than the subscription's: the list may come from somebody else");
  const std::string_view bytes = part(ofContent, kAlgorithmSize + kIdSize, crypto_sign_BYTES);
  const std::string_view signer = part(publicKey, kAlgorithmSize + kIdSize, crypto_sign_PUBLICKEYBYTES);
  const std::string hash = algorithm == "ED" ? blake2b_512(content) : "";
  if (!is_signed(bytes, algorithm == "ED" ? hash : content, signer))
    throw InputError("its signature is wrong: the list was changed after it was signed");
  if (!is_signed(part(ofComment, 0, crypto_sign_BYTES), std::string(bytes).append(comment), signer))
    throw InputError("the signature of its trusted comment is wrong: the comment was changed after it was signed");
  return {std::string(comment), timestamp_in(comment)};
}

}  // namespace orvane
