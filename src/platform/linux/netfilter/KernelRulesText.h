#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/NetworkExtension.h"

// The extension's kernel rules as text: written for iptables-restore(8), and found in the output of iptables-save(8).
namespace orvane {

// The extension's bits in the marks of packets and connections. The tables filter and mangle use the same bits, for
// IPv4 and for IPv6. Most other programs use other bits; docs/linux.md names them and the exceptions.
inline constexpr uint32_t kMarkMask = 0x12000000;
inline constexpr uint32_t kMarkPending = 0x02000000;  // the connection's payload goes to the queue
inline constexpr uint32_t kMarkAllowed = 0x10000000;
inline constexpr uint32_t kMarkDropped = 0x12000000;

// The mark with which a packet leaves the queue: `packetMark`, with our bits replaced by `answer`, which is
// kMarkPending, kMarkAllowed or kMarkDropped.
constexpr uint32_t answer_mark(uint32_t packetMark, uint32_t answer) { return (packetMark & ~kMarkMask) | answer; }

// The packet queue (nfnetlink_queue) that the rules name; each network namespace has its own queues.
inline constexpr uint16_t kQueueNumber = 20743;

// The built-in chains that jump to our chains, in the order in which iptables-save(8) prints them.
inline const std::vector<std::string> kFilterChains{"OUTPUT"};
inline const std::vector<std::string> kMangleChains{"INPUT", "OUTPUT"};

// The rule that jumps from a built-in chain to our chain for it, as iptables-save(8) prints the rule:
// "-A OUTPUT -j ORVANE-OUTPUT".
std::string jump_from(const std::string& chain);

enum class AddressFamily { IPv4, IPv6 };

// The rules of one address family, as input for iptables-restore(8) or ip6tables-restore(8) with --noflush: our chains
// and their rules, first of table filter, then of table mangle, without the jumps from the built-in chains. Returns
// nothing and sets `error` if a rule of the settings has a host name or an unknown service, which kernel rules cannot
// match.
std::optional<std::string> kernel_rules_text(const NEFilterSettings& settings, AddressFamily family,
                                             std::string& error);

// Our part of one table in the output of iptables-save(8).
struct SavedTable {
  std::string lines;                        // our chains and their rules, as printed
  std::vector<std::string> chains;          // the names of our chains
  std::vector<std::string> jumps;           // all rules that jump from built-in chains to our chains
  std::vector<std::string> chainsWithJump;  // the built-in chains whose first rule is jump_from()

  // Whether jump_from() is the first rule of each chain in `chainsOfKernel`, and no other rule jumps to our chains.
  bool isIntact(const std::vector<std::string>& chainsOfKernel) const {
    return chainsWithJump == chainsOfKernel && jumps.size() == chainsOfKernel.size();
  }
};

struct SavedTables {
  SavedTable filter, mangle;
};

// Finds our chains and jumps in the output of iptables-save(8) or ip6tables-save(8).
SavedTables parse_saved_tables(std::string_view saved);

}  // namespace orvane
