#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "platform/PropertyList.h"

namespace orvane {
namespace {

using namespace std::string_literals;

// The list, or nil and the error's text. From an allocation of just that size, so that a sanitizer sees a read beyond.
Value parse(const std::string& bytes, std::string* text = nullptr) {
  auto exact = std::make_unique<uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), exact.get());
  Ref<Data> data = data_create(exact.get(), static_cast<int64_t>(bytes.size()));
  exact.reset();
  Ref<NSError> error;
  Value value = property_list_create_with_data(data.get(), &error);
  EXPECT_EQ(value.isNil(), static_cast<bool>(error)) << bytes;
  if (text != nullptr && error) *text = error->description();
  return value;
}

std::string xml(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">" +
         body + "</plist>\n";
}

// A binary list of these objects, the first one its root, with references and offsets of one byte each.
std::string binary(const std::vector<std::string>& objects) {
  std::string bytes = "bplist00", offsets;
  for (const std::string& object : objects) {
    offsets += static_cast<char>(bytes.size());
    bytes += object;
  }
  auto table = static_cast<char>(bytes.size());
  return bytes + offsets + std::string(6, '\0') + "\1\1" + std::string(7, '\0') + static_cast<char>(objects.size()) +
         std::string(15, '\0') + table;
}

Value text(const char* characters) { return Value::string(characters); }

TEST(PropertyList, LosesOrChangesAnXMLValue) {
  const uint8_t bytes[] = {1, 2, 255};
  const std::pair<const char*, Value> rows[] = {
      {"<array>\n<string>a</string> <string/><array/></array>", Value::array({text("a"), text(""), Value::array({})})},
      {"<dict><key>&lt;b&gt;</key><true/></dict>", Value::dictionary({{text("<b>"), Value::boolean(true)}})},
      {"<string> &#233;&amp;<![CDATA[<x>]]><!-- c -->\xc3\xa9</string>", text(" \xc3\xa9&<x>\xc3\xa9")},
      {"<integer> -9223372036854775808 </integer>", Value::number(INT64_MIN)},
      {"<integer>18446744073709551615</integer>", Value::unsignedNumber(UINT64_MAX)},
      {"<integer>+0x1F</integer>", Value::number(31)},
      {"<real>-1.5e3</real>", Value::real(-1500)},
      {"<date>2000-12-31T23:59:59Z</date>", Value::date(-1)},
      {"<data>AQL/\n</data>", Value::data(bytes)},
      {"<data></data>", Value::data({})},
  };
  for (const auto& [body, value] : rows) EXPECT_EQ(parse(xml(body)), value) << body;
  EXPECT_EQ(parse("<array/>"), Value::array({})) << "without the element around it";
}

TEST(PropertyList, LosesOrChangesABinaryValue) {
  const std::pair<std::vector<std::string>, Value> rows[] = {
      {{"\x08"}, Value::boolean(false)},
      {{"\x10\xff"}, Value::number(255)},
      {{"\x13\xff\xff\xff\xff\xff\xff\xff\xff"}, Value::number(-1)},
      {{"\x14" + std::string(8, '\0') + std::string(8, '\xff')}, Value::unsignedNumber(UINT64_MAX)},
      {{"\x22\x3f\xc0\0\0"s}, Value::real(1.5)},
      {{"\x33\xbf\xf8\0\0\0\0\0\0"s}, Value::date(-1.5)},
      {{"\x42\1\2"s}, Value::data(std::vector<uint8_t>{1, 2})},
      {{"\x63\0a\xd8\x3d\xde\x00"s}, text("a\xf0\x9f\x98\x80")},
      {{"\x5f\x10\x10" + std::string(16, 'x')}, text("xxxxxxxxxxxxxxxx")},
      {{"\x81\x01\x02"}, Value::number(258)},
      {{"\xd1\1\2", "\x51k", "\xa2\3\3", "\x51v"},
       Value::dictionary({{text("k"), Value::array({text("v"), text("v")})}})},
  };
  for (const auto& [objects, value] : rows) EXPECT_EQ(parse(binary(objects)), value);
}

TEST(PropertyList, AcceptsAnyCutOffList) {
  std::string list = xml("<array><string>a</string><integer>1</integer></array>");
  list.pop_back();  // the line's end alone may be missing
  for (const std::string& whole : {list, binary({"\xa1\x01", "\x51X"})}) {
    ASSERT_FALSE(parse(whole).isNil());
    for (size_t length = 0; length < whole.size(); ++length) {
      EXPECT_TRUE(parse(whole.substr(0, length)).isNil()) << length;
    }
  }
}

// What no parser may take for a list, by what the error's text says of it.
using Refused = std::pair<const char*, std::vector<std::string>>;

void expect_refused(const Refused& refused) {
  for (const std::string& bytes : refused.second) {
    std::string message;
    EXPECT_TRUE(parse(bytes, &message).isNil()) << testing::PrintToString(bytes);
    EXPECT_NE(message.find(refused.first), std::string::npos) << testing::PrintToString(bytes) << "\n" << message;
    EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  }
}

TEST(PropertyList, TakesSomethingElseForAnXMLList) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  const Refused rows[] = {
      {"is empty", {""}},
      {"", {" \n", "text", "(a, b)", "{\"a\": 1}", xml("<true/>") + "x", xml("<true/>") + "<plist/>"}},
      {"", {xml("<string>\xff</string>"), xml("<string>&unknown;</string>")}},
      {"no property list has", {"<html/>"}},
      {"entity", {"<!DOCTYPE plist [<!ENTITY a \"aa\"><!ENTITY b \"&a;&a;\">]><plist><string>&b;</string></plist>"}},
      {"encoding", {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><string>\xe9</string></plist>"}},
      {"line 3: <dict> lacks a value", {xml("<dict><key>a</key></dict>")}},
      {"<plist> lacks a value", {xml("")}},
      {"does not belong here",
       {xml("<true/><true/>"), xml("<dict><true/></dict>"), xml("<array><key>a</key></array>")}},
      {"this is no array", {xml("<array>text</array>")}},
      {"this is no integer", {xml("<integer>12x</integer>"), xml("<integer/>"), xml("<integer>010</integer>")}},
      {"this is no integer", {xml("<integer>18446744073709551616</integer>")}},
      {"this is no real", {xml("<real>1,5</real>"), xml("<real>+-1</real>")}},
      {"this is no date", {xml("<date>now</date>"), xml("<date>2999-01-01T00:00:00Z</date>")}},
      {"this is no date", {xml("<date>2020-13-01T00:00:00Z</date>")}},
      {"this is no data", {xml("<data>!</data>")}},
      {"a comment", {xml("<integer>1<!-- -->2</integer>")}},
      {"nested", {xml(deep)}},
  };
  for (const auto& row : rows) expect_refused(row);
}

TEST(PropertyList, IsHarmedByADamagedBinaryList) {
  auto patched = [](size_t fromEnd, char byte) {
    std::string bytes = binary({"\xa1\x01", "\x51X"});
    bytes[bytes.size() - fromEnd] = byte;
    return bytes;
  };
  std::vector<std::string> chain, doubling;  // each object an array of the next one, once or twice
  for (char i = 1; i < 100; ++i) chain.push_back("\xa1"s + i);
  for (char i = 1; i < 40; ++i) doubling.push_back("\xa2"s + i + i);
  chain.emplace_back("\xa0");
  doubling.emplace_back("\xa0");
  const Refused rows[] = {
      // The sizes of an offset and of a reference, the number of objects, the root, the place of the table.
      {"trailer", {patched(26, 0), patched(25, 9), patched(17, 3), patched(24, '\x7f'), patched(9, 2)}},
      {"trailer", {patched(1, '\x7f')}},
      {"missing", {patched(33, '\x70'), binary({"\xa1\2", "\x51X"})}},
      {"contains itself", {binary({"\xa1\1", "\xa1\0"s})}},
      {"cut off", {binary({"\xaf\x13\x7f\xff\xff\xff\xff\xff\xff\xff", "\x08"}), binary({"\x5f\x17zzzzzzz"})}},
      {"cut off", {binary({"\x59short"}), binary({"\x67\0a"s})}},
      {"key", {binary({"\xd1\1\1", "\x10\1"})}},
      {"string", {binary({"\x51\x80"}), binary({"\x51\0"s}), binary({"\x61\xd8\x3d"})}},
      {"integer", {binary({"\x15" + std::string(32, '\1')}), binary({"\x14" + std::string(16, '\1')})}},
      {"date", {binary({"\x33\x7f\xf0\0\0\0\0\0\0"s})}},
      {"real", {binary({"\x21\1\2"})}},
      {"unknown type", {binary({"\xc1\1", "\x08"}), binary({"\0"s})}},
      {"nested", {binary(chain)}},
      {"too large", {binary(doubling)}},
  };
  for (const auto& row : rows) expect_refused(row);
}

TEST(ShippedLists, AreCutOffAtStartOrNameTooShortAnEnding) {
  auto resource = [](const char* name) {
    std::ifstream file(std::string(ORVANE_RESOURCES) + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  EXPECT_FALSE(parse(resource("Info.plist.in")).isNil());
  EXPECT_LE(resource("Browsers.plist").size(), 1024U) << "no more is read";
  Value browsers = parse(resource("Browsers.plist"));
  EXPECT_GT(browsers.asArray().size(), 20U);
  // A few letters would also end the identifiers of other applications.
  for (const Value& browser : browsers.asArray()) EXPECT_GE(browser.asString().size(), 5U) << browser.description();
}

}  // namespace
}  // namespace orvane
