#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

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
  // Dictionaries of attributes or of signing information must not outlive a test.
  ~AudtTokenTest() override { EXPECT_EQ(alive("attributes") + alive("information"), 0); }

  static Ref<PLAudtToken> token() { return PLAudtToken::auditTokenWithData(token_of(kPid)); }
  static int found() { return alive("SecCode") + alive("SecStaticCode") + alive("CodeURL"); }
  static std::string messages() { return stand_in::take_log("PLAudtToken"); }
};

TEST_F(AudtTokenTest, FindsIdentifiersOfProcesses) {
  security.responsible[kPid] = 7;
  const int handles = alive("LogHandle");
  {
    Ref<PLAudtToken> first = token(), second = token();
    EXPECT_EQ(alive("LogHandle"), handles + 2);  // one for each token
    stand_in::take_trace();
    EXPECT_EQ(first->bundleIdentifier(), "org.helper");
    EXPECT_EQ(stand_in::take_trace(),
              "release information | release SecStaticCode | release SecCode | release attributes");
    EXPECT_EQ(first->responsibleBundleIdentifier(), "org.browser");
    EXPECT_EQ(first->bundleIdentifierFromPid(7), "org.browser");
  }
  EXPECT_EQ(alive("LogHandle"), handles);
  EXPECT_EQ(stand_in::take_log(), "");
}

TEST_F(AudtTokenTest, MakesNoLogHandleWhenTheInitialiserFails) {
  const int objects = stand_in::aliveObjects;
  stand_in::nextInitialiserFails = true;
  EXPECT_FALSE(token());
  EXPECT_EQ(stand_in::take_trace(), "");  // the release of a handle would be in the trace
  EXPECT_EQ(stand_in::aliveObjects, objects);
}

TEST_F(AudtTokenTest, LogsTheFailingStep) {
  const std::tuple<stand_in::SecurityState::Step*, std::string, std::string, int> steps[] = {
      {&security.guest, "SecCodeCopyGuestWithAttributes = ", "codeRef == NULL", 0},
      {&security.staticCode, "SecCodeCopyStaticCode = ", "staticCodeRef == NULL", 1},
      {&security.information, "SecCodeCopySigningInformation = ", "signInfoRef == NULL", 2},
      {&security.path, "SecCodeCopyPath = ", "urlRef == NULL", 2},
  };
  Ref<PLAudtToken> asked = token();
  int leaked = found();  // grows, because applicationPathFromAuditToken leaks what it finds (bundleIdentifier does not)
  for (const auto& [step, statusText, nullText, foundBefore] : steps) {
    for (const auto& [status, null] : {std::pair(-5, false), {-5, true}, {0, true}}) {
      *step = {status, null};
      const std::string statusMessage = statusText + std::to_string(status);
      if (step != &security.path) {
        EXPECT_EQ(asked->bundleIdentifier(), std::nullopt);
        EXPECT_EQ(messages(), null ? statusMessage + " | " + nullText : statusMessage);
        EXPECT_EQ(found(), leaked) << statusMessage;
      }
      if (step == &security.information) continue;
      EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), std::nullopt);
      EXPECT_EQ(messages(), status != 0 ? statusMessage : nullText);
      EXPECT_EQ(found(), leaked += foundBefore + (null ? 0 : 1)) << statusMessage;
    }
    *step = {};
  }
}

TEST_F(AudtTokenTest, LogsNothingWhenInformationIsMissing) {
  Ref<PLAudtToken> asked = token();
  security.noPropertyList = security.noFileSystemPath = true;
  EXPECT_EQ(asked->bundleIdentifier(), std::nullopt);
  EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), std::nullopt);
  security.noPropertyList = security.noFileSystemPath = false;
  security.identifiers[kPid] = "";
  EXPECT_EQ(asked->bundleIdentifier(), std::nullopt);
  EXPECT_EQ(messages(), "");
}

TEST_F(AudtTokenTest, FindsThePathOfTheGivenToken) {
  const int leaked = found();
  Ref<PLAudtToken> asked = PLAudtToken::auditTokenWithData(nullptr);
  stand_in::take_trace();
  EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), "/opt/browser/browser");
  EXPECT_EQ(stand_in::take_trace(), "release attributes");
  EXPECT_EQ(found(), leaked + 3);
  EXPECT_EQ(messages(), "");
}

TEST_F(AudtTokenTest, RejectsTokensOfTheWrongSize) {
  const Value whole = token_of(kPid);
  std::vector<uint8_t> longer(whole.asData().begin(), whole.asData().end());
  longer.push_back(0);
  const std::tuple<const char*, Value, std::optional<std::string>> cases[] = {
      {"nil", nullptr, std::nullopt},
      {"a string", Value::string("a text of thirty-two characters."), std::nullopt},
      {"31 bytes", Value::data(whole.asData().first(31)), std::nullopt},
      {"33 bytes", Value::data(longer), "org.helper"},
  };
  for (const auto& [what, data, responsible] : cases) {
    auto made = PLAudtToken::initWithData(data);
    EXPECT_EQ(made->bundleIdentifier(), std::nullopt) << what;
    EXPECT_EQ(made->applicationPathFromAuditToken(data), std::nullopt) << what;
    EXPECT_EQ(messages(), "bad auditToken size | bad auditToken size") << what;
    EXPECT_EQ(made->responsibleBundleIdentifier(), responsible) << what;
    EXPECT_EQ(messages(), "") << what;
  }
}

TEST_F(AudtTokenTest, PassesAnyPidToThePlatform) {
  const int numbers = alive("Number");
  const std::string refused = "SecCodeCopyGuestWithAttributes = -67065 | codeRef == NULL";
  for (int32_t pid : {0, -1, 4242}) {
    EXPECT_EQ(token()->bundleIdentifierFromPid(pid), std::nullopt);
    EXPECT_EQ(messages(), refused);
  }
  EXPECT_EQ(alive("Number"), numbers + 3);  // the core never releases them
  // If the platform fails to find the responsible process, it returns the pid -1. The core uses even this pid.
  security.responsible[kPid] = -1;
  EXPECT_EQ(token()->responsibleBundleIdentifier(), std::nullopt);
  EXPECT_EQ(security.pidsAsked, std::vector<int32_t>{kPid});
  EXPECT_EQ(messages(), refused);
}

TEST_F(AudtTokenTest, LogsThatNoNumberCouldBeMade) {
  security.numberFails = true;
  EXPECT_EQ(token()->bundleIdentifierFromPid(kPid), std::nullopt);
  EXPECT_EQ(messages(), "cfNumberPid == NULL");
}

TEST_F(AudtTokenTest, SetsTokensAtomically) {
  Ref<PLAudtToken> shared = token();
  std::jthread writer([&] {
    for (int i = 0; i < 2000; ++i) shared->setAuditTokenData(i % 2 == 0 ? Value() : token_of(i));
  });
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(shared->auditTokenData().asData().size() % 32, 0U);
}

}  // namespace
}  // namespace orvane
