#include <gtest/gtest.h>

#include <thread>

#include "identity/PLAudtToken.h"
#include "platform/StandIn.h"

namespace orvane {
namespace {

using stand_in::security;
using stand_in::token_of;
using Strings = std::vector<std::string>;

constexpr int32_t kPid = 70;

class AudtTokenTest : public testing::Test {
 protected:
  AudtTokenTest() {
    stand_in::reset();
    security().identifiers = {{kPid, "org.helper"}, {7, "org.browser"}};
  }

  static Ref<PLAudtToken> token() { return PLAudtToken::auditTokenWithData(token_of(kPid)); }

  static void expectNothingAlive(const char* context) {
    for (const char* kind : {"attributes", "SecCode", "SecStaticCode", "information"}) {
      EXPECT_EQ(stand_in::alive(kind), 0) << kind << " after " << context;
    }
  }
};

TEST_F(AudtTokenTest, FindsItsOwnAndTheResponsibleIdentifier) {
  security().responsible[kPid] = 7;
  const int handles = stand_in::alive("LogHandle");
  {
    Ref<PLAudtToken> first = token(), second = token();
    EXPECT_EQ(stand_in::alive("LogHandle"), handles + 2);  // each has its own
    EXPECT_EQ(first->bundleIdentifier(), "org.helper");
    EXPECT_EQ(first->responsibleBundleIdentifier(), "org.browser");
    EXPECT_EQ(first->bundleIdentifierFromPid(7), "org.browser");
  }
  EXPECT_EQ(stand_in::alive("LogHandle"), handles);
  EXPECT_EQ(stand_in::take_log(), Strings{});
  expectNothingAlive("success");
}

TEST_F(AudtTokenTest, ReleasesInTheReverseOfTheOrderOfFinding) {
  Ref<PLAudtToken> asked = token();
  stand_in::take_trace();
  asked->bundleIdentifier();
  EXPECT_EQ(stand_in::take_trace(),
            (Strings{"release information", "release SecStaticCode", "release SecCode", "release attributes"}));
}

TEST_F(AudtTokenTest, EachFailingStepIsToldAndLeavesNothingAlive) {
  using Step = stand_in::SecurityState::Step;
  const struct {
    Step stand_in::SecurityState::*step;
    const char* status;
    const char* null;
  } steps[] = {{&stand_in::SecurityState::guest, "SecCodeCopyGuestWithAttributes = ", "codeRef == NULL"},
               {&stand_in::SecurityState::staticCode, "SecCodeCopyStaticCode = ", "staticCodeRef == NULL"},
               {&stand_in::SecurityState::information, "SecCodeCopySigningInformation = ", "signInfoRef == NULL"}};
  for (const auto& s : steps) {
    // A status with and without an output, and a missing output with status 0.
    for (const Step& outcome : {Step{-5, false}, Step{-5, true}, Step{0, true}}) {
      security().*s.step = outcome;
      EXPECT_EQ(token()->bundleIdentifier(), std::nullopt);
      Strings expected{"PLAudtToken: " + (s.status + std::to_string(outcome.status))};
      if (outcome.null) expected.push_back(std::string("PLAudtToken: ") + s.null);
      EXPECT_EQ(stand_in::take_log(), expected);
      expectNothingAlive(s.status);
    }
    security().*s.step = {};
  }
}

TEST_F(AudtTokenTest, IsSilentWhereThereIsNoIdentifier) {
  security().noPropertyList = true;
  EXPECT_EQ(token()->bundleIdentifier(), std::nullopt);
  security().noPropertyList = false;
  security().identifiers[kPid] = "";
  EXPECT_EQ(token()->bundleIdentifier(), std::nullopt);
  EXPECT_EQ(stand_in::take_log(), Strings{});
  expectNothingAlive("no identifier");
}

TEST_F(AudtTokenTest, ChecksSizesOnlyWhereTheWholeTokenIsUsed) {
  const auto whole = token_of(kPid).asData();
  std::vector<uint8_t> longer(whole.begin(), whole.end());
  longer.push_back(0);
  const struct {
    Value data;
    std::optional<std::string> responsible;
  } cases[] = {{nullptr, std::nullopt},
               {Value::string("a text of thirty-two characters."), std::nullopt},
               {Value::data(whole.first(31)), std::nullopt},
               {Value::data(longer), "org.helper"}};
  for (const auto& c : cases) {
    auto made = PLAudtToken::initWithData(c.data);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->bundleIdentifier(), std::nullopt);
    EXPECT_EQ(made->applicationPathFromAuditToken(c.data), std::nullopt);
    EXPECT_EQ(stand_in::take_log(), (Strings{"PLAudtToken: bad auditToken size", "PLAudtToken: bad auditToken size"}));
    EXPECT_EQ(made->responsibleBundleIdentifier(), c.responsible);
    EXPECT_EQ(stand_in::take_log(), Strings{});
  }
}

TEST_F(AudtTokenTest, AnyPidIsAskedForAndItsNumberStays) {
  const int numbers = stand_in::alive("Number");
  for (int32_t pid : {0, -1, 4242}) EXPECT_EQ(token()->bundleIdentifierFromPid(pid), std::nullopt);
  const Strings refused{"PLAudtToken: SecCodeCopyGuestWithAttributes = -67065", "PLAudtToken: codeRef == NULL"};
  Strings messages = stand_in::take_log();
  ASSERT_EQ(messages.size(), 6U);
  EXPECT_EQ(Strings(messages.begin(), messages.begin() + 2), refused);
  EXPECT_EQ(stand_in::alive("Number"), numbers + 3);
  expectNothingAlive("unknown pids");

  // What the system says of responsibility is passed on, also when it is a failure.
  security().responsible[kPid] = -1;
  EXPECT_EQ(token()->responsibleBundleIdentifier(), std::nullopt);
  EXPECT_EQ(security().pidsAsked, std::vector<int32_t>{kPid});
  EXPECT_EQ(stand_in::take_log(), refused);

  security().numberFails = true;
  EXPECT_EQ(token()->bundleIdentifierFromPid(kPid), std::nullopt);
  EXPECT_EQ(stand_in::take_log(), Strings{"PLAudtToken: cfNumberPid == NULL"});
}

TEST_F(AudtTokenTest, ThePathsObjectsAreNeverReleased) {
  using Step = stand_in::SecurityState::Step;
  const struct {
    Step stand_in::SecurityState::*step;
    const char* status;
    const char* null;
  } steps[] = {{&stand_in::SecurityState::guest, "SecCodeCopyGuestWithAttributes = -5", "codeRef == NULL"},
               {&stand_in::SecurityState::staticCode, "SecCodeCopyStaticCode = -5", "staticCodeRef == NULL"},
               {&stand_in::SecurityState::path, "SecCodeCopyPath = -5", "urlRef == NULL"}};
  Ref<PLAudtToken> asked = PLAudtToken::auditTokenWithData(nullptr);
  auto alive = [] {
    return std::vector<int>{stand_in::alive("SecCode"), stand_in::alive("SecStaticCode"), stand_in::alive("CodeURL")};
  };
  std::vector<int> left = alive();
  for (size_t i = 0; i < std::size(steps); ++i) {
    // The status alone is told where there is one, the output alone where there is none.
    for (const Step& outcome : {Step{-5, false}, Step{-5, true}, Step{0, true}}) {
      security().*steps[i].step = outcome;
      EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), std::nullopt);
      EXPECT_EQ(stand_in::take_log(),
                Strings{std::string("PLAudtToken: ") + (outcome.status != 0 ? steps[i].status : steps[i].null)});
      for (size_t object = 0; object < i; ++object) ++left[object];
      if (!outcome.null) ++left[i];
      EXPECT_EQ(alive(), left) << steps[i].null;
      EXPECT_EQ(stand_in::alive("attributes"), 0);
    }
    security().*steps[i].step = {};
  }
  stand_in::take_trace();
  EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), "/opt/browser/browser");
  EXPECT_EQ(stand_in::take_trace(), Strings{"release attributes"});
  security().noFileSystemPath = true;
  EXPECT_EQ(asked->applicationPathFromAuditToken(token_of(kPid)), std::nullopt);
  for (int& count : left) count += 2;
  EXPECT_EQ(alive(), left);
}

TEST_F(AudtTokenTest, AFailedInitialiserGivesNull) {
  const int objects = stand_in::alive_objects(), handles = stand_in::alive("LogHandle");
  stand_in::nextInitialiserFails = true;
  EXPECT_FALSE(token());
  EXPECT_EQ(stand_in::alive_objects(), objects);
  EXPECT_EQ(stand_in::alive("LogHandle"), handles);
}

TEST_F(AudtTokenTest, ReadersSeeWholeTokensWhileOneIsSet) {
  Ref<PLAudtToken> shared = token();
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) shared->setAuditTokenData(i % 2 == 0 ? Value() : token_of(i));
  });
  for (int i = 0; i < 2000; ++i) {
    const Value seen = shared->auditTokenData();
    ASSERT_TRUE(seen.isNil() || seen.asData().size() == 32);
  }
  writer.join();
}

}  // namespace
}  // namespace orvane
