#include "filter/Filter.h"
#include "filter/FilterDataProvider.h"
#include "filter/PLSafariFilterDataProvider.h"

namespace orvane {
namespace {

using stand_in::filter;

template <class Provider>
class LifecycleTest : public FilterTest {
 public:
  static constexpr bool kGeneral = std::is_same_v<Provider, FilterDataProvider>;
  const std::string category = kGeneral ? "FilterDataProvider" : "PLSafariFilterDataProvider";
};

using Providers = testing::Types<FilterDataProvider, PLSafariFilterDataProvider>;
TYPED_TEST_SUITE(LifecycleTest, Providers);

TYPED_TEST(LifecycleTest, AppliesItsRulesAndAllowsTheRest) {
  auto provider = TypeParam::init();
  int completions = 0;
  provider->startFilterWithCompletionHandler([&](const Ref<NSError>& error) {
    ++completions;
    EXPECT_FALSE(error);
  });
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(this->messages(this->category), "start filter");

  std::vector<std::pair<const char*, NENetworkRuleProtocol>> expected{{"80", NENetworkRuleProtocol::TCP},
                                                                      {"443", NENetworkRuleProtocol::TCP}};
  if (this->kGeneral) expected.insert(expected.begin(), {"53", NENetworkRuleProtocol::Any});
  ASSERT_TRUE(filter().applied);
  EXPECT_EQ(filter().applied->defaultAction, NEFilterAction::Allow);
  ASSERT_EQ(filter().applied->rules.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto& [network, action] = filter().applied->rules[i];
    EXPECT_EQ(action, NEFilterAction::FilterData);
    EXPECT_EQ(network.remoteNetwork->hostname(), "");
    EXPECT_EQ(network.remoteNetwork->port(), expected[i].first);
    EXPECT_EQ(network.protocol, expected[i].second);
    EXPECT_EQ(network.direction, NETrafficDirection::Outbound);
    EXPECT_TRUE(network.remotePrefix == 0 && network.localPrefix == 0 && !network.localNetwork);
  }
}

TYPED_TEST(LifecycleTest, HandsOnTheVeryErrorAndLivesUntilTheAnswer) {
  filter().defersApply = true;
  filter().applyError = stand_in::error_named("no queue");
  const int objects = stand_in::alive_objects();
  auto provider = TypeParam::init();
  NSError* reported = nullptr;
  provider->startFilterWithCompletionHandler([&](const Ref<NSError>& error) { reported = error.get(); });
  provider = nullptr;  // the platform's own reference goes while the settings are applied
  EXPECT_GT(stand_in::alive_objects(), objects);
  stand_in::take_log();
  filter().pendingApply();
  EXPECT_EQ(reported, filter().applyError.get());
  EXPECT_EQ(stand_in::take_log(),
            std::vector<std::string>{this->category + "! Failed to apply filter settings: localised no queue"});
  filter().pendingApply = nullptr;
  filter().applied.reset();
  EXPECT_EQ(stand_in::alive_objects(), objects);
}

TYPED_TEST(LifecycleTest, StopsAtOnceForAnyReason) {
  auto provider = TypeParam::init();
  for (auto reason : {NEProviderStopReason::None, NEProviderStopReason::ProviderFailed}) {
    int completions = 0;
    provider->stopFilterWithReason(reason, [&] { ++completions; });
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(this->messages(this->category), "stop filter");
  }
}

TYPED_TEST(LifecycleTest, AFailedInitialiserGivesNullAndNoHandle) {
  const int handles = stand_in::alive("LogHandle");
  EXPECT_TRUE(TypeParam::init());
  EXPECT_EQ(stand_in::alive("LogHandle"), handles);
  stand_in::nextInitialiserFails = true;
  EXPECT_FALSE(TypeParam::init());
  EXPECT_EQ(stand_in::alive("LogHandle"), handles);
}

}  // namespace
}  // namespace orvane
