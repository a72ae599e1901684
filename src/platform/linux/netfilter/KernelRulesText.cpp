#include "platform/linux/netfilter/KernelRulesText.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/linux/flow/FilterRules.h"

namespace orvane {
namespace {

// Programs for the match xt_bpf, as nfbpf_compile prints them. They match a TCP packet with payload. Each simpler match
// (the PSH flag, a length, u32) is wrong for some packets. Some of these matches miss data on the SYN, tiny payloads,
// or a first segment that is short because the receiver's window is small; others match a SYN without data. The IPv6
// program cannot look behind extension headers, so it matches every packet that has them; parse_packet() then finds the
// TCP header.
constexpr const char* kHasPayload4 =
    "10,177 0 0 0,80 0 0 12,116 0 0 2,84 0 0 60,12 0 0 0,7 0 0 0,128 0 0 0,45 0 1 0,6 0 0 4294967295,6 0 0 0";
constexpr const char* kHasPayload6 =
    "11,48 0 0 6,21 0 7 6,48 0 0 52,116 0 0 2,84 0 0 60,4 0 0 40,7 0 0 0,128 0 0 0,45 0 1 0,6 0 0 4294967295,6 0 0 0";

// Programs that match a UDP datagram that begins with an Initial packet of QUIC, version 1 or 2 (RFC 9000, section
// 17.2.2; RFC 9369, section 3). They ignore the bits 0x4f of the first byte, which may have any value (RFC 9287). With
// these bits cleared, the datagram's first word and fifth byte are 0x80000000 and 0x01 in version 1, and 0x906b3343 and
// 0xcf in version 2. The IPv6 program matches no packet with extension headers; browsers do not send such packets.
constexpr const char* kIsInitial4 =
    "11,177 0 0 0,64 0 0 8,84 0 0 2969567231,21 0 2 2147483648,80 0 0 12,21 3 4 1,21 0 3 2422944579,80 0 0 12,"
    "21 0 1 207,6 0 0 4294967295,6 0 0 0";
constexpr const char* kIsInitial6 =
    "12,48 0 0 6,21 0 9 17,32 0 0 48,84 0 0 2969567231,21 0 2 2147483648,48 0 0 52,21 3 4 1,21 0 3 2422944579,"
    "48 0 0 52,21 0 1 207,6 0 0 4294967295,6 0 0 0";

std::string mark_and_mask(uint32_t value, uint32_t mask = kMarkMask) {
  char text[24];
  snprintf(text, sizeof text, "0x%x/0x%x", value, mask);
  return text;
}

// Makes the texts of the chains ORVANE-NEW and ORVANE-STRAY from the provider's rules. ORVANE-STRAY gets inbound
// packets, so the source of a packet is compared with the remote endpoint of a rule.
class ProviderChains {
 public:
  explicit ProviderChains(AddressFamily family) : family_(family) {}

  // Returns false and sets error() when the rule has a host name or an unknown service, which kernel rules cannot
  // match.
  bool add(const NENetworkRule& rule, NEFilterAction action) {
    if (rule.direction == NETrafficDirection::Inbound) return true;
    std::string ends, inboundEnds;
    bool canMatch = true;
    if (!network(rule.localNetwork, rule.localPrefix, {" -s ", " -d "}, ends, inboundEnds, canMatch)) return false;
    if (!network(rule.remoteNetwork, rule.remotePrefix, {" -d ", " -s "}, ends, inboundEnds, canMatch)) return false;

    bool added = false;
    for (auto protocol : {NENetworkRuleProtocol::TCP, NENetworkRuleProtocol::UDP}) {
      if (rule.protocol != NENetworkRuleProtocol::Any && rule.protocol != protocol) continue;
      const std::string name = protocol == NENetworkRuleProtocol::TCP ? " -p tcp" : " -p udp";
      std::string match = name + ends, inbound = name + inboundEnds;
      if (!port(rule.localNetwork, protocol, {" --sport ", " --dport "}, match, inbound)) continue;
      if (!port(rule.remoteNetwork, protocol, {" --dport ", " --sport "}, match, inbound)) continue;
      added = true;
      if (canMatch) decide(match, inbound, action);
    }
    return added;
  }

  void decide(const std::string& match, const std::string& inbound, NEFilterAction action) {
    const std::string rule = "-A ORVANE-NEW" + match;
    stray_ +=
        "-A ORVANE-STRAY" + inbound + (action == NEFilterAction::FilterData ? " -g ORVANE-INVALID\n" : " -j RETURN\n");
    if (action == NEFilterAction::FilterData) {
      text_ += rule + " -g ORVANE-PENDING\n";
    } else {
      if (action == NEFilterAction::Drop) {
        for (const char* target : {"MARK", "CONNMARK"}) {
          text_ += rule + " -j " + target + " --set-xmark " + mark_and_mask(kMarkDropped) + "\n";
        }
      }
      text_ += rule + " -j RETURN\n";
    }
  }

  const std::string& text() const { return text_; }
  const std::string& stray() const { return stray_; }
  const std::string& error() const { return error_; }

 private:
  struct Options {
    const char *outbound, *inbound;
  };

  // Appends the match of an endpoint's address to `match` for outbound packets, and to `inbound` for inbound packets.
  // If the address is of the other address family, no packet of family_ can match the rule, so the function sets
  // `canMatch` to false. Returns false and sets error_ if the endpoint has a host name instead of an address.
  bool network(const Ref<NWHostEndpoint>& end, uint64_t prefix, Options options, std::string& match,
               std::string& inbound, bool& canMatch) {
    if (end == nullptr || end->hostname().empty()) return true;
    uint8_t bytes[16];
    const bool v4 = inet_pton(AF_INET, end->hostname().c_str(), bytes) == 1;
    if (!v4 && inet_pton(AF_INET6, end->hostname().c_str(), bytes) != 1) {
      error_ = "a filter rule names the host " + end->hostname() + ": the kernel's rules know addresses only";
      return false;
    }
    const uint64_t longest = v4 ? 32 : 128;
    if (v4 != (family_ == AddressFamily::IPv4)) canMatch = false;
    const std::string text = end->hostname() + "/" + std::to_string(prefix == 0 ? longest : std::min(prefix, longest));
    match += options.outbound + text;
    inbound += options.inbound + text;
    return true;
  }

  bool port(const Ref<NWHostEndpoint>& end, NENetworkRuleProtocol protocol, Options options, std::string& match,
            std::string& inbound) {
    if (end == nullptr) return true;
    const auto number = port_number(end->port(), protocol);
    if (!number) {
      error_ = "a filter rule names the port \"" + end->port() + "\": neither a port's number nor a known service";
      return false;
    }
    if (*number == 0) return true;
    match += options.outbound + std::to_string(*number);
    inbound += options.inbound + std::to_string(*number);
    return true;
  }

  AddressFamily family_;
  std::string text_, stray_, error_;
};

// What happens to a packet in three chains (ORVANE-OUTPUT of both tables, and ORVANE-INPUT), and in the chains to which
// they jump. The columns are: the condition, the chain (if any) to which the packet then goes, and what happens there.
// "Bits" are our bits (kMarkMask) of a mark; a packet or connection "has bits" if they are not all 0. In each of the
// three chains, the first rule returns if the connection is allowed (in table filter: if it is not dropped) and the
// packet has no bits. Most packets are of this kind, and no later rule would match them. In mangle OUTPUT, the first
// rule matches only TCP packets that are not SYNs, because later rules clear the connection's bits at each SYN, and
// queue the Initial packets of allowed UDP conversations. The packets of a connection without a verdict pass more
// rules, so the order of the rules is chosen to keep their number small.
//
//   mangle OUTPUT <---------------------------------------------------------------------------------------+
//     TCP without a valid connection,                  nothing: table filter carries out the answer       |
//       packet has bits                                                                                   |
//     packet and connection have bits         VERDICT  save the packet's bits to the connection,          |
//                                                      unless they are "pending"                          |
//     TCP SYN: clear the connection's bits    SYN      NEW, then QUEUE if the connection is pending       |
//     TCP, connection pending, packet in its  QUEUE    as below                                           |
//       original direction                                                                                |
//     first packet of a UDP conversation      NEW      the provider's rules: the connection gets          |
//                                                      "pending" (chain PENDING), "dropped" or no bits    |
//     other TCP that begins a connection      NEW      as for a SYN                                       |
//     TCP without a valid connection          NEW      goes to QUEUE from chain PENDING                   |
//     UDP to a server that sent first,        NEW      goes to QUEUE from chain PENDING                   |
//       unless the connection has a verdict                                                               |
//     QUIC Initial to port 443, connection    QUEUE    goes to ASK                                        |
//       allowed                                                                                           |
//     connection pending, packet in its       QUEUE    payload, FIN, RST with ACK, or UDP: go to ASK      |
//       original direction                    ASK      packet's bits = "allowed", then the queue          |
//                                                        |                                                |
//                                                        +-- NF_REPEAT, packet's bits = the answer -------+
//   filter OUTPUT
//     packet and connection have bits         VERDICT  save as above, then clear the packet's bits
//     SYN without bits, connection dropped             clear the connection's bits
//     connection or packet dropped            DROP     TCP reset, or port unreachable; UDP in both directions
//     TCP without a valid connection                   clear the packet's bits
//
//   mangle INPUT <----------------------------------------------------------------------------------------+
//     packet's bits are "allowed"             ANSWERED save them if the connection has bits, then         |
//                                                      clear them                                         |
//     connection pending, payload of                   the queue; dropped while the name is incomplete    |
//       the server                                       |                                                |
//     TCP without a known connection          STRAY    the provider's rules: INVALID, or nothing          |
//                                             INVALID  packet's bits = "pending", then the queue          |
//     packet's bits are "dropped"             SEEN     clear them: on INPUT they mean "no verdict"        |
//                                                        |                                                |
//                                                        +-- NF_REPEAT, packet's bits = "allowed" or -----+
//                                                            "dropped"; or, instead, NF_DROP
//
// On OUTPUT, the queue answers "allowed" or "dropped", or "pending" while the server's name is incomplete. On INPUT, it
// answers "allowed", or "dropped" if it has no verdict on the packet; it drops all other packets itself (NF_DROP).
//
// - If the mangle chain or the queue changes a packet's mark, the kernel routes the packet again and loses the sending
//   user's id. So ASK sets the packet's bits to "allowed", the most frequent answer, before the packet is queued: the
//   answer "allowed" then changes no bit. If no process serves the queue, the packet passes with these bits, and its
//   connection counts as allowed.
// - On OUTPUT, the packet's bits "pending" only keep the packet from being queued twice. They are not saved to the
//   connection, because the connection may have a verdict by then.
// - A packet goes to VERDICT only if its connection has bits, too, because other programs may set the same bits in
//   packets of other connections. A packet without a connection (NOTRACK) matches neither `--mark` nor `! --mark` of
//   connmark, so it passes.
// - A server can send flags or windows that the TCP stack accepts and connection tracking does not. Connection tracking
//   then calls packets of the connection INVALID and does not assign them to the connection. Each INVALID packet gets a
//   verdict of its own, which is stored in the packet's mark only. An inbound INVALID packet without payload passes:
//   it may be the acknowledgment that a browser waits for before it sends the rest of the server's name.
// - A server can make connection tracking forget a connection that the sockets still have: with a reset that the
//   client's TCP ignores, or with silence. For connection tracking, the next segment then begins a connection (NEW),
//   although it is not a SYN. If that segment is outbound, it is treated like a SYN. If it is inbound, it goes to the
//   queue, even without payload: connection tracking keeps the new connection if the segment passes, and no rule would
//   ask about the browser's request on a connection that the server began. An inbound SYN does not go to the queue,
//   because it begins a new connection for the sockets, too.
// - Any remote host can send packets that belong to no known connection. So INVALID drops such packets beyond a rate
//   limit. The packets below the limit leave the queue with NF_REPEAT, so that the other rules of chain INPUT see them.
// - A server may answer before the request is complete, and a browser would show the answer. So the server's data is
//   dropped until there is a verdict. The server sends the data again.
// - If this machine connects to itself, the packets of both directions go through OUTPUT. So the rules test the
//   direction (`--ctdir`).
// - A SYN clears the connection's bits, because connection tracking may take the SYN for part of an old connection that
//   was reset and used the same ports. Table filter also clears "dropped", in case another program has flushed table
//   mangle. It does so only for a SYN without bits: if one of the provider's rules has dropped the SYN, the SYN has
//   bits.
// - QUEUE ignores a RST without ACK, because such a RST answers a stray segment and ends no connection of the sender.
// - If a server sends the first datagram, then for connection tracking the server begins the connection, and the
//   client's datagrams are replies. So the replies go to NEW as long as the connection has no verdict. If the verdict
//   is "dropped", table filter rejects all outbound datagrams of the connection, replies or not.
// - A new QUIC connection may have the addresses and ports of an earlier one that connection tracking still knows. So
//   an Initial packet, which may begin a connection, is queued even if the conversation is allowed. The conversation
//   stays allowed unless the answer is "dropped". Other packets need not wait: without the whole hello, which is in
//   Initial packets, the server can read none of them. Initial packets of a dropped conversation are not queued,
//   because Firefox notices a rejection only if the kernel rejects a packet at once.
// - QUEUE limits UDP, because any user can send datagrams faster than the extension can judge them. Beyond the limit,
//   DNS questions pass, because they are always allowed. Other datagrams are dropped: if they passed, one user's flood
//   would let another user's browser send its whole hello without a verdict. TCP needs no limit: a connection sends
//   little before its first data are answered.
// - Table filter also saves the bits, for packets that did not enter mangle again: packets that passed because no
//   process served the queue, and packets that the extension sent on with NF_ACCEPT.
// - DROP lets resets pass, because the reset that REJECT sends to end a connection is a packet of the same connection.
// - The text has table filter first, so that the rules that carry out verdicts exist before the first packet is queued.
constexpr const char* kTables = R"(*filter
:ORVANE-OUTPUT - [0:0]
:ORVANE-VERDICT - [0:0]
:ORVANE-DROP - [0:0]
-A ORVANE-OUTPUT -m mark --mark @NONE -m connmark ! --mark @DROPPED -j RETURN
-A ORVANE-OUTPUT -p tcp --tcp-flags SYN,ACK,RST,FIN SYN -m mark --mark @NONE -m connmark --mark @DROPPED -j CONNMARK --set-xmark @NONE
-A ORVANE-OUTPUT -m connmark ! --mark @NONE -m mark ! --mark @NONE -j ORVANE-VERDICT
-A ORVANE-OUTPUT -m connmark --mark @DROPPED -m conntrack --ctdir ORIGINAL -j ORVANE-DROP
-A ORVANE-OUTPUT -p udp -m connmark --mark @DROPPED -j ORVANE-DROP
-A ORVANE-OUTPUT -p tcp -m conntrack --ctstate INVALID -m mark --mark @DROPPED -j ORVANE-DROP
-A ORVANE-OUTPUT -p tcp -m conntrack --ctstate INVALID -m mark ! --mark @NONE -j MARK --set-xmark @NONE
-A ORVANE-VERDICT -m mark ! --mark @PENDING -j CONNMARK --save-mark --nfmask @MASK --ctmask @MASK
-A ORVANE-VERDICT -j MARK --set-xmark @NONE
-A ORVANE-DROP -p tcp --tcp-flags RST RST -j RETURN
-A ORVANE-DROP -p tcp -j REJECT --reject-with tcp-reset
-A ORVANE-DROP -j REJECT --reject-with @UNREACHABLE
COMMIT
*mangle
:ORVANE-INPUT - [0:0]
:ORVANE-STRAY - [0:0]
:ORVANE-INVALID - [0:0]
:ORVANE-SEEN - [0:0]
:ORVANE-ANSWERED - [0:0]
:ORVANE-OUTPUT - [0:0]
:ORVANE-SYN - [0:0]
:ORVANE-NEW - [0:0]
:ORVANE-PENDING - [0:0]
:ORVANE-QUEUE - [0:0]
:ORVANE-ASK - [0:0]
:ORVANE-VERDICT - [0:0]
-A ORVANE-INPUT -m connmark --mark @ALLOWED -m mark --mark @NONE -j RETURN
-A ORVANE-INPUT -m mark --mark @DROPPED -g ORVANE-SEEN
-A ORVANE-INPUT -m mark --mark @ALLOWED -g ORVANE-ANSWERED
-A ORVANE-INPUT -p tcp -m connmark --mark @PENDING -m conntrack --ctdir REPLY -m bpf --bytecode "@HAS_PAYLOAD" @QUEUE
-A ORVANE-INPUT -p tcp ! --tcp-flags SYN,ACK,RST,FIN SYN -m conntrack --ctstate NEW -g ORVANE-STRAY
-A ORVANE-INPUT -p tcp -m conntrack --ctstate INVALID -m bpf --bytecode "@HAS_PAYLOAD" -g ORVANE-STRAY
@STRAY-A ORVANE-INVALID -m limit --limit 2000/sec --limit-burst 2000 -j MARK --set-xmark @PENDING
-A ORVANE-INVALID -m mark ! --mark @PENDING -j DROP
-A ORVANE-INVALID @QUEUE
-A ORVANE-SEEN -j MARK --set-xmark @NONE
-A ORVANE-ANSWERED -m connmark ! --mark @NONE -j CONNMARK --save-mark --nfmask @MASK --ctmask @MASK
-A ORVANE-ANSWERED -j MARK --set-xmark @NONE
-A ORVANE-OUTPUT -p tcp ! --tcp-flags SYN,ACK,RST,FIN SYN -m connmark --mark @ALLOWED -m mark --mark @NONE -j RETURN
-A ORVANE-OUTPUT -p tcp -m mark ! --mark @NONE -m conntrack --ctstate INVALID -j RETURN
-A ORVANE-OUTPUT -m connmark ! --mark @NONE -m mark ! --mark @NONE -g ORVANE-VERDICT
-A ORVANE-OUTPUT -p tcp --tcp-flags SYN,ACK,RST,FIN SYN -g ORVANE-SYN
-A ORVANE-OUTPUT -p tcp -m connmark --mark @PENDING -m conntrack --ctdir ORIGINAL -g ORVANE-QUEUE
-A ORVANE-OUTPUT -p tcp -m conntrack --ctstate NEW -m connmark --mark @NONE -j ORVANE-NEW
-A ORVANE-OUTPUT -p udp -m conntrack --ctstate NEW -m connmark --mark @NONE -j ORVANE-NEW
-A ORVANE-OUTPUT -p udp -m conntrack --ctdir REPLY -m connmark --mark @UNDECIDED -j ORVANE-NEW
-A ORVANE-OUTPUT -p tcp -m conntrack --ctstate INVALID -j ORVANE-NEW
-A ORVANE-OUTPUT -p udp --dport 443 -m connmark --mark @ALLOWED -m bpf --bytecode "@IS_INITIAL" -j ORVANE-QUEUE
-A ORVANE-OUTPUT -m connmark --mark @PENDING -m conntrack --ctdir ORIGINAL -j ORVANE-QUEUE
-A ORVANE-SYN -m connmark ! --mark @NONE -j CONNMARK --set-xmark @NONE
-A ORVANE-SYN -j ORVANE-NEW
-A ORVANE-SYN -m connmark --mark @PENDING -m conntrack --ctdir ORIGINAL -j ORVANE-QUEUE
@NEW_CONNECTIONS-A ORVANE-PENDING -j CONNMARK --set-xmark @PENDING
-A ORVANE-PENDING -p tcp -m conntrack --ctstate INVALID -j ORVANE-QUEUE
-A ORVANE-PENDING -p udp -m conntrack --ctdir REPLY -j ORVANE-QUEUE
-A ORVANE-QUEUE -p tcp -m bpf --bytecode "@HAS_PAYLOAD" -g ORVANE-ASK
-A ORVANE-QUEUE -p tcp --tcp-flags FIN FIN -g ORVANE-ASK
-A ORVANE-QUEUE -p tcp --tcp-flags RST,ACK RST,ACK -g ORVANE-ASK
-A ORVANE-QUEUE -p udp --dport 53 -m limit --limit 2000/sec --limit-burst 2000 -g ORVANE-ASK
-A ORVANE-QUEUE -p udp --dport 53 -j RETURN
-A ORVANE-QUEUE -p udp -m limit --limit 2000/sec --limit-burst 2000 -g ORVANE-ASK
-A ORVANE-QUEUE -p udp -j DROP
-A ORVANE-ASK -j MARK --set-xmark @ALLOWED
-A ORVANE-ASK @QUEUE
-A ORVANE-VERDICT -m mark ! --mark @PENDING -j CONNMARK --save-mark --nfmask @MASK --ctmask @MASK
COMMIT
)";

std::string tables(AddressFamily family, const ProviderChains& chains) {
  const bool v4 = family == AddressFamily::IPv4;
  const std::pair<std::string_view, std::string> values[] = {
      {"@NONE", mark_and_mask(0)},
      {"@PENDING", mark_and_mask(kMarkPending)},
      {"@UNDECIDED", mark_and_mask(0, kMarkMask & ~kMarkPending)},  // no bits, or "pending"
      {"@DROPPED", mark_and_mask(kMarkDropped)},
      {"@MASK", std::to_string(kMarkMask)},
      {"@UNREACHABLE", v4 ? "icmp-port-unreachable" : "icmp6-port-unreachable"},
      {"@NEW_CONNECTIONS", chains.text()},
      {"@STRAY", chains.stray()},
      {"@HAS_PAYLOAD", v4 ? kHasPayload4 : kHasPayload6},
      {"@IS_INITIAL", v4 ? kIsInitial4 : kIsInitial6},
      {"@ALLOWED", mark_and_mask(kMarkAllowed)},
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

// Adds a line of iptables-save to `table` if it is a chain of ours, a rule of ours, or a jump to our chains.
// `lastChain` is the built-in chain of the previous rule. If the built-in chain of a rule is not `lastChain`, the rule
// is the first of its chain.
void read_line(std::string_view line, SavedTable& table, std::string_view& lastChain) {
  if (line.starts_with(":ORVANE-")) table.chains.emplace_back(line.substr(1, line.find(' ') - 1));
  if (line.starts_with(":ORVANE-") || line.starts_with("-A ORVANE-")) table.lines.append(line) += '\n';
  for (const char* chain : {"INPUT", "OUTPUT"}) {
    if (!line.starts_with(std::string("-A ") + chain + ' ')) continue;
    if (line.find(std::string(" ORVANE-") + chain) != std::string_view::npos) table.jumps.emplace_back(line);
    if (std::exchange(lastChain, chain) != chain && line == jump_from(chain)) table.chainsWithJump.emplace_back(chain);
  }
}

}  // namespace

std::string jump_from(const std::string& chain) { return "-A " + chain + " -j ORVANE-" + chain; }

std::optional<std::string> kernel_rules_text(const NEFilterSettings& settings, AddressFamily family,
                                             std::string& error) {
  ProviderChains chains(family);
  for (const NEFilterRule& rule : settings.rules) {
    if (chains.add(rule.networkRule, rule.action)) continue;
    error = chains.error();
    return std::nullopt;
  }
  chains.decide("", "", settings.defaultAction);
  return tables(family, chains);
}

SavedTables parse_saved_tables(std::string_view saved) {
  SavedTables tables;
  SavedTable* table = nullptr;
  std::string_view lastChain;
  while (!saved.empty()) {
    const std::string_view line = saved.substr(0, saved.find('\n'));
    saved.remove_prefix(std::min(line.size() + 1, saved.size()));
    if (line.starts_with('*')) {
      table = line == "*filter" ? &tables.filter : line == "*mangle" ? &tables.mangle : nullptr;
      lastChain = {};
    } else if (table != nullptr) {
      read_line(line, *table, lastChain);
    }
  }
  return tables;
}

}  // namespace orvane
