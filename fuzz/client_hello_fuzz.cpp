#include <gnutls/gnutls.h>

#include <iterator>
#include <optional>
#include <vector>

#include "FirstBytes.h"

using namespace orvane;

namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint8_t kHandshakeRecord = 22, kClientHello = 1;
constexpr size_t kRecordHeader = 5, kMessageHeader = 4;

std::string in_records(Bytes message, size_t most) {
  std::string records;
  for (size_t at = 0; at < message.size(); at += most) {
    const Bytes part = message.subspan(at, std::min(most, message.size() - at));
    const uint8_t header[] = {kHandshakeRecord, 3, 1, static_cast<uint8_t>(part.size() >> 8),
                              static_cast<uint8_t>(part.size())};
    records.append(std::begin(header), std::end(header)).append(part.begin(), part.end());
  }
  return records;
}

// The body of the hello in these records, or nothing if the records do not contain exactly one hello.
std::optional<std::vector<uint8_t>> body_of(Bytes records) {
  std::vector<uint8_t> message;
  while (records.size() >= kRecordHeader) {
    const size_t length = size_t{records[3]} << 8 | records[4];
    if (records[0] != kHandshakeRecord || records[1] != 3 || length == 0 || length > records.size() - kRecordHeader) {
      return std::nullopt;
    }
    const Bytes fragment = records.subspan(kRecordHeader, length);
    message.insert(message.end(), fragment.begin(), fragment.end());
    records = records.subspan(kRecordHeader + length);
  }
  if (!records.empty() || message.size() < kMessageHeader || message[0] != kClientHello) return std::nullopt;
  const size_t length = size_t{message[1]} << 16 | size_t{message[2]} << 8 | message[3];
  if (length != message.size() - kMessageHeader) return std::nullopt;
  message.erase(message.begin(), message.begin() + kMessageHeader);
  return message;
}

// What GnuTLS found in a hello.
struct Found {
  bool isServerName = false;
  std::string serverNames;  // the content of the first server name extension
};

int take_extension(void* context, unsigned id, const unsigned char* data, unsigned size) {
  auto& found = *static_cast<Found*>(context);
  if (id == 0 && !found.isServerName) found = {true, std::string(data, data + size)};
  return 0;
}

// The first host name in the content of a server name extension (RFC 6066, section 3), if the extension is well formed
// and no longer than the reader's limit. Empty otherwise.
std::string first_host_name(const std::string& list) {
  const auto number = [&](size_t at) {
    return size_t{static_cast<uint8_t>(list[at])} << 8 | static_cast<uint8_t>(list[at + 1]);
  };
  if (list.size() < 2 || list.size() > 1024 || number(0) != list.size() - 2) return {};
  for (size_t at = 2; at + 3 <= list.size();) {
    const size_t length = number(at + 1);
    if (length > list.size() - at - 3) return {};
    if (list[at] == 0) {
      const std::string name = list.substr(at + 3, length);
      return name.find('\0') == std::string::npos ? name : "";
    }
    at += 3 + length;
  }
  return {};
}

// Aborts unless GnuTLS and the reader find the same name, byte for byte, in a hello that GnuTLS accepts. The reader may
// find a name in a hello that GnuTLS rejects, because the reader stops at the name, and checks neither the hello's
// version nor whether an extension occurs twice.
void compare_with_gnutls(Bytes body, const ClientHelloReader& reader) {
  Found found;
  gnutls_datum_t hello{const_cast<unsigned char*>(body.data()), static_cast<unsigned>(body.size())};
  if (gnutls_ext_raw_parse(&found, take_extension, &hello, GNUTLS_EXT_RAW_FLAG_TLS_CLIENT_HELLO) < 0) return;
  if (reader.name() != first_host_name(found.serverNames)) std::abort();
}

}  // namespace

// An input that begins like a TLS record is read as it is. Any other input is the body of a ClientHello, and is split
// into records of equal length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > ClientHelloReader::kLimit / 2) return 0;
  Bytes records(data, size);
  std::string split;
  if (data[0] != kHandshakeRecord) {
    std::vector<uint8_t> message{kClientHello, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
    message.insert(message.end(), data, data + size);
    split = in_records(message, 16 + size_t{data[size - 1]} * 8);
    records = {reinterpret_cast<const uint8_t*>(split.data()), split.size()};
  }
  const ServerNameReader names = read_first_bytes(records);
  const auto body = body_of(records);
  if (!body) return 0;
  if (names.state() == ServerNameReader::State::Open) std::abort();  // the hello is complete
  ClientHelloReader reader;
  reader.read(records);
  compare_with_gnutls(*body, reader);
  return 0;
}
