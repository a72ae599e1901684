#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "platform/DNS.h"

namespace orvane {
namespace {

using namespace std::string_literals;

// The parsed question's name, type and class, or "none". Copies the bytes to an allocation of exactly their size, so
// that sanitizers notice a read beyond the bytes.
std::string parse(const std::string& bytes) {
  auto exact = std::make_unique<char[]>(bytes.size());
  bytes.copy(exact.get(), bytes.size());
  std::unique_ptr<dns_question_t, decltype(&dns_free_question)> question(
      dns_parse_question(exact.get(), static_cast<uint32_t>(bytes.size())), dns_free_question);
  if (!question) return "none";
  return question->name + " "s + std::to_string(question->dnstype) + " " + std::to_string(question->dnsclass);
}

std::string label(size_t length) { return std::string(1, static_cast<char>(length)) + std::string(length, 'a'); }

// The parser rejects labels of 64 octets, names of 256 octets and compression pointers.
TEST(DNSQuestion, ParsesWholeQuestionsOnly) {
  const std::string end = "\0\0\x01\0\x01"s, long3 = label(63) + label(63) + label(63), whole = "\7example\3org" + end;
  for (size_t length = 0; length < whole.size(); ++length) EXPECT_EQ(parse(whole.substr(0, length)), "none") << length;
  const std::pair<std::string, std::string> rows[] = {
      {whole, "example.org 1 1"},        {"\7Example\0\x12\x34\xff\xfe and more"s, "Example 4660 65534"},
      {"\0\0\x02\0\x03"s, " 2 3"},       {"\3a.b\4\"\\ \xff" + end, "a\\.b.\\\"\\\\\\032\\255 1 1"},
      {"\1a\xc0" + end, "none"},         {label(64) + end, "none"},
      {long3 + label(62) + end, "none"},
  };
  for (const auto& [bytes, question] : rows) EXPECT_EQ(parse(bytes), question) << testing::PrintToString(bytes);
  EXPECT_NE(parse(long3 + label(61) + end), "none") << "255 octets";
}

}  // namespace
}  // namespace orvane
