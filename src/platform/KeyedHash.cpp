#include "platform/KeyedHash.h"

#include <bit>
#include <cstring>
#include <random>

namespace orvane {
namespace {

struct State {
  uint64_t v0, v1, v2, v3;

  void round() {
    v0 += v1;
    v2 += v3;
    v1 = std::rotl(v1, 13) ^ v0;
    v3 = std::rotl(v3, 16) ^ v2;
    v0 = std::rotl(v0, 32);
    v2 += v1;
    v0 += v3;
    v1 = std::rotl(v1, 17) ^ v2;
    v3 = std::rotl(v3, 21) ^ v0;
    v2 = std::rotl(v2, 32);
  }
  void add(uint64_t word) {
    v3 ^= word;
    round();
    v0 ^= word;
  }
};

uint64_t word_at(const char* bytes) {
  uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// The last `count` bytes, at most seven, as a little-endian number.
uint64_t last_bytes(std::string_view bytes, size_t count) {
  if (count == 0) return 0;
  // One load and a shift are quicker than the loop below, which only texts of less than eight bytes need.
  if (bytes.size() >= sizeof(uint64_t)) return word_at(bytes.data() + bytes.size() - 8) >> (64 - 8 * count);
  uint64_t number = 0;
  for (size_t i = 0; i < count; ++i) number |= uint64_t{static_cast<uint8_t>(bytes[i])} << (8 * i);
  return number;
}

HashKey random_key() {
  std::random_device device;
  auto word = [&device] { return uint64_t{device()} << 32 | device(); };
  const uint64_t first = word();
  return {first, word()};
}

}  // namespace

uint64_t siphash13(HashKey key, std::string_view bytes) {
  State state{key.first ^ 0x736f6d6570736575, key.second ^ 0x646f72616e646f6d, key.first ^ 0x6c7967656e657261,
              key.second ^ 0x7465646279746573};
  const size_t left = bytes.size() % sizeof(uint64_t);
  const char* const end = bytes.data() + bytes.size();
  for (const char* position = bytes.data(); position != end - left; position += sizeof(uint64_t)) {
    state.add(word_at(position));
  }
  state.add(uint64_t{bytes.size()} << 56 | last_bytes(bytes, left));
  state.v2 ^= 0xff;
  for (int i = 0; i < 3; ++i) state.round();
  return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}

uint64_t keyed_hash(std::string_view bytes) {
  static const HashKey key = random_key();
  return siphash13(key, bytes);
}

}  // namespace orvane
