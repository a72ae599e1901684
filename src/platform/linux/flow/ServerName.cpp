#include "platform/linux/flow/ServerName.h"

#include <gnutls/gnutls.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/flow/RequestHost.h"

namespace orvane {
namespace {

constexpr uint8_t kHandshakeRecord = 22;  // RFC 8446, section 5.1
constexpr uint8_t kClientHello = 1;       // RFC 8446, section 4
constexpr size_t kRecordHeaderLength = 5;
constexpr size_t kHandshakeHeaderLength = 4;
constexpr unsigned kServerNameExtension = 0;  // RFC 6066, section 1.1
constexpr uint8_t kHostNameType = 0;          // RFC 6066, section 3

size_t big_endian(std::span<const uint8_t> bytes) {
  size_t number = 0;
  for (uint8_t byte : bytes) number = number << 8 | byte;
  return number;
}

// The length of the first handshake message with its header. Nothing while the header is incomplete.
std::optional<size_t> message_length(std::span<const uint8_t> handshake) {
  if (handshake.size() < kHandshakeHeaderLength) return std::nullopt;
  return kHandshakeHeaderLength + big_endian(handshake.subspan(1, 3));
}

// The handshake bytes of the TLS records, up to the end of the first message or later. Nothing when another type of
// record precedes that end; after it, other types are normal (early data).
std::optional<std::vector<uint8_t>> handshake_bytes(std::span<const uint8_t> records) {
  std::vector<uint8_t> handshake;
  while (!records.empty()) {
    if (auto length = message_length(handshake); length && handshake.size() >= *length) break;
    if (records[0] != kHandshakeRecord || (records.size() > 1 && records[1] != 3)) return std::nullopt;
    if (records.size() < kRecordHeaderLength) break;
    size_t length = big_endian(records.subspan(3, 2));
    if (length == 0) return std::nullopt;
    auto fragment = records.subspan(kRecordHeaderLength);
    fragment = fragment.first(std::min(length, fragment.size()));
    handshake.insert(handshake.end(), fragment.begin(), fragment.end());
    records = records.subspan(kRecordHeaderLength + fragment.size());
  }
  return handshake;
}

// Stores the first host name of the server name extension. GnuTLS calls this for each extension.
int take_extension(void* context, unsigned id, const unsigned char* data, unsigned size) {
  auto& found = *static_cast<std::string*>(context);
  std::span<const uint8_t> list(data, size);
  if (id != kServerNameExtension || list.size() < 2 || big_endian(list.first(2)) > list.size() - 2) return 0;
  list = list.subspan(2, big_endian(list.first(2)));
  while (list.size() >= 3) {
    size_t length = big_endian(list.subspan(1, 2));
    if (length > list.size() - 3) return 0;
    auto name = list.subspan(3, length);
    if (list[0] == kHostNameType && found.empty()) found.assign(name.begin(), name.end());
    list = list.subspan(3 + length);
  }
  return 0;
}

ServerName find_in_hello(std::span<const uint8_t> records) {
  auto handshake = handshake_bytes(records);
  if (!handshake || (!handshake->empty() && handshake->front() != kClientHello)) return {ServerName::State::Unknown};
  auto length = message_length(*handshake);
  if (!length) return {ServerName::State::Open};
  if (*length > kServerNameLimit) return {ServerName::State::Unknown};
  if (handshake->size() < *length) return {ServerName::State::Open};

  std::string name;
  gnutls_datum_t hello{handshake->data() + kHandshakeHeaderLength,
                       static_cast<unsigned>(*length - kHandshakeHeaderLength)};
  int status = gnutls_ext_raw_parse(&name, take_extension, &hello, GNUTLS_EXT_RAW_FLAG_TLS_CLIENT_HELLO);
  if (status < 0 || name.empty() || name.find('\0') != std::string::npos) return {ServerName::State::Unknown};
  return {ServerName::State::Known, std::move(name)};
}

ServerName find_in_request(std::span<const uint8_t> bytes) {
  bool open = false;
  auto host = parse_request_host({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, open);
  if (host) return {ServerName::State::Known, std::move(*host)};
  return {open ? ServerName::State::Open : ServerName::State::Unknown};
}

}  // namespace

ServerName find_server_name(std::span<const uint8_t> firstBytes) {
  if (firstBytes.empty()) return {ServerName::State::Open};
  // Ignores later bytes. A name that is Unknown at the limit must not become Known afterwards.
  firstBytes = firstBytes.first(std::min(firstBytes.size(), kServerNameLimit));
  ServerName name = firstBytes[0] == kHandshakeRecord ? find_in_hello(firstBytes) : find_in_request(firstBytes);
  if (name.state == ServerName::State::Open && firstBytes.size() >= kServerNameLimit) {
    return {ServerName::State::Unknown};
  }
  return name;
}

}  // namespace orvane
