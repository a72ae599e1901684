#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include "platform/macos/base/Values.h"
#include "platform/macos/foundation/Foundation.h"

namespace orvane {
namespace {

TEST(Foundation, FindsTheHostOfAURL) {
  @autoreleasepool {
    const std::pair<const char*, const char*> rows[] = {
        {"https://user:p%40ss@ex%61mple.ORG:8080/a?b#c", "example.ORG"},
        {"http://_dmarc.example.org/http://other.example/", "_dmarc.example.org"},
        {"file:///etc/hosts", "no host"},
    };
    for (const auto& [text, host] : rows) {
      const Ref<NSURL> url = url_of([::NSURL URLWithString:foundation_string(text)]);
      EXPECT_EQ(url->absoluteString(), text);
      EXPECT_EQ(NSURLComponents::initWithURL(*url, false)->host().value_or("no host"), host) << text;
    }
  }
}

TEST(Foundation, ReadsTheLeadingDigitsOfANumber) {
  @autoreleasepool {
    EXPECT_EQ(integerValue(" \t\n+443x"), 443);
    EXPECT_EQ(integerValue("0x10"), 0);
  }
}

}  // namespace
}  // namespace orvane
