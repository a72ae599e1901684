#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "platform/Value.h"

namespace orvane {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(Value, ComparesByIdentityOrMixesKinds) {
  const uint8_t bytes[] = {1, 2};
  // Every row holds values that equal one another; values of different rows differ.
  const std::vector<std::vector<Value>> rows = {
      {Value(), nullptr},
      {Value::boolean(true)},
      {Value::boolean(false)},
      {Value::number(1), Value::real(1.0)},
      {Value::number(0), Value::real(0.0), Value::real(-0.0)},
      {Value::number(-1)},
      {Value::number(INT64_MAX)},
      {Value::unsignedNumber(uint64_t{1} << 63), Value::real(9223372036854775808.0)},
      {Value::unsignedNumber(UINT64_MAX)},
      {Value::real(18446744073709551616.0)},
      {Value::real(0.5)},
      {Value::real(kNaN), Value::real(kNaN)},
      {Value::string("1"), Value::borrowed("1")},
      {Value::string("")},
      {Value::string("A")},
      {Value::string("a")},
      {Value::string(std::string_view("a\0", 2))},
      {Value::date(1)},
      {Value::data(bytes), Value::data(bytes)},
      {Value::data({})},
      {Value::array({}), Value::array({})},
      {Value::set({})},
      {Value::dictionary({})},
      {Value::array({Value::number(1)}), Value::array({Value::real(1)})},
      {Value::set({Value::string("x"), Value::string("y")}), Value::set({Value::string("y"), Value::string("x")})},
      {Value::dictionary({{Value::string("k"), Value::array({})}})},
  };
  for (size_t i = 0; i < rows.size(); ++i) {
    for (size_t j = 0; j < rows.size(); ++j) {
      for (const Value& left : rows[i]) {
        for (const Value& right : rows[j]) {
          EXPECT_EQ(left == right, i == j) << left.description() << " and " << right.description();
          EXPECT_TRUE(i != j || left.hash() == right.hash()) << left.description();
        }
      }
    }
  }
}

TEST(Value, CopyOfABorrowedStringDanglesOrItsContentIsFreedTwice) {
  Value copy, kept;
  {
    std::string text = "a host name that is longer than any small buffer";
    Value borrowed = Value::borrowed(text);
    copy = borrowed;
    kept = Value::dictionary({{Value::string(text), Value::array({copy, copy})}});
    text.assign(text.size(), '#');
  }
  copy = Value();
  const Value* entry = kept.find("a host name that is longer than any small buffer");
  ASSERT_NE(entry, nullptr);
  Value outlives = *entry;
  kept = nullptr;
  EXPECT_EQ(outlives.asArray().at(1), Value::string("a host name that is longer than any small buffer"));
  EXPECT_EQ(outlives.find("x"), nullptr) << "no dictionary";
}

TEST(Value, PrintsWhatNobodyCouldReadBack) {
  const std::vector<uint8_t> thirty(30, 0xab);
  const struct {
    Value value;
    const char* text;
  } rows[] = {
      {nullptr, "(null)"},
      {Value::boolean(true), "1"},
      {Value::unsignedNumber(UINT64_MAX), "18446744073709551615"},
      {Value::real(0.1), "0.10000000000000001"},
      {Value::date(0), "2001-01-01 00:00:00 +0000"},
      {Value::date(-0.5), "2000-12-31 23:59:59 +0000"},
      {Value::date(63113904000.0), "4001-01-01 00:00:00 +0000"},
      {Value::date(HUGE_VAL), "inf"},
      {Value::array({Value::string("a"), Value::array({})}), "(\n    a,\n    (\n    )\n)"},
      {Value::dictionary({{Value::string("k"), Value::number(-1)}}), "{\n    k = -1;\n}"},
      {Value::data(thirty), "{length = 30, bytes = 0xabababababababababababababababababababababababab...}"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.value.description(), row.text);
}

}  // namespace
}  // namespace orvane
