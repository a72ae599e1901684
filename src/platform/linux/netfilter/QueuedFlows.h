#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <unordered_map>

#include "platform/linux/flow/FilterSession.h"
#include "platform/linux/flow/FirstFlight.h"
#include "platform/linux/flow/LinuxFlow.h"
#include "platform/linux/flow/QuicInitial.h"
#include "platform/linux/netfilter/FlowOwners.h"
#include "platform/linux/netfilter/OpenConnections.h"
#include "platform/linux/netfilter/Packet.h"
#include "platform/names/ServerName.h"

namespace orvane {

enum class PacketVerdict {
  Ignored,  // the packet says nothing about a flow
  Open,     // there is no verdict yet; later packets are needed
  Held,     // there is no verdict yet, and the packet must not pass without one; its sender sends the content again
  Allowed,  // the flow is allowed
  Dropped,  // the flow is dropped
};

// The flows whose first outbound packets are in the queue. A flow is shown to the provider when its server's name is
// known or cannot become known, or when the flow ends. An open TCP flow (without a verdict) is kept as long as its
// socket exists, an open UDP flow until ten minutes after its last packet. A settled flow (with a verdict) is
// remembered for some seconds, for packets that were queued before its verdict.
//
// The name of a UDP flow, except a DNS flow, is read from the hello in QUIC's first datagrams. While the flow is open,
// only datagrams with parts of the hello may pass; all other datagrams are held, because they could contain a request.
// If the hello cannot be read, the flow is shown to the provider without a name at the first held datagram, so that
// flows of programs that are no browsers are allowed at once. A datagram that begins another QUIC connection begins a
// new flow: a program may use the addresses and ports of an earlier connection again. If the program then goes back to
// the earlier connection, the flow is held until its name is known, because a part of the earlier connection's hello
// may have passed before.
//
// Each user has two limits: on the number of open flows, and on the bytes that these flows store because earlier bytes
// have not arrived. All users together have two such limits, too, so that somebody with many user ids cannot fill the
// memory; when these are exceeded, only the users with the most flows or bytes are limited. A flow beyond the limit on
// the number is shown to the provider at once, without a name. If the provider then asks for data, the program is a
// browser, and the flow is dropped: if the flow were forgotten instead, it would pass. At the limit on the bytes, the
// user's flows that have had no packet for the longest time lose their stored bytes. At its next packet, a flow that
// lost bytes is treated like a flow beyond the limit on the number. A real browser reaches neither limit.
//
// Not thread-safe: one thread serves the queue.
class QueuedFlows {
 public:
  using Clock = std::chrono::steady_clock;

  QueuedFlows(Ref<NEFilterDataProvider> provider, FlowOwners& owners)
      : provider_(std::move(provider)), owners_(owners) {}

  // From now on, recordAllowed() adds each flow that is allowed and has a name to `connections`.
  void addAllowedTo(OpenConnections& connections) { connections_ = &connections; }

  // Call this after judge() and judgeInbound(), when the packet has its answer: the packet need not wait until its flow
  // is added.
  void recordAllowed();

  // Decides about an outbound packet. If the verdict on a UDP flow is Dropped, aborts the flow's socket, because
  // Firefox notices the rejection of a datagram only during the call that sends the datagram, and the verdict comes
  // later. Another conversation of the socket would end, too, but browsers open a socket for each QUIC connection.
  // Later packets of the flow are held, because after the abort, other flows may use the ports.
  PacketVerdict judge(const Packet& packet, Clock::time_point now = Clock::now());

  // Decides about an inbound packet; the server is `packet.ends.local`. Only an ignored or allowed packet may reach its
  // socket. Payload of a server may pass only when the flow is allowed: otherwise the server could answer before the
  // request names the host. If the provider does not know the flow yet, this function shows the flow to the provider,
  // without a name. If the program is no browser, the provider allows the flow at once, so a server may send first to
  // such a program.
  //
  // `hasConnection`: whether connection tracking knows the connection. If it does not, even a packet without payload
  // must not pass: the packet would begin a new connection from the server's side, and the kernel rules would not ask
  // about the client's later packets.
  PacketVerdict judgeInbound(const Packet& packet, bool hasConnection, Clock::time_point now = Clock::now());

  // Call this for an outbound packet that is dropped without judge(). The packet may have had the first bytes of a TCP
  // connection, so its sequence number is remembered. If the kernel's record lacks the number of the connection's first
  // byte (SocketFacts::firstByte), the flow starts with the bytes of the dropped packet, even if later bytes are judged
  // first.
  void noteUnjudged(const Packet& packet);

  // From now on, flows of the TCP socket with this cookie are allowed without asking the provider. So an open
  // connection continues when connection tracking starts, or when connection tracking forgets the connection.
  // QueuedFlows itself calls this for the socket of each TCP flow that it allows. Only the last kSocketsLimit sockets
  // are remembered.
  void allowSocket(uint64_t cookie) { settleSocket(cookie, PacketVerdict::Allowed); }

  // From now on, judge() lets no packet of this allowed flow pass: neither the packets that are in the queue already,
  // nor, if connection tracking forgets a TCP connection, the connection's later packets. The socket of a UDP flow is
  // aborted.
  //
  // A QUIC client may go on with the connection from another local address or port (RFC 9000, section 9). Such a flow
  // begins without a hello, so its name cannot be read. So for kEndedLifetime, a new UDP flow gets the name of the
  // dropped flow if it has the same owner and the same server, and if its first datagram begins no QUIC connection. It
  // does not get this name if the owner has an open connection to the same server under another name.
  void drop(const OpenConnection& connection, Clock::time_point now = Clock::now());

  // Whether the flow of the last packet has had many packets in a row without new bytes. If so, another program
  // overwrites the marks of this flow's packets, so the packets are queued again and again.
  bool isLooping() const { return isLooping_; }

  // Call this when the queue is empty. Each packet that is judged after this call was queued after all verdicts so far.
  // If such a packet belongs to a flow that has a verdict already, and is no QUIC packet, it is counted
  // (FlowCounters::lateQueued).
  void queueDrained() { ++generation_; }

  size_t size() const { return flows_.size(); }

  // Limits on the open flows of all users together, and of one user. While kOpenLimit is exceeded, the limit of each
  // user is an equal share of kOpenLimit.
  static constexpr size_t kOpenLimit = 65536, kOpenLimitOfUser = 4096;
  // Limits on the bytes that open flows store.
  static constexpr size_t kStoredLimit = size_t{64} << 20, kStoredLimitOfUser = size_t{16} << 20;
  static constexpr size_t kSocketsLimit = 16384;
  // For how long dropped UDP flows are remembered: longer than most servers keep an idle QUIC connection.
  static constexpr std::chrono::minutes kEndedLifetime{10};
  // Limit on the dropped UDP flows that are remembered. Of flows of one owner to the same address and port, only the
  // last is remembered. Beyond the limit, the user with the most remembered flows is chosen, and this user's oldest
  // flow is forgotten.
  static constexpr size_t kEndedLimit = 1024;
  static constexpr size_t kConnectionsLimit = 8;
  // Limit on the TCP connections for which noteUnjudged() was called.
  static constexpr size_t kUnjudgedLimit = 8192;

 private:
  // What is known about an open flow.
  struct Examination {
    Examination(const Ref<LinuxSocketFlow>& shown, Ref<NEFilterDataProvider> provider)
        : flow(shown), session(std::move(provider), shown) {}

    Ref<LinuxSocketFlow> flow;
    FilterSession session;
    FirstFlight flight;
    std::optional<uint32_t> end;              // TCP only: the sequence number of the FIN, once it has arrived
    ServerNameReader name;                    // TCP only
    std::unique_ptr<QuicInitialReader> quic;  // UDP only; null before the first datagram
    bool isHeld = false;                      // whether the last packet must not pass before the verdict
    size_t stored = 0;                        // the bytes that the flow stores; counted in User::stored
    bool hasReturned = false;                 // UDP only: whether the client went back to an earlier QUIC connection
    bool hasLostBytes = false;                // whether bytes of the flow can no longer be read
  };

  struct Flow {
    Flow(const SocketPair& ends, const std::optional<SocketFacts>& socket)
        : pair(ends), cookie(socket ? socket->cookie : 0), user(socket ? socket->user : kNoUser) {}

    SocketPair pair;
    uint64_t cookie;  // the socket's cookie; 0 when no socket was found
    uid_t user;
    // Null when the flow is settled, to save memory: thousands of settled flows are remembered.
    std::unique_ptr<Examination> open;
    bool isDropped = false;  // whether the provider dropped the flow, or drop() did so later
    // The connections of a QUIC flow (QuicInitialReader::connectionID), at most kConnectionsLimit, the latest at the
    // end.
    std::vector<std::vector<uint8_t>> connectionIDs;
    Clock::time_point lastSeen{};
    uint64_t generation = 0;  // the value of generation_ when the flow was settled
    size_t repeats = 0;       // packets in a row without new bytes
  };
  struct User {
    size_t flows = 0, stored = 0;  // the open flows, and the bytes that they store
  };
  struct Ended {
    OpenConnection conversation;
    Clock::time_point since;
  };
  using Flows = std::list<Flow>;  // sorted by the time of the last packet, the latest at the end

  static PacketVerdict verdictOf(const Flow& flow);
  void settleSocket(uint64_t cookie, PacketVerdict verdict);
  Flows::iterator findOrCreate(const SocketPair& ends, const std::optional<SocketFacts>& socket, Clock::time_point now);
  static bool beginsOtherConnection(const Flow& flow, const Packet& packet);
  void keep(Flows::iterator flow, Clock::time_point now);
  void close(Flow& flow);
  void setStored(Flow& flow, size_t bytes);
  void limitStored(Flow& flow);
  bool isBeyondLimit(const Flow& flow) const;
  void noteAllowed(const Flow& flow, const LinuxSocketFlow& shown);
  void erase(Flows::iterator flow);
  void expectFirstByte(Examination& open, const Packet& packet, const std::optional<SocketFacts>& socket);
  bool examine(Flow& flow, Examination& open, const Packet& packet);
  void noteConnection(Flow& flow, Examination& open);
  bool readName(Flow& flow, Examination& open, std::span<const uint8_t> bytes, bool isLast);
  void rememberEnded(const OpenConnection& conversation, Clock::time_point now);
  const OpenConnection* endedBefore(const Flow& flow, const Examination& open) const;
  void evictExpired(Clock::time_point now);
  void evictOpen(Clock::time_point now);

  Ref<NEFilterDataProvider> provider_;
  FlowOwners& owners_;
  OpenConnections* connections_ = nullptr;
  std::optional<OpenConnection> newlyAllowed_;  // the flow that recordAllowed() will add
  uint64_t generation_ = 0;
  bool isLooping_ = false;
  Flows open_, settled_;
  std::unordered_map<uid_t, User> users_;                              // those who have open flows
  size_t stored_ = 0;                                                  // the bytes that all open flows store
  std::unordered_map<uint64_t, PacketVerdict> settledSockets_;         // TCP sockets, by cookie
  std::deque<uint64_t> settledByAge_;                                  // the same cookies, the oldest first
  std::unordered_map<SocketPair, uint32_t, SocketPairHash> unjudged_;  // the first sequence number that was dropped
  std::deque<Ended> ended_;                                            // UDP flows that drop() got, the oldest first
  std::unordered_map<SocketPair, Flows::iterator, SocketPairHash> flows_;
};

}  // namespace orvane
