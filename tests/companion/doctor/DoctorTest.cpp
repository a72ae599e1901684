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

// What the doctor learns if root runs it on a machine without faults.
Facts sound_machine() {
  Facts facts;
  facts.asRoot = true;
  facts.extension = {"orvane-se.service", true, true, true, "active (running)"};
  facts.keeper = {"orvane-keeper.service", true, true, true, "active (running)"};
  facts.fetcher = {"orvane-fetcher.service", true, true, false, "inactive (dead)"};  // there are no subscriptions
  facts.connection = {ConnectionFacts::Outcome::Answered, "/run/orvane-se/org.orvane.OrvaneSE"};
  facts.clients = {{8, "orvanectl", 1}};
  facts.group = {"anna", true, true, true};
  facts.processes = {7};
  facts.process = 7;
  facts.capabilities = 0xc000081004;
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
  EXPECT_EQ(browser_warning(sound_machine()), "");
}

// What the policy of the first browser prescribes for a feature.
FeaturePolicy& policy(Facts& facts, HidingFeature feature) { return facts.browsers[0].policy.features[feature]; }

TEST(Doctor, ReportsEachFaultWithItsCure) {
  using Outcome = ConnectionFacts::Outcome;
  using enum Finding::Result;
  using enum HidingFeature;
  const ControlClient crowd = {9, "p\x1b", 63};
  const struct {
    const char *fault, *check;
    Result result;
    const char* text;  // a part of the finding or of the advice
    std::function<void(Facts&)> make;
    std::string places{};  // where the warning about browsers says that blocked sites may open
  } cases[] = {
      {"stopped", "service", Problem, "systemctl start", [](Facts& f) { f.extension.running = false; }},
      {"failing again and again", "service", Problem, "-> to see why it ended: journalctl",
       [](Facts& f) {
         f.extension.running = false;
         f.extension.isRestarting = true;
       }},
      {"no browser recognised", "service", Problem, "systemctl restart",
       [](Facts& f) { f.extension.filtersNothing = says_filtering_nothing(no_browser_status("bad list")); }},
      {"not installed", "keeper", Problem, "install", [](Facts& f) { f.keeper.installed = false; }},
      {"lists no longer fetched", "fetcher", Problem, "systemctl start orvane-fetcher.service",
       [](Facts& f) { f.list->readOnlyLists.emplace_back().isDropIn = false; }},
      {"a fetch that failed", "subscription", Warning, "no server answers",
       [](Facts& f) { f.subscriptions.emplace_back().error = "no server answers"; }},
      {"a list that has shrunk", "subscription", Warning,
       "-> to use the list that has shrunk: orvanectl refresh a --acc",
       [](Facts& f) {
         f.subscriptions.push_back({"a", true, "it has shrunk", true});
       }},
      {"a bad line", "subscription", Warning, "at least 1h",
       [](Facts& f) { f.badSubscriptions = {"give at least 1h"}; }},
      {"no readable subscriptions", "subscription", Problem, "links", [](Facts& f) { f.fetcherError = "hard links"; }},
      {"subscriptions of others", "subscription", Unknown, "join the group",
       [](Facts& f) { f.subscriptionsError = "Permission denied: join the group orvane"; }},
      {"nothing fetched yet", "fetcher", Warning, "systemctl start orvane-fetcher.service",
       [](Facts& f) { f.subscriptions.emplace_back(); }},
      {"no systemd", "service", Unknown, "does not answer", [](Facts& f) { f.extension.known = false; }},
      {"hidden names", "hidden-names", Warning, "12 connections",
       [](Facts& f) { f.extension.hiddenNames = hidden_names_in(filtering_status(12)); }},
      {"stale socket", "answer", Problem, "has ended", [](Facts& f) { f.connection.outcome = Outcome::Refused; }},
      {"hung", "answer", Problem, "it hangs",
       [](Facts& f) {
         f.connection = {Outcome::Silent, "/s", 0, "it hangs"};
       }},
      {"stranger", "answer", Problem, "usermod -aG orvane anna",
       [](Facts& f) { f.connection.outcome = Outcome::Denied, f.group.listed = f.group.inForce = false; }},
      {"member since this login", "answer", Problem, "newgrp orvane",
       [](Facts& f) { f.connection.outcome = Outcome::Denied, f.group.inForce = false; }},
      {"connections used up", "clients", Problem, R"("p\x1b" (process 9) has 63, "orvanectl" (process 8) has 1)",
       [&](Facts& f) { f.clients->insert(f.clients->begin(), crowd); }},
      {"two extensions", "processes", Problem, "7, 9", [](Facts& f) { f.processes.push_back(9); }},
      {"no CAP_BPF", "capabilities", Warning, "CAP_BPF missing", [](Facts& f) { f.capabilities = 0x4000081004; }},
      {"no capability", "capabilities", Problem, "CAP_NET_ADMIN", [](Facts& f) { f.capabilities = 0; }},
      {"no iptables", "iptables", Problem, "apt", [](Facts& f) { f.missingPrograms = {"iptables-save"}; }},
      {"no program that prints the rules", "rules", Unknown, "apt",
       [](Facts& f) { f.missingPrograms = {"iptables-save"}, f.rules.clear(); }},
      {"no NFQUEUE", "kernel", Problem, "xt_NFQUEUE", [](Facts& f) { f.hasQueueTarget = false; }},
      {"rules flushed", "rules", Problem, "missing", [](Facts& f) { f.rules[1].rules = "*mangle\nCOMMIT\n"; }},
      {"rules in one table only", "rules", Problem, "some or all",
       [](Facts& f) { f.rules[0].rules = "*filter\n-A OUTPUT -j ORVANE-OUTPUT\nCOMMIT\n"; }},
      {"a firewall ahead of ours", "rules", Warning, "another program",
       [](Facts& f) { f.rules[0].rules->insert(f.rules[0].rules->rfind("-A OUTPUT"), "-A OUTPUT -j ACCEPT\n"); }},
      {"rules left by a crash", "rules", Warning, "everything pass",
       [](Facts& f) { f.extension.running = false, f.processes.clear(), f.process = 0; }},
      {"not root", "queue", Unknown, "root", [](Facts& f) { f.rules.clear(), f.asRoot = false, f.queues.reset(); }},
      {"queue unserved", "queue", Problem, "all packets pass",
       [](Facts& f) { f.queues = "   20    743 2074 2 65531     0     0        1  1\n"; }},
      {"bad lines", "list", Warning, "2 bad lines", [](Facts& f) { f.list->badLines = 2; }},
      {"list not read", "list", Problem, "previous list", [](Facts& f) { f.list->listError = "no"; }},
      {"list not watched", "list", Warning, "sysctl", [](Facts& f) { f.list->watchError = "a limit is reached"; }},
      {"sites without guard", "list", Warning, "of the group work does not cover 3 sites",
       [](Facts& f) {
         auto& group = f.list->groups.emplace_back();
         group.name = "work";
         group.unguardedSites = 3;
       }},
      {"guard not saved", "list", Problem, "end with the keeper: full", [](Facts& f) { f.list->guardError = "full"; }},
      {"list not sent", "list", Warning, "newest", [](Facts& f) { f.list->sentVersion.reset(); }},
      {"keeper not connected", "list", Problem, "no connection", [](Facts& f) { f.list->connected = false; }},
      {"edits by others", "list", Warning, "1 edit by", [](Facts& f) { f.list->changesOfOthers = 1; }},
      {"bad browser list", "browser-list", Problem,
       "nothing is filtered -> correct it (at most 1024 bytes), or move it",
       [](Facts& f) { f.browserList.fault = "is bad"; }},
      {"no browser", "browser", Warning, "no browser was found", [](Facts& f) { f.browsers.clear(); }},
      {"unknown browser", "browser", Problem, "add it there",
       [](Facts& f) { f.browsers[0].browser.identifier = "lynx"; }, "Firefox"},
      {"browser that is a script", "browser", Problem, "another browser",
       [](Facts& f) { f.browsers[0].browser.identifier = "python3.11"; }, "Firefox"},
      {"browser without a program", "browser", Warning, "reinstall",
       [](Facts& f) { f.browsers[0].browser.identifier = "", f.browsers[0].policy = {}; }},
      {"browser of another family", "encrypted-hello", Unknown, "cannot be checked",
       [](Facts& f) { f.browsers[0].browser.family = BrowserFamily::Other; }, "Firefox"},
      {"HTTP/3 passes", "http3", Warning, "OrvaneHTTP3", [](Facts& f) { f.passesHTTP3 = true; },
       "every browser over HTTP/3"},
      {"HTTP/3 passes and a browser is unknown", "http3", Warning, "OrvaneHTTP3",
       [](Facts& f) { f.passesHTTP3 = true, f.browserList.endings = {"lynx"}; }, "every browser over HTTP/3, Firefox"},
      {"encrypted hellos allowed by a policy", "encrypted-hello", Warning,
       R"(unfiltered -> as root, set {"policies":{"DisableEncryptedClientHello":true}} in /p,)",
       [](Facts& f) { policy(f, EncryptedHello) = FeaturePolicy{.isOn = true, .file = "/p"}; }, "Firefox"},
      {"a policy file without the setting", "shared-connections", Warning, "/stable/policies/policies.json, then",
       [](Facts& f) { policy(f, SharedConnections) = {}, f.browsers[0].policy.isForeign = true; }, "Firefox"},
      {"encrypted hellos in one of two profiles", "encrypted-hello", Warning, "unfiltered",
       [](Facts& f) {
         policy(f, EncryptedHello) = {};
         f.browsers[0].profiles.resize(2);
         f.browsers[0].profiles[0].features[EncryptedHello] = false;
       },
       "Firefox"},
      {"connections for several names", "shared-connections", Warning, "policy install",
       [](Facts& f) { policy(f, SharedConnections) = {}; }, "Firefox"},
      {"a browser without policies", "encrypted-hello", Warning, "about:config",
       [](Facts& f) { policy(f, EncryptedHello) = {}, f.browsers[0].browser.place = nullptr; }, "Firefox"},
  };
  for (const auto& c : cases) {
    Facts facts = sound_machine();
    c.make(facts);
    const std::vector<Finding> findings = examine(facts);
    EXPECT_TRUE(std::any_of(findings.begin(), findings.end(), [&](const Finding& finding) {
      return finding.check == c.check && finding.result == c.result &&
             (finding.found + " -> " + finding.advice).find(c.text) != std::string::npos;
    })) << c.fault;
    const std::string warning = "blocked sites may still open in " + c.places + ": see orvanectl doctor";
    EXPECT_EQ(browser_warning(facts), c.places.empty() ? "" : warning) << c.fault;
  }
}

}  // namespace
}  // namespace orvane
