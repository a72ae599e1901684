#include "companion/commands/DoctorCommands.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "companion/browsers/BrowserPolicy.h"
#include "companion/commandline/GroupState.h"
#include "companion/commands/SubscriptionCommands.h"
#include "companion/doctor/Doctor.h"
#include "companion/doctor/DoctorFacts.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

using Json = nlohmann::json;
using Result = Finding::Result;

struct ResultWord {
  const char* word;
  Colour colour;
};
ResultWord word_of(Result result) {
  switch (result) {
    case Result::Ok:
      return {"ok", Colour::Good};
    case Result::Warning:
      return {"warning", Colour::Warning};
    case Result::Problem:
      return {"problem", Colour::Bad};
    case Result::Unknown:
      break;
  }
  return {"unknown", Colour::Faint};
}

// The heading of a finding, for people.
std::string title_of(const Finding& finding) {
  static const std::map<std::string, std::string> kTitles = {
      {"service", ""},
      {"keeper", ""},
      {"fetcher", ""},
      {"answer", "extension"},
      {"clients", "extension"},
      {"processes", "extension"},
      {"queue", "packets"},
      {"read-only-list", ""},
      {"browser-list", "list of browsers"},
      {"browser", "identity"},
      {"http3", "HTTP/3"},
      {"policy", "policies"},
      {"hidden-names", "hidden names"},
      {"encrypted-hello", "Encrypted Client Hello"},
      {"shared-connections", "shared connections"},
  };
  auto known = kTitles.find(finding.check);
  std::string title = known == kTitles.end() ? finding.check : known->second;
  if (finding.subject.empty()) return title;
  return title.empty() ? finding.subject : finding.subject + ", " + title;
}

void print_finding(const Finding& finding) {
  const ResultWord word = word_of(finding.result);
  const std::string padding(8 - std::string(word.word).size(), ' ');
  std::printf("%s%s %s: %s\n", coloured(word.word, word.colour).c_str(), padding.c_str(), title_of(finding).c_str(),
              finding.found.c_str());
  if (!finding.advice.empty()) std::printf("         -> %s\n", finding.advice.c_str());
}

void print_summary(const std::vector<Finding>& findings) {
  auto count = [&](Result result) {
    return std::count_if(findings.begin(), findings.end(), [&](const Finding& f) { return f.result == result; });
  };
  std::printf("\nproblems: %td, warnings: %td, unknown: %td\n", count(Result::Problem), count(Result::Warning),
              count(Result::Unknown));
}

int doctor(const CommonOptions& options) {
  Examination examination{options.client.socket, options.client.service, options.keeperStatePath};
  Facts facts = gather_facts(examination);
  refuse_other_list(options, facts.list);
  look_at_subscriptions(options, facts);
  const std::vector<Finding> findings = examine(facts);
  if (options.json) {
    Json checks = Json::array();
    for (const Finding& finding : findings) {
      checks.push_back({{"check", finding.check},
                        {"subject", finding.subject},
                        {"result", word_of(finding.result).word},
                        {"found", finding.found},
                        {"advice", finding.advice}});
    }
    print_json(checks);
  } else {
    for (const Finding& finding : findings) print_finding(finding);
    print_summary(findings);
  }
  const bool sound = std::none_of(findings.begin(), findings.end(),
                                  [](const Finding& finding) { return finding.result == Result::Problem; });
  return sound ? kDone : kFailed;
}

// Whether the user is root. Only root may write below /etc. install() and remove() call this function first, so that a
// user who is not root gets one clear error instead of one error for each file.
bool may_write(const char* command) {
  if (::geteuid() == 0) return true;
  print_error(std::string("cannot change browser policies: only root may write to /etc: run sudo orvanectl browsers "
                          "policy ") +
              command);
  return false;
}

const char* outcome_of(PolicyChange::Outcome outcome, const char* done) {
  switch (outcome) {
    case PolicyChange::Outcome::Done:
      return done;
    case PolicyChange::Outcome::Nothing:
      return "unchanged";
    case PolicyChange::Outcome::Foreign:
      return "left alone";
    case PolicyChange::Outcome::Failed:
      break;
  }
  return "failed";
}

void print_changes(const std::vector<PolicyChange>& changes, const char* done, bool json) {
  Json results = Json::array();
  for (const PolicyChange& change : changes) {
    const char* outcome = outcome_of(change.outcome, done);
    results.push_back({{"browser", change.place->browser}, {"file", change.place->path()}, {"outcome", outcome}});
    const bool worked = change.outcome == PolicyChange::Outcome::Done;
    if (worked && !json)
      std::printf("%s: %s (%s)\n", done, change.place->path().c_str(), change.place->browser.c_str());
  }
  if (json) print_json(results);
}

// Reports the changes that failed. Returns false if at least one failed.
bool report_failures(const std::vector<PolicyChange>& changes, const char* what) {
  bool none = true;
  for (const PolicyChange& change : changes) {
    if (change.outcome != PolicyChange::Outcome::Failed) continue;
    print_error(std::string("cannot ") + what + " a policy: " + change.reason +
                ": correct that and run the command again");
    none = false;
  }
  return none;
}

// The text of a policy file, without the last line feed, which print_error() adds.
std::string shown_policy(BrowserFamily family) {
  std::string text = policy_text(family);
  text.pop_back();
  return text;
}

int install(bool json) {
  if (!may_write("install")) return kFailed;
  const std::vector<PolicyChange> changes = install_policies(kThisMachine);
  print_changes(changes, "written", json);
  bool whole = report_failures(changes, "write");
  bool written = false;
  for (const PolicyChange& change : changes) {
    written |= change.outcome == PolicyChange::Outcome::Done;
    if (change.outcome != PolicyChange::Outcome::Foreign) continue;
    print_error("left alone: " + change.place->path() + ": another program or person wrote it: add this by hand:\n" +
                shown_policy(change.place->family));
    whole = false;
  }
  if (!json && written) std::puts("Running browsers apply the policies at their next start.");
  if (!json && !written && whole) std::puts("All policies are already in place.");
  return whole ? kDone : kFailed;
}

int remove(bool json) {
  if (!may_write("remove")) return kFailed;
  const std::vector<PolicyChange> changes = remove_policies(kThisMachine);
  print_changes(changes, "removed", json);
  bool whole = report_failures(changes, "remove");
  bool removed = false;
  for (const PolicyChange& change : changes) {
    removed |= change.outcome == PolicyChange::Outcome::Done;
    if (change.outcome != PolicyChange::Outcome::Foreign) continue;
    // Firefox has one policy file, which other programs write, too. If this file switches none of the features off, it
    // contains nothing of ours, and no message is needed.
    const bool shared = change.place->family == BrowserFamily::Firefox;
    const PolicyInForce policy = policy_in_force(*change.place, kThisMachine);
    const bool isOff = std::any_of(kHidingFeatures.begin(), kHidingFeatures.end(),
                                   [&](HidingFeature feature) { return policy.features[feature].isOn == false; });
    if (shared && !isOff) continue;
    print_error(
        "left alone: " + change.place->path() + ": another program or person wrote it: " +
        (shared ? "if you added the following for OrvaneSE, remove it by hand:\n" + shown_policy(change.place->family)
                : "remove it by hand"));
    whole = whole && shared;
  }
  if (!json && !removed && whole) std::puts("There are no policies to remove.");
  return whole ? kDone : kFailed;
}

struct FeatureName {
  HidingFeature feature;
  const char* title;
  const char* key;  // in JSON
};
constexpr std::array kFeatureNames = {
    FeatureName{HidingFeature::EncryptedHello, "Encrypted Client Hello", "encryptedHello"},
    FeatureName{HidingFeature::SharedConnections, "shared connections", "sharedConnections"},
};

int show(bool json) {
  Json results = Json::array();
  for (const PolicyPlace& place : policy_places()) {
    const PolicyInForce policy = policy_in_force(place, kThisMachine);
    Json result = {{"browser", place.browser}, {"folder", place.folder}, {"unreadable", policy.unreadable}};
    if (!json) std::puts(place.browser.c_str());
    for (const FeatureName& name : kFeatureNames) {
      const FeaturePolicy& feature = policy.features[name.feature];
      const std::string state = feature.isOn ? (*feature.isOn ? "on" : "off") : "";
      result[name.key] = feature.isOn ? Json(state) : Json();
      if (json || !has_policy(place.family, name.feature)) continue;
      const std::string text = feature.isOn ? state + " (" + feature.file + ')' : "the user's choice";
      std::printf("  %s: %s\n", name.title, text.c_str());
    }
    results.push_back(std::move(result));
    for (const std::string& file : policy.unreadable) {
      if (!json) std::printf("  cannot be read: %s\n", file.c_str());
    }
  }
  if (json) print_json(results);
  return kDone;
}

}  // namespace

void declare_doctor_commands(CommandSet& commands) {
  const CommonOptions& options = commands.options;
  commands
      .declare(commands.app, kServiceGroup, "doctor", "Check everything that blocking needs, and say what to do",
               [&options] { return doctor(options); })
      ->footer(
          "Run it as root to check the kernel's rules and packet queues, too. Exit codes: 0 no problem, 1 at least "
          "one\n"
          "problem. Warnings and unknown results do not count as problems.");

  CLI::App* browsers = commands.app.add_subcommand("browsers", "Browser settings")->fallthrough()->group("Browsers");
  browsers->require_subcommand(1);
  CLI::App* policy = browsers->add_subcommand("policy", "Policies that switch off what hides host names")
                         ->fallthrough()
                         ->require_subcommand(1);
  CLI::App* installing =
      commands.declare(*policy, "Commands", "install",
                       "Switch off what hides host names in Chromium, Chrome, Edge, Brave and Firefox, for all users",
                       [&options] { return install(options.json); });
  installing->footer(
      "This is Encrypted Client Hello, and in Firefox also the sharing of connections between hosts. Needs root. A "
      "file\n"
      "of another program or person is left alone; a message says what to add to it.");
  commands.declare(*policy, "Commands", "remove", "Remove the policies that install wrote",
                   [&options] { return remove(options.json); });
  commands.declare(*policy, "Commands", "show", "Print the policies that are in force",
                   [&options] { return show(options.json); });
}

}  // namespace orvane
