#include <cstdlib>

#include "FirstBytes.h"
#include "platform/linux/proxy/ProxyHead.h"

// Reads the input in two ways: as a request to the proxy (a head and a body), and as the first bytes in a tunnel.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvane;
  std::span<const uint8_t> bytes(data, size);
  ProxyHead head = parse_proxy_head({reinterpret_cast<const char*>(data), size});
  if (head.state == ProxyHead::State::Complete) {
    if (head.request.length > size || head.request.host.empty() || head.request.port == 0) abort();
    if (head.request.host.find_first_of(std::string_view("\0\r\n /", 5)) != std::string::npos) abort();
    auto rest = bytes.subspan(head.request.length);
    RequestBody chunked = RequestBody::chunked();
    if (head.request.body.take(rest) > rest.size() || chunked.take(rest) > rest.size()) abort();
  }
  read_first_bytes(bytes);
  return 0;
}
