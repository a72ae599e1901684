#include <gtest/gtest.h>

#include <string>

#include "companion/text/Input.h"
#include "companion/text/Properties.h"

namespace orvane {
namespace {

// Seconds from 2001 to 2030-01-01 00:00:00 UTC: 29 years with 7 leap days.
constexpr double kStartOf2030 = (29 * 365 + 7) * 86400.0;

TEST(Properties, ReadsRFC3339) {
  const std::pair<const char*, double> kCases[] = {
      {"2000-12-31t23:59:59z", -1},
      {"2029-12-31T23:59:60Z", kStartOf2030},
      {"2030-01-01 05:30:00+05:30", kStartOf2030},
      {"2029-12-31T18:00:00-06:00", kStartOf2030},
      {"2030-01-01T00:00:00.25Z", kStartOf2030 + 0.25},
  };
  for (const auto& [text, absoluteTime] : kCases) EXPECT_DOUBLE_EQ(parse_time(text).asDate(), absoluteTime) << text;
}

TEST(Properties, RejectsOtherTimes) {
  for (const char* text :
       {"", "2030-01-01", "2030-01-01T00:00:00", "2030-02-29T00:00:00Z", "2030-01-01T24:00:00Z", "2030-1-1T00:00:00Z",
        "2030-01-01T00:00Z", "2030-01-01T00:00:00.Z", "2030-01-01T00:00:00+0530", "12030-01-01T00:00:00Z"})
    EXPECT_THROW(parse_time(text), InputError) << text;
}

TEST(Properties, ConvertsEachTypeOfJson) {
  Value found = parse_properties(R"({"DontBlockUntil": "2030-01-01T00:00:00Z", "large": 18446744073709551615,
    "list": [true, 1.5, -2, {"$date": "2001-01-01T00:00:00Z"}], "object": {"DontBlockUntil": "text"}})");
  Value list = Value::array({Value::boolean(true), Value::real(1.5), Value::number(-2), Value::date(0)});
  Value object = Value::dictionary({{Value::string("DontBlockUntil"), Value::string("text")}});
  EXPECT_EQ(found, Value::dictionary({{Value::string("DontBlockUntil"), Value::date(kStartOf2030)},
                                      {Value::string("large"), Value::unsignedNumber(UINT64_MAX)},
                                      {Value::string("list"), list},
                                      {Value::string("object"), object}}));
}

TEST(Properties, RejectsWhatItCannotConvertExactly) {
  const std::string deep = R"({"a":)" + std::string(100000, '[') + std::string(100000, ']') + "}";
  for (const char* text : {"", "[]", R"({"a": null})", R"({"a": 1e999})", "{\"a\": \"\xff\"}", "{} x",
                           R"({"DontBlockUntil": 3})", R"({"DontBlockUntil": "soon"})", deep.c_str()})
    EXPECT_THROW(parse_properties(text), InputError) << std::string(text).substr(0, 60);
}

}  // namespace
}  // namespace orvane
