#include <gtest/gtest.h>

#include <algorithm>

#include "platform/StandIn.h"
#include "platform/macos/process/SigningCache.h"

namespace orvane {
namespace {

struct SigningCacheTest : testing::Test {
  void TearDown() override { stand_in::reset(); }

  static SigningCache::Token token(int32_t pid) {
    SigningCache::Token bytes;
    std::ranges::copy(stand_in::token_of(pid).asData(), bytes.begin());
    return bytes;
  }

  static Ref<SecCode> code_of(int32_t pid) {
    stand_in::security.identifiers[pid] = "org.browser";
    Ref<SecCode> code;
    SecCodeCopyGuestWithAttributes(nullptr, dictionary_create(GuestAttribute::Audit, stand_in::token_of(pid)).get(), 0,
                                   code.out());
    return code;
  }
};

TEST_F(SigningCacheTest, FindsEachStepOfAnEarlierLookUp) {
  SigningCache cache;
  const Ref<SecCode> code = code_of(1), other = code_of(2);
  Ref<SecStaticCode> staticCode;
  Ref<Dictionary> information;
  SecCodeCopyStaticCode(code.get(), 0, staticCode.out());
  SecCodeCopySigningInformation(staticCode.get(), 0, information.out());
  cache.keep(token(1), code.get());
  EXPECT_EQ(cache.find(code.get()), nullptr) << "not looked up yet";
  cache.keep(code.get(), staticCode.get());
  cache.keep(staticCode.get(), information.get());
  EXPECT_EQ(cache.find(token(1)), code);
  EXPECT_EQ(cache.find(code.get()), staticCode);
  EXPECT_EQ(cache.find(staticCode.get()), information);
  EXPECT_EQ(cache.find(token(2)), nullptr);
  cache.keep(other.get(), staticCode.get());
  EXPECT_EQ(cache.find(other.get()), nullptr) << "a program that was looked up by its process identifier";
}

TEST_F(SigningCacheTest, ForgetsTheProcessThatWasLookedUpLeastRecently) {
  SigningCache cache;
  const auto last = static_cast<int32_t>(SigningCache::kLimit);
  for (int32_t pid = 0; pid < last; ++pid) cache.keep(token(pid), code_of(pid).get());
  EXPECT_NE(cache.find(token(0)), nullptr);
  cache.keep(token(last), code_of(last).get());
  EXPECT_NE(cache.find(token(0)), nullptr);
  EXPECT_EQ(cache.find(token(1)), nullptr);
  EXPECT_EQ(stand_in::alive("SecCode"), last) << "the forgotten object is released";
}

}  // namespace
}  // namespace orvane
