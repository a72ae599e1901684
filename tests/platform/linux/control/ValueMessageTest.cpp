#include <capnp/message.h>
#include <capnp/serialize.h>
#include <gtest/gtest.h>

#include <cmath>

#include "platform/linux/control/ValueMessage.h"

namespace orvane {
namespace {

Value nested(unsigned depth) { return depth == 0 ? Value::boolean(true) : Value::array({nested(depth - 1)}); }

// Writes a value to a message and reads it again. Also checks that measure() does not return too small a size: a client
// that relies on that size would send a message that the extension rejects.
std::optional<Value> sent_and_received(const Value& value) {
  capnp::MallocMessageBuilder message(1 << 16);  // the first segment holds the whole message
  write_value(value, message.initRoot<control::Value>());
  auto flat = capnp::messageToFlatArray(message);
  // The segment table and the root pointer take a word each.
  EXPECT_TRUE(!measure(value).fits() || measure(value).words + 2 >= flat.size());
  capnp::FlatArrayMessageReader reader(flat, {kMaximumMessageWords, 200});
  return read_value(reader.getRoot<control::Value>(), flat.size());
}

TEST(ValueMessage, KeepsEveryKindOfValue) {
  constexpr uint8_t kBytes[] = {0, 0xff, 7};
  Value text = Value::string(std::string_view("a\0\xc3\xa9\xf0\x9f\x8c\x8d", 8));
  Value dictionary = Value::dictionary({{text, Value::date(1e9)}, {Value::set({}), Value::array({})}});
  Value data = Value::data(kBytes), noData = Value::data({}), set = Value::set({text, nullptr, dictionary});
  for (const Value& value :
       {Value(nullptr), Value::boolean(true), Value::boolean(false), Value::number(INT64_MIN),
        Value::unsignedNumber(UINT64_MAX), Value::real(-0.5), Value::real(INFINITY), Value::date(std::nan("")),
        Value::string(""), text, noData, data, set, dictionary, nested(kMaximumNesting)}) {
    std::optional<Value> received = sent_and_received(value);
    ASSERT_TRUE(received) << value.description();
    EXPECT_EQ(*received, value);
    EXPECT_EQ(received->numberForm(), value.numberForm());
    EXPECT_TRUE(measure(value).fits());
  }
}

TEST(ValueMessage, RejectsDeeplyNestedContainers) { EXPECT_FALSE(sent_and_received(nested(kMaximumNesting + 1))); }

// Containers of the same size have the same hash, so the time to make a set of n of them grows with the square of n.
TEST(ValueMessage, RejectsSetsOfManyContainers) {
  Value::Set members;
  for (int64_t i = 0; i < 2000; ++i) members.insert(Value::array({Value::number(i)}));
  EXPECT_FALSE(sent_and_received(Value::set(members)));
}

TEST(ValueMessage, RejectsValuesThatExceedTheirMessage) {
  capnp::MallocMessageBuilder message;
  auto value = message.initRoot<control::Value>();
  value.initArray(65);
  EXPECT_TRUE(read_value(value.asReader(), 65));
  EXPECT_FALSE(read_value(value.asReader(), 64)) << "empty elements";
  for (auto element : value.initArray(20)) element.setString(std::string(50, 'x'));
  EXPECT_TRUE(read_value(value.asReader(), 20 * 50 / 8));
  EXPECT_FALSE(read_value(value.asReader(), 20 * 50 / 8 - 1)) << "pointers to the same bytes";
}

TEST(ValueMessage, RejectsStringsThatAreNotUTF8) {
  capnp::MallocMessageBuilder message;
  auto value = message.initRoot<control::Value>();
  for (const char* bytes : {"\x80", "\xe2\x82", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
    value.setString(bytes);
    EXPECT_FALSE(read_value(value.asReader(), 64)) << testing::PrintToString(std::string(bytes));
  }
}

}  // namespace
}  // namespace orvane
