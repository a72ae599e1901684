#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/PropertyList.h"

namespace orvane {
namespace {

using namespace std::string_literals;

// The list, or the error's text.
Value parse(const std::string& bytes) {
  Ref<NSError> error;
  auto data = data_create(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<int64_t>(bytes.size()));
  Value value = property_list_create_with_data(data.get(), &error);
  return error ? Value::string(error->description()) : value;
}

void expect_refused(const char* reason, const std::vector<std::string>& lists) {
  for (const std::string& bytes : lists) {
    const Value error = parse(bytes);
    EXPECT_NE(error.asString().find(reason), std::string::npos) << testing::PrintToString(bytes) << error.asString();
  }
}

// A binary list of these objects, the first one its root, with references and offsets of one byte each.
std::string binary(const std::vector<std::string>& objects) {
  std::string bytes = "bplist00", offsets;
  for (const std::string& object : objects) {
    offsets += static_cast<char>(bytes.size());
    bytes += object;
  }
  return bytes + offsets + std::string(6, '\0') + "\1\1" + std::string(7, '\0') + static_cast<char>(objects.size()) +
         std::string(15, '\0') + static_cast<char>(bytes.size());
}

TEST(PropertyList, LosesOrChangesAValue) {
  EXPECT_EQ(parse("<dict> <key>&lt;</key><data/></dict>"), Value::dictionary({{Value::string("<"), Value::data({})}}));
  EXPECT_EQ(parse("<string> &#233;&amp;<![CDATA[<x>]]><!-- c -->y</string>"), Value::string(" \xc3\xa9&<x>y"));
  EXPECT_EQ(parse("<integer> -9223372036854775808 </integer>"), Value::number(INT64_MIN));
  EXPECT_EQ(parse("<date>2000-12-31T23:59:59Z</date>"), Value::date(-1));
  EXPECT_EQ(parse("<data>AQL/\n</data>"), Value::data(std::vector<uint8_t>{1, 2, 255}));

  EXPECT_EQ(parse(binary({"\x13" + std::string(8, '\xff')})), Value::number(-1));
  EXPECT_EQ(parse(binary({"\x14" + std::string(8, '\0') + std::string(8, '\xff')})), Value::unsignedNumber(UINT64_MAX));
  EXPECT_EQ(parse(binary({"\x33\xbf\xf8\0\0\0\0\0\0"s})), Value::date(-1.5));
  EXPECT_EQ(parse(binary({"\x63\0a\xd8\x3d\xde\x00"s})), Value::string("a\xf0\x9f\x98\x80"));
  EXPECT_EQ(parse(binary({"\xd1\1\2", "\x51k", "\xa1\3", "\x08"})),
            Value::dictionary({{Value::string("k"), Value::array({Value::boolean(false)})}}));
}

TEST(PropertyList, TakesSomethingElseForAList) {
  for (const std::string& whole : {"<plist><array/></plist>"s, binary({"\xa1\1", "\xa0"})}) {
    EXPECT_TRUE(parse(whole).isArray());
    for (size_t i = 0; i < whole.size(); ++i) expect_refused("not a property list", {whole.substr(0, i)});
  }
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  expect_refused("not a property list",
                 {"text", "{\"a\": 1}", "<html/>", "<true/>x", "<plist><true/></plist><plist/>"});
  expect_refused("entity", {"<!DOCTYPE plist [<!ENTITY a \"aa\"><!ENTITY b \"&a;&a;\">]><string>&b;</string>"});
  expect_refused("line 2: <dict> lacks a value", {"<dict>\n<key>a</key></dict>"});
  expect_refused("belong", {"<plist><true/><true/></plist>", "<dict><true/></dict>", "<array><key>a</key></array>"});
  expect_refused("no integer", {"<integer>12x</integer>", "<integer>010</integer>", "<integer/>"});
  expect_refused("this is no", {"<real>1,5</real>", "<date>2020-13-01T00:00:00Z</date>", "<data>!</data>"});
  expect_refused("a comment", {"<integer>1<!-- -->2</integer>"});
  expect_refused("character reference", {"<integer>1&#50;</integer>", "<real>1&#46;5</real>", "<data>AQL&#81;</data>"});
  expect_refused("nested", {deep});
}

TEST(PropertyList, IsHarmedByADamagedBinaryList) {
  auto patched = [](size_t fromEnd, char byte) {
    std::string bytes = binary({"\xa1\x01", "\x51X"});
    return bytes.replace(bytes.size() - fromEnd, 1, 1, byte);
  };
  std::vector<std::string> chain(100, "\xa0"), doubling(40, "\xa0");  // each an array of the next one, once or twice
  for (char i = 1; i < 100; ++i) chain[i - 1] = "\xa1"s + i;
  for (char i = 1; i < 40; ++i) doubling[i - 1] = "\xa2"s + i + i;
  // The sizes of an offset and of a reference, the number of objects, the root, the place of the table.
  expect_refused("trailer", {patched(26, 0), patched(25, 9), patched(17, 3), patched(9, 2), patched(1, '\x7f')});
  expect_refused("missing", {patched(33, '\x70'), binary({"\xa1\2", "\x51X"})});
  expect_refused("contains itself", {binary({"\xa1\1", "\xa1\0"s})});
  expect_refused("cut off", {binary({"\xaf\x13\x7f\xff\xff\xff\xff\xff\xff\xff", "\x08"}), binary({"\x67\0a"s})});
  expect_refused("a key is not", {binary({"\xd1\1\1", "\x10\1"})});
  expect_refused("damaged", {binary({"\x51\x80"}), binary({"\x61\xd8\x3d"}), binary({"\x15" + std::string(32, '\1')})});
  expect_refused("nested", {binary(chain)});
  expect_refused("too large", {binary(doubling)});
}

TEST(ShippedLists, AreCutOffAtStartOrNameTooShortAnEnding) {
  for (const char* system : {"linux", "macos"}) {
    std::ifstream file(std::string(ORVANE_RESOURCES "/") + system + "/Browsers.plist", std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(file), {});
    EXPECT_LE(bytes.size(), 1024U) << system << ": no more is read";
    Value browsers = parse(bytes);
    EXPECT_GT(browsers.asArray().size(), 20U) << system;
    // A few letters would also end the identifiers of other applications.
    for (const Value& browser : browsers.asArray()) EXPECT_GE(browser.asString().size(), 5U) << browser.description();
  }
}

}  // namespace
}  // namespace orvane
