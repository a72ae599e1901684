#include "filter/Filter.h"
#include "filter/FilterDataProvider.h"
#include "filter/PLSafariFilterDataProvider.h"

namespace orvane {
namespace {

using New = NEFilterNewFlowVerdict;
using Data = NEFilterDataVerdict;

const New kAllow = New::allowVerdict(), kDrop = New::dropVerdict();
const New kPeekDNS = New::filterDataVerdictWithFilterInbound(false, 0, true, 1024);
const New kPeekAll = New::filterDataVerdictWithFilterInbound(false, 0, true, UINT64_MAX);
const Data kAllowData = Data::allowVerdict(), kDropData = Data::dropVerdict();

void suspend(const char* hostname) {
  const Value until = Value::dictionary({{Value::string("DontBlockUntil"), Value::date(9e9)}});
  db_hostname_set_properties(Value::string(hostname), until);
}

class VerdictTest : public FilterTest {
 protected:
  static constexpr const char* kCategory = "FilterDataProvider";
  Ref<FilterDataProvider> provider = FilterDataProvider::init();

  Data dataOf(const NEFilterFlow& flow, std::string_view bytes, uint64_t offset) {
    const auto* start = reinterpret_cast<const uint8_t*>(bytes.data());
    return provider->handleOutboundDataFromFlow(flow, offset, {start, bytes.size()});
  }
};

TEST_F(VerdictTest, NewFlows) {
  suspend("held.example");  // which this provider does not look at
  auto urlOnSocket = socketFlowTo("443", "other.example");
  urlOnSocket->url = "https://held.example/";
  auto dnsToHeld = socketFlowTo("53", "held.example");
  dnsToHeld->url = "https://held.example/";
  const std::string held = "found hostname in database : dropping flow.", remote = "remote hostname: held.example | ";
  const std::string url = "URL: https://held.example/ | hostname: held.example | ";
  const std::string wait = "not enough data; waiting more...";
  const struct {
    Ref<NEFilterFlow> flow;
    New verdict;
    std::string messages;
  } cases[] = {
      {socketFlowTo("443", "held.example", kOther), kAllow, ""},
      {socketFlowTo("53", "held.example", kOther), kAllow, ""},
      {socketFlowTo("443", "held.example"), kDrop, remote + held},
      {socketFlowTo("443", "held.example", kHelper), kDrop, remote + held},
      {socketFlowTo("443", "Held.example"), kAllow, "remote hostname: Held.example | allowing flow."},
      {dnsToHeld, kPeekDNS, "DNS packet data; waiting more data..."},
      {plainFlow("https://held.example/"), kDrop, url + held},
      {urlOnSocket, kDrop, url + held},
      {plainFlow("https://a.example/"), kAllow, "URL: https://a.example/ | hostname: a.example | allowing flow."},
      {plainFlow("data:,x"), kPeekAll, "URL: data:,x | hostname: (null) | " + wait},
      {socketFlowTo("443", std::nullopt), kPeekAll, "remote hostname: (null) | " + wait},
      {plainFlow(std::nullopt), kPeekAll, wait},
  };
  for (const auto& c : cases) {
    stand_in::take_log();
    EXPECT_TRUE(provider->handleNewFlow(*c.flow) == c.verdict) << c.messages;
    EXPECT_EQ(messages(kCategory), c.messages);
  }
  stand_in::log().enabled[LogLevel::Debug] = false;
  EXPECT_TRUE(provider->handleNewFlow(*urlOnSocket) == kDrop);
  EXPECT_TRUE(stand_in::take_log().empty());
}

TEST_F(VerdictTest, AsksForTheResponsibleApplicationOnlyWhenItMust) {
  provider->handleNewFlow(*socketFlowTo("443", "a.example"));
  EXPECT_TRUE(stand_in::security().pidsAsked.empty());
  provider->handleNewFlow(*socketFlowTo("443", "a.example", kHelper));
  EXPECT_EQ(stand_in::security().pidsAsked, std::vector<int32_t>{kHelper});
  // A flow of an unknown owner is nobody's: allowed, and nil never reaches the database.
  auto unknown = socketFlowTo("443", "held.example");
  for (const Value& token : {Value(), Value::data({})}) {
    unknown->token = token;
    stand_in::take_log();
    EXPECT_TRUE(provider->handleNewFlow(*unknown) == kAllow);
    EXPECT_EQ(messages("Database"), "");
  }
}

TEST_F(VerdictTest, OutboundData) {
  const std::string start = "handleOutboundDataFromFlow: ", web = start + "socket type:1, port:443";
  const struct {
    Ref<NEFilterFlow> flow;
    Data verdict;
    std::string messages;
  } cases[] = {
      {plainFlow("https://held.example/"), kAllowData, start + "not a socket flow..."},
      {socketFlowTo("443", "held.example"), kDropData,
       web + " | " + start + "found hostname in database : dropping flow"},
      {socketFlowTo("443", "other.example"), kAllowData, web},
      {socketFlowTo("-1", std::nullopt), kAllowData,
       start + "socket type:1, port:18446744073709551615 | " + start + "remoteHostname is nil; accept flow"},
  };
  for (const auto& c : cases) {
    for (uint64_t offset : {uint64_t{0}, UINT64_MAX}) {
      stand_in::take_log();
      EXPECT_TRUE(dataOf(*c.flow, "bytes", offset) == c.verdict) << c.messages;
      EXPECT_EQ(messages(kCategory), c.messages);
    }
  }
}

TEST_F(VerdictTest, QuestionsAreObservedAndNeverDropped) {
  auto flow = socketFlowTo("53", "held.example");
  const std::string start = "handleOutboundDataFromFlow: ";
  auto expect = [&](std::string_view bytes, const std::string& tail) {
    stand_in::take_log();
    EXPECT_TRUE(dataOf(*flow, bytes, 7) == kAllowData);
    EXPECT_EQ(messages(kCategory), start + "socket type:1, port:53 | " + start + "DNS flow" + tail);
    EXPECT_EQ(stand_in::dns().parsed, bytes);  // from the first byte
    EXPECT_EQ(stand_in::alive("dns_question_t"), 0);
  };
  stand_in::dns().name = "held.example";
  expect("question", " | " + start + "dns_name:held.example");
  stand_in::dns().name.reset();
  expect("question", "");
  stand_in::dns().fails = true;
  expect("", "");
  const std::string dump = " | " + start + "cannot parse dns question :";
  std::string first = "61";
  for (int i = 1; i < 32; ++i) first += " 61";
  expect(std::string(34, 'a'), dump + "00000000: " + first + "  " + std::string(32, 'a') + "\n" + dump +
                                   "00000020: 61 61" + std::string(92, ' ') + "aa\n");
}

TEST_F(VerdictTest, OutboundEnd) {
  const std::string start = "handleOutboundDataCompleteForFlow: ";
  const std::string held = start + "found hostname in database : dropping flow";
  const std::string unknown = start + "remoteHostname is nil; allowinf flow...";
  const struct {
    Ref<NEFilterFlow> flow;
    Data verdict;
    std::string messages;
  } cases[] = {
      {socketFlowTo("443", "held.example"), kDropData, held},
      {socketFlowTo("53", "held.example"), kDropData, held},
      {socketFlowTo("443", "other.example"), kAllowData, ""},
      {socketFlowTo("443", std::nullopt), kAllowData, unknown},
      {plainFlow("https://held.example/"), kAllowData, unknown},
  };
  for (const auto& c : cases) {
    stand_in::take_log();
    EXPECT_TRUE(provider->handleOutboundDataCompleteForFlow(*c.flow) == c.verdict);
    EXPECT_EQ(messages(kCategory), c.messages);
  }
}

class SafariVerdictTest : public FilterTest {
 protected:
  Ref<PLSafariFilterDataProvider> provider = PLSafariFilterDataProvider::init();
};

TEST_F(SafariVerdictTest, DecidesAtTheDataStageWhereADateMaySuspend) {
  db_hostname_add(Value::string("later.example"));
  suspend("later.example");
  // A flow that has a URL is known by that alone.
  auto noHost = socketFlowTo("443", "held.example", kSafari);
  noHost->url = "data:,x";
  const std::string held = "found hostname (held.example) in database : ", later = "found hostname (later.example)";
  const std::string examining = "examining data flow.", drop = held + "drop flow.", allow = "allowing flow.";
  const struct {
    Ref<NEFilterFlow> flow;
    New verdict;
    std::string messages;
    Data data;
    std::string dataMessage;
  } cases[] = {
      {socketFlowTo("443", "held.example", kBrowser), kAllow, "", kDropData, drop},
      {socketFlowTo("443", "held.example", kSafari), kPeekAll, held + examining, kDropData, drop},
      {socketFlowTo("53", "held.example", kSafariHelper), kPeekAll, held + examining, kDropData, drop},
      {socketFlowTo("443", "later.example", kSafari), kPeekAll, later + " in database : " + examining, kAllowData,
       allow},
      {plainFlow("http://held.example/", kSafari), kPeekAll, "URL: http://held.example/ | " + held + examining,
       kDropData, drop},
      {noHost, kAllow, "URL: data:,x | " + allow, kAllowData, allow},
      {socketFlowTo("443", std::nullopt, kSafari), kAllow, allow, kAllowData, allow},
      {plainFlow(std::nullopt, kSafari), kAllow, allow, kAllowData, allow},
  };
  const std::string category = "PLSafariFilterDataProvider";
  for (const auto& c : cases) {
    stand_in::take_log();
    EXPECT_TRUE(provider->handleNewFlow(*c.flow) == c.verdict) << c.messages;
    EXPECT_EQ(messages(category), c.messages);
    EXPECT_TRUE(provider->handleOutboundDataFromFlow(*c.flow, 0, {}) == c.data) << c.messages;
    EXPECT_EQ(messages(category), "handleOutboundDataFromFlow. | " + c.dataMessage);
    EXPECT_TRUE(provider->handleOutboundDataCompleteForFlow(*c.flow) == kAllowData);
    EXPECT_EQ(messages(category), "handleOutboundDataCompleteForFlow.");
  }
  // The browser is known by the whole identifier.
  for (const char* other : {"com.apple.safari", "my.com.apple.Safari", "com.apple.Safari.beta"}) {
    stand_in::security().identifiers[kOther] = other;
    EXPECT_FALSE(provider->isSafariBrowser(*socketFlowTo("443", "held.example", kOther))) << other;
  }
  EXPECT_FALSE(provider->isSafariBrowser(*socketFlowTo("443", "held.example", 999)));
}

}  // namespace
}  // namespace orvane
