#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include "platform/names/PublicSuffixes.h"

// CFNetwork's list, with the names in Unicode.
extern "C" Boolean _CFHostIsDomainTopLevel(CFStringRef domain) {
  return *domain == "co.uk" || *domain == "公司.cn" || *domain == "straße.example";
}

namespace orvane {
namespace {

TEST(PublicSuffixes, AreRecognisedByTheirALabels) {
  for (const char* name : {"co.uk", "xn--55qx5d.cn", "xn--strae-oqa.example"})
    EXPECT_TRUE(is_public_suffix(name)) << name;
  for (const char* name : {"www.co.uk", "a.xn--55qx5d.cn", "xn--55qx5d.uk", "xn--.cn", "xn--55qx5d.xn--99999999", "cn"})
    EXPECT_FALSE(is_public_suffix(name)) << name;
  EXPECT_FALSE(is_public_suffix(std::string(100'000, 'a') + ".xn--55qx5d.cn")) << "longer than a host name";
}

}  // namespace
}  // namespace orvane
