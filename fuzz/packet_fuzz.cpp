#include <netinet/in.h>

#include <cstdlib>
#include <vector>

#include "platform/linux/netfilter/Packet.h"

using namespace orvane;

// Cuts off the end of a packet. If the cut is in the payload, the parser must find the same headers as in the whole
// packet. If the cut is in the headers, the parser must refuse the packet.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  auto whole = parse_packet(bytes, 7);
  if (!whole) return 0;
  auto protocol = whole->ends.protocol;
  if (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) abort();
  if (whole->ends.local.family == AF_UNSPEC || whole->ends.remote.family == AF_UNSPEC) abort();
  auto begin = static_cast<size_t>(whole->payload.data() - data);
  size_t count = whole->payload.size();
  if (begin < 28 || begin > size || count > size - begin) abort();

  for (size_t length : {begin + count / 2, begin, begin - 1}) {
    std::vector<uint8_t> exact(data, data + length);  // exactly this size, so that the sanitizer sees a read beyond it
    auto cut = parse_packet(exact, 7);
    if (cut.has_value() != (length >= begin)) abort();
    if (!cut) continue;
    if (!(cut->ends == whole->ends) || cut->sequence != whole->sequence || cut->syn != whole->syn) abort();
    if (cut->payload.size() != length - begin) abort();
  }
  return 0;
}
