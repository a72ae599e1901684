#include "companion/doctor/Doctor.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "companion/doctor/DoctorBrowsers.h"
#include "companion/text/AccessGroup.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "platform/linux/base/Text.h"
#include "platform/linux/control/ListenerSocket.h"
#include "platform/linux/netfilter/KernelRulesText.h"

namespace orvane {
namespace {

using Result = Finding::Result;

bool is_running(const Facts& facts) { return facts.extension.running || !facts.processes.empty(); }

bool has_fetched_lists(const Facts& facts) {
  return facts.list && std::any_of(facts.list->readOnlyLists.begin(), facts.list->readOnlyLists.end(),
                                   [](const auto& list) { return !list.isDropIn; });
}

Finding examine_unit(const UnitFacts& unit, const char* check) {
  Finding finding{check, unit.name, Result::Ok, unit.state, ""};
  if (!unit.known) {
    finding.result = Result::Unknown;
    finding.found = "the service manager does not answer";
  } else if (!unit.installed) {
    finding.result = Result::Problem;
    finding.found = "the service manager does not know this unit";
    finding.advice = "install the package orvane-se";
  } else if (!unit.running) {
    finding.result = Result::Problem;
    finding.advice = (unit.isRestarting ? "" : "sudo systemctl start " + unit.name + "; ") +
                     ("to see why it ended: journalctl -u " + unit.name);
  } else if (unit.filtersNothing) {
    finding.result = Result::Problem;
    finding.advice = "when the browser list is correct: sudo systemctl restart " + unit.name;
  }
  return finding;
}

Finding examine_denial(const Facts& facts) {
  const GroupFacts& group = facts.group;
  Finding finding{"answer", "", Result::Problem, facts.connection.socket + ": permission denied", ""};
  if (!group.exists) {
    finding.found += "; the group orvane, whose members may connect, does not exist";
    finding.advice = "make it again: sudo dpkg-reconfigure orvane-se; then sudo systemctl restart orvane-se.service";
  } else if (!group.listed) {
    finding.found += "; " + group.user + " is not a member of the group orvane";
    finding.advice = access_advice(group);
  } else if (!group.inForce) {
    finding.found += "; the groups of this login are out of date";
    finding.advice = access_advice(group);
  } else {
    finding.found += ", although " + group.user + " is a member of the group orvane";
    finding.advice = "check the permissions of the socket and its folder: ls -la " +
                     facts.connection.socket.substr(0, facts.connection.socket.rfind('/'));
  }
  return finding;
}

Finding examine_connection(const Facts& facts) {
  using Outcome = ConnectionFacts::Outcome;
  const std::string& socket = facts.connection.socket;
  switch (facts.connection.outcome) {
    case Outcome::Answered:
      return {"answer", "", Result::Ok, "it answers at " + socket, ""};
    case Outcome::Denied:
      return examine_denial(facts);
    case Outcome::Silent:
      return {"answer", "", Result::Problem, socket + ": " + facts.connection.error,
              "sudo systemctl restart orvane-se.service"};
    case Outcome::Refused:
      return {"answer", "", Result::Problem, socket + ": nobody listens on the socket: its extension has ended",
              "sudo systemctl restart orvane-se.service"};
    case Outcome::NoSocket:
      break;
  }
  return {"answer", "", Result::Problem, "the extension has no socket: " + socket + " is missing",
          is_running(facts) ? "to see why it does not listen: journalctl -u orvane-se.service"
                            : "sudo systemctl start orvane-se.service"};
}

void examine_processes(const Facts& facts, std::vector<Finding>& findings) {
  if (facts.processes.size() < 2) return;
  std::string numbers;
  for (pid_t process : facts.processes) numbers += (numbers.empty() ? "" : ", ") + std::to_string(process);
  findings.push_back({"processes", "", Result::Problem,
                      counted(facts.processes.size(), "extension", "extensions") + " run at once (processes " +
                          numbers + "): only one of them gets the packets, and commands may reach the other",
                      "end those that the service manager did not start"});
}

// Names the first few programs in `clients`, which begins with the programs that have the most connections.
std::string describe_clients(const std::vector<ControlClient>& clients) {
  constexpr size_t kNamed = 5;
  std::string text;
  for (size_t i = 0; i < std::min(clients.size(), kNamed); ++i) {
    const ControlClient& client = clients[i];
    text += (i == 0 ? ": " : ", ") + (client.program.empty() ? "a program" : in_quotes(client.program)) + " (process " +
            std::to_string(client.process) + ") has " + std::to_string(client.connections);
  }
  if (clients.size() > kNamed) text += ", " + counted(clients.size() - kNamed, "other program", "other programs");
  return text;
}

void examine_clients(const Facts& facts, std::vector<Finding>& findings) {
  if (!facts.clients) {
    if (facts.connection.outcome != ConnectionFacts::Outcome::Silent) return;
    findings.push_back({"clients", "", Result::Unknown, "only root can see which programs have connections to it",
                        "run this as root"});
    return;
  }
  size_t connections = 0;
  for (const ControlClient& client : *facts.clients) connections += client.connections;
  Finding finding{"clients", "", Result::Ok, "", ""};
  finding.found = std::to_string(connections) + " of " + std::to_string(kMaximumConnections) +
                  " connections are in use" + describe_clients(*facts.clients);
  if (connections >= kMaximumConnections) {
    finding.result = Result::Problem;
    finding.advice = "end the programs that should not be connected: sudo kill PROCESS";
  }
  findings.push_back(std::move(finding));
}

struct Capability {
  int number;  // linux/capability.h
  const char* name;
  const char* consequence;  // what happens without the capability
};
constexpr std::array kCapabilities = {
    Capability{12, "CAP_NET_ADMIN", "nothing is filtered"},
    Capability{19, "CAP_SYS_PTRACE", "browsers of other users are not recognised"},
    Capability{2, "CAP_DAC_READ_SEARCH", "other users' Flatpaks are not recognised"},
    Capability{39, "CAP_BPF", "connections of programs that end at once are not recognised"},
    Capability{38, "CAP_PERFMON", "new connections wait longer"},
};

void examine_capabilities(const Facts& facts, std::vector<Finding>& findings) {
  if (facts.process == 0) return;
  if (!facts.capabilities) {
    findings.push_back({"capabilities", "", Result::Unknown,
                        "process " + std::to_string(facts.process) + " does not show its capabilities",
                        "run this as root"});
    return;
  }
  std::string missing, consequences;
  for (const Capability& capability : kCapabilities) {
    if ((*facts.capabilities >> capability.number & 1) != 0) continue;
    missing += (missing.empty() ? "" : ", ") + std::string(capability.name);
    consequences += (consequences.empty() ? "" : "; ") + std::string(capability.consequence);
  }
  if (missing.empty()) {
    findings.push_back({"capabilities", "", Result::Ok, "the extension has all that it uses", ""});
    return;
  }
  const bool filters = (*facts.capabilities >> kCapabilities.front().number & 1) != 0;
  findings.push_back(
      {"capabilities", "", filters ? Result::Warning : Result::Problem, missing + " missing: " + consequences,
       "start it as a service: the unit grants them; to see local changes: systemctl cat orvane-se.service"});
}

Finding examine_programs(const Facts& facts) {
  if (facts.missingPrograms.empty()) return {"iptables", "", Result::Ok, "installed, for IPv4 and IPv6", ""};
  std::string missing;
  for (const std::string& program : facts.missingPrograms) missing += (missing.empty() ? "" : ", ") + program;
  return {"iptables", "", Result::Problem, missing + " missing: the extension cannot add its rules to the kernel",
          "sudo apt install iptables"};
}

Finding examine_kernel(const Facts& facts) {
  if (!facts.hasQueueTarget) {
    return {"kernel", "", Result::Unknown, "support for packet queues (NFQUEUE) could not be checked",
            "run this as root"};
  }
  if (*facts.hasQueueTarget) return {"kernel", "", Result::Ok, "it supports packet queues (NFQUEUE)", ""};
  return {"kernel", "", Result::Problem,
          "it does not support packet queues (NFQUEUE): the module xt_NFQUEUE is missing",
          "use the distribution's kernel; after a kernel upgrade, restart the machine"};
}

// The extension adds a rule to the chain OUTPUT of two tables, filter and mangle. The rule jumps to the extension's own
// chain in the same table.
struct Jumps {
  int present = 0;  // the number of tables in which OUTPUT has this rule
  int first = 0;    // the number of tables in which this rule is the first rule of OUTPUT
};
constexpr int kOurTables = 2;
Jumps find_jumps(std::string_view rules) {
  const SavedTables tables = parse_saved_tables(rules);
  Jumps jumps;
  for (const SavedTable* table : {&tables.filter, &tables.mangle}) {
    jumps.present += std::count(table->jumps.begin(), table->jumps.end(), jump_from("OUTPUT")) > 0 ? 1 : 0;
    jumps.first += std::count(table->chainsWithJump.begin(), table->chainsWithJump.end(), "OUTPUT") > 0 ? 1 : 0;
  }
  return jumps;
}

void examine_rules(const Facts& facts, std::vector<Finding>& findings) {
  if (facts.rules.empty() && facts.asRoot) {
    findings.push_back({"rules", "", Result::Unknown, "the iptables programs, which print the rules, are missing",
                        "sudo apt install iptables"});
  } else if (facts.rules.empty()) {
    findings.push_back({"rules", "", Result::Unknown, "the kernel shows its rules only to root", "run this as root"});
  }
  for (const RulesFacts& family : facts.rules) {
    Finding finding{"rules", family.program, Result::Ok, "the extension's rules are in place", ""};
    if (!family.rules) {
      finding.result = Result::Unknown;
      finding.found = "failed: " + family.error;
    } else if (const Jumps jumps = find_jumps(*family.rules); !is_running(facts)) {
      if (jumps.present == 0) continue;
      finding.result = Result::Warning;
      finding.found = "an extension that was killed left its rules behind; they let everything pass";
      finding.advice = "sudo systemctl start orvane-se.service";
    } else if (jumps.present < kOurTables) {
      finding.result = Result::Problem;
      finding.found = "some or all of the extension's rules are missing";
      finding.advice = "sudo systemctl restart orvane-se.service; for details: journalctl -u orvane-se.service";
    } else if (jumps.first < kOurTables) {
      finding.result = Result::Warning;
      finding.found = "rules of another program come before the extension's in OUTPUT";
      finding.advice =
          "run this again in a second, as the extension moves its rules to the front; if nothing changes: "
          "journalctl -u orvane-se.service";
    }
    findings.push_back(std::move(finding));
  }
}

// Whether `queues`, the text of nfnetlink_queue, lists the extension's queue. Each line starts with spaces and the
// number of a queue.
bool has_queue(std::string_view queues) {
  while (!queues.empty()) {
    size_t end = queues.find('\n');
    std::string_view line = queues.substr(0, end);
    queues.remove_prefix(end == std::string_view::npos ? queues.size() : end + 1);
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    if (parse_number<unsigned>(line.substr(0, line.find(' '))) == kQueueNumber) return true;
  }
  return false;
}

void examine_queue(const Facts& facts, std::vector<Finding>& findings) {
  const std::string name = "packet queue " + std::to_string(kQueueNumber);
  if (!facts.queues) {
    if (!facts.asRoot) {
      findings.push_back(
          {"queue", "", Result::Unknown, "the kernel shows its packet queues only to root", "run this as root"});
    } else if (is_running(facts)) {
      findings.push_back({"queue", "", Result::Problem, "the kernel has no packet queues",
                          "sudo systemctl restart orvane-se.service"});
    }
    return;
  }
  const bool bound = has_queue(*facts.queues);
  if (bound && is_running(facts)) {
    findings.push_back({"queue", "", Result::Ok, name + " is served", ""});
  } else if (bound) {
    findings.push_back({"queue", "", Result::Problem, name + " belongs to another program",
                        "end that program: the extension needs this queue to filter"});
  } else if (is_running(facts)) {
    findings.push_back({"queue", "", Result::Problem, name + " has no program that serves it: all packets pass",
                        "sudo systemctl restart orvane-se.service"});
  }
}

void examine_list(const Facts& facts, std::vector<Finding>& findings) {
  auto add = [&findings](Result result, std::string found, std::string advice) {
    findings.push_back({"list", "", result, std::move(found), std::move(advice)});
  };
  if (!facts.list) {
    // If the keeper does not run, the finding about the keeper's service says so already.
    if (facts.keeper.running || !facts.listError.empty()) {
      add(Result::Unknown, facts.listError.empty() ? "the keeper has not written its state" : facts.listError, "");
    }
    return;
  }
  const KeeperState& state = *facts.list;
  if (state.listError) {
    add(Result::Problem, "the keeper cannot read it: " + *state.listError,
        "correct " + state.listPath + "; until then the previous list is in force");
  }
  if (state.watchError) {
    add(Result::Warning, "the keeper cannot watch all lists, and looks at them every 2 s: " + *state.watchError,
        "raise this limit: sysctl(8)");
  }
  if (state.badLines > 0) {
    add(Result::Warning, counted(state.badLines, "bad line", "bad lines") + " in " + state.listPath + " ignored",
        "to see them: orvanectl list");
  }
  if (state.guardError) {
    add(Result::Problem, "the keeper cannot save locks and delays, so they end with the keeper: " + *state.guardError,
        "correct this: the keeper tries again every 2 s");
  }
  for (const auto& group : state.groups) {
    if (group.unguardedSites > 0)
      add(Result::Warning,
          "the lock or delay of the group " + group.name + " does not cover " +
              counted(group.unguardedSites, "site", "sites"),
          "all groups with a lock or a delay together have room for about a million sites: remove some");
  }
  if (!state.connected) {
    add(Result::Problem, "the keeper has no connection to the extension: " + state.extensionError.value_or("none yet"),
        "see the findings on the extension above");
  } else if (state.sentVersion != state.listVersion) {
    add(Result::Warning, "the keeper has not sent the newest version yet",
        "run this again in a second; if nothing changes: journalctl -u orvane-keeper.service");
  } else {
    std::string found =
        counted(state.sites, "site", "sites") + ", " + counted(state.sentNames, "name", "names") + " sent";
    if (state.suspendedNames > 0) found += ", " + counted(state.suspendedNames, "name", "names") + " suspended";
    add(Result::Ok, found, "");
  }
  if (state.changesOfOthers > 0) {
    add(Result::Warning,
        counted(state.changesOfOthers, "edit", "edits") +
            " by other clients: not in the list, and lost when the extension ends or the list changes",
        "for a lasting edit: orvanectl block");
  }
}

void examine_read_only_lists(const Facts& facts, std::vector<Finding>& findings) {
  if (!facts.list) return;
  for (const auto& list : facts.list->readOnlyLists) {
    Finding finding{"read-only-list", in_quotes(list.path), Result::Ok, counted(list.names, "name", "names"), ""};
    if (list.error) {
      finding.result = Result::Problem;
      finding.found = (list.isInForce ? "its previous version is in force: " : "not in force: ") + *list.error;
      finding.advice = "make it a regular file that every user may read: chmod 0644";
    } else if (list.badLines > 0) {
      finding.result = Result::Warning;
      finding.found += ", " + counted(list.badLines, "bad line", "bad lines") + " ignored";
      finding.advice = "to see them: orvanectl list --from PATH";
    }
    findings.push_back(std::move(finding));
  }
}

// A service that has stopped is a problem if fetched lists are in force, because they become out of date.
void examine_subscriptions(const Facts& facts, std::vector<Finding>& findings) {
  if (has_fetched_lists(facts) || !facts.subscriptions.empty()) {
    Finding finding = examine_unit(facts.fetcher, "fetcher");
    if (!has_fetched_lists(facts) && finding.result == Result::Problem) finding.result = Result::Warning;
    findings.push_back(std::move(finding));
  }
  if (!facts.fetcherError.empty())
    findings.push_back({"subscription", "", Result::Problem,
                        "orvane-fetcher cannot read the subscriptions: " + facts.fetcherError, ""});
  if (facts.fetcherError.empty() && !facts.subscriptionsError.empty())
    findings.push_back({"subscription", "", Result::Unknown, facts.subscriptionsError, ""});
  for (const std::string& bad : facts.badSubscriptions)
    findings.push_back({"subscription", "", Result::Warning, bad, ""});
  for (const SubscriptionFacts& each : facts.subscriptions) {
    if (each.error) {
      findings.push_back({"subscription", each.name, Result::Warning, "the last fetch failed: " + *each.error,
                          each.isWaiting
                              ? "to use the list that has shrunk: orvanectl refresh " + each.name + " --accept"
                              : "to try again: orvanectl refresh " + each.name});
    } else if (!each.isFetched) {
      findings.push_back({"subscription", each.name, Result::Warning, "it has not been fetched yet",
                          "orvanectl refresh " + each.name});
    }
  }
}

}  // namespace

std::vector<Finding> examine(const Facts& facts) {
  std::vector<Finding> findings;
  findings.push_back(examine_unit(facts.extension, "service"));
  findings.push_back(examine_unit(facts.keeper, "keeper"));
  examine_subscriptions(facts, findings);
  findings.push_back(examine_connection(facts));
  examine_clients(facts, findings);
  examine_processes(facts, findings);
  examine_capabilities(facts, findings);
  findings.push_back(examine_programs(facts));
  findings.push_back(examine_kernel(facts));
  examine_rules(facts, findings);
  examine_queue(facts, findings);
  examine_list(facts, findings);
  examine_read_only_lists(facts, findings);
  examine_browsers(facts, findings);
  return findings;
}

}  // namespace orvane
