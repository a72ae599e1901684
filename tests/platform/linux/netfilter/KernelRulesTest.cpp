#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>

#include <fstream>
#include <sstream>
#include <tuple>

#include "platform/linux/netfilter/KernelRules.h"
#include "platform/linux/netfilter/KernelRulesText.h"

namespace orvane {
namespace {

using Action = NEFilterAction;
using Protocol = NENetworkRuleProtocol;
using Direction = NETrafficDirection;
using State = KernelRules::State;

struct Rule {
  const char *host, *port;
  uint64_t prefix = 0;
  Protocol protocol = Protocol::TCP;
  Action action = Action::FilterData;
  Direction direction = Direction::Outbound;
  bool local = false;
};

NEFilterSettings settings(const std::vector<Rule>& rules, Action defaultAction = Action::Allow) {
  std::vector<NEFilterRule> made;
  for (const Rule& rule : rules) {
    auto end = NWHostEndpoint::endpointWithHostname(rule.host, rule.port);
    auto remote = rule.local ? nullptr : end;
    auto local = rule.local ? end : nullptr;
    made.push_back({{remote, rule.prefix, local, rule.prefix, rule.protocol, rule.direction}, rule.action});
  }
  return NEFilterSettings::initWithRules(std::move(made), defaultAction);
}

// The lines that contain a word.
std::string lines_with(const std::string& word, const std::string& text) {
  std::istringstream lines(text);
  std::string found;
  for (std::string line; std::getline(lines, line);) found += line.find(word) == line.npos ? "" : line + "\n";
  return found;
}

TEST(KernelRulesText, WritesARuleForItsFamiliesAndProtocols) {
  const std::string n = "-A ORVANE-NEW -p ", pend = " -g ORVANE-PENDING\n", same = "=";
  const std::string last = "-A ORVANE-NEW" + pend;
  const std::tuple<const char*, Rule, std::string, std::string> cases[] = {
      {"any port", Rule{"", "0"}, n + "tcp" + pend, same},
      {"a service, any protocol", Rule{"", "domain", 0, Protocol::Any},
       n + "tcp --dport 53" + pend + n + "udp --dport 53" + pend, same},
      {"an IPv4 network", Rule{"10.1.0.0", "80", 16}, n + "tcp -d 10.1.0.0/16 --dport 80" + pend, ""},
      {"a local address", Rule{"10.1.0.1", "7", 0, Protocol::TCP, Action::Allow, Direction::Any, true},
       n + "tcp -s 10.1.0.1/32 --sport 7 -j RETURN\n", ""},
      {"too long a prefix", Rule{"2001:db8::", "0", 999, Protocol::UDP}, "", n + "udp -d 2001:db8::/128" + pend},
      {"drop", Rule{"", "80", 0, Protocol::TCP, Action::Drop},
       n + "tcp --dport 80 -j MARK --set-xmark 0x12000000/0x12000000\n" + n +
           "tcp --dport 80 -j CONNMARK --set-xmark 0x12000000/0x12000000\n" + n + "tcp --dport 80 -j RETURN\n",
       same},
      {"inbound", Rule{"no.address", "no-service", 0, Protocol::TCP, Action::Drop, Direction::Inbound}, "", ""},
  };
  std::string error;
  for (const auto& [name, rule, v4, v6] : cases) {
    for (AddressFamily family : {AddressFamily::IPv4, AddressFamily::IPv6}) {
      auto text = kernel_rules_text(settings({rule}, Action::FilterData), family, error);
      const std::string& expected = family == AddressFamily::IPv4 || v6 == same ? v4 : v6;
      EXPECT_EQ(lines_with("-A ORVANE-NEW", text.value_or(error)), expected + last) << name;
    }
  }
}

TEST(KernelRulesText, RejectsHostNamesAndUnknownServices) {
  std::string error;
  for (const Rule& rule : {Rule{"a.name", "80"}, Rule{"", "no-service"}, Rule{"", "70000"}, Rule{"", ""}}) {
    EXPECT_FALSE(kernel_rules_text(settings({rule}), AddressFamily::IPv4, error)) << rule.host << rule.port;
    EXPECT_NE(error.find(*rule.host == '\0' ? rule.port : rule.host), error.npos) << error;
  }
}

std::string shell(const std::string& command) {
  FILE* pipe = popen(("PATH=$PATH:/usr/sbin:/sbin; " + command).c_str(), "r");
  std::string output;
  for (int c = 0; (c = fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  pclose(pipe);
  return output;
}
std::string rules_in_kernel() { return lines_with("ORVANE", shell("iptables-save; ip6tables-save")); }

// Runs each test in a new network namespace, with its loopback interface up.
class KernelRulesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const uid_t user = geteuid();
    if (user != 0 && unshare(CLONE_NEWUSER) == 0) std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "cannot make a network namespace";
    shell("ip link set lo up");
  }

  void install(const std::vector<Rule>& list) { ASSERT_EQ(rules.install(settings(list)).value_or(""), ""); }
  bool changed(int milliseconds) {
    pollfd change{rules.changeDescriptor(), POLLIN, 0};
    return poll(&change, 1, milliseconds) == 1;
  }

  KernelRules rules;
  std::string error;
};

TEST_F(KernelRulesTest, RepairsWhatAnotherProgramChanges) {
  install({{"", "80"}, {"", "443"}, {"", "53", 0, Protocol::Any}, {"10.0.0.0", "8080", 8}});
  const std::string intact = rules_in_kernel();
  EXPECT_NE(intact.find("-A ORVANE-NEW -d 10.0.0.0/8 -p tcp -m tcp --dport 8080 -g ORVANE-PENDING"), intact.npos);
  for (const char* wipe :
       {"iptables -F", "ip6tables -t mangle -F; ip6tables -t mangle -X", "iptables -t mangle -D ORVANE-QUEUE 1",
        "printf '*filter\\n-A OUTPUT -p icmp -j ACCEPT\\nCOMMIT\\n*mangle\\nCOMMIT\\n' | iptables-restore",
        "iptables -I OUTPUT -j ACCEPT", "ip6tables -t mangle -I OUTPUT 2 -j ORVANE-OUTPUT",
        "iptables -D OUTPUT -j ORVANE-OUTPUT", "iptables -I ORVANE-DROP -j ACCEPT"}) {
    for (int i = 0; i < 2 && changed(0); ++i) EXPECT_EQ(rules.check(error), State::Intact) << wipe;
    shell(wipe);
    EXPECT_TRUE(rules.changeDescriptor() < 0 || changed(1000)) << wipe;
    EXPECT_EQ(rules.check(error), State::Repaired) << wipe << error;
    EXPECT_EQ(rules_in_kernel(), intact) << wipe;
    EXPECT_EQ(rules.check(error), State::Intact) << wipe;
    EXPECT_FALSE(changed(50)) << "repairs trigger repairs: " << wipe;
  }
}

TEST_F(KernelRulesTest, ReplacesRulesOfAPredecessor) {
  install({{"", "4433"}});
  shell("ip6tables -A OUTPUT -o lo -j ORVANE-OUTPUT; iptables -t mangle -A OUTPUT -j ORVANE-OUTPUT");
  ASSERT_EQ(KernelRules().install(settings({{"", "80"}})).value_or(""), "");
  EXPECT_EQ(rules_in_kernel().find("4433"), std::string::npos);
  EXPECT_EQ(lines_with("-A OUTPUT", rules_in_kernel()).size(), 4 * sizeof "-A OUTPUT -j ORVANE-OUTPUT");
}

}  // namespace
}  // namespace orvane
