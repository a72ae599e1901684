#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string_view>
#include <tuple>
#include <vector>

#include "database/db.h"
#include "database/db_browsers.h"
#include "database/db_properties.h"
#include "filter/FilterDataProvider.h"
#include "filter/PLSafariFilterDataProvider.h"
#include "platform/linux/flow/DropRecords.h"
#include "platform/linux/flow/FilterSession.h"
#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/flow/ScriptedProvider.h"
#include "platform/linux/process/ProcessIdentity.h"

namespace orvane {
namespace {

std::string identifier;                  // the identifier of every process
std::optional<std::string> responsible;  // the identifier of the responsible process, if it has another
int lookUps;                             // how often something about a process was looked up

}  // namespace

// These functions replace those of the platform, so that a test can count the core's look-ups.
ProcessIdentity& ProcessIdentity::system() {
  static auto* identity = new ProcessIdentity(ApplicationFolders::system());
  return *identity;
}
std::shared_ptr<const ProcessIdentity::Process> ProcessIdentity::find(pid_t pid) {
  ++lookUps;
  return std::make_shared<const Process>(
      Process{ProcessInformation::open(pid).value(), {{}, pid == getppid() ? responsible : std::nullopt, {}}});
}
std::optional<std::string> ProcessIdentity::identifierOf(const Program& program) {
  ++lookUps;
  return program.package.value_or(identifier);
}
pid_t ProcessIdentity::responsibleFor(pid_t) {
  ++lookUps;
  return getppid();
}

namespace {

using State = FilterSession::State;

Value own_token(uid_t realUser = getuid()) {
  audit_token_t token = audit_token_of_process(getpid()).value();
  token.val[3] = realUser;
  uint8_t bytes[sizeof token];
  std::memcpy(bytes, &token, sizeof token);
  return Value::data(bytes);
}

Ref<LinuxSocketFlow> flow_to(const std::string& host, uint16_t port = 443) {
  auto flow = LinuxSocketFlow::create(own_token(), "192.0.2.1", port, SOCK_STREAM);
  if (!host.empty()) flow->setRemoteHostname(host);
  return flow;
}

void list(const std::vector<std::string_view>& names) {
  Value::Set set;
  for (std::string_view name : names) set.insert(Value::string(name));
  db_hostname_set(Value::set(std::move(set)));
}

// Whether the verdict on a flow that sends data is to drop it.
template <class Flow>
bool drops(const Ref<NEFilterDataProvider>& provider, const Ref<Flow>& flow) {
  const uint8_t data[] = {1};
  FilterSession session(provider, flow);
  session.newFlow();
  const State state = session.outboundData(data);
  EXPECT_TRUE(state == State::Dropped || state == State::Allowed);
  return state == State::Dropped;
}

class FilterSessionTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    db_init();
    db_browser_add(Value::string("browser"));
  }
  void SetUp() override {
    identifier = "browser";
    responsible = std::nullopt;
    lookUps = 0;
  }

  Ref<NEFilterDataProvider> general = FilterDataProvider::init(), safari = PLSafariFilterDataProvider::init();
};

TEST_F(FilterSessionTest, AsksUnderTheHostAndItsParentsUpToTheRegistrableDomain) {
  const std::pair<std::string, std::string> kCases[] = {
      {"a.b.held.co.uk", ".a.b.held.co.uk .b.held.co.uk .held.co.uk "},
      {"www.user.github.io", ".www.user.github.io .user.github.io "},
      {"github.io", ".github.io "},
      {"printer.nas", ".printer.nas "},
      {"xn--bcher-kva.xn--p1ai", ".xn--bcher-kva.xn--p1ai "},
      {"192.0.2.1", ""},
      {"2001:db8::1", ""},
      {std::string(252, 'a') + ".b", ""},
  };
  auto provider = Ref<ScriptedProvider>::adopt(new ScriptedProvider);
  const uint64_t before = flow_counters().flows, allowed = flow_counters().allowed;
  for (const auto& [host, marked] : kCases) {
    const auto flow = flow_to(host);
    EXPECT_FALSE(drops(provider, flow));
    EXPECT_EQ(provider->take().marked, marked) << host;
    EXPECT_EQ(flow->remoteHostname(), host);
  }
  EXPECT_EQ(flow_counters().flows - before, std::size(kCases)) << "each flow counts once";
  EXPECT_EQ(flow_counters().allowed - allowed, std::size(kCases)) << "as allowed, too";
}

TEST_F(FilterSessionTest, DropsSubdomainsUnlessTheyAreAllowed) {
  const std::tuple<const char*, std::vector<std::string_view>, std::string, bool> kCases[] = {
      {"the site itself", {".held.example"}, "held.example", true},
      {"below it", {".held.example"}, "a.b.held.example", true},
      {"an exception", {".held.example", "!.x.held.example"}, "x.held.example", false},
      {"beside an exception", {".held.example", "!.x.held.example"}, "y.held.example", true},
      {"an exception from an exact name", {"x.held.example", "!.held.example"}, "x.held.example", false},
      {"no name", {".held.example"}, "", false},
  };
  for (const auto& [description, listed, host, dropped] : kCases) {
    list(listed);
    const std::string url = "http://" + host + "/path";
    identifier = "browser";
    EXPECT_EQ(drops(general, flow_to(host)), dropped) << description;
    EXPECT_EQ(drops(general, LinuxURLFlow::create(own_token(), url, host)), dropped) << "URL: " << description;
    identifier = "com.apple.Safari";
    EXPECT_EQ(drops(safari, flow_to(host)), dropped) << "Safari: " << description;
  }
}

TEST_F(FilterSessionTest, DropsAFlowWhoseNameComesWithItsData) {
  list({".held.example", "!.x.held.example"});
  const uint8_t data[] = {1};
  for (const auto& [host, expected] :
       {std::pair("a.held.example", State::Dropped), {"x.held.example", State::Allowed}}) {
    auto flow = flow_to("");
    FilterSession session(general, flow);
    EXPECT_EQ(session.newFlow(), State::Examining);
    flow->setRemoteHostname(host);
    EXPECT_EQ(session.outboundData(data), expected) << host;
  }
}

TEST_F(FilterSessionTest, GoesOnAfterANameThatIsSuspended) {
  identifier = "com.apple.Safari";
  list({"a.held.example", ".a.held.example", ".held.example"});
  const Value later = Value::dictionary({{Value::string("DontBlockUntil"), Value::date(4e9)}});
  for (std::string_view name : {"a.held.example", ".a.held.example"}) {
    db_hostname_set_properties(Value::string(name), later);
    EXPECT_TRUE(drops(safari, flow_to("a.held.example"))) << "suspended: " << name;
  }
  db_hostname_set_properties(Value::string(".held.example"), later);
  EXPECT_FALSE(drops(safari, flow_to("a.held.example")));
}

TEST_F(FilterSessionTest, LooksUpTheIdentityOncePerFlow) {
  list({".held.example", "!.example"});
  // The last value in a row is the number of look-ups. The comment beside the row lists them.
  const std::tuple<const char*, const char*, int> kCases[] = {
      {"a browser", "browser", 2},         // the process; its identifier
      {"another program", "program", 5}};  // the same two; the responsible pid; that process; its identifier
  for (const auto& [description, program, expected] : kCases) {
    identifier = program;
    for (const char* host : {"", "free.example", "a.b.c.free.example", "a.b.c.held.example"}) {
      lookUps = 0;
      drops(general, flow_to(host));
      EXPECT_EQ(lookUps, expected) << description << " " << host;
    }
  }
}

TEST_F(FilterSessionTest, RecordsDroppedFlowsOnceThisIsSwitchedOn) {
  list({".held.example", "!.x.held.example"});
  std::string recorded;  // the last fields of each entry
  const auto openFlow = [](const auto& provider, const auto& flow) { FilterSession(provider, flow).openFlow(); };
  const auto dropEach = [&] {
    drops(general, flow_to("a.held.example"));
    drops(general, flow_to("x.held.example"));
    drops(general, flow_to("free.example"));
    openFlow(general, flow_to("open.held.example"));
    std::tie(identifier, responsible) = std::pair("helper", "browser");
    for (uid_t user : {1, 1, 2}) {
      drops(general, LinuxURLFlow::create(own_token(user), "http://b.held.example/secret", "b.held.example"));
    }
    std::tie(identifier, responsible) = std::pair("com.apple.Safari", std::nullopt);  // drops flows by their data
    drops(safari, flow_to("c.held.example"));
  };
  dropEach();
  drop_records().switchOn([&](const std::string& entry) {
    recorded += entry.substr(entry.find("ORVANE_"));
    return true;
  });
  identifier = "browser";
  dropEach();
  EXPECT_EQ(recorded,
            "ORVANE_HOST=a.held.example\nORVANE_BROWSER=browser\nORVANE_COUNT=1\n"
            "ORVANE_HOST=b.held.example\nORVANE_BROWSER=browser\nORVANE_COUNT=1\n"
            "ORVANE_HOST=b.held.example\nORVANE_BROWSER=browser\nORVANE_COUNT=1\n"
            "ORVANE_HOST=c.held.example\nORVANE_BROWSER=com.apple.Safari\nORVANE_COUNT=1\n");
}

}  // namespace
}  // namespace orvane
