#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include "platform/gnustep/Harness.h"
#include "platform/macos/base/UTF16.h"
#include "platform/macos/base/Values.h"

namespace orvane {
namespace {

// Whether two values are equal, and numbers in them have the same form (signed, unsigned or real).
bool same(const Value& left, const Value& right) {
  return left == right && left.numberForm() == right.numberForm() &&
         std::equal(left.asArray().begin(), left.asArray().end(), right.asArray().begin(), same);
}

Value::Array every_kind() {
  const Value inner = Value::dictionary({{Value::string("until"), Value::date(-0.25)}, {Value::string(""), nullptr}});
  const Value letters = Value::string("\xc3\xa9 e\xcc\x81 \xef\xbb\xbf \xef\xbf\xbf \xf0\x9f\xa6\x8a \xf4\x8f\xbf\xbf");
  const Value bytes = Value::data(std::initializer_list<uint8_t>{0, 255, 0});
  Value::Array all = {nullptr, inner, letters, bytes, Value::boolean(true), Value::boolean(false)};
  all.push_back(Value::unsignedNumber(UINT64_MAX));
  all.push_back(Value::string(std::string("a \0b", 4)));
  for (const int64_t number : {int64_t{0}, int64_t{1}, INT64_MIN, INT64_MAX}) all.push_back(Value::number(number));
  for (const double number : {0.0, 1.0, 0.1, 5e-324}) all.push_back(Value::real(number));
  all.push_back(Value::set({Value::string("a"), Value::number(7), inner, nullptr}));
  all.push_back(Value::dictionary({{Value::number(2), Value::set({Value::array({inner, inner})})}}));
  return all;
}

TEST(Values, SurviveConversionToFoundation) {
  const auto convert = [] {
    for (const Value& one : every_kind()) EXPECT_TRUE(same(value_of(foundation_object(one)), one)) << one.description();
  };
  EXPECT_EQ(leaked_objects(convert), "");
}

TEST(Values, RepresentFoundationsClasses) {
  @autoreleasepool {
    const std::tuple<const char*, id, Value> rows[] = {
        {"a class without a kind", [::NSURL URLWithString:@"http://example.org/"], nullptr},
        {"char", [::NSNumber numberWithChar:1], Value::number(1)},
        {"unsigned char", [::NSNumber numberWithUnsignedChar:1], Value::number(1)},
        {"float", [::NSNumber numberWithFloat:0.5F], Value::real(0.5)},
        {"a derived class", [::NSCountedSet setWithObject:@"x"], Value::set({Value::string("x")})},
    };
    for (const auto& [name, object, value] : rows) EXPECT_TRUE(same(value_of(object), value)) << name;
  }
}

TEST(Values, StopAtTheDepthLimit) {
  @autoreleasepool {
    id nested = @"core";
    for (int i = 0; i < 100000; ++i) nested = [::NSArray arrayWithObject:nested];
    Value level = value_of(nested);
    int depth = 0;
    for (; !level.isNil(); ++depth) level = Value(level.asArray().at(0));
    EXPECT_EQ(depth, kMaxDepth);
  }
}

TEST(UTF16, ReplacesInvalidBytes) {
  const std::tuple<const char*, std::string, std::u16string> rows[] = {
      {"continuation without a lead byte", "a\x80z", u"a\xfffdz"},
      {"sequence cut short", "\xe2\x82z\xff\xc3", u"\xfffd\xfffdz\xfffd\xfffd"},
      {"overlong sequence", "\xc0\xafz", u"\xfffd\xfffdz"},
      {"beyond U+10FFFF", "\xf4\x90\x80\x80", u"\xfffd\xfffd\xfffd\xfffd"},
  };
  for (const auto& [name, text, units] : rows) EXPECT_EQ(utf16_of(text), units) << name;
}

TEST(UTF16, KeepsUnpairedSurrogates) {
  const std::u16string units = u"\xdc00\xd800\xd800\xdc00z\xdbff";
  EXPECT_EQ(utf8_of(units), "\xed\xb0\x80\xed\xa0\x80\xf0\x90\x80\x80z\xed\xaf\xbf");
  EXPECT_EQ(utf16_of(utf8_of(units)), units);
}

}  // namespace
}  // namespace orvane
