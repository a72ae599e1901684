#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/DNS.h"

namespace orvane {
namespace {

using namespace std::string_literals;

struct Free {
  void operator()(dns_question_t* question) const { dns_free_question(question); }
};

// From an allocation of just that size, so that a sanitizer sees a read beyond it.
std::unique_ptr<dns_question_t, Free> parse(const std::string& bytes) {
  auto exact = std::make_unique<char[]>(bytes.size());
  bytes.copy(exact.get(), bytes.size());
  return std::unique_ptr<dns_question_t, Free>(dns_parse_question(exact.get(), static_cast<uint32_t>(bytes.size())));
}

std::string label(size_t length) { return std::string(1, static_cast<char>(length)) + std::string(length, 'a'); }

TEST(DNSQuestion, MisreadsNameTypeOrClass) {
  const struct {
    std::string bytes;
    std::string name;
    uint16_t type, dnsClass;
  } rows[] = {
      {"\7example\3org\0\0\x01\0\x01"s, "example.org", 1, 1},
      {"\7Example\3org\0\x12\x34\xff\xfe and more"s, "Example.org", 0x1234, 0xfffe},
      {"\0\0\x02\0\x03"s, "", 2, 3},
      {"\3a.b\4\"\\ \xff\0\0\x01\0\x01"s, "a\\.b.\\\"\\\\\\032\\255", 1, 1},
      {label(63) + "\0\0\x01\0\x01"s, std::string(63, 'a'), 1, 1},
  };
  for (const auto& row : rows) {
    auto question = parse(row.bytes);
    ASSERT_NE(question, nullptr) << row.name;
    EXPECT_EQ(question->name, row.name);
    EXPECT_EQ(question->dnstype, row.type);
    EXPECT_EQ(question->dnsclass, row.dnsClass);
  }
}

TEST(DNSQuestion, AcceptsWhatIsNotThereWhole) {
  const std::string whole = "\7example\3org\0\0\x01\0\x01"s;
  for (size_t length = 0; length < whole.size(); ++length) EXPECT_EQ(parse(whole.substr(0, length)), nullptr) << length;

  std::string longest = label(63) + label(63) + label(63) + label(61);  // 254 octets, 255 with the closing zero
  EXPECT_NE(parse(longest + "\0\0\x01\0\x01"s), nullptr);
  const std::string refused[] = {
      label(63) + label(63) + label(63) + label(62) + "\0\0\x01\0\x01"s,  // 256 octets
      label(64) + "\0\0\x01\0\x01"s,
      "\1a\xc0\0\0\x01\0\x01"s,  // a compression pointer
      "\xc0\x02\1a\0\0\x01\0\x01"s,
      "\x80\0\0\x01\0\x01"s,
  };
  for (const std::string& bytes : refused) EXPECT_EQ(parse(bytes), nullptr) << testing::PrintToString(bytes);
  EXPECT_EQ(dns_parse_question(nullptr, 0), nullptr);
  dns_free_question(nullptr);
}

}  // namespace
}  // namespace orvane
