#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <numeric>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/KeyedHash.h"
#include "platform/StringBlocks.h"
#include "platform/Value.h"
#include "support/CollidingNames.h"

namespace orvane {
namespace {

TEST(Value, ComparesByValue) {
  // Values of one row are equal; values of different rows differ.
  const std::vector<std::vector<Value>> rows = {
      {Value(), nullptr},
      {Value::boolean(true)},
      {Value::number(1), Value::real(1.0)},
      {Value::number(0), Value::real(0.0), Value::real(-0.0)},
      {Value::number(INT64_MAX)},
      {Value::unsignedNumber(uint64_t{1} << 63), Value::real(9223372036854775808.0)},
      {Value::unsignedNumber(UINT64_MAX)},
      {Value::real(NAN), Value::real(NAN)},
      {Value::string("1"), Value::borrowed("1")},
      {Value::string(std::string_view("1\0", 2))},
      {Value::date(1)},
      {Value::data({})},
      {Value::array({Value::number(1)}), Value::array({Value::real(1)})},
      {Value::set({Value::string("x"), Value::string("y")}), Value::set({Value::string("y"), Value::string("x")})},
      {Value::dictionary({{Value::string("k"), Value::array({})}})},
  };
  for (const auto& row : rows) {
    for (const auto& other : rows) {
      for (const Value& left : row) {
        for (const Value& right : other) {
          EXPECT_EQ(left == right, &row == &other) << left.description() << " and " << right.description();
          EXPECT_TRUE(&row != &other || left.hash() == right.hash()) << left.description();
        }
      }
    }
  }
}

TEST(Value, CopiesTheCharactersOfABorrowedString) {
  const char* name = "a host name that is longer than any small buffer";
  std::vector<Value> copies;
  {
    std::string text = name;
    Value borrowed = Value::borrowed(text);
    copies = {borrowed, Value::dictionary({{borrowed, Value::array({borrowed})}})};
    text.assign(text.size(), '#');
  }
  Value moved = std::move(copies.front());
  EXPECT_EQ(copies.front(), nullptr) << "moved from";
  Value outlives = copies.back().asDictionary().at(Value::borrowed(name));
  copies.clear();
  EXPECT_EQ(outlives, Value::array({moved}));
  EXPECT_EQ(moved, Value::string(name));
}

TEST(KeyedHash, IsSipHash13) {
  // Each text has the bytes 0, 1, 2 and so on. The hashes are from CPython, which hashes bytes with SipHash-1-3.
  const std::pair<size_t, uint64_t> kCases[] = {
      {1, 0x68a914128e01e473},  {7, 0x2f098ab0c751325a},  {8, 0xead411e67ebe2eea},
      {15, 0xf30eb725bb91c9ea}, {16, 0x8972188433a5c5b7}, {63, 0x385d3e39e5f37359},
  };
  for (const auto& [length, hash] : kCases) {
    std::string text(length, '\0');
    std::iota(text.begin(), text.end(), '\0');
    EXPECT_EQ(siphash13({0, 0}, text), hash) << length;
  }
}

TEST(Value, SpreadsNamesThatCollideWithoutAKey) {
  const std::vector<std::string> names = colliding_names(1000);
  std::set<size_t> hashes;
  for (const std::string& name : names) hashes.insert(Value::string(name).hash());
  EXPECT_GE(hashes.size(), names.size() - 1) << "two of a thousand may have the same 32 bits";
}

size_t mapped_pages() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages;
}

TEST(StringBlocks, AreFreedWithTheirLastString) {
  constexpr size_t kCount = 200'000;
  const std::string text(200, 'a');
  std::vector<Value> strings(kCount);
  const size_t before = mapped_pages();
  {
    StringBlocks blocks;
    for (size_t i = 0; i < kCount; ++i) strings[i] = Value::string(text + std::to_string(i));
  }
  const Value copy = strings[kCount / 2];
  const size_t full = mapped_pages();
  for (Value& string : strings) string = nullptr;
  EXPECT_EQ(copy.asString(), text + std::to_string(kCount / 2));
  EXPECT_LT(mapped_pages() - before, (full - before) / 10) << "one string keeps one block";
}

}  // namespace
}  // namespace orvane
