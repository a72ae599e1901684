#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include "companion/doctor/Doctor.h"

namespace orvane {
namespace {

using enum Finding::Result;

constexpr const char* kRules =
    "*mangle\n:OUTPUT ACCEPT [0:0]\n:ORVANE-OUTPUT - [0:0]\n-A OUTPUT -j ORVANE-OUTPUT\n-A OUTPUT -j OTHER\nCOMMIT\n"
    "*nat\n-A OUTPUT -j OTHER\nCOMMIT\n*filter\n-A OUTPUT -j ORVANE-OUTPUT\nCOMMIT\n";

// A machine without faults, as root sees it.
Facts sound_machine() {
  Facts facts;
  facts.asRoot = true;
  facts.extension = {"orvane-se.service", true, true, true, "active (running)"};
  facts.keeper = {"orvane-keeper.service", true, true, true, "active (running)"};
  facts.connection = {ConnectionFacts::Outcome::Answered, "/run/orvane-se/org.orvane.OrvaneSE"};
  facts.group = {"anna", true, true, true};
  facts.processes = {7};
  facts.process = 7;
  facts.capabilities = 0x8000081004;
  facts.hasQueueTarget = true;
  facts.rules = {{"iptables-save", kRules, ""}, {"ip6tables-save", kRules, ""}};
  facts.queues = "    5     77     0 2 65531     0     0        1  1\n20743   1234     0 2 65531     0     0    8  1\n";
  facts.list.emplace();
  facts.list->connected = true;
  facts.list->listVersion = "1";
  facts.list->sentVersion = "1";
  facts.browserList = {"/b/Browsers.plist", {"firefox"}, ""};
  BrowserFacts firefox;
  firefox.browser = {
      "Firefox", "/f.desktop", "firefox", BrowserPackage::Program, BrowserFamily::Firefox, &policy_places().back()};
  firefox.policy.http3 = false;
  firefox.policy.dnsOverHttps = "off";
  facts.browsers = {firefox};
  return facts;
}

TEST(Doctor, ReportsOkForASoundMachine) {
  for (const Finding& finding : examine(sound_machine())) {
    EXPECT_EQ(finding.result, Ok) << finding.check << ": " << finding.found;
    EXPECT_EQ(finding.advice, "") << finding.check;
  }
}

TEST(Doctor, ReportsEachFaultWithItsCure) {
  using Outcome = ConnectionFacts::Outcome;
  // The fault, the check that reports it, its result, and a part of what was found or of the advice.
  const std::tuple<const char*, std::function<void(Facts&)>, const char*, Finding::Result, const char*> cases[] = {
      {"stopped", [](auto& f) { f.extension.running = false; }, "service", Problem, "systemctl start"},
      {"not installed", [](auto& f) { f.keeper.installed = false; }, "keeper", Problem, "install"},
      {"no systemd", [](auto& f) { f.extension.known = false; }, "service", Unknown, "does not answer"},
      {"stale socket", [](auto& f) { f.connection.outcome = Outcome::Refused; }, "answer", Problem, "has ended"},
      {"hung", [](auto& f) { f.connection.outcome = Outcome::Silent; }, "answer", Problem, "restart"},
      {"stranger", [](auto& f) { f.connection.outcome = Outcome::Denied, f.group.listed = f.group.inForce = false; },
       "answer", Problem, "adduser anna orvane"},
      {"member since this login", [](auto& f) { f.connection.outcome = Outcome::Denied, f.group.inForce = false; },
       "answer", Problem, "newgrp orvane"},
      {"two extensions", [](auto& f) { f.processes.push_back(9); }, "processes", Problem, "7, 9"},
      {"no CAP_BPF", [](auto& f) { f.capabilities = 0x81004; }, "capabilities", Warning, "CAP_BPF missing"},
      {"no capability", [](auto& f) { f.capabilities = 0; }, "capabilities", Problem, "CAP_NET_ADMIN"},
      {"no iptables", [](auto& f) { f.missingPrograms = {"iptables-save"}; }, "iptables", Problem, "apt"},
      {"no NFQUEUE", [](auto& f) { f.hasQueueTarget = false; }, "kernel", Problem, "xt_NFQUEUE"},
      {"rules flushed", [](auto& f) { f.rules[1].rules = "*mangle\nCOMMIT\n*filter\nCOMMIT\n"; }, "rules", Problem,
       "missing"},
      {"rules in one table only", [](auto& f) { f.rules[0].rules = "*filter\n-A OUTPUT -j ORVANE-OUTPUT\nCOMMIT\n"; },
       "rules", Problem, "some or all"},
      {"a firewall ahead of ours",
       [](auto& f) { f.rules[0].rules->insert(f.rules[0].rules->rfind("-A OUTPUT"), "-A OUTPUT -j ACCEPT\n"); },
       "rules", Warning, "another program"},
      {"rules left by a crash", [](auto& f) { f.extension.running = false, f.processes.clear(), f.process = 0; },
       "rules", Warning, "everything pass"},
      {"not root", [](auto& f) { f.rules.clear(), f.asRoot = false, f.queues.reset(); }, "queue", Unknown, "root"},
      {"queue unserved", [](auto& f) { f.queues = "   20    743 2074 2 65531     0     0        1  1\n"; }, "queue",
       Problem, "all packets pass"},
      {"bad lines", [](auto& f) { f.list->badLines = 2; }, "list", Warning, "2 bad lines"},
      {"list not read", [](auto& f) { f.list->listError = "no"; }, "list", Problem, "previous list"},
      {"list not sent", [](auto& f) { f.list->sentVersion.reset(); }, "list", Warning, "newest"},
      {"keeper not connected", [](auto& f) { f.list->connected = false; }, "list", Problem, "no connection"},
      {"edits by others", [](auto& f) { f.list->changesOfOthers = 1; }, "list", Warning, "1 edit by"},
      {"bad browser list", [](auto& f) { f.browserList.fault = "is bad"; }, "browser-list", Problem,
       "nothing is filtered"},
      {"unknown browser", [](auto& f) { f.browsers[0].browser.identifier = "lynx"; }, "browser", Problem,
       "add it there"},
      {"browser that is a script", [](auto& f) { f.browsers[0].browser.identifier = "python3.11"; }, "browser", Problem,
       "another browser"},
      {"HTTP/3", [](auto& f) { f.browsers[0].policy.http3.reset(); }, "http3", Warning, "policy install"},
      {"HTTP/3 in one of two profiles",
       [](auto& f) {
         f.browsers[0].policy.http3.reset();
         f.browsers[0].profiles = {{"/p", false, {}}, {"/q", {}, {}}};
       },
       "http3", Warning, "unfiltered"},
      {"DNS over HTTPS in one of two profiles",
       [](auto& f) {
         f.browsers[0].policy.dnsOverHttps.reset();
         f.browsers[0].profiles = {{"/p", {}, "off"}, {"/q", {}, "secure"}};
       },
       "dns-over-https", Warning, "secure, by /q"},
      {"DNS over HTTPS by default", [](auto& f) { f.browsers[0].policy.dnsOverHttps.reset(); }, "dns-over-https",
       Unknown, "--no-doh"},
      {"a Flatpak's HTTP/3", [](auto& f) { f.browsers[0].policy.http3.reset(), f.browsers[0].browser.place = nullptr; },
       "http3", Warning, "about:config"},
  };
  for (const auto& [fault, make, check, result, text] : cases) {
    Facts facts = sound_machine();
    make(facts);
    const std::vector<Finding> findings = examine(facts);
    EXPECT_TRUE(std::any_of(findings.begin(), findings.end(), [&](const Finding& finding) {
      return finding.check == check && finding.result == result &&
             (finding.found + " -> " + finding.advice).find(text) != std::string::npos;
    })) << fault;
  }
}

}  // namespace
}  // namespace orvane
