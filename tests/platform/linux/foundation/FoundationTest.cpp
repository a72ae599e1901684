#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/DNS.h"
#include "platform/Foundation.h"
#include "platform/linux/base/FileURL.h"

namespace orvane {
namespace {

using namespace std::string_literals;

struct TextURL : NSURL {
  explicit TextURL(const char* characters) : text(characters) {}
  std::string absoluteString() const override { return text; }
  std::string text;
};

std::string host_of(const char* text) {
  auto url = Ref<TextURL>::adopt(new TextURL(text));
  auto components = NSURLComponents::initWithURL(*url, false);
  return components ? components->host().value_or("no host") : "no URL";
}

TEST(URLComponents, FindsTheHost) {
  const std::pair<const char*, const char*> rows[] = {
      {"https://user:p%40ss@ex%61mple.ORG.:8080/a?b#c", "example.org"},
      {"http://[2001:db8::1]:80/", "[2001:db8::1]"},
      {"http://_dmarc.example.org/http://other.example/", "_dmarc.example.org"},
      {"http://example.org/a|b{c}\"<?q=a b%zz", "example.org"},
      {"file:///etc/hosts", "no host"},
      {"http://:80/", "no host"},
      {"http://a b/", "no URL"},
      {"http://[::1/", "no URL"},
  };
  for (const auto& [url, host] : rows) EXPECT_EQ(host_of(url), host) << url;
}

TEST(IntegerValue, ReadsLeadingDigitsInDecimal) {
  const std::pair<const char*, int64_t> rows[] = {
      {" \t\n+443", 443}, {"-1", -1}, {"80x", 80}, {"", 0}, {"0x10", 0}, {"99999999999999999999", INT64_MAX}};
  for (const auto& [text, value] : rows) EXPECT_EQ(integerValue(text), value) << text;
}

// The question's name, type and class, or "none". Parses an exact copy, so that sanitizers notice a read beyond it.
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

TEST(FileURL, ConvertsPathsBothWays) {
  EXPECT_EQ(path_of_file_url("file:///a%20b/c"), "/a b/c");
  EXPECT_EQ(path_of_file_url("FILE://localhost/a"), "/a");
  for (const char* url : {"file://elsewhere/a", "http://localhost/a", "file:a", "/a", "file:///a%00b", "file:///a%2"}) {
    EXPECT_EQ(path_of_file_url(url), std::nullopt) << url;
  }
  for (const char* path : {"/with space/%41?x#y", "/\xc3\xa9;:@", "//double"}) {
    EXPECT_EQ(path_of_file_url(file_url_of_path(path)), path);
  }
}

}  // namespace
}  // namespace orvane
