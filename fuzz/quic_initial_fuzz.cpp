#include <algorithm>
#include <cstdlib>

#include "platform/linux/flow/QuicInitial.h"
#include "support/QuicClient.h"

using namespace orvane;

// An input is a list of datagrams, each after its length, a number of 2 bytes. The encryption would keep the fuzzer
// from the frames. So a datagram that begins like a frame, and not like a long header, is put into an Initial packet
// first.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr uint8_t kLongHeader = 0x80;
  using State = QuicInitialReader::State;
  QuicInitialReader reader;
  quic::QuicClient client;
  std::span<const uint8_t> rest(data, size);
  State state = State::Open;
  while (rest.size() > 2) {
    const size_t length = std::min(rest.size() - 2, size_t{rest[0]} << 8U | rest[1]);
    const auto datagram = rest.subspan(2, length);
    rest = rest.subspan(2 + length);
    const State before = state;
    if (datagram.empty() || datagram.front() >= kLongHeader) {
      state = reader.read(datagram);
    } else {
      const std::string sealed = client.initial({datagram.begin(), datagram.end()});
      state = reader.read({reinterpret_cast<const uint8_t*>(sealed.data()), sealed.size()});
    }
    if (before != State::Open && state != before) std::abort();
  }
  if ((state == State::Known) == reader.name().empty()) std::abort();
  return 0;
}
