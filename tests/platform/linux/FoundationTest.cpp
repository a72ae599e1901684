#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "platform/Clock.h"
#include "platform/Foundation.h"

namespace orvane {
namespace {

class TextURL : public NSURL {
 public:
  explicit TextURL(std::string text) : text_(std::move(text)) {}
  std::string absoluteString() const override { return text_; }

 private:
  std::string text_;
};

std::string host_of(const char* text) {
  auto url = Ref<TextURL>::adopt(new TextURL(text));
  auto components = NSURLComponents::initWithURL(*url, false);
  return components ? components->host().value_or("no host") : "no URL";
}

TEST(URLComponents, HidesOrInventsAHost) {
  const std::pair<const char*, const char*> rows[] = {
      {"http://EXAMPLE.org:8080/a?b#c", "EXAMPLE.org"},
      {"https://user:p%40ss@ex%61mple.org", "example.org"},
      {"http://[2001:db8::1]:80/", "[2001:db8::1]"},
      {"http://_dmarc.example.org/", "_dmarc.example.org"},
      {"http://example.org/a|b{c}\"<", "example.org"},
      {"http://example.org?q=a b%zz", "example.org"},
      {"http://example.org/http://other.example/", "example.org"},
  };
  for (const auto& [url, host] : rows) EXPECT_EQ(host_of(url), host) << url;
  for (const char* url : {"file:///etc/hosts", "http://:80/", "mailto:a@example.org", "/path?u=http://example.org"}) {
    EXPECT_EQ(host_of(url), "no host") << url;
  }
  for (const char* url : {"http://a b/", "http://[::1/", "http://ex%zzample/", ":"}) {
    EXPECT_EQ(host_of(url), "no URL") << url;
  }
}

TEST(IntegerValue, ReadsAPortDifferently) {
  const std::pair<const char*, int64_t> rows[] = {{"53", 53},
                                                  {" \t\n+443", 443},
                                                  {"-1", -1},
                                                  {"80x", 80},
                                                  {"http", 0},
                                                  {"", 0},
                                                  {"0x10", 0},
                                                  {"- 1", 0},
                                                  {"0053", 53},
                                                  {"99999999999999999999", INT64_MAX},
                                                  {"-99999999999999999999", INT64_MIN}};
  for (const auto& [text, value] : rows) EXPECT_EQ(integerValue(text), value) << text;
}

TEST(Clock, CountsFromAnotherYear) {
  using namespace std::chrono;
  double expected = duration<double>(system_clock::now() - sys_days{2001y / January / 1}).count();
  EXPECT_NEAR(absolute_time_get_current(), expected, 5);
}

}  // namespace
}  // namespace orvane
