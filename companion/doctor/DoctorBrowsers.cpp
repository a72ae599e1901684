#include "companion/doctor/DoctorBrowsers.h"

#include <algorithm>

#include "companion/text/Output.h"
#include "platform/linux/process/DesktopEntry.h"

namespace orvane {
namespace {

using Result = Finding::Result;

constexpr const char* kHttp3Risk = "a site visited before may be reached unfiltered";
constexpr const char* kDnsOverHttpsRisk = "with it, Encrypted Client Hello may hide names from the filter";

Finding examine_identity(const InstalledBrowser& browser, const BrowserList& list) {
  Finding finding{"browser", browser.name, Result::Ok, "", ""};
  if (browser.identifier.empty()) {
    finding.result = Result::Warning;
    finding.found = "the program in its desktop entry does not exist";
    finding.advice = "reinstall it, or remove " + browser.entry;
    return finding;
  }
  finding.found = "recognised as \"" + browser.identifier + '"';
  if (list.recognises(browser.identifier)) return finding;
  finding.result = Result::Problem;
  finding.found += ", which is not in " + list.path + ": it is not filtered";
  finding.advice = runs_other_programs(browser.identifier)
                       ? "use another browser: adding this one would filter every program that it runs"
                       : "add it there (at most 1024 bytes: remove browsers that you do not use), then sudo systemctl "
                         "restart orvane-se.service";
  return finding;
}

// A setting as the browser applies it. A policy overrides profiles; of several profiles, the least safe one counts.
struct Setting {
  std::string value;   // "on", "off" and others; empty for the browser's default
  std::string source;  // the file that sets it
};

Setting http3_of(const BrowserFacts& facts) {
  if (facts.policy.http3) return {*facts.policy.http3 ? "on" : "off", facts.policy.http3File};
  Setting setting;
  for (const BrowserProfile& profile : facts.profiles) {
    if (profile.http3 != false) return {};
    setting = {"off", profile.path};
  }
  return setting;
}

Setting dns_of(const BrowserFacts& facts) {
  if (facts.policy.dnsOverHttps) return {*facts.policy.dnsOverHttps, facts.policy.dnsOverHttpsFile};
  Setting setting;
  bool usesDefault = facts.profiles.empty();  // there is no profile, or a profile without the setting
  for (const BrowserProfile& profile : facts.profiles) {
    if (!profile.dnsOverHttps) usesDefault = true;
    if (profile.dnsOverHttps && (setting.value.empty() || setting.value == "off")) {
      setting = {*profile.dnsOverHttps, profile.path};
    }
  }
  return usesDefault && setting.value == "off" ? Setting{} : setting;
}

std::string http3_advice(const InstalledBrowser& browser) {
  if (browser.place != nullptr) return "sudo orvanectl browsers policy install";
  if (browser.family == BrowserFamily::Firefox) return "set network.http.http3.enable to false in about:config";
  return "disable \"Experimental QUIC protocol\" in chrome://flags";
}

Finding examine_http3(const BrowserFacts& facts) {
  const Setting setting = http3_of(facts);
  Finding finding{"http3", facts.browser.name, Result::Ok, "switched off by " + setting.source, ""};
  if (setting.value == "off") return finding;
  finding.result = Result::Warning;
  if (setting.value == "on") {
    finding.found = "switched on by " + setting.source + ": " + kHttp3Risk;
    finding.advice = "remove that from the policy";
  } else {
    finding.found = std::string("not switched off: ") + kHttp3Risk;
    finding.advice = http3_advice(facts.browser);
  }
  return finding;
}

Finding examine_dns(const BrowserFacts& facts) {
  const Setting setting = dns_of(facts);
  Finding finding{"dns-over-https", facts.browser.name, Result::Ok, "switched off by " + setting.source, ""};
  if (setting.value == "off") return finding;
  finding.advice = facts.browser.place != nullptr ? "if that matters: sudo orvanectl browsers policy install --no-doh"
                                                  : "if that matters: switch it off in the browser's settings";
  if (setting.value.empty()) {
    finding.result = Result::Unknown;
    finding.found = std::string("the browser decides: ") + kDnsOverHttpsRisk;
  } else {
    finding.result = Result::Warning;
    finding.found = "on (" + setting.value + ", by " + setting.source + "): " + kDnsOverHttpsRisk;
  }
  return finding;
}

}  // namespace

void examine_browsers(const Facts& facts, std::vector<Finding>& findings) {
  const BrowserList& list = facts.browserList;
  if (list.fault.empty()) {
    findings.push_back(
        {"browser-list", "", Result::Ok, counted(list.endings.size(), "browser", "browsers") + " known", ""});
  } else {
    findings.push_back({"browser-list", "", Result::Problem, list.path + ' ' + list.fault + ": nothing is filtered",
                        "correct it (at most 1024 bytes), or restore a missing file: sudo apt install --reinstall -o "
                        "Dpkg::Options::=--force-confmiss orvane-se; then sudo systemctl restart orvane-se.service"});
  }
  if (facts.browsers.empty()) {
    findings.push_back({"browser", "", Result::Warning, "no installed browser has a desktop entry",
                        "a browser from an archive is recognised by its program's file name"});
  }
  for (const BrowserFacts& browser : facts.browsers) {
    if (list.fault.empty() || browser.browser.identifier.empty()) {
      findings.push_back(examine_identity(browser.browser, list));
    }
    if (browser.browser.identifier.empty()) continue;
    if (browser.browser.family == BrowserFamily::Other) {
      findings.push_back({"http3", browser.browser.name, Result::Unknown,
                          "HTTP/3 and DNS over HTTPS cannot be checked in this browser",
                          "switch both off in its settings, if it has them"});
      continue;
    }
    findings.push_back(examine_http3(browser));
    findings.push_back(examine_dns(browser));
    for (const std::string& file : browser.policy.unreadable) {
      findings.push_back({"policy", browser.browser.name, Result::Warning, file + " is not a valid policy file",
                          "correct or remove it: the browser may ignore it"});
    }
  }
}

}  // namespace orvane
