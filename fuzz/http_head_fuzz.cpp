#include "FirstBytes.h"

// Reads the input as the first bytes of a connection to a web server.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvane::read_first_bytes({data, size});
  return 0;
}
