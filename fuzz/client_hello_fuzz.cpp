#include <vector>

#include "FirstBytes.h"

using namespace orvane;

// TLS records when the input begins with one, else the body of a ClientHello that goes into records of one length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr uint8_t kHandshakeRecord = 22, kClientHello = 1;
  std::span<const uint8_t> bytes(data, size);
  if (size == 0 || data[0] == kHandshakeRecord) {
    find_in_growing_prefixes(bytes);
    return 0;
  }
  if (size > kServerNameLimit / 2) return 0;
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
  if (find_in_growing_prefixes(records).state == ServerName::State::Open) abort();  // the whole hello is there
  return 0;
}
