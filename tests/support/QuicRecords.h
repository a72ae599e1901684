#pragma once

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace orvane {

// The datagrams of a file in the fuzz target's corpus: recorded from a browser, taken from an RFC, or made with
// fuzz/QuicClient.h. In the file, each datagram comes after its length (2 bytes).
inline std::vector<std::string> quic_records(const std::string& file) {
  std::ifstream input(std::string(ORVANE_QUIC_RECORDS) + file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(input), {}};
  std::vector<std::string> datagrams;
  while (text.size() >= 2) {
    const size_t length = static_cast<uint8_t>(text[0]) << 8U | static_cast<uint8_t>(text[1]);
    datagrams.push_back(text.substr(2, length));
    text.erase(0, 2 + length);
  }
  return datagrams;
}

}  // namespace orvane
