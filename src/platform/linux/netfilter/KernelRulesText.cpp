#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <utility>

#include "platform/linux/netfilter/KernelRules.h"

namespace orvane {
namespace {

constexpr const char* kProtocols[] = {"tcp", "udp"};

// "The packet is longer than its headers", as xt_bpf wants it (the output of nfbpf_compile). Matches on the PSH flag,
// on a length or by u32 miss data on the SYN, tiny payloads or the first segment of a narrow window, or take the SYN
// itself. In IPv6, a packet with extension headers matches too: where its TCP header begins is user space's to find.
constexpr const char* kHasPayload4 =
    "10,177 0 0 0,80 0 0 12,116 0 0 2,84 0 0 60,12 0 0 0,7 0 0 0,128 0 0 0,45 0 1 0,6 0 0 4294967295,6 0 0 0";
constexpr const char* kHasPayload6 =
    "11,48 0 0 6,21 0 7 6,48 0 0 52,116 0 0 2,84 0 0 60,4 0 0 40,7 0 0 0,128 0 0 0,45 0 1 0,6 0 0 4294967295,6 0 0 0";

std::string marked(uint32_t value) {
  char text[24];
  snprintf(text, sizeof text, "0x%x/0x%x", value, kMarkMask);
  return text;
}

// The port's number, 0 for any. Nothing when the protocol has no service of the name.
std::optional<uint16_t> port_number(const std::string& port, const char* protocol) {
  uint16_t number = 0;
  const char* end = port.data() + port.size();
  auto [stop, error] = std::from_chars(port.data(), end, number);
  if (error == std::errc() && stop == end) return number;

  servent entry{};
  servent* found = nullptr;
  char storage[1024];
  getservbyname_r(port.c_str(), protocol, &entry, storage, sizeof storage, &found);
  if (found == nullptr) return std::nullopt;
  return ntohs(static_cast<uint16_t>(found->s_port));
}

// The chain that sorts new connections.
class NewConnections {
 public:
  explicit NewConnections(AddressFamily family) : family_(family) {}

  // Returns false, with error() set, for a rule that cannot be said.
  bool add(const NENetworkRule& rule, NEFilterAction action) {
    if (rule.direction == NETrafficDirection::Inbound) return true;
    std::string ends;
    bool possible = true;
    if (!network(rule.localNetwork, rule.localPrefix, " -s ", ends, possible)) return false;
    if (!network(rule.remoteNetwork, rule.remotePrefix, " -d ", ends, possible)) return false;

    bool said = false;
    for (const char* protocol : kProtocols) {
      const auto only = protocol == kProtocols[0] ? NENetworkRuleProtocol::TCP : NENetworkRuleProtocol::UDP;
      if (rule.protocol != NENetworkRuleProtocol::Any && rule.protocol != only) continue;
      std::string match = std::string(" -p ") + protocol + ends;
      if (!port(rule.localNetwork, protocol, " --sport ", match)) continue;
      if (!port(rule.remoteNetwork, protocol, " --dport ", match)) continue;
      said = true;
      if (possible) decide(match, action);
    }
    return said;
  }

  void decide(const std::string& match, NEFilterAction action) {
    const std::string rule = "-A ORVANE-NEW" + match;
    if (action == NEFilterAction::FilterData) {
      text_ += rule + " -g ORVANE-PENDING\n";
    } else {
      if (action == NEFilterAction::Drop) text_ += rule + " -j CONNMARK --set-xmark " + marked(kMarkDropped) + "\n";
      text_ += rule + " -j RETURN\n";
    }
  }

  const std::string& text() const { return text_; }
  const std::string& error() const { return error_; }

 private:
  // Adds what an end's address asks for. `possible` becomes false when no packet of this family can have it.
  bool network(const Ref<NWHostEndpoint>& end, uint64_t prefix, const char* option, std::string& match,
               bool& possible) {
    if (end == nullptr || end->hostname().empty()) return true;
    uint8_t bytes[16];
    const bool v4 = inet_pton(AF_INET, end->hostname().c_str(), bytes) == 1;
    if (!v4 && inet_pton(AF_INET6, end->hostname().c_str(), bytes) != 1) {
      error_ = "a filter rule names the host " + end->hostname() + ": the kernel's rules know addresses only";
      return false;
    }
    const uint64_t longest = v4 ? 32 : 128;
    if (v4 != (family_ == AddressFamily::IPv4)) possible = false;
    match += option + end->hostname() + "/" + std::to_string(prefix == 0 ? longest : std::min(prefix, longest));
    return true;
  }

  bool port(const Ref<NWHostEndpoint>& end, const char* protocol, const char* option, std::string& match) {
    if (end == nullptr) return true;
    const auto number = port_number(end->port(), protocol);
    if (!number) {
      error_ = "a filter rule names the port \"" + end->port() + "\": neither a port's number nor a known service";
      return false;
    }
    if (*number != 0) match += option + std::to_string(*number);
    return true;
  }

  AddressFamily family_;
  std::string text_, error_;
};

// Both tables. A packet without a connection (NOTRACK rules, out of a connection's window) matches no test of the
// connection's mark, nor the contrary of one.
//
// Mangle marks connections at their begin, and hands those that wait for a verdict to the queue. The direction is
// tested since both ends of a connection of this machine to itself send here. What the queue has looked at comes
// through mangle once more, with the answer as its mark: that is kept with the connection, and the packet meets the
// rules of others as if it had never been away. Where the answer is that the verdict is still open, the mark is that of
// a pending connection, so that the packet is known and not queued again; it is not kept, as the verdict may have come
// meanwhile. Marks count on connections of ours alone: those of others may use the same bits.
//
// A packet whose mark is not what it was, after mangle or after a queue, is routed anew, and as if no user had sent it.
// So an allowed packet's mark must not change there: it goes to the queue as allowed, which is also what becomes of a
// connection when nobody is there to ask. Filter takes our bits off. It keeps the answer too, for a packet that comes
// from the queue without a second turn. The reset that answers a dropped connection belongs to that connection itself,
// and must get out.
//
// A SYN begins anew, whatever is known of its two ends: the tracking may take a connection that uses the ports of one
// that was reset for the same one. Of resets, those with an acknowledgment are the end of the sender's own connection;
// a bare one answers a stray segment, such as the first of what the other end believes is still the old connection.
constexpr const char* kTables = R"(*filter
:ORVANE-OUTPUT - [0:0]
:ORVANE-VERDICT - [0:0]
:ORVANE-DROP - [0:0]
-A ORVANE-OUTPUT -m connmark ! --mark @NONE -m mark ! --mark @NONE -j ORVANE-VERDICT
-A ORVANE-OUTPUT -m connmark --mark @DROPPED -j ORVANE-DROP
-A ORVANE-VERDICT -m mark ! --mark @PENDING -j CONNMARK --save-mark --nfmask @MASK --ctmask @MASK
-A ORVANE-VERDICT -j MARK --set-xmark @NONE
-A ORVANE-DROP -p tcp --tcp-flags RST RST -j RETURN
-A ORVANE-DROP -p tcp -j REJECT --reject-with tcp-reset
-A ORVANE-DROP -j REJECT --reject-with @UNREACHABLE
COMMIT
*mangle
:ORVANE-OUTPUT - [0:0]
:ORVANE-NEW - [0:0]
:ORVANE-PENDING - [0:0]
:ORVANE-QUEUE - [0:0]
:ORVANE-ASK - [0:0]
:ORVANE-VERDICT - [0:0]
-A ORVANE-OUTPUT -m connmark ! --mark @NONE -m mark ! --mark @NONE -g ORVANE-VERDICT
-A ORVANE-OUTPUT -p tcp --tcp-flags SYN,ACK,RST,FIN SYN -m connmark ! --mark @NONE -j CONNMARK --set-xmark @NONE
-A ORVANE-OUTPUT -p tcp --tcp-flags SYN,ACK,RST,FIN SYN -j ORVANE-NEW
-A ORVANE-OUTPUT -p udp -m conntrack --ctstate NEW -m connmark --mark @NONE -j ORVANE-NEW
-A ORVANE-OUTPUT -m connmark --mark @PENDING -m conntrack --ctdir ORIGINAL -j ORVANE-QUEUE
@NEW_CONNECTIONS-A ORVANE-PENDING -j CONNMARK --set-xmark @PENDING
-A ORVANE-QUEUE -p tcp -m bpf --bytecode "@HAS_PAYLOAD" -g ORVANE-ASK
-A ORVANE-QUEUE -p tcp --tcp-flags FIN FIN -g ORVANE-ASK
-A ORVANE-QUEUE -p tcp --tcp-flags RST,ACK RST,ACK -g ORVANE-ASK
-A ORVANE-QUEUE -p udp -g ORVANE-ASK
-A ORVANE-ASK -j MARK --set-xmark @ALLOWED
-A ORVANE-ASK @QUEUE
-A ORVANE-VERDICT -m mark ! --mark @PENDING -j CONNMARK --save-mark --nfmask @MASK --ctmask @MASK
COMMIT
)";

std::string tables(AddressFamily family, const std::string& newConnections) {
  const bool v4 = family == AddressFamily::IPv4;
  const std::pair<std::string_view, std::string> values[] = {
      {"@NONE", marked(0)},
      {"@PENDING", marked(kMarkPending)},
      {"@DROPPED", marked(kMarkDropped)},
      {"@MASK", std::to_string(kMarkMask)},
      {"@UNREACHABLE", v4 ? "icmp-port-unreachable" : "icmp6-port-unreachable"},
      {"@NEW_CONNECTIONS", newConnections},
      {"@HAS_PAYLOAD", v4 ? kHasPayload4 : kHasPayload6},
      {"@ALLOWED", marked(kMarkAllowed)},
      {"@QUEUE", "-j NFQUEUE --queue-num " + std::to_string(kQueueNumber) + " --queue-bypass"},
  };
  std::string text = kTables;
  for (const auto& [name, value] : values) {
    for (size_t at = 0; (at = text.find(name, at)) != std::string::npos; at += value.size()) {
      text.replace(at, name.size(), value);
    }
  }
  return text;
}

}  // namespace

std::optional<std::string> kernel_rules_text(const NEFilterSettings& settings, AddressFamily family,
                                             std::string& error) {
  NewConnections connections(family);
  for (const NEFilterRule& rule : settings.rules) {
    if (connections.add(rule.networkRule, rule.action)) continue;
    error = connections.error();
    return std::nullopt;
  }
  connections.decide("", settings.defaultAction);
  // The answers to verdicts are there before anything waits for one.
  return tables(family, connections.text());
}

}  // namespace orvane
