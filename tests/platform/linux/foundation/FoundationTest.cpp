#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/Foundation.h"

namespace orvane {
namespace {

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

}  // namespace
}  // namespace orvane
