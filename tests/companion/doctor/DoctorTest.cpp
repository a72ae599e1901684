#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "companion/doctor/Doctor.h"
#include "companion/doctor/DoctorBrowsers.h"
#include "platform/linux/base/ServiceStatus.h"

namespace orvane {
namespace {

using Result = Finding::Result;

constexpr const char* kRules =
    "*mangle\n:OUTPUT ACCEPT [0:0]\n:ORVANE-OUTPUT - [0:0]\n-A OUTPUT -j ORVANE-OUTPUT\n-A OUTPUT -j OTHER\nCOMMIT\n"
    "*nat\n-A OUTPUT -j OTHER\nCOMMIT\n*filter\n-A OUTPUT -j ORVANE-OUTPUT\nCOMMIT\n";

// What the doctor learns about a machine without faults when root runs the doctor.
Facts sound_machine() {
  Facts facts;
  facts.asRoot = true;
  facts.extension = {"orvane-se.service", true, true, true, "active (running)"};
  facts.keeper = {"orvane-keeper.service", true, true, true, "active (running)"};
  facts.connection = {ConnectionFacts::Outcome::Answered, "/run/orvane-se/org.orvane.OrvaneSE"};
  facts.clients = {{8, "orvanectl", 1}};
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
  for (HidingFeature feature : kHidingFeatures) firefox.policy.features[feature].isOn = false;
  facts.browsers = {firefox};
  return facts;
}

TEST(Doctor, ReportsOkForASoundMachine) {
  for (const Finding& finding : examine(sound_machine())) {
    EXPECT_EQ(finding.result, Result::Ok) << finding.check << ": " << finding.found;
    EXPECT_EQ(finding.advice, "") << finding.check;
  }
}

TEST(Doctor, ReportsEachFaultWithItsCure) {
  using Outcome = ConnectionFacts::Outcome;
  struct {
    const char* fault;
    std::function<void(Facts&)> make;
    const char* check;
    Result result;
    const char* text;  // a part of the finding or of the advice
  } cases[] = {
      {"stopped", [](Facts& f) { f.extension.running = false; }, "service", Result::Problem, "systemctl start"},
      {"not installed", [](Facts& f) { f.keeper.installed = false; }, "keeper", Result::Problem, "install"},
      {"no systemd", [](Facts& f) { f.extension.known = false; }, "service", Result::Unknown, "does not answer"},
      {"hidden names", [](Facts& f) { f.extension.hiddenNames = hidden_names_in(filtering_status(12)); },
       "hidden-names", Result::Warning, "12 connections"},
      {"stale socket", [](Facts& f) { f.connection.outcome = Outcome::Refused; }, "answer", Result::Problem,
       "has ended"},
      {"hung", [](Facts& f) { f.connection.outcome = Outcome::Silent; }, "answer", Result::Problem, "restart"},
      {"stranger", [](Facts& f) { f.connection.outcome = Outcome::Denied, f.group.listed = f.group.inForce = false; },
       "answer", Result::Problem, "adduser anna orvane"},
      {"member since this login", [](Facts& f) { f.connection.outcome = Outcome::Denied, f.group.inForce = false; },
       "answer", Result::Problem, "newgrp orvane"},
      {"connections used up",
       [](Facts& f) {
         f.clients = {{9, "p\x1b", 63}, {8, "orvanectl", 1}};
       },
       "clients", Result::Problem, R"("p\x1b" (process 9) has 63, "orvanectl" (process 8) has 1)"},
      {"two extensions",
       [](Facts& f) {
         f.processes = {7, 9};
       },
       "processes", Result::Problem, "7, 9"},
      {"no CAP_BPF", [](Facts& f) { f.capabilities = 0x81004; }, "capabilities", Result::Warning, "CAP_BPF missing"},
      {"no capability", [](Facts& f) { f.capabilities = 0; }, "capabilities", Result::Problem, "CAP_NET_ADMIN"},
      {"no iptables", [](Facts& f) { f.missingPrograms = {"iptables-save"}; }, "iptables", Result::Problem, "apt"},
      {"no NFQUEUE", [](Facts& f) { f.hasQueueTarget = false; }, "kernel", Result::Problem, "xt_NFQUEUE"},
      {"rules flushed", [](Facts& f) { f.rules[1].rules = "*mangle\nCOMMIT\n*filter\nCOMMIT\n"; }, "rules",
       Result::Problem, "missing"},
      {"rules in one table only", [](Facts& f) { f.rules[0].rules = "*filter\n-A OUTPUT -j ORVANE-OUTPUT\nCOMMIT\n"; },
       "rules", Result::Problem, "some or all"},
      {"a firewall ahead of ours",
       [](Facts& f) { f.rules[0].rules->insert(f.rules[0].rules->rfind("-A OUTPUT"), "-A OUTPUT -j ACCEPT\n"); },
       "rules", Result::Warning, "another program"},
      {"rules left by a crash", [](Facts& f) { f.extension.running = false, f.processes.clear(), f.process = 0; },
       "rules", Result::Warning, "everything pass"},
      {"not root", [](Facts& f) { f.rules.clear(), f.asRoot = false, f.queues.reset(); }, "queue", Result::Unknown,
       "root"},
      {"queue unserved", [](Facts& f) { f.queues = "   20    743 2074 2 65531     0     0        1  1\n"; }, "queue",
       Result::Problem, "all packets pass"},
      {"bad lines", [](Facts& f) { f.list->badLines = 2; }, "list", Result::Warning, "2 bad lines"},
      {"list not read", [](Facts& f) { f.list->listError = "no"; }, "list", Result::Problem, "previous list"},
      {"list not sent", [](Facts& f) { f.list->sentVersion.reset(); }, "list", Result::Warning, "newest"},
      {"keeper not connected", [](Facts& f) { f.list->connected = false; }, "list", Result::Problem, "no connection"},
      {"edits by others", [](Facts& f) { f.list->changesOfOthers = 1; }, "list", Result::Warning, "1 edit by"},
      {"bad browser list", [](Facts& f) { f.browserList.fault = "is bad"; }, "browser-list", Result::Problem,
       "nothing is filtered"},
      {"unknown browser", [](Facts& f) { f.browsers[0].browser.identifier = "lynx"; }, "browser", Result::Problem,
       "add it there"},
      {"browser that is a script", [](Facts& f) { f.browsers[0].browser.identifier = "python3.11"; }, "browser",
       Result::Problem, "another browser"},
      {"HTTP/3", [](Facts& f) { f.browsers[0].policy.features[HidingFeature::Http3] = {}; }, "http3", Result::Warning,
       "policy install"},
      {"encrypted hellos allowed by a policy",
       [](Facts& f) {
         f.browsers[0].policy.features[HidingFeature::EncryptedHello] = {true, "/p"};
       },
       "encrypted-hello", Result::Warning, "allowed by /p"},
      {"encrypted hellos in one of two profiles",
       [](Facts& f) {
         f.browsers[0].policy.features[HidingFeature::EncryptedHello] = {};
         f.browsers[0].profiles.resize(2);
         f.browsers[0].profiles[0].features[HidingFeature::EncryptedHello] = false;
       },
       "encrypted-hello", Result::Warning, "unfiltered"},
      {"connections for several names",
       [](Facts& f) { f.browsers[0].policy.features[HidingFeature::SharedConnections] = {}; }, "shared-connections",
       Result::Warning, "policy install"},
      {"a browser without policies",
       [](Facts& f) {
         f.browsers[0].policy.features[HidingFeature::EncryptedHello] = {};
         f.browsers[0].browser.place = nullptr;
       },
       "encrypted-hello", Result::Warning, "about:config"},
  };
  for (const auto& c : cases) {
    Facts facts = sound_machine();
    c.make(facts);
    const std::vector<Finding> findings = examine(facts);
    EXPECT_TRUE(std::any_of(findings.begin(), findings.end(), [&](const Finding& finding) {
      return finding.check == c.check && finding.result == c.result &&
             (finding.found + " -> " + finding.advice).find(c.text) != std::string::npos;
    })) << c.fault;
  }
}

TEST(Doctor, WarnsOfBrowsersThatHideNames) {
  BrowserFacts safe = sound_machine().browsers.front(), shares = safe, hides = safe, missing = safe;
  shares.policy.features[HidingFeature::SharedConnections] = shares.policy.features[HidingFeature::Http3] = {};
  hides.policy.features[HidingFeature::EncryptedHello] = {};
  hides.browser.name = "Hiding";
  missing.policy = {};
  missing.browser.identifier = "";
  EXPECT_EQ(hiding_warning({safe, shares, missing}), "");
  EXPECT_NE(hiding_warning({safe, hides}).find(": Hiding: "), std::string::npos);
}

}  // namespace
}  // namespace orvane
