#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/PropertyList.h"

namespace orvane {
namespace {

using namespace std::string_literals;

// The parsed value, or the text of the error.
Value parse(const std::string& bytes) {
  Ref<NSError> error;
  auto data = data_create(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<int64_t>(bytes.size()));
  Value value = property_list_create_with_data(data.get(), &error);
  return error ? Value::string(error->description()) : value;
}

struct Rejected {
  const char *name, *reason;
  std::string bytes;
};

void expect_rejected(const std::vector<Rejected>& rows) {
  for (const Rejected& row : rows) {
    const Value error = parse(row.bytes);
    EXPECT_TRUE(error.asString().starts_with("The data is not a property list: ")) << row.name;
    EXPECT_NE(error.asString().find(row.reason), std::string::npos) << row.name << ": " << error.asString();
  }
}

// A binary property list of these objects. The first object is the root. Each reference and each offset has one byte.
std::string binary(const std::vector<std::string>& objects) {
  std::string bytes = "bplist00", offsets;
  for (const std::string& object : objects) {
    offsets += static_cast<char>(bytes.size());
    bytes += object;
  }
  return bytes + offsets + std::string(6, '\0') + "\1\1" + std::string(7, '\0') + static_cast<char>(objects.size()) +
         std::string(15, '\0') + static_cast<char>(bytes.size());
}

TEST(PropertyList, ReadsValues) {
  const std::tuple<const char*, std::string, Value> kRows[] = {
      {"key with a reference, empty data", "<dict> <key>&lt;</key><data/></dict>",
       Value::dictionary({{Value::string("<"), Value::data({})}})},
      {"references, CDATA, comment", "<string> &#233;&amp;<![CDATA[<x>]]><!-- c -->y</string>",
       Value::string(" \xc3\xa9&<x>y")},
      {"smallest integer", "<integer> -9223372036854775808 </integer>", Value::number(INT64_MIN)},
      {"largest integer", "<integer>18446744073709551615</integer>", Value::unsignedNumber(UINT64_MAX)},
      {"hexadecimal integer", "<integer>+0xFf</integer>", Value::number(255)},
      {"integer with a reference and a comment", "<integer>1&#50;<!-- -->3</integer>", Value::number(123)},
      {"real", "<real>+1.5e3</real>", Value::real(1500)},
      {"date", "<date>2000-12-31T23:59:59Z</date>", Value::date(-1)},
      {"data", "<data>AQ L/\n</data>", Value::data(std::vector<uint8_t>{1, 2, 255})},
      {"doctype", "<!DOCTYPE plist PUBLIC \"x\" \"http://localhost/x.dtd\"><plist><true/></plist>",
       Value::boolean(true)},
      {"binary byte", binary({"\x10\xff"}), Value::number(255)},
      {"binary negative", binary({"\x13" + std::string(8, '\xff')}), Value::number(-1)},
      {"binary unsigned", binary({"\x14" + std::string(8, '\0') + std::string(8, '\xff')}),
       Value::unsignedNumber(UINT64_MAX)},
      {"binary float", binary({"\x22\x3f\xc0\0\0"s}), Value::real(1.5)},
      {"binary date", binary({"\x33\xbf\xf8\0\0\0\0\0\0"s}), Value::date(-1.5)},
      {"binary data", binary({"\x42\1\xff"}), Value::data(std::vector<uint8_t>{1, 255})},
      {"binary UTF-16", binary({"\x63\0a\xd8\x3d\xde\x00"s}), Value::string("a\xf0\x9f\x98\x80")},
      {"binary containers", binary({"\xd1\1\2", "\x51k", "\xa2\3\3", "\x08"}),
       Value::dictionary({{Value::string("k"), Value::array({Value::boolean(false), Value::boolean(false)})}})},
      {"binary identifier", binary({"\x80\7"}), Value::number(7)},
  };
  for (const auto& [name, bytes, value] : kRows) EXPECT_EQ(parse(bytes), value) << name;
}

TEST(PropertyList, ReadsUTF8AndUTF16WithByteOrderMark) {
  const std::string declared = "<?xml version=\"1.0\" encoding=\"UTF-16\"?>", list = "<string>a\xff</string>";
  std::string little = "\xff\xfe", big = "\xfe\xff";
  for (char c : declared + list) {
    little += {c, '\0'};
    big += {'\0', c};
  }
  const std::pair<const char*, std::string> kRows[] = {
      {"UTF-8", "\xef\xbb\xbf<string>a\xc3\xbf</string>"}, {"UTF-16LE", little}, {"UTF-16BE", big}};
  for (const auto& [name, bytes] : kRows) EXPECT_EQ(parse(bytes), Value::string("a\xc3\xbf")) << name;
}

TEST(PropertyList, RejectsEveryPrefix) {
  for (const std::string& whole : {"<plist><array/></plist>"s, binary({"\xa1\1", "\xa0"})}) {
    EXPECT_TRUE(parse(whole).isArray());
    for (size_t i = 0; i < whole.size(); ++i) expect_rejected({{"prefix", "", whole.substr(0, i)}});
  }
}

TEST(PropertyList, RejectsMalformedXML) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  expect_rejected({
      {"another namespace", "not an element", "<a:true xmlns:a=\"b\"/>"},
      {"text behind the list", "line 1", "<true/>x"},
      {"text in a container", "outside of a value", "<array>x</array>"},
      {"another encoding", "encoding", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><string>\xff</string>"},
      {"entities", "declares an entity",
       "<!DOCTYPE plist [<!ENTITY a \"aa\"><!ENTITY b \"&a;&a;\">]><string>&b;</string>"},
      {"undeclared entity", "not defined", "<!DOCTYPE plist SYSTEM \"x\"><string>&b;</string>"},
      {"key without a value", "line 2: <dict> lacks a value", "<dict>\n<key>a</key></dict>"},
      {"two values", "belong", "<plist><true/><true/></plist>"},
      {"value without a key", "belong", "<dict><true/></dict>"},
      {"element in a string", "belong", "<string><true/></string>"},
      {"letter in an integer", "not a valid <integer>", "<integer>12x</integer>"},
      {"two signs", "not a valid <integer>", "<integer>-+1</integer>"},
      {"integer above 64 bits", "not a valid <integer>", "<integer>18446744073709551616</integer>"},
      {"integer below 64 bits", "not a valid <integer>", "<integer>-9223372036854775809</integer>"},
      {"30 February", "not a valid <date>", "<date>2020-02-30T00:00:00Z</date>"},
      {"date with a fraction", "not a valid <date>", "<date>2020-02-01T00:00:00.5Z</date>"},
      {"data that is not Base64", "not a valid <data>", "<data>!</data>"},
      {"text in a boolean", "not a valid <true>", "<true>1</true>"},
      {"depth", "nested", deep},
  });
}

TEST(PropertyList, RejectsDamagedBinaryLists) {
  auto patched = [](size_t fromEnd, char byte) {
    std::string bytes = binary({"\xa1\x01", "\x51X"});
    return bytes.replace(bytes.size() - fromEnd, 1, 1, byte);
  };
  // Nested arrays: in `chain`, each array contains the next array once; in `doubling`, it does so twice.
  std::vector<std::string> chain(100, "\xa0"), doubling(40, "\xa0");
  for (char i = 1; i < 100; ++i) chain[i - 1] = "\xa1"s + i;
  for (char i = 1; i < 40; ++i) doubling[i - 1] = "\xa2"s + i + i;
  expect_rejected({
      {"size of an offset", "trailer", patched(26, 0)},
      {"size of a reference", "trailer", patched(25, 9)},
      {"number of objects", "trailer", patched(17, 3)},
      {"place of the table", "trailer", patched(1, '\x7f')},
      {"root", "missing", patched(9, 2)},
      {"offset", "missing", patched(33, '\x70')},
      {"reference", "missing", binary({"\xa1\2", "\x51X"})},
      {"circle", "contains itself", binary({"\xa1\1", "\xa1\0"s})},
      {"size of an array", "cut off", binary({"\xaf\x13\x7f\xff\xff\xff\xff\xff\xff\xff", "\x08"})},
      {"length of a string", "cut off", binary({"\x67\0a"s})},
      {"key", "a key is not", binary({"\xd1\1\1", "\x10\1"})},
      {"ASCII", "damaged", binary({"\x51\x80"})},
      {"string with a NUL", "damaged", binary({"\x51\0"s})},
      {"UTF-16", "damaged", binary({"\x61\xd8\x3d"})},
      {"size of an integer", "damaged", binary({"\x15" + std::string(32, '\1')})},
      {"integer above 64 bits", "too large", binary({"\x14" + std::string(16, '\1')})},
      {"date that is not a number", "damaged", binary({"\x33" + std::string(8, '\xff')})},
      {"set", "unknown type", binary({"\xc1\1", "\x08"})},
      {"depth", "nested", binary(chain)},
      {"uses of one object", "too large", binary(doubling)},
  });
}

TEST(ShippedBrowserLists, FitIntoOneReadOfTheExtension) {
  for (const char* system : {"linux", "macos"}) {
    std::ifstream file(std::string(ORVANE_RESOURCES "/") + system + "/Browsers.plist", std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(file), {});
    EXPECT_LE(bytes.size(), 1024U) << system;
    Value browsers = parse(bytes);
    EXPECT_GT(browsers.asArray().size(), 20U) << system;
    // The filter compares entries with the endings of identifiers. So a short entry could match what is no browser.
    for (const Value& browser : browsers.asArray()) EXPECT_GE(browser.asString().size(), 5U) << browser.description();
  }
}

}  // namespace
}  // namespace orvane
