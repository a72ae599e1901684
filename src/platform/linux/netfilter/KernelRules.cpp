#include "platform/linux/netfilter/KernelRules.h"

#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string_view>

#include "platform/files/Descriptor.h"
#include "platform/linux/base/Command.h"
#include "platform/linux/netfilter/KernelRulesText.h"

namespace orvane {
namespace {

constexpr int kAttempts = 3;
// Limit on the time to remove the rules of one address family. The removal takes about 40 ms, but the iptables programs
// may hang, and the service must be able to end even then. Rules that are not removed block no new connection, because
// the kernel passes packets when no process has the queue.
constexpr auto kRemovalTime = std::chrono::milliseconds(700);

// Counts our rules in `text`: the input of iptables-restore, or the output of iptables-save.
size_t count_rules(std::string_view text) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find("-A ORVANE-", at)) != std::string_view::npos; ++at) ++count;
  return count;
}

std::string jump_removals(const SavedTable& table) {
  std::string text;
  for (const std::string& jump : table.jumps) text += "-D" + jump.substr(2) + "\n";
  return text;
}

// Whether the table has a chain of ours that `text` does not define. Such a chain was made by another version of the
// extension.
bool has_other_chains(const SavedTable& table, std::string_view text) {
  return std::any_of(table.chains.begin(), table.chains.end(), [text](const std::string& chain) {
    return text.find("\n:" + chain + " ") == std::string_view::npos;
  });
}

// Returns the script that makes our jumps the first rules of their built-in chains. The script first deletes the jumps
// that iptables-save has listed, because -I alone would add a second jump. It deletes only listed jumps, because
// -D fails if the rule does not exist. iptables-restore changes each table in one transaction, so no packet meets a
// table without its jumps.
std::string jump_script(const SavedTables& saved) {
  auto insertions = [](const std::vector<std::string>& chains) {
    std::string text;
    for (const std::string& chain : chains) text.append("-I ").append(chain).append(" 1 -j ORVANE-" + chain + "\n");
    return text + "COMMIT\n";
  };
  return "*filter\n" + jump_removals(saved.filter) + insertions(kFilterChains) + "*mangle\n" +
         jump_removals(saved.mangle) + insertions(kMangleChains);
}

bool has_jumps(const SavedTables& saved) {
  return saved.filter.isIntact(kFilterChains) && saved.mangle.isIntact(kMangleChains);
}

std::string removal_script(const char* name, const SavedTable& table) {
  if (table.chains.empty()) return {};
  std::string text = std::string("*") + name + "\n" + jump_removals(table);
  for (const char* command : {"-F ", "-X "}) {
    for (const std::string& chain : table.chains) text += command + chain + "\n";
  }
  return text + "COMMIT\n";
}

// Returns the script that removes our rules from both tables. Table mangle comes first: its rules ask for verdicts, and
// the rules of table filter, which carry out the verdicts, must last until no more verdicts are asked for.
std::string removal_script(const SavedTables& saved) {
  return removal_script("mangle", saved.mangle) + removal_script("filter", saved.filter);
}

// The rules of one address family.
class Family {
 public:
  explicit Family(AddressFamily family) : family_(family) {}

  // Whether the network namespace has the address family. A kernel without IPv6 needs no IPv6 rules, and ip6tables
  // would fail.
  bool isAvailable() const {
    return family_ == AddressFamily::IPv4 || access("/proc/thread-self/net/if_inet6", F_OK) == 0;
  }

  // Makes the text that install() installs. Returns an error on failure.
  std::optional<std::string> prepare(const NEFilterSettings& settings) {
    std::string error;
    auto text = kernel_rules_text(settings, family_, error);
    if (!text) return error;
    text_ = *text;
    return std::nullopt;
  }

  // Installs the text from prepare(). Tries several times, because other programs may change the rules between our
  // reading and our writing.
  std::optional<std::string> install(const CommandLimit& limit = {}) {
    std::string error;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      auto before = read(error, limit);
      if (!before) continue;
      const std::string_view text = text_;
      const size_t mangle = text.find("*mangle");
      if (has_other_chains(before->filter, text.substr(0, mangle)) ||
          has_other_chains(before->mangle, text.substr(mangle))) {
        // Another version of the extension has left its chains. From their removal until the new rules are installed,
        // the kernel has no rules of ours.
        if (!restore(removal_script(*before), error, limit)) continue;
        before = read(error, limit);
        if (!before) continue;
      }
      if (!restore(text_ + jump_script(*before), error, limit)) continue;
      const auto after = read(error, limit);
      if (!after) continue;
      error = "another program changes the kernel's rules all the time";
      if (!has_jumps(*after)) continue;
      installedText_ = after->filter.lines + after->mangle.lines;
      if (count_rules(installedText_) == count_rules(text_)) return std::nullopt;
    }
    return error;
  }

  bool isIntact(const CommandLimit& limit) const {
    std::string error;
    const auto saved = read(error, limit);
    return saved && has_jumps(*saved) && saved->filter.lines + saved->mangle.lines == installedText_;
  }

  std::optional<std::string> remove() const {
    const CommandLimit limit{deadline_after(kRemovalTime)};
    std::string error;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      const auto saved = read(error, limit);
      if (!saved) continue;
      const std::string text = removal_script(*saved);
      if (text.empty() || restore(text, error, limit)) return std::nullopt;
    }
    return error;
  }

  // Whether the kernel sends messages when rules change. The kernel sends them for the iptables back end nf_tables, but
  // not for the legacy back end.
  bool reportsChanges() const {
    return run_command({program("restore"), "--version"}).output.find("nf_tables") != std::string::npos;
  }

 private:
  std::string program(const char* action) const {
    return std::string(family_ == AddressFamily::IPv4 ? "iptables-" : "ip6tables-") + action;
  }

  std::optional<SavedTables> read(std::string& error, const CommandLimit& limit) const {
    const CommandResult result = run_command({program("save")}, {}, limit);
    if (result.success) return parse_saved_tables(result.output);
    error = result.error + (result.missing ? " (package iptables)" : "");
    return std::nullopt;
  }

  bool restore(const std::string& text, std::string& error, const CommandLimit& limit) const {
    const CommandResult result = run_command({program("restore"), "--noflush", "--wait", "5"}, text, limit);
    error = result.error;
    return result.success;
  }

  AddressFamily family_;
  std::string text_;           // input of iptables-restore
  std::string installedText_;  // our chains and rules as iptables-save printed them after the installation
};

// A netlink socket that receives a message for every change to the nf_tables rules of the network namespace.
Descriptor open_change_socket() {
  Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_NETFILTER));
  sockaddr_nl address{AF_NETLINK, 0, 0, 1U << (NFNLGRP_NFTABLES - 1)};
  if (bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return {};
  return socket;
}

// Only the fact of a change matters, so the messages are discarded. ENOBUFS (messages were lost) also means that
// something changed.
void drain(int socket) {
  char buffer[256];
  while (recv(socket, buffer, sizeof buffer, 0) >= 0 || errno == ENOBUFS || errno == EINTR) {
  }
}

}  // namespace

struct KernelRules::Implementation {
  std::array<Family, 2> families{Family(AddressFamily::IPv4), Family(AddressFamily::IPv6)};
  Descriptor changes;
  bool installed = false;

  std::optional<std::string> install() {
    for (Family& family : families) {
      if (!family.isAvailable()) continue;
      if (auto error = family.install()) return error;
    }
    return std::nullopt;
  }
  std::optional<std::string> remove() {
    std::optional<std::string> error;
    for (const Family& family : families) {
      if (!family.isAvailable()) continue;
      if (auto failure = family.remove()) error = std::move(failure);
    }
    installed = false;
    return error;
  }
};

KernelRules::KernelRules() : implementation_(std::make_unique<Implementation>()) {}
KernelRules::~KernelRules() = default;

std::optional<std::string> KernelRules::install(const NEFilterSettings& settings) {
  Implementation& own = *implementation_;
  own.changes.reset();
  for (Family& family : own.families) {
    if (auto error = family.prepare(settings)) {
      own.remove();
      return error;
    }
  }
  // The socket is opened before the rules are read for the first time, so that no later change is missed.
  if (std::all_of(own.families.begin(), own.families.end(),
                  [](Family& family) { return !family.isAvailable() || family.reportsChanges(); })) {
    own.changes = open_change_socket();
  }
  if (auto error = own.install()) {
    own.remove();
    return error;
  }
  own.installed = true;
  return std::nullopt;
}

int KernelRules::changeDescriptor() const { return implementation_->changes.get(); }

KernelRules::State KernelRules::check(std::string& error, int stop) {
  Implementation& own = *implementation_;
  // Discard the messages before the check, so that a change during the check wakes the calling thread again. Our own
  // repair is a change, so it wakes the thread, too; the next check then finds the rules intact.
  if (own.changes) drain(own.changes.get());
  if (!own.installed) return State::Intact;
  State state = State::Intact;
  for (Family& family : own.families) {
    const CommandLimit limit{.stop = stop};
    if (!family.isAvailable() || family.isIntact(limit)) continue;
    if (state == State::Intact) state = State::Repaired;
    if (auto reason = family.install(limit)) {
      state = State::Broken;
      error = *reason;
    }
  }
  return state;
}

std::optional<std::string> KernelRules::remove() { return implementation_->remove(); }

}  // namespace orvane
