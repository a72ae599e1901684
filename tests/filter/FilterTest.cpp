#include <deque>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "database/Database.h"
#include "filter/FilterDataProvider.h"
#include "filter/PLSafariFilterDataProvider.h"
#include "filter/PellUtils.h"

namespace orvane {
namespace {

using stand_in::take_log;
using Flow = Ref<NEFilterFlow>;
using New = NEFilterNewFlowVerdict;
using Data = NEFilterDataVerdict;

constexpr int32_t kBrowser = 10, kHelper = 11, kOther = 12, kSafari = 13, kSafariHelper = 14;

// The database has the host "held.example" and the browser "browser". A browser, its helper and another program run.
class FilterTest : public DatabaseTest {
 protected:
  FilterTest() {
    db_browser_add(text("browser"));
    db_hostname_add(text("held.example"));
    stand_in::security.identifiers = {{kBrowser, "org.browser"}, {kHelper, "org.helper"}, {kOther, "org.other"}};
    stand_in::security.responsible = {{kHelper, kBrowser}, {kSafariHelper, kSafari}};
    take_log();
  }

  static Ref<stand_in::SocketFlow> socketFlowTo(const char* port, std::optional<std::string> hostname,
                                                int32_t pid = kBrowser) {
    auto flow = Ref<stand_in::SocketFlow>::adopt(new stand_in::SocketFlow(stand_in::token_of(pid)));
    flow->hostname = std::move(hostname);
    flow->endpoints = {NWHostEndpoint::endpointWithHostname("192.0.2.1", port)};
    return flow;
  }
  static Ref<stand_in::Flow> plainFlow(std::optional<std::string> url, int32_t pid = kBrowser) {
    return Ref<stand_in::Flow>::adopt(new stand_in::Flow(stand_in::token_of(pid), std::move(url)));
  }
};

class OtherEndpoint : public NWEndpoint {};

Ref<NWEndpoint> host(const char* port) { return NWHostEndpoint::endpointWithHostname("h", port); }
Ref<NWEndpoint> service() { return Ref<OtherEndpoint>::adopt(new OtherEndpoint); }

TEST_F(FilterTest, ReadsPortsOfSocketFlowsToHosts) {
  auto plain = plainFlow("http://a:80/");
  EXPECT_FALSE(isSocketFlow(*plain));
  EXPECT_EQ(socketFlow(*plain), nullptr);
  EXPECT_EQ(port(*plain), 0U);

  auto flow = socketFlowTo("53", std::nullopt);
  EXPECT_TRUE(isSocketFlow(*flow));
  EXPECT_EQ(socketFlow(*flow), flow.get());
  // Each row has the endpoints that the three reads of port() return, in order. The last endpoint repeats.
  const std::tuple<const char*, std::deque<Ref<NWEndpoint>>, uint64_t> cases[] = {
      {"none", {}, 0},
      {"no host", {service()}, 0},
      {"a number", {host("53")}, 53},
      {"a number in other text", {host(" +443x")}, 443},
      {"negative", {host("-1")}, UINT64_MAX},
      {"changing", {host("1"), host("2"), host("3")}, 3},
      {"no host at the second read", {host("1"), service(), host("3")}, 0},
      {"none at the third read", {host("1"), host("2"), nullptr}, 0},
      {"no host at the third read", {host("1"), host("2"), service()}, 0},
  };
  for (const auto& [what, endpoints, expected] : cases) {
    flow->endpoints = endpoints;
    EXPECT_EQ(port(*flow), expected) << what;
  }
}

TEST_F(FilterTest, MakesNoLogHandleWhenTheInitialiserFails) {
  stand_in::take_trace();
  stand_in::nextInitialiserFails = true;
  EXPECT_FALSE(FilterDataProvider::init());
  stand_in::nextInitialiserFails = true;
  EXPECT_FALSE(PLSafariFilterDataProvider::init());
  EXPECT_EQ(stand_in::take_trace(), "");  // the release of a handle would be in the trace
}

const New kAllow = New::allowVerdict(), kDrop = New::dropVerdict();
const New kPeekDNS = New::filterDataVerdictWithFilterInbound(false, 0, true, 1024);
const New kPeekAll = New::filterDataVerdictWithFilterInbound(false, 0, true, UINT64_MAX);
const Data kAllowData = Data::allowVerdict(), kDropData = Data::dropVerdict();

class VerdictTest : public FilterTest {
 protected:
  const std::string category = "FilterDataProvider", data = "handleOutboundDataFromFlow: ";
  Ref<FilterDataProvider> provider = FilterDataProvider::init();

  Data dataOf(const NEFilterFlow& flow, std::string_view bytes, uint64_t offset) {
    const auto* start = reinterpret_cast<const uint8_t*>(bytes.data());
    return provider->handleOutboundDataFromFlow(flow, offset, {start, bytes.size()});
  }
};

TEST_F(VerdictTest, DecidesNewFlows) {
  db_hostname_set_properties(text("held.example"), until(9e9));  // this provider ignores suspensions
  auto urlOnSocket = socketFlowTo("443", "other.example"), dnsToHeld = socketFlowTo("53", "held.example");
  urlOnSocket->url = dnsToHeld->url = "https://held.example/";
  const std::string held = "found hostname in database : dropping flow.", remote = "remote hostname: held.example | ";
  const std::string url = "URL: https://held.example/ | hostname: held.example | ";
  const std::string wait = "not enough data; waiting more...";
  const std::tuple<const char*, Flow, New, std::string> cases[] = {
      {"another program", socketFlowTo("443", "held.example", kOther), kAllow, ""},
      {"another program's question", socketFlowTo("53", "held.example", kOther), kAllow, ""},
      {"held", socketFlowTo("443", "held.example"), kDrop, remote + held},
      {"held, of a helper", socketFlowTo("443", "held.example", kHelper), kDrop, remote + held},
      {"another case", socketFlowTo("443", "Held.example"), kAllow, "remote hostname: Held.example | allowing flow."},
      {"question", dnsToHeld, kPeekDNS, "DNS packet data; waiting more data..."},
      {"held URL", plainFlow("https://held.example/"), kDrop, url + held},
      {"held URL on a socket", urlOnSocket, kDrop, url + held},
      {"another URL", plainFlow("https://a.example/"), kAllow,
       "URL: https://a.example/ | hostname: a.example | allowing flow."},
      {"URL without host", plainFlow("data:,x"), kPeekAll, "URL: data:,x | hostname: (null) | " + wait},
      {"socket without name", socketFlowTo("443", std::nullopt), kPeekAll, "remote hostname: (null) | " + wait},
      {"no socket, no URL", plainFlow(std::nullopt), kPeekAll, wait},
  };
  for (const auto& [what, flow, verdict, messages] : cases) {
    EXPECT_TRUE(provider->handleNewFlow(*flow) == verdict) << what;
    EXPECT_EQ(take_log(category), messages) << what;
  }
}

TEST_F(VerdictTest, AsksForTheResponsibleApplicationLast) {
  provider->handleNewFlow(*socketFlowTo("443", "a.example"));
  EXPECT_TRUE(stand_in::security.pidsAsked.empty());
  provider->handleNewFlow(*socketFlowTo("443", "a.example", kHelper));
  EXPECT_EQ(stand_in::security.pidsAsked, std::vector<int32_t>{kHelper});
}

TEST_F(VerdictTest, AllowsFlowsOfUnknownProcesses) {
  auto unknown = socketFlowTo("443", "held.example");
  for (const Value& token : {Value(), Value::data({})}) {
    unknown->token = token;
    take_log();
    EXPECT_TRUE(provider->handleNewFlow(*unknown) == kAllow);
    EXPECT_EQ(take_log("Database"), "");  // the database is not asked
  }
}

TEST_F(VerdictTest, DecidesOutboundData) {
  const std::string web = data + "socket type:1, port:443", end = "handleOutboundDataCompleteForFlow: ";
  const std::string held = "found hostname in database : dropping flow";
  const std::string unknown = end + "remoteHostname is nil; allowinf flow...";
  const std::tuple<const char*, Flow, Data, std::string, Data, std::string> cases[] = {
      {"no socket", plainFlow("https://held.example/"), kAllowData, data + "not a socket flow...", kAllowData, unknown},
      {"held", socketFlowTo("443", "held.example"), kDropData, web + " | " + data + held, kDropData, end + held},
      {"question", socketFlowTo("53", "held.example"), kAllowData,
       data + "socket type:1, port:53 | " + data + "DNS flow", kDropData, end + held},
      {"another host", socketFlowTo("443", "other.example"), kAllowData, web, kAllowData, ""},
      {"no name", socketFlowTo("-1", std::nullopt), kAllowData,
       data + "socket type:1, port:18446744073709551615 | " + data + "remoteHostname is nil; accept flow", kAllowData,
       unknown},
  };
  for (const auto& [what, flow, verdict, messages, endVerdict, endMessages] : cases) {
    for (uint64_t offset : {uint64_t{0}, UINT64_MAX}) {
      EXPECT_TRUE(dataOf(*flow, "bytes", offset) == verdict) << what;
      EXPECT_EQ(take_log(category), messages) << what;
    }
    EXPECT_TRUE(provider->handleOutboundDataCompleteForFlow(*flow) == endVerdict) << what;
    EXPECT_EQ(take_log(category), endMessages) << what;
  }
}

TEST_F(VerdictTest, LogsAndAllowsQuestions) {
  auto flow = socketFlowTo("53", "held.example");
  auto expect = [&](std::string_view bytes, const std::string& tail) {
    EXPECT_TRUE(dataOf(*flow, bytes, 7) == kAllowData);
    EXPECT_EQ(take_log(category), data + "socket type:1, port:53 | " + data + "DNS flow" + tail);
    EXPECT_EQ(stand_in::dns.parsed, bytes);  // all bytes, although the offset is not 0
    EXPECT_EQ(stand_in::alive("dns_question_t"), 0);
  };
  stand_in::dns.name = "held.example";
  expect("question", " | " + data + "dns_name:held.example");
  stand_in::dns.name.reset();
  expect("question", "");
  stand_in::dns.fails = true;
  expect("", "");
  const std::string dump = " | " + data + "cannot parse dns question :";
  std::string first = "61";
  for (int i = 1; i < 32; ++i) first += " 61";
  expect(std::string(34, 'a'), dump + "00000000: " + first + "  " + std::string(32, 'a') + "\n" + dump +
                                   "00000020: 61 61" + std::string(92, ' ') + "aa\n");
}

TEST_F(FilterTest, DecidesSafariFlowsAtTheirData) {
  auto provider = PLSafariFilterDataProvider::init();
  stand_in::security.identifiers.insert({{kSafari, "com.apple.Safari"}, {kSafariHelper, "com.apple.helper"}});
  db_hostname_add(text("later.example"));
  db_hostname_set_properties(text("later.example"), until(9e9));
  auto noHost = socketFlowTo("443", "held.example", kSafari);
  noHost->url = "data:,x";
  const std::string held = "found hostname (held.example) in database : ", allow = "allowing flow.";
  const std::string examine = held + "examining data flow.", drop = held + "drop flow.";
  const std::string later = "found hostname (later.example) in database : examining data flow.";
  const std::tuple<const char*, Flow, New, std::string, Data, std::string> cases[] = {
      {"another browser", socketFlowTo("443", "held.example", kBrowser), kAllow, "", kDropData, drop},
      {"held", socketFlowTo("443", "held.example", kSafari), kPeekAll, examine, kDropData, drop},
      {"held, of a helper", socketFlowTo("53", "held.example", kSafariHelper), kPeekAll, examine, kDropData, drop},
      {"suspended", socketFlowTo("443", "later.example", kSafari), kPeekAll, later, kAllowData, allow},
      {"held URL", plainFlow("http://held.example/", kSafari), kPeekAll, "URL: http://held.example/ | " + examine,
       kDropData, drop},
      {"URL without host", noHost, kAllow, "URL: data:,x | " + allow, kAllowData, allow},
      {"socket without name", socketFlowTo("443", std::nullopt, kSafari), kAllow, allow, kAllowData, allow},
      {"no socket, no URL", plainFlow(std::nullopt, kSafari), kAllow, allow, kAllowData, allow},
  };
  const std::string category = "PLSafariFilterDataProvider";
  for (const auto& [what, flow, verdict, messages, dataVerdict, dataMessages] : cases) {
    EXPECT_TRUE(provider->handleNewFlow(*flow) == verdict) << what;
    EXPECT_EQ(take_log(category), messages) << what;
    EXPECT_TRUE(provider->handleOutboundDataFromFlow(*flow, 0, {}) == dataVerdict) << what;
    EXPECT_TRUE(provider->handleOutboundDataCompleteForFlow(*flow) == kAllowData) << what;
    EXPECT_EQ(take_log(category),
              "handleOutboundDataFromFlow. | " + dataMessages + " | handleOutboundDataCompleteForFlow.")
        << what;
  }
}

TEST_F(FilterTest, RecognisesSafariByItsWholeIdentifier) {
  auto provider = PLSafariFilterDataProvider::init();
  for (const char* other : {"com.apple.safari", "my.com.apple.Safari", "com.apple.Safari.beta", ""}) {
    stand_in::security.identifiers[kOther] = other;
    EXPECT_FALSE(provider->isSafariBrowser(*socketFlowTo("443", "held.example", kOther))) << other;
  }
}

}  // namespace
}  // namespace orvane
