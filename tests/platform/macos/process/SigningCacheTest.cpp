#include <gtest/gtest.h>

#include "platform/StandIn.h"
#include "platform/macos/process/SigningCache.h"

namespace orvane {
namespace {

Ref<SecCode> code_of(int32_t pid) {
  stand_in::security.identifiers[pid] = "org.browser";
  const Ref<Dictionary> attributes = dictionary_create(GuestAttribute::Audit, stand_in::token_of(pid));
  Ref<SecCode> code;
  SecCodeCopyGuestWithAttributes(nullptr, attributes.get(), 0, code.out());
  return code;
}

TEST(SigningCache, KeepsEachStepOfTheMostRecentLookUps) {
  SigningCache cache;
  const Ref<SecCode> code = code_of(0), other = code_of(-1);
  Ref<SecStaticCode> staticCode;
  SecCodeCopyStaticCode(code.get(), 0, staticCode.out());
  Ref<Dictionary> information = dictionary_create(GuestAttribute::Audit, stand_in::token_of(0));
  cache.keep(stand_in::token_of(0), code.get());
  cache.keep(code.get(), staticCode.get());
  cache.keep(staticCode.get(), information.get());
  cache.keep(other.get(), staticCode.get());
  EXPECT_EQ(cache.find(other.get()), nullptr) << "a program that was looked up by its process identifier";
  const auto last = static_cast<int32_t>(SigningCache::kLimit);
  for (int32_t pid = 1; pid < last; ++pid) cache.keep(stand_in::token_of(pid), code_of(pid).get());
  EXPECT_EQ(cache.find(stand_in::token_of(0)), code);
  cache.keep(stand_in::token_of(last), code_of(last).get());
  EXPECT_EQ(cache.find(stand_in::token_of(0)), code);
  EXPECT_EQ(cache.find(code.get()), staticCode);
  EXPECT_EQ(cache.find(staticCode.get()), information);
  EXPECT_EQ(cache.find(stand_in::token_of(1)), nullptr);
  EXPECT_EQ(stand_in::alive("SecCode"), last + 1) << "the forgotten object is released";
}

}  // namespace
}  // namespace orvane
