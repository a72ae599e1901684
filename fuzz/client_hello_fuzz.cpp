#include <gnutls/gnutls.h>

#include <optional>
#include <vector>

#include "FirstBytes.h"
#include "platform/linux/base/HostName.h"

using namespace orvane;

namespace {

// GnuTLS calls this function for each extension of the hello. If the extension is the server name extension (0), the
// function stores the first host name together with the rest of the extension.
int take_extension(void* context, unsigned id, const unsigned char* data, unsigned size) {
  auto& found = *static_cast<std::string*>(context);
  if (id == 0 && found.empty() && size > 5 && data[2] == 0) found.assign(data + 5, data + size);
  return 0;
}

std::optional<std::string> name_by_gnutls(std::span<const uint8_t> body) {
  std::string name;
  gnutls_datum_t hello{const_cast<unsigned char*>(body.data()), static_cast<unsigned>(body.size())};
  const int status = gnutls_ext_raw_parse(&name, take_extension, &hello, GNUTLS_EXT_RAW_FLAG_TLS_CLIENT_HELLO);
  if (status < 0) return std::nullopt;
  return name;
}

}  // namespace

// An input that begins like a TLS record is read as it is. Any other input is the body of a ClientHello, and is split
// into records of equal length. If both GnuTLS and the reader find a name in that body, the two names must be equal.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr uint8_t kHandshakeRecord = 22, kClientHello = 1;
  std::span<const uint8_t> bytes(data, size);
  if (size == 0 || data[0] == kHandshakeRecord) {
    read_first_bytes(bytes);
    return 0;
  }
  if (size > ClientHelloReader::kLimit / 2) return 0;
  auto high = static_cast<uint8_t>(size >> 8), low = static_cast<uint8_t>(size);
  std::vector<uint8_t> message{kClientHello, 0, high, low}, records;
  message.insert(message.end(), bytes.begin(), bytes.end());
  size_t most = 16 + size_t{data[size - 1]} * 8;
  for (size_t at = 0; at < message.size(); at += most) {
    auto part = std::span(message).subspan(at, std::min(most, message.size() - at));
    uint8_t header[] = {kHandshakeRecord, 3, 1, static_cast<uint8_t>(part.size() >> 8),
                        static_cast<uint8_t>(part.size())};
    records.insert(records.end(), std::begin(header), std::end(header));
    records.insert(records.end(), part.begin(), part.end());
  }
  const ServerNameReader reader = read_first_bytes(records);
  if (reader.state() == ServerNameReader::State::Open) abort();  // the hello is complete
  const auto name = name_by_gnutls(bytes);
  if (name && reader.state() == ServerNameReader::State::Known && !name->empty() &&
      listed_form(*name) != reader.name() && name->find('\0') == std::string::npos) {
    // If the server name extension has several names, take_extension() stored all of them. Then the stored bytes must
    // begin with the reader's name.
    if (listed_form(*name).compare(0, reader.name().size(), reader.name()) != 0) abort();
  }
  return 0;
}
