#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/NetworkExtension.h"

namespace orvane {

// Bits of the packet's and the connection's mark that are the extension's, in both tables of both families. They leave
// alone those that VPNs and container engines use; docs/linux.md lists them.
inline constexpr uint32_t kMarkMask = 0x12000000;
inline constexpr uint32_t kMarkPending = 0x02000000;  // its payload goes to the queue
inline constexpr uint32_t kMarkAllowed = 0x10000000;
inline constexpr uint32_t kMarkDropped = 0x12000000;

// The mark with which a packet leaves the queue: one of those above in place of our bits, the others as they were. The
// packet goes through the rules once more, which move our bits to the connection's mark. It comes with that of an
// allowed one, and is routed anew when it leaves with another.
constexpr uint32_t answer_mark(uint32_t packetMark, uint32_t answer) { return (packetMark & ~kMarkMask) | answer; }

// The packet queue of a network namespace (nfnetlink_queue) that the rules name.
inline constexpr uint16_t kQueueNumber = 20743;

enum class AddressFamily { IPv4, IPv6 };

// The rule that leads from OUTPUT into the chains, in each table, as iptables-save(8) prints it.
inline constexpr std::string_view kJump = "-A OUTPUT -j ORVANE-OUTPUT";

// The rules of one family as input for iptables-restore(8) or ip6tables-restore(8) with --noflush: the chains with
// their rules, without the jumps from OUTPUT into them. Nothing, with `error` set, when a rule cannot be said to the
// kernel: it names a host by name, or a service that nobody knows.
std::optional<std::string> kernel_rules_text(const NEFilterSettings& settings, AddressFamily family,
                                             std::string& error);

// The settings as rules of the kernel, in the network namespace that the calling thread is in. Not thread-safe.
class KernelRules {
 public:
  KernelRules();
  ~KernelRules();  // leaves the rules in place; see remove()

  // Puts them in place of those that a predecessor may have left. Returns what went wrong, with nothing of ours left
  // in the kernel then.
  std::optional<std::string> install(const NEFilterSettings& settings);

  // A descriptor that becomes readable when some program, this one included, has changed the kernel's rules; -1 when
  // the kernel cannot tell (its rules are not nf_tables'): then ask check() every half second.
  int changes() const;

  enum class State { Intact, Repaired, Broken };
  // Looks whether all is in place still, chains and jumps, and the jumps first in their tables; puts back what is
  // not. Takes what changes() had to say. `error` says why, when Broken.
  State check(std::string& error);

  // Takes the rules away. No harm when they are not there. Returns what went wrong.
  std::optional<std::string> remove();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace orvane
