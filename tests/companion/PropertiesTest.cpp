#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "companion/Input.h"
#include "companion/Properties.h"

namespace orvane {
namespace {

// Seconds from 2001 to 2030-01-01 00:00:00 UTC: 29 years with 7 leap days.
constexpr double kStartOf2030 = (29 * 365 + 7) * 86400.0;

TEST(Properties, ReadsTimesToTheSecondInEveryZone) {
  const std::pair<const char*, double> kCases[] = {{"2001-01-01T00:00:00Z", 0},
                                                   {"2000-12-31t23:59:59z", -1},
                                                   {"2030-01-01T00:00:00Z", kStartOf2030},
                                                   {"2030-01-01 05:30:00+05:30", kStartOf2030},
                                                   {"2029-12-31T18:00:00-06:00", kStartOf2030},
                                                   {"2029-12-31T23:59:60Z", kStartOf2030},
                                                   {"2030-01-01T00:00:00.25-00:00", kStartOf2030 + 0.25},
                                                   {"2004-02-29T00:00:00Z", (3 * 365 + 31 + 28) * 86400.0}};
  for (const auto& [text, absoluteTime] : kCases) EXPECT_DOUBLE_EQ(parse_time(text).asDate(), absoluteTime) << text;
}

TEST(Properties, RefusesWhatIsNoTime) {
  for (const char* text :
       {"", "tomorrow", "2030-01-01", "2030-01-01T00:00:00", "2030-01-01T00:00Z", "2030-02-29T00:00:00Z",
        "2030-13-01T00:00:00Z", "2030-00-01T00:00:00Z", "2030-01-00T00:00:00Z", "2030-01-01T24:00:00Z",
        "2030-01-01T00:60:00Z", "2030-01-01T00:00:61Z", "2030-01-01T00:00:00.Z", "2030-01-01T00:00:00+24:00",
        "2030-01-01T00:00:00+0100", "2030-01-01T00:00:00Zx", "+030-01-01T00:00:00Z", "12030-01-01T00:00:00Z"})
    EXPECT_THROW(parse_time(text), InputError) << text;
}

TEST(Properties, ConvertsEachKindOfJson) {
  Value found = parse_properties(R"({"DontBlockUntil": "2030-01-01T00:00:00Z", "Hostname": "a.example", "no": false,
    "small": -9223372036854775808, "large": 18446744073709551615, "real": 1.5,
    "list": [true, {"$date": "2001-01-01T00:00:00Z"}], "object": {"DontBlockUntil": "text", "$date": 1}})");
  Value::Dictionary expected = {
      {Value::string("DontBlockUntil"), Value::date(kStartOf2030)},
      {Value::string("Hostname"), Value::string("a.example")},
      {Value::string("no"), Value::boolean(false)},
      {Value::string("small"), Value::number(INT64_MIN)},
      {Value::string("large"), Value::unsignedNumber(UINT64_MAX)},
      {Value::string("real"), Value::real(1.5)},
      {Value::string("list"), Value::array({Value::boolean(true), Value::date(0)})},
      {Value::string("object"), Value::dictionary({{Value::string("DontBlockUntil"), Value::string("text")},
                                                   {Value::string("$date"), Value::number(1)}})},
  };
  EXPECT_EQ(found, Value::dictionary(expected)) << found.description();
  EXPECT_TRUE(
      parse_properties(R"({"DontBlockUntil": {"$date": "2030-01-01T00:00:00Z"}})").find(kDontBlockUntil)->isDate());
}

TEST(Properties, RefusesWhatWouldBeSentAsSomethingElse) {
  const std::string deep = R"({"a":)" + std::string(100000, '[') + std::string(100000, ']') + "}";
  for (const char* text :
       {"", "{", "[]", "null", R"("text")", R"({"a": null})", R"({"a": NaN})", R"({"a": Infinity})", R"({"a": 1e999})",
        "{\"a\": \"\xff\"}", "{} x", R"({"$date": "2030-01-01T00:00:00Z"})", R"({"DontBlockUntil": 3})",
        R"({"DontBlockUntil": "soon"})", R"({"a": {"$date": "2030-02-30T00:00:00Z"}})", deep.c_str()})
    EXPECT_THROW(parse_properties(text), InputError) << std::string(text).substr(0, 60);
}

}  // namespace
}  // namespace orvane
