#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orvane {

// Hashes for tables whose keys come from outside. The standard library's hash has no secret, so anybody can compute
// names that all fall into the same slot of a table; each look-up would then compare all these names. These hashes have
// a secret key, without which nobody can compute such names. Thread-safe.

struct HashKey {
  uint64_t first, second;
};

// SipHash-1-3: the variant of SipHash (Aumasson and Bernstein, 2012) with one round for each word and three at the end.
uint64_t siphash13(HashKey key, std::string_view bytes);

// siphash13() with a random key that each process draws once, so the result differs from process to process.
uint64_t keyed_hash(std::string_view bytes);

// The hash function for the standard library's containers.
struct KeyedHash {
  size_t operator()(std::string_view bytes) const { return keyed_hash(bytes); }
};

}  // namespace orvane
