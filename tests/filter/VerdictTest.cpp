#include "filter/Filter.h"
#include "filter/FilterDataProvider.h"
#include "filter/PLSafariFilterDataProvider.h"

namespace orvane {
namespace {

using New = NEFilterNewFlowVerdict;
using Data = NEFilterDataVerdict;

const New kPeekDNS = New::filterDataVerdictWithFilterInbound(false, 0, true, 1024);
const New kPeekAll = New::filterDataVerdictWithFilterInbound(false, 0, true, UINT64_MAX);

void suspend(const char* hostname) {
  db_hostname_set_properties(Value::string(hostname),
                             Value::dictionary({{Value::string("DontBlockUntil"), Value::date(9e9)}}));
}

class VerdictTest : public FilterTest {
 protected:
  static constexpr const char* kCategory = "FilterDataProvider";
  Ref<FilterDataProvider> provider = FilterDataProvider::init();

  Data dataOf(const NEFilterFlow& flow, std::string_view bytes = "bytes", uint64_t offset = 0) {
    return provider->handleOutboundDataFromFlow(flow, offset,
                                                {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
  }
};

TEST_F(VerdictTest, NewFlows) {
  suspend("held.example");  // which this provider does not look at
  auto urlOnSocket = socketFlowTo("443", "other.example");
  urlOnSocket->url = "https://held.example/x";
  auto dnsToHeld = socketFlowTo("53", "held.example");
  dnsToHeld->url = "https://held.example/";
  const struct {
    Ref<NEFilterFlow> flow;
    New verdict;
    Strings messages;
  } cases[] = {
      {socketFlowTo("443", "held.example", kOther), New::allowVerdict(), {}},
      {socketFlowTo("53", "held.example", kOther), New::allowVerdict(), {}},
      {socketFlowTo("443", "held.example"),
       New::dropVerdict(),
       {"remote hostname: held.example", "found hostname in database : dropping flow."}},
      {socketFlowTo("443", "held.example", kHelper),
       New::dropVerdict(),
       {"remote hostname: held.example", "found hostname in database : dropping flow."}},
      {socketFlowTo("443", "Held.example"), New::allowVerdict(), {"remote hostname: Held.example", "allowing flow."}},
      {dnsToHeld, kPeekDNS, {"DNS packet data; waiting more data..."}},
      {plainFlow("https://held.example/x"),
       New::dropVerdict(),
       {"URL: https://held.example/x", "hostname: held.example", "found hostname in database : dropping flow."}},
      {urlOnSocket,
       New::dropVerdict(),
       {"URL: https://held.example/x", "hostname: held.example", "found hostname in database : dropping flow."}},
      {plainFlow("https://other.example/"),
       New::allowVerdict(),
       {"URL: https://other.example/", "hostname: other.example", "allowing flow."}},
      {plainFlow("data:,x"), kPeekAll, {"URL: data:,x", "hostname: (null)", "not enough data; waiting more..."}},
      {socketFlowTo("443", std::nullopt), kPeekAll, {"remote hostname: (null)", "not enough data; waiting more..."}},
      {plainFlow(std::nullopt), kPeekAll, {"not enough data; waiting more..."}},
  };
  for (const auto& c : cases) {
    stand_in::take_log();
    EXPECT_TRUE(provider->handleNewFlow(*c.flow) == c.verdict) << testing::PrintToString(c.messages);
    EXPECT_EQ(messages(kCategory), c.messages);
  }
}

TEST_F(VerdictTest, AsksForTheResponsibleApplicationOnlyWhenItMust) {
  provider->handleNewFlow(*socketFlowTo("443", "a.example"));
  EXPECT_TRUE(stand_in::security().pidsAsked.empty());
  provider->handleNewFlow(*socketFlowTo("443", "a.example", kHelper));
  EXPECT_EQ(stand_in::security().pidsAsked, std::vector<int32_t>{kHelper});
  // A flow of an unknown owner is nobody's: allowed, and nil never reaches the database.
  auto unknown = socketFlowTo("443", "held.example");
  for (Value token : {Value(), Value::data({})}) {
    unknown->token = token;
    stand_in::take_log();
    EXPECT_TRUE(provider->handleNewFlow(*unknown) == New::allowVerdict());
    EXPECT_EQ(messages("Database"), Strings{});
  }
}

TEST_F(VerdictTest, AsksNothingAboutTheNameForTheLogWhileDebugIsOff) {
  stand_in::log().enabled[LogLevel::Debug] = false;
  EXPECT_TRUE(provider->handleNewFlow(*plainFlow("https://held.example/")) == New::dropVerdict());
  EXPECT_EQ(stand_in::take_log(), Strings{});
}

TEST_F(VerdictTest, OutboundData) {
  const struct {
    Ref<NEFilterFlow> flow;
    Data verdict;
    Strings messages;
  } cases[] = {
      {plainFlow("https://held.example/"), Data::allowVerdict(), {"handleOutboundDataFromFlow: not a socket flow..."}},
      {socketFlowTo("443", "held.example"),
       Data::dropVerdict(),
       {"handleOutboundDataFromFlow: socket type:1, port:443",
        "handleOutboundDataFromFlow: found hostname in database : dropping flow"}},
      {socketFlowTo("443", "other.example"),
       Data::allowVerdict(),
       {"handleOutboundDataFromFlow: socket type:1, port:443"}},
      {socketFlowTo("-1", std::nullopt),
       Data::allowVerdict(),
       {"handleOutboundDataFromFlow: socket type:1, port:18446744073709551615",
        "handleOutboundDataFromFlow: remoteHostname is nil; accept flow"}},
  };
  for (const auto& c : cases) {
    for (uint64_t offset : {uint64_t{0}, UINT64_MAX}) {
      stand_in::take_log();
      EXPECT_TRUE(dataOf(*c.flow, "bytes", offset) == c.verdict) << testing::PrintToString(c.messages);
      EXPECT_EQ(messages(kCategory), c.messages);
    }
  }
}

TEST_F(VerdictTest, QuestionsAreObservedAndNeverDropped) {
  auto flow = socketFlowTo("53", "held.example");
  const std::string start = "handleOutboundDataFromFlow: ";
  Strings head{start + "socket type:1, port:53", start + "DNS flow"};
  auto expect = [&](std::string_view bytes, Strings tail) {
    stand_in::take_log();
    EXPECT_TRUE(dataOf(*flow, bytes, 7) == Data::allowVerdict());
    tail.insert(tail.begin(), head.begin(), head.end());
    EXPECT_EQ(messages(kCategory), tail);
    EXPECT_EQ(stand_in::dns().parsed, bytes);  // from the first byte
    EXPECT_EQ(stand_in::alive("dns_question_t"), 0);
  };
  stand_in::dns().name = "held.example";
  expect("question", {start + "dns_name:held.example"});
  stand_in::dns().name.reset();
  expect("question", {});
  stand_in::dns().fails = true;
  expect("", {});
  expect("what a name that does not parse is",
         {start + "cannot parse dns question :00000000: 77 68 61 74 20 61 20 6e 61 6d "
                  "65 20 74 68 61 74 20 64 6f 65 73 20 6e 6f 74 20 70 61 72 73 65 20  "
                  "what a name that does not parse \n",
          start + "cannot parse dns question :00000020: 69 73" + std::string(92, ' ') + "is\n"});
}

TEST_F(VerdictTest, OutboundEnd) {
  const std::string start = "handleOutboundDataCompleteForFlow: ";
  const struct {
    Ref<NEFilterFlow> flow;
    Data verdict;
    Strings messages;
  } cases[] = {
      {socketFlowTo("443", "held.example"),
       Data::dropVerdict(),
       {start + "found hostname in database : dropping flow"}},
      {socketFlowTo("53", "held.example"), Data::dropVerdict(), {start + "found hostname in database : dropping flow"}},
      {socketFlowTo("443", "other.example"), Data::allowVerdict(), {}},
      {socketFlowTo("443", std::nullopt), Data::allowVerdict(), {start + "remoteHostname is nil; allowinf flow..."}},
      {plainFlow("https://held.example/"), Data::allowVerdict(), {start + "remoteHostname is nil; allowinf flow..."}},
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
  const std::string examining = " in database : examining data flow.", drop = " in database : drop flow.";
  const struct {
    Ref<NEFilterFlow> flow;
    New verdict;
    Strings messages;
    Data data;
    Strings dataMessages;
  } cases[] = {
      {socketFlowTo("443", "held.example", kBrowser),
       New::allowVerdict(),
       {},
       Data::dropVerdict(),
       {"found hostname (held.example)" + drop}},
      {socketFlowTo("443", "held.example", kSafari),
       kPeekAll,
       {"found hostname (held.example)" + examining},
       Data::dropVerdict(),
       {"found hostname (held.example)" + drop}},
      {socketFlowTo("53", "held.example", kSafariHelper),
       kPeekAll,
       {"found hostname (held.example)" + examining},
       Data::dropVerdict(),
       {"found hostname (held.example)" + drop}},
      {socketFlowTo("443", "later.example", kSafari),
       kPeekAll,
       {"found hostname (later.example)" + examining},
       Data::allowVerdict(),
       {"allowing flow."}},
      {plainFlow("http://held.example/", kSafari),
       kPeekAll,
       {"URL: http://held.example/", "found hostname (held.example)" + examining},
       Data::dropVerdict(),
       {"found hostname (held.example)" + drop}},
      {noHost, New::allowVerdict(), {"URL: data:,x", "allowing flow."}, Data::allowVerdict(), {"allowing flow."}},
      {socketFlowTo("443", std::nullopt, kSafari),
       New::allowVerdict(),
       {"allowing flow."},
       Data::allowVerdict(),
       {"allowing flow."}},
      {plainFlow(std::nullopt, kSafari),
       New::allowVerdict(),
       {"allowing flow."},
       Data::allowVerdict(),
       {"allowing flow."}},
  };
  const std::string category = "PLSafariFilterDataProvider";
  for (auto c : cases) {
    stand_in::take_log();
    EXPECT_TRUE(provider->handleNewFlow(*c.flow) == c.verdict) << testing::PrintToString(c.messages);
    EXPECT_EQ(messages(category), c.messages);
    EXPECT_TRUE(provider->handleOutboundDataFromFlow(*c.flow, 0, {}) == c.data) << testing::PrintToString(c.messages);
    c.dataMessages.insert(c.dataMessages.begin(), "handleOutboundDataFromFlow.");
    EXPECT_EQ(messages(category), c.dataMessages);
    EXPECT_TRUE(provider->handleOutboundDataCompleteForFlow(*c.flow) == Data::allowVerdict());
    EXPECT_EQ(messages(category), Strings{"handleOutboundDataCompleteForFlow."});
  }
}

TEST_F(SafariVerdictTest, KnowsItsBrowserByTheWholeIdentifier) {
  for (const char* other : {"com.apple.safari", "my.com.apple.Safari", "com.apple.Safari.beta"}) {
    stand_in::security().identifiers[kOther] = other;
    EXPECT_FALSE(provider->isSafariBrowser(*socketFlowTo("443", "held.example", kOther))) << other;
  }
  EXPECT_FALSE(provider->isSafariBrowser(*socketFlowTo("443", "held.example", 999)));
}

}  // namespace
}  // namespace orvane
