#include <gtest/gtest.h>

#include <thread>

#include "identity/PLAudtToken.h"
#include "platform/StandIn.h"

namespace orvane {
namespace {

using stand_in::alive;
using stand_in::security;
using stand_in::token_of;

constexpr int32_t kPid = 70;

class AudtTokenTest : public testing::Test {
 protected:
  AudtTokenTest() {
    stand_in::reset();
    security.identifiers = {{kPid, "org.helper"}, {7, "org.browser"}};
  }
  // Whatever was looked up, and however it failed.
  ~AudtTokenTest() override { EXPECT_EQ(alive("attributes") + alive("information"), 0); }

  static Ref<PLAudtToken> token() { return PLAudtToken::auditTokenWithData(token_of(kPid)); }
  static int found() { return alive("SecCode") + alive("SecStaticCode") + alive("CodeURL"); }
  static std::string messages() { return stand_in::take_log("PLAudtToken"); }
};

TEST_F(AudtTokenTest, FindsItsOwnAndTheResponsibleIdentifier) {
  security.responsible[kPid] = 7;
  const int handles = alive("LogHandle"), objects = stand_in::aliveObjects;
  {
    Ref<PLAudtToken> first = token(), second = token();
    EXPECT_EQ(alive("LogHandle"), handles + 2);  // each has its own
    stand_in::take_trace();
    EXPECT_EQ(first->bundleIdentifier(), "org.helper");
    EXPECT_EQ(stand_in::take_trace(),
              "release information | release SecStaticCode | release SecCode | release attributes");
    EXPECT_EQ(first->responsibleBundleIdentifier(), "org.browser");
    EXPECT_EQ(first->bundleIdentifierFromPid(7), "org.browser");
  }
  EXPECT_EQ(alive("LogHandle"), handles);
  EXPECT_EQ(stand_in::take_log(), "");
  stand_in::take_trace();
  stand_in::nextInitialiserFails = true;
  EXPECT_FALSE(token());
  EXPECT_EQ(stand_in::take_trace(), "");  // no handle was made
  EXPECT_EQ(stand_in::aliveObjects, objects);
}

TEST_F(AudtTokenTest, EachFailingStepIsToldAndThePathsObjectsAloneAreNeverReleased) {
  const std::tuple<stand_in::SecurityState::Step*, std::string, std::string, int> steps[] = {
      {&security.guest, "SecCodeCopyGuestWithAttributes = ", "codeRef == NULL", 0},
      {&security.staticCode, "SecCodeCopyStaticCode = ", "staticCodeRef == NULL", 1},
      {&security.information, "SecCodeCopySigningInformation = ", "signInfoRef == NULL", 2},
      {&security.path, "SecCodeCopyPath = ", "urlRef == NULL", 2},
  };
  Ref<PLAudtToken> asked = token();
  int left = found();
  for (const auto& [step, ofStatus, ofNull, foundBefore] : steps) {
    // A status with and without an output, and a missing output with status 0.
    for (const auto& [status, null] : {std::pair(-5, false), {-5, true}, {0, true}}) {
      *step = {status, null};
      const std::string told = ofStatus + std::to_string(status);
      if (step != &security.path) {
        EXPECT_EQ(asked->bundleIdentifier(), std::nullopt);
        EXPECT_EQ(messages(), null ? told + " | " + ofNull : told);
        EXPECT_EQ(found(), left) << told;
      }
      if (step == &security.information) continue;
      EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), std::nullopt);
      EXPECT_EQ(messages(), status != 0 ? told : ofNull);
      EXPECT_EQ(found(), left += foundBefore + (null ? 0 : 1)) << told;
    }
    *step = {};
  }
  // No property list, one without an identifier, and no path are no failures.
  security.noPropertyList = security.noFileSystemPath = true;
  EXPECT_EQ(asked->bundleIdentifier(), std::nullopt);
  EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), std::nullopt);
  security.noPropertyList = security.noFileSystemPath = false;
  security.identifiers[kPid] = "";
  EXPECT_EQ(asked->bundleIdentifier(), std::nullopt);
  asked->setAuditTokenData(nullptr);  // the path is that of the argument
  stand_in::take_trace();
  EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), "/opt/browser/browser");
  EXPECT_EQ(stand_in::take_trace(), "release attributes");
  EXPECT_EQ(found(), left + 6);
  EXPECT_EQ(messages(), "");
}

TEST_F(AudtTokenTest, ChecksSizesOnlyWhereTheWholeTokenIsUsed) {
  const Value whole = token_of(kPid);
  std::vector<uint8_t> longer(whole.asData().begin(), whole.asData().end());
  longer.push_back(0);
  const std::pair<Value, std::optional<std::string>> cases[] = {
      {nullptr, std::nullopt},
      {Value::string("a text of thirty-two characters."), std::nullopt},
      {Value::data(whole.asData().first(31)), std::nullopt},
      {Value::data(longer), "org.helper"},
  };
  for (const auto& [data, responsible] : cases) {
    auto made = PLAudtToken::initWithData(data);
    EXPECT_EQ(made->bundleIdentifier(), std::nullopt);
    EXPECT_EQ(made->applicationPathFromAuditToken(data), std::nullopt);
    EXPECT_EQ(messages(), "bad auditToken size | bad auditToken size");
    EXPECT_EQ(made->responsibleBundleIdentifier(), responsible);
    EXPECT_EQ(messages(), "");
  }
}

TEST_F(AudtTokenTest, AnyPidIsAskedForAndItsNumberStays) {
  const int numbers = alive("Number");
  const std::string refused = "SecCodeCopyGuestWithAttributes = -67065 | codeRef == NULL";
  for (int32_t pid : {0, -1, 4242}) {
    EXPECT_EQ(token()->bundleIdentifierFromPid(pid), std::nullopt);
    EXPECT_EQ(messages(), refused);
  }
  EXPECT_EQ(alive("Number"), numbers + 3);
  // What the system says of responsibility is passed on, also when it is a failure.
  security.responsible[kPid] = -1;
  EXPECT_EQ(token()->responsibleBundleIdentifier(), std::nullopt);
  EXPECT_EQ(security.pidsAsked, std::vector<int32_t>{kPid});
  EXPECT_EQ(messages(), refused);

  security.numberFails = true;
  EXPECT_EQ(token()->bundleIdentifierFromPid(kPid), std::nullopt);
  EXPECT_EQ(messages(), "cfNumberPid == NULL");
}

TEST_F(AudtTokenTest, ReadersSeeWholeTokensWhileOneIsSet) {
  Ref<PLAudtToken> shared = token();
  std::jthread writer([&] {
    for (int i = 0; i < 2000; ++i) shared->setAuditTokenData(i % 2 == 0 ? Value() : token_of(i));
  });
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(shared->auditTokenData().asData().size() % 32, 0U);
}

}  // namespace
}  // namespace orvane
