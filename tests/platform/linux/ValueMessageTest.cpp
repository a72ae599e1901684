#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "platform/linux/ControlPeer.h"
#include "platform/linux/ValueMessage.h"

namespace orvane {
namespace {

Value nested(unsigned depth) {
  Value value = Value::boolean(true);
  for (unsigned i = 0; i < depth; ++i) value = Value::array({value});
  return value;
}

Value everything() {
  constexpr uint8_t kBytes[] = {0, 0xff, 7};
  Value dictionary = Value::dictionary({{Value::string("DontBlockUntil"), Value::date(1e9)},
                                        {Value::number(3), nullptr},
                                        {Value::set({}), Value::array({})}});
  return Value::array({nullptr, Value::boolean(true), Value::boolean(false), Value::number(INT64_MIN),
                       Value::unsignedNumber(UINT64_MAX), Value::real(-0.5), Value::real(INFINITY),
                       Value::date(std::nan("")), Value::date(-1e300), Value::string(""),
                       Value::string(std::string_view("a\0\xc3\xa9\xf0\x9f\x8c\x8d", 8)), Value::data({}),
                       Value::data(kBytes), Value::set({Value::string("x"), nullptr, dictionary}), dictionary});
}

// What a value becomes on the way to the other end, and the words that it takes.
std::optional<Value> sent_and_received(const Value& value, uint64_t* words) {
  capnp::MallocMessageBuilder message;
  write_value(value, message.initRoot<control::Value>());
  auto flat = capnp::messageToFlatArray(message);
  *words = flat.size();
  capnp::FlatArrayMessageReader reader(flat, {kMaximumMessageWords, 200});
  return read_value(reader.getRoot<control::Value>(), flat.size());
}

TEST(ValueMessage, NoKindOfValueChangesOnTheWay) {
  Value all = everything();
  for (const Value& value : all.asArray()) {
    uint64_t words;
    std::optional<Value> received = sent_and_received(value, &words);
    ASSERT_TRUE(received) << value.description();
    EXPECT_EQ(*received, value);
    EXPECT_EQ(received->kind(), value.kind());
    EXPECT_EQ(received->numberForm(), value.numberForm());
  }
}

// A size that is too small would make the client send what the extension refuses.
TEST(ValueMessage, MeasuresNoLessThanAMessageTakes) {
  for (const Value& value :
       {everything(), nested(kMaximumNesting), Value(nullptr), Value::string(std::string(99, 'x'))}) {
    uint64_t words;
    ASSERT_TRUE(sent_and_received(value, &words));
    EXPECT_GE(measure(value).words + 2, words);  // a word each for the frame and the pointer to the root
    EXPECT_LE(measure(value).words, words + measure(value).elements);
    EXPECT_TRUE(measure(value).fits());
  }
}

TEST(ValueMessage, RefusesContainersThatAreTooDeep) {
  uint64_t words;
  EXPECT_TRUE(sent_and_received(nested(kMaximumNesting), &words));
  EXPECT_FALSE(sent_and_received(nested(kMaximumNesting + 1), &words));
  EXPECT_FALSE(measure(nested(kMaximumNesting + 1)).fits());
}

TEST(ValueMessage, RefusesElementsThatTakeNoRoomInTheMessage) {
  capnp::MallocMessageBuilder message;
  auto value = message.initRoot<control::Value>();
  for (uint32_t elements : {65u, 1'000'000u, 20'000'000u, (1u << 29) - 1}) {
    make_bomb(value, elements);
    EXPECT_FALSE(read_value(value.asReader(), 64)) << elements;
  }
  make_bomb(value, 60);
  EXPECT_TRUE(read_value(value.asReader(), 64)) << "a short list of nils is honest";
}

// A thousand strings that are all the same bytes of the message.
TEST(ValueMessage, RefusesPointersThatMeetInOnePlace) {
  constexpr uint32_t kStrings = 1000, kLength = 50'000, kWordsOfValue = 3;
  capnp::MallocMessageBuilder message(100'000);
  auto list = message.initRoot<control::Value>().initArray(kStrings);
  for (auto value : list) value.initString(0);
  list[0].setString(std::string(kLength, 'x'));
  auto flat = capnp::messageToFlatArray(message);
  ASSERT_TRUE(read_value(capnp::FlatArrayMessageReader(flat).getRoot<control::Value>(), flat.size()));
  // Frame, root pointer, root, tag of the list; then the values, each with its pointer last. A pointer counts from its
  // own place, in units of four.
  auto* words = reinterpret_cast<uint64_t*>(flat.begin()) + 1 + 1 + kWordsOfValue + 1;
  for (uint32_t i = 1; i < kStrings; ++i) {
    words[i * kWordsOfValue + 2] = words[2] - uint64_t{i} * kWordsOfValue * 4;
  }
  capnp::FlatArrayMessageReader reader(flat, {kMaximumMessageWords, 200});
  ASSERT_EQ(reader.getRoot<control::Value>().getArray()[999].getString().size(), kLength);
  EXPECT_FALSE(read_value(reader.getRoot<control::Value>(), flat.size()));
}

// Containers of one size have one hash; members that are containers must not cost the square of their number.
TEST(ValueMessage, RefusesSetsOfTooManyContainers) {
  Value::Set members;
  uint64_t words;
  for (int64_t i = 0; i < 100; ++i) members.insert(Value::array({Value::number(i)}));
  EXPECT_TRUE(sent_and_received(Value::set(members), &words));
  for (int64_t i = 0; i < 2000; ++i) members.insert(Value::array({Value::number(i)}));
  EXPECT_FALSE(sent_and_received(Value::set(members), &words));
}

TEST(ValueMessage, RefusesStringsThatAreNoUtf8) {
  for (const char* bytes : {"\x80", "a\xff", "\xc0\xaf", "\xc3", "\xe0\x80\x80", "\xed\xa0\x80", "\xf0\x80\x80\x80",
                            "\xf4\x90\x80\x80", "\xe2\x82"}) {
    capnp::MallocMessageBuilder message;
    message.initRoot<control::Value>().setString(bytes);
    EXPECT_FALSE(read_value(message.getRoot<control::Value>().asReader(), 64)) << bytes;
  }
}

}  // namespace
}  // namespace orvane
