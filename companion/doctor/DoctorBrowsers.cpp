#include "companion/doctor/DoctorBrowsers.h"

#include <algorithm>
#include <array>

#include "companion/text/Output.h"
#include "platform/linux/process/DesktopEntry.h"

namespace orvane {
namespace {

using Result = Finding::Result;

// What the doctor says about a feature that hides host names from the filter.
struct FeatureCheck {
  HidingFeature feature;
  const char* check;
  const char* risk;
  // The advice for a browser that reads none of our policies; empty for a family in which the feature is not checked.
  const char* inFirefox;
  const char* inChromium;
};
constexpr std::array kFeatureChecks = {
    FeatureCheck{HidingFeature::EncryptedHello, "encrypted-hello",
                 "sites that offer Encrypted Client Hello are reached unfiltered",
                 "set network.dns.echconfig.enabled to false in about:config",
                 "use another browser for sites that must stay blocked: this one has no setting for it"},
    FeatureCheck{HidingFeature::SharedConnections, "shared-connections",
                 "a blocked name may be reached over a connection to another name",
                 "set network.http.http2.coalesce-hostnames to false in about:config", ""},
};

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

// A setting as the browser applies it. A policy overrides the profiles. Without a policy, the feature is off only if
// all profiles switch it off.
struct Setting {
  std::string value;   // "on" or "off"; empty if neither a policy nor the profiles decide
  std::string source;  // the file that contains the setting
};

Setting setting_of(const BrowserFacts& facts, HidingFeature feature) {
  const FeaturePolicy& policy = facts.policy.features[feature];
  if (policy.isOn) return {*policy.isOn ? "on" : "off", policy.file};
  Setting setting;
  for (const BrowserProfile& profile : facts.profiles) {
    if (profile.features[feature] != false) return {};
    setting = {"off", profile.path};
  }
  return setting;
}

// `file`: the policy file that allows the feature; may be empty.
std::string advice_for(const BrowserFacts& facts, const FeatureCheck& check, const std::string& file) {
  const InstalledBrowser& browser = facts.browser;
  if (browser.place == nullptr) return browser.family == BrowserFamily::Firefox ? check.inFirefox : check.inChromium;
  if (file.empty() && !facts.policy.isForeign)
    return "sudo orvanectl browsers policy install, then restart the browser";
  return "as root, set " + policy_against(check.feature, browser.family) + " in " +
         (file.empty() ? browser.place->path() : file) + ", then restart the browser";
}

Finding examine_feature(const BrowserFacts& facts, const FeatureCheck& check) {
  const Setting setting = setting_of(facts, check.feature);
  Finding finding{check.check, facts.browser.name, Result::Ok, "switched off by " + setting.source, ""};
  if (setting.value == "off") return finding;
  finding.result = Result::Warning;
  const std::string cause = setting.value == "on" ? "allowed by " + setting.source : "not switched off";
  finding.found = cause + ": " + check.risk;
  finding.advice = advice_for(facts, check, setting.source);
  return finding;
}

Finding examine_http3(bool passes) {
  if (!passes) return {"http3", "", Result::Ok, "judged by the names in its first packets", ""};
  return {"http3", "", Result::Warning, "passes unfiltered, because the extension's setting OrvaneHTTP3 is \"pass\"",
          "remove this setting from the bundle's Info.plist, then sudo systemctl restart orvane-se.service; or switch "
          "HTTP/3 off in each browser: network.http.http3.enable in about:config, \"Experimental QUIC protocol\" in "
          "chrome://flags"};
}

void examine_hidden_names(const UnitFacts& extension, std::vector<Finding>& findings) {
  if (!extension.running) return;
  Finding finding{"hidden-names", "", Result::Ok, "no connection to a known service that hides names", ""};
  if (extension.hiddenNames > 0) {
    finding.result = Result::Warning;
    finding.found = counted(extension.hiddenNames, "connection", "connections") +
                    " since the extension's start hid the host's name (Encrypted Client Hello)";
    finding.advice = "switch it off in each browser: see the findings below; then restart the browsers";
  }
  findings.push_back(std::move(finding));
}

void examine_browser(const BrowserFacts& facts, const BrowserList& list, std::vector<Finding>& findings) {
  const InstalledBrowser& browser = facts.browser;
  if (list.fault.empty() || browser.identifier.empty()) findings.push_back(examine_identity(browser, list));
  if (browser.identifier.empty()) return;
  if (browser.family == BrowserFamily::Other) {
    findings.push_back({"encrypted-hello", browser.name, Result::Unknown, "cannot be checked in this browser",
                        "switch it off in the browser's settings, if it can"});
    return;
  }
  for (const FeatureCheck& check : kFeatureChecks) {
    if (has_policy(browser.family, check.feature)) findings.push_back(examine_feature(facts, check));
  }
  for (const std::string& file : facts.policy.unreadable) {
    findings.push_back({"policy", browser.name, Result::Warning, file + " is not a valid policy file",
                        "correct or remove it: the browser may ignore it"});
  }
}

}  // namespace

void examine_browsers(const Facts& facts, std::vector<Finding>& findings) {
  const BrowserList& list = facts.browserList;
  if (list.fault.empty()) {
    findings.push_back(
        {"browser-list", "", Result::Ok, counted(list.endings.size(), "browser", "browsers") + " known", ""});
  } else {
    findings.push_back({"browser-list", "", Result::Problem, list.path + ' ' + list.fault + ": nothing is filtered",
                        "correct it (at most 1024 bytes), or move it away if it exists, and restore the package's "
                        "file: sudo dpkg --force-confmiss --install orvane-se_*.deb (from a repository: apt-get "
                        "download orvane-se gets it); then sudo systemctl restart orvane-se.service"});
  }
  if (facts.browsers.empty()) {
    findings.push_back({"browser", "", Result::Warning, "no browser was found: none has a desktop entry",
                        "install a browser; one from an archive needs no desktop entry, because the extension "
                        "recognises it by its program's file name"});
  }
  findings.push_back(examine_http3(facts.passesHTTP3));
  examine_hidden_names(facts.extension, findings);
  for (const BrowserFacts& browser : facts.browsers) examine_browser(browser, list, findings);
}

std::string browser_warning(const Facts& facts) {
  std::string places = facts.passesHTTP3 ? "every browser over HTTP/3" : "";
  for (const BrowserFacts& browser : facts.browsers) {
    if (browser.browser.identifier.empty()) continue;
    std::vector<Finding> findings;
    examine_browser(browser, facts.browserList, findings);
    const bool isSound = std::all_of(findings.begin(), findings.end(),
                                     [](const Finding& finding) { return finding.result == Result::Ok; });
    if (!isSound) places += (places.empty() ? "" : ", ") + browser.browser.name;
  }
  return places.empty() ? "" : "blocked sites may still open in " + places + ": see orvanectl doctor";
}

}  // namespace orvane
