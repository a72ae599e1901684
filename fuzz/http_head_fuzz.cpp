#include "FirstBytes.h"
#include "platform/linux/flow/RequestHost.h"

using namespace orvane;

// The first bytes of a connection to a web server.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  find_in_growing_prefixes({data, size});
  bool open = true;
  auto host = parse_request_host({reinterpret_cast<const char*>(data), size}, open);
  if (host && open) abort();
  if (host && host->find_first_of(std::string_view("\0\r\n /", 5)) != std::string::npos) abort();
  return 0;
}
