#include "platform/linux/netfilter/KernelRules.h"

#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <vector>

#include "platform/linux/base/Command.h"
#include "platform/linux/base/Descriptor.h"

namespace orvane {
namespace {

constexpr int kAttempts = 3;

// What one table holds that is ours, as iptables-save(8) writes it.
struct Table {
  std::string lines;                // the chains and their rules
  std::vector<std::string> chains;  // names
  std::vector<std::string> jumps;   // the rules of OUTPUT that lead into our chains
  bool led = false;                 // the only jump stands first in OUTPUT
};

struct Tables {
  Table filter, mangle;
};

void read_line(std::string_view line, Table& table, bool& outputBegun) {
  if (line.starts_with(":ORVANE-")) table.chains.emplace_back(line.substr(1, line.find(' ') - 1));
  if (line.starts_with(":ORVANE-") || line.starts_with("-A ORVANE-")) table.lines.append(line) += '\n';
  if (!line.starts_with("-A OUTPUT ")) return;
  const bool ours = line.find(" ORVANE-OUTPUT") != std::string_view::npos;
  if (ours) table.jumps.emplace_back(line);
  table.led = outputBegun ? table.led && !ours : line == kJump;
  outputBegun = true;
}

Tables read_tables(std::string_view saved) {
  Tables tables;
  Table* table = nullptr;
  bool outputBegun = false;
  while (!saved.empty()) {
    const std::string_view line = saved.substr(0, saved.find('\n'));
    saved.remove_prefix(std::min(line.size() + 1, saved.size()));
    if (line.starts_with('*')) {
      table = line == "*filter" ? &tables.filter : line == "*mangle" ? &tables.mangle : nullptr;
      outputBegun = false;
    } else if (table != nullptr) {
      read_line(line, *table, outputBegun);
    }
  }
  return tables;
}

// Of iptables-save's and of our own text alike.
size_t count_rules(std::string_view text) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find("-A ORVANE-", at)) != std::string_view::npos; ++at) ++count;
  return count;
}

std::string jumps_away(const Table& table) {
  std::string text;
  for (const std::string& jump : table.jumps) text += "-D" + jump.substr(2) + "\n";
  return text;
}

// Whether the table has a chain of ours that is not in `text`: another version's.
bool has_others(const Table& table, std::string_view text) {
  return std::any_of(table.chains.begin(), table.chains.end(), [text](const std::string& chain) {
    return text.find("\n:" + chain + " ") == std::string_view::npos;
  });
}

// In one transaction for each table, so there is no moment without the jump. A -D of a rule that is not there would
// abort it, and a plain -I leave a second jump.
std::string jumps_first(const Tables& now) {
  const std::string first = "-I OUTPUT 1 -j ORVANE-OUTPUT\nCOMMIT\n";
  return "*filter\n" + jumps_away(now.filter) + first + "*mangle\n" + jumps_away(now.mangle) + first;
}

std::string all_away(const char* name, const Table& table) {
  if (table.chains.empty()) return {};
  std::string text = std::string("*") + name + "\n" + jumps_away(table);
  for (const char* command : {"-F ", "-X "}) {
    for (const std::string& chain : table.chains) text += command + chain + "\n";
  }
  return text + "COMMIT\n";
}

// The rules of one family.
class Family {
 public:
  explicit Family(AddressFamily family) : family_(family) {}

  // Whether the network namespace has it. Nothing needs rules in a kernel without IPv6, and ip6tables fails there.
  bool there() const { return family_ == AddressFamily::IPv4 || access("/proc/thread-self/net/if_inet6", F_OK) == 0; }

  // Takes over what put() is to put there.
  std::optional<std::string> prepare(const NEFilterSettings& settings) {
    std::string error;
    auto text = kernel_rules_text(settings, family_, error);
    if (!text) return error;
    text_ = *text;
    return std::nullopt;
  }

  // Several attempts, as another program may change the rules between our look at them and our change.
  std::optional<std::string> put() {
    std::string error;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      auto before = read(error);
      if (!before) continue;
      const std::string_view text = text_;
      const size_t mangle = text.find("*mangle");
      if (has_others(before->filter, text.substr(0, mangle)) || has_others(before->mangle, text.substr(mangle))) {
        // A moment without rules, which comes with a change of versions alone.
        if (!restore(all_away("mangle", before->mangle) + all_away("filter", before->filter), error)) continue;
        before = read(error);
        if (!before) continue;
      }
      if (!restore(text_ + jumps_first(*before), error)) continue;
      const auto after = read(error);
      if (!after) continue;
      error = "another program changes the kernel's rules all the time";
      if (!after->filter.led || !after->mangle.led) continue;
      placed_ = after->filter.lines + after->mangle.lines;
      if (count_rules(placed_) == count_rules(text_)) return std::nullopt;
    }
    return error;
  }

  bool intact() const {
    std::string error;
    const auto now = read(error);
    return now && now->filter.led && now->mangle.led && now->filter.lines + now->mangle.lines == placed_;
  }

  std::optional<std::string> remove() const {
    std::string error;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      const auto now = read(error);
      if (!now) continue;
      // First what asks for verdicts, then what carries them out.
      const std::string text = all_away("mangle", now->mangle) + all_away("filter", now->filter);
      if (text.empty() || restore(text, error)) return std::nullopt;
    }
    return error;
  }

  // Whether the kernel tells of changes: its rules are nf_tables'.
  bool tells() const {
    return run_command({program("restore"), "--version"}).output.find("nf_tables") != std::string::npos;
  }

 private:
  std::string program(const char* action) const {
    return std::string(family_ == AddressFamily::IPv4 ? "iptables-" : "ip6tables-") + action;
  }

  std::optional<Tables> read(std::string& error) const {
    const CommandResult result = run_command({program("save")});
    if (result.success) return read_tables(result.output);
    error = result.error + (result.missing ? " (package iptables)" : "");
    return std::nullopt;
  }

  bool restore(const std::string& text, std::string& error) const {
    const CommandResult result = run_command({program("restore"), "--noflush", "--wait", "5"}, text);
    error = result.error;
    return result.success;
  }

  AddressFamily family_;
  std::string text_;    // for the restoring program
  std::string placed_;  // what the saving program said of it once it was in the kernel
};

// A socket that hears of every change to the namespace's nf_tables.
Descriptor open_changes() {
  Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_NETFILTER));
  sockaddr_nl address{AF_NETLINK, 0, 0, 1U << (NFNLGRP_NFTABLES - 1)};
  if (bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return {};
  return socket;
}

// That something changed is all the news there is: so much the same when the kernel could not keep all of it (ENOBUFS).
void discard_news(int socket) {
  char buffer[256];
  while (recv(socket, buffer, sizeof buffer, 0) >= 0 || errno == ENOBUFS || errno == EINTR) {
  }
}

}  // namespace

struct KernelRules::Implementation {
  std::array<Family, 2> families{Family(AddressFamily::IPv4), Family(AddressFamily::IPv6)};
  Descriptor changes;
  bool installed = false;

  std::optional<std::string> put() {
    for (Family& family : families) {
      if (!family.there()) continue;
      if (auto error = family.put()) return error;
    }
    return std::nullopt;
  }
  std::optional<std::string> remove() {
    std::optional<std::string> error;
    for (const Family& family : families) {
      if (!family.there()) continue;
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
  // Before the first look at the rules, so that no change is missed.
  if (std::all_of(own.families.begin(), own.families.end(), [](Family& f) { return !f.there() || f.tells(); })) {
    own.changes = open_changes();
  }
  if (auto error = own.put()) {
    own.remove();
    return error;
  }
  own.installed = true;
  return std::nullopt;
}

int KernelRules::changes() const { return implementation_->changes.get(); }

KernelRules::State KernelRules::check(std::string& error) {
  Implementation& own = *implementation_;
  // First: what happens from here on is heard of again. Our own repair is, too, and found intact then.
  if (own.changes) discard_news(own.changes.get());
  if (!own.installed) return State::Intact;
  State state = State::Intact;
  for (Family& family : own.families) {
    if (!family.there() || family.intact()) continue;
    if (state == State::Intact) state = State::Repaired;
    if (auto reason = family.put()) {
      state = State::Broken;
      error = *reason;
    }
  }
  return state;
}

std::optional<std::string> KernelRules::remove() { return implementation_->remove(); }

}  // namespace orvane
