#include <algorithm>
#include <cstdlib>

#include "QuicClient.h"
#include "platform/linux/flow/QuicInitial.h"

using namespace orvane;

// An input is a list of datagrams. In front of each datagram is its length, a number of 2 bytes. The fuzzer cannot
// encrypt the frames that it makes up. So if a datagram begins like a frame, and not like a long header, this target
// first puts it into an encrypted Initial packet.
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
      QuicInitialReader::beginsOtherConnection(datagram, reader.connectionID());
    } else {
      const std::string sealed = client.initial({datagram.begin(), datagram.end()});
      state = reader.read({reinterpret_cast<const uint8_t*>(sealed.data()), sealed.size()});
    }
    if (before != State::Open && state != before) std::abort();
  }
  if ((state == State::Known) == reader.hello().name().empty()) std::abort();
  return 0;
}
