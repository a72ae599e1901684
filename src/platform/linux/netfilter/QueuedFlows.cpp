#include "platform/linux/netfilter/QueuedFlows.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "platform/linux/base/ThreadBudget.h"
#include "platform/linux/flow/FlowCounters.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr uint16_t kDNSPort = 53;
// After this time without a packet, an open TCP flow is kept only if its socket still exists, and an open UDP flow is
// forgotten. A browser may wait for minutes in the middle of a request; the rest of the request must not count as the
// start of a new flow.
constexpr auto kOpenLifetime = 10min;
// For how long a packet may wait while expired open flows are checked or removed: one user can have thousands of them.
constexpr auto kEvictionTime = 1ms;
// How long a settled flow is remembered, for packets that the kernel queued before it had the verdict.
constexpr auto kSettledLifetime = 5s;
constexpr size_t kSettledLimit = 8192;
constexpr size_t kRepeatsLimit = 100;

}  // namespace

PacketVerdict QueuedFlows::judge(const Packet& packet, Clock::time_point now) {
  evictExpired(now);
  isLooping_ = false;
  bool ends = packet.fin || packet.rst;
  // An acknowledgment without data. The kernel rules cannot look behind IPv6 extension headers for the payload, so they
  // also queue acknowledgments that have such headers.
  if (packet.ends.protocol == IPPROTO_TCP && packet.payload.empty() && !ends) return PacketVerdict::Ignored;

  const auto socket = owners_.sender(packet.ends, packet.user);
  // Another user has sent this datagram with the endpoints of the socket. The answers go to the socket, so no browser
  // can reach a host with such datagrams. Only the socket's own program may change the state of the flow.
  if (socket && socket->isOthers) return PacketVerdict::Ignored;
  auto flow = findOrCreate(packet.ends, socket, now);
  if (beginsOtherConnection(*flow, packet)) {
    auto connectionIDs = std::move(flow->connectionIDs);
    erase(flow);
    flow = findOrCreate(packet.ends, socket, now);
    flow->connectionIDs = std::move(connectionIDs);
  }
  const bool wasSettled = flow->open == nullptr;
  if (!wasSettled) expectFirstByte(*flow->open, packet, socket);
  const bool isNews = !wasSettled && examine(*flow, *flow->open, packet);
  flow->repeats = isNews ? 0 : flow->repeats + 1;
  isLooping_ = flow->repeats > kRepeatsLimit;
  if (wasSettled) {
    // The kernel rules queue the Initial packets of an allowed QUIC connection, too, so these packets are not late.
    const bool isLate = flow->generation != generation_ && flow->connectionIDs.empty();
    if (isLate) flow_counters().lateQueued.fetch_add(1, std::memory_order_relaxed);
    // The flow's socket may have been aborted after the verdict. Another conversation may now use its ports, and the
    // verdict Dropped would mark that conversation.
    const bool isAborted = flow->isDropped && packet.ends.protocol == IPPROTO_UDP;
    return isAborted ? PacketVerdict::Held : verdictOf(*flow);
  }
  keep(flow, now);
  return verdictOf(*flow);
}

PacketVerdict QueuedFlows::judgeInbound(const Packet& packet, bool hasConnection, Clock::time_point now) {
  evictExpired(now);
  // A SYN-ACK may pass, because the client's TCP discards its payload. A reset may pass, because it begins no
  // connection.
  if ((packet.syn && packet.ack) || packet.rst) return PacketVerdict::Ignored;
  if (hasConnection && packet.payload.empty()) return PacketVerdict::Ignored;
  const SocketPair ends{packet.ends.protocol, packet.ends.remote, packet.ends.local};
  const auto socket = owners_.find(ends);
  if (!socket) return PacketVerdict::Ignored;
  auto flow = findOrCreate(ends, socket, now);
  if (flow->open != nullptr) {
    FilterSession& session = flow->open->session;
    if (session.state() == FilterSession::State::New) session.newFlow(flow->open->flight.length());
    if (isBeyondLimit(*flow)) session.refuse();
    keep(flow, now);
  }
  return verdictOf(*flow);
}

PacketVerdict QueuedFlows::verdictOf(const Flow& flow) {
  if (flow.open != nullptr) return flow.open->isHeld ? PacketVerdict::Held : PacketVerdict::Open;
  return flow.isDropped ? PacketVerdict::Dropped : PacketVerdict::Allowed;
}

void QueuedFlows::settleSocket(uint64_t cookie, PacketVerdict verdict) {
  if (!settledSockets_.insert_or_assign(cookie, verdict).second) return;
  settledByAge_.push_back(cookie);
  if (settledByAge_.size() <= kSocketsLimit) return;
  settledSockets_.erase(settledByAge_.front());
  settledByAge_.pop_front();
}

void QueuedFlows::drop(const OpenConnection& connection, Clock::time_point now) {
  if (connection.pair.protocol == IPPROTO_TCP) {
    settleSocket(connection.cookie, PacketVerdict::Dropped);
  } else {  // not settleSocket(), because a datagram socket may have later conversations
    owners_.abort(connection.pair, connection.cookie);
    rememberEnded(connection, now);
  }
  const auto flow = flows_.find(connection.pair);
  if (flow != flows_.end() && flow->second->cookie == connection.cookie) flow->second->isDropped = true;
}

// Whether the flow is settled, and the packet begins another QUIC connection between the same addresses and ports.
// While a flow is open, its QuicInitialReader notices another connection itself.
bool QueuedFlows::beginsOtherConnection(const Flow& flow, const Packet& packet) {
  return packet.ends.protocol == IPPROTO_UDP && flow.open == nullptr &&
         QuicInitialReader::beginsOtherConnection(
             packet.payload, flow.connectionIDs.empty() ? std::vector<uint8_t>() : flow.connectionIDs.back());
}

// Call this after each packet of a flow that was open. Moves the flow to the end of settled_ if the packet led to a
// verdict, else to the end of open_.
void QueuedFlows::keep(Flows::iterator flow, Clock::time_point now) {
  flow->lastSeen = now;
  const FilterSession::State state = flow->open->session.state();
  if (state == FilterSession::State::New || state == FilterSession::State::Examining) {
    open_.splice(open_.end(), open_, flow);
    limitStored(*flow);
    return;
  }
  if (state == FilterSession::State::Allowed) noteAllowed(*flow, *flow->open->flow);
  if (state == FilterSession::State::Dropped) {
    flow->isDropped = true;
    if (flow->pair.protocol == IPPROTO_UDP) owners_.abort(flow->pair, flow->cookie);
  }
  close(*flow);
  flow->generation = generation_;
  settled_.splice(settled_.end(), open_, flow);
}

// Forgets what is known about an open flow.
void QueuedFlows::close(Flow& flow) {
  setStored(flow, 0);
  flow.open.reset();
  if (--users_[flow.user].flows == 0) users_.erase(flow.user);
}

void QueuedFlows::setStored(Flow& flow, size_t bytes) {
  const size_t before = std::exchange(flow.open->stored, bytes);
  stored_ += bytes - before;
  users_[flow.user].stored += bytes - before;
}

// Counts the bytes that the flow stores. If a limit is then exceeded, forgets at least half of what a user has stored,
// so that the search for flows with stored bytes is rarely needed.
void QueuedFlows::limitStored(Flow& flow) {
  const Examination& open = *flow.open;
  const size_t stored = open.flight.storedBytes() + (open.quic == nullptr ? 0 : open.quic->storedBytes());
  if (stored == open.stored) return;  // as for almost every packet
  setStored(flow, stored);
  auto user = users_.find(flow.user);
  if (user->second.stored <= kStoredLimitOfUser && stored_ <= kStoredLimit) return;
  if (stored_ > kStoredLimit) {
    user = std::ranges::max_element(users_, {}, [](const auto& each) { return each.second.stored; });
  }
  const size_t enough = user->second.stored / 2;
  for (auto oldest = open_.begin(); user->second.stored > enough; ++oldest) {
    if (oldest->user != user->first || oldest->open->stored == 0) continue;
    oldest->open->flight.forgetStored();
    if (oldest->open->quic != nullptr) oldest->open->quic->forgetStored();
    oldest->open->hasLostBytes = true;
    setStored(*oldest, 0);
  }
}

// Whether the flow has lost bytes, or its user has too many open flows. Such an open flow does not wait for its name.
bool QueuedFlows::isBeyondLimit(const Flow& flow) const {
  const size_t ofUser = users_.at(flow.user).flows;
  return flow.open->hasLostBytes || ofUser > kOpenLimitOfUser ||
         (open_.size() > kOpenLimit && ofUser > kOpenLimit / users_.size());
}

void QueuedFlows::noteAllowed(const Flow& flow, const LinuxSocketFlow& shown) {
  if (flow.pair.protocol == IPPROTO_TCP) allowSocket(flow.cookie);
  if (connections_ == nullptr || flow.cookie == 0 || !shown.hostName()) return;
  newlyAllowed_ = {flow.pair, flow.cookie, flow.user, shown.sourceAppAuditToken(), *shown.hostName()};
}

void QueuedFlows::recordAllowed() {
  if (newlyAllowed_) connections_->add(std::move(*newlyAllowed_));
  newlyAllowed_.reset();
}

// The flow with these endpoints. Makes a new flow if no flow with these endpoints is known, or if another socket uses
// the endpoints by now.
QueuedFlows::Flows::iterator QueuedFlows::findOrCreate(const SocketPair& ends, const std::optional<SocketFacts>& socket,
                                                       Clock::time_point now) {
  auto found = flows_.find(ends);
  if (found != flows_.end()) {
    uint64_t known = found->second->cookie;
    if (!socket || socket->cookie == known || (known == 0 && found->second->open != nullptr)) return found->second;
    erase(found->second);
  }
  const auto settled = socket ? settledSockets_.find(socket->cookie) : settledSockets_.end();
  const bool isSettled = settled != settledSockets_.end();
  Flows& flows = isSettled ? settled_ : open_;
  Flow& made = flows.emplace_back(ends, socket);
  if (isSettled) {
    made.isDropped = settled->second == PacketVerdict::Dropped;
    made.lastSeen = now;
    made.generation = generation_;
  } else {
    Value owner = socket ? owners_.ownerOf(ends, *socket) : Value();
    int32_t type = ends.protocol == IPPROTO_TCP ? SOCK_STREAM : SOCK_DGRAM;
    auto shown = LinuxSocketFlow::create(std::move(owner), ends.remote.host(), ends.remote.port, type);
    made.open = std::make_unique<Examination>(shown, provider_);
    ++users_[made.user].flows;
  }
  return flows_.emplace(ends, std::prev(flows.end())).first->second;
}

void QueuedFlows::erase(Flows::iterator flow) {
  flows_.erase(flow->pair);
  if (flow->open == nullptr) {
    settled_.erase(flow);
    return;
  }
  close(*flow);
  open_.erase(flow);
}

void QueuedFlows::noteUnjudged(const Packet& packet) {
  if (packet.ends.protocol != IPPROTO_TCP || packet.payload.empty()) return;
  if (unjudged_.size() == kUnjudgedLimit) unjudged_.clear();
  unjudged_.try_emplace(packet.ends, packet.sequence);
}

// Tells the flight the sequence number of the connection's first byte, if it is known, because the queue may have lost
// the connection's first packets.
void QueuedFlows::expectFirstByte(Examination& open, const Packet& packet, const std::optional<SocketFacts>& socket) {
  if (socket && socket->firstByte) open.flight.expect(*socket->firstByte);
  if (unjudged_.empty()) return;
  const auto unjudged = unjudged_.find(packet.ends);
  if (unjudged == unjudged_.end()) return;
  if (!socket || !socket->firstByte) open.flight.expect(unjudged->second);
  unjudged_.erase(unjudged);
}

// Adds the packet to an open flow. Shows the flow to the provider as soon as its server's name is known or cannot
// become known. Returns whether the packet had new bytes or ended the flow.
bool QueuedFlows::examine(Flow& flow, Examination& open, const Packet& packet) {
  const bool stream = packet.ends.protocol == IPPROTO_TCP;
  std::span<const uint8_t> bytes = packet.payload;
  std::vector<uint8_t> filled;
  if (packet.missing > 0) {
    // A packet of the loopback device may be longer than a message of the queue. Each missing byte is replaced by '?',
    // which no host name contains.
    filled.assign(bytes.begin(), bytes.end());
    filled.resize(bytes.size() + packet.missing, '?');
    bytes = filled;
  }
  if (packet.fin) open.end = packet.sequence + static_cast<uint32_t>(bytes.size());
  if (stream && !bytes.empty()) {
    const FirstFlight::Added added = open.flight.add(packet.sequence, bytes);
    open.isHeld = added == FirstFlight::Added::Full;
    open.hasLostBytes = open.hasLostBytes || added == FirstFlight::Added::Broken;
    bytes = open.flight.next();
  }
  // A FIN after a gap ends nothing, because the bytes of the gap are still to come.
  const bool ends = packet.rst || (open.end && open.flight.reaches(*open.end));
  // A DNS flow contains no server name; the provider itself reads the DNS question. In all other flows, the name is
  // read until it is complete, even if the provider has seen the flow already.
  if (packet.ends.remote.port != kDNSPort) {
    const uint64_t known = open.quic == nullptr ? 0 : open.quic->length();
    if (!readName(flow, open, bytes, ends)) return stream ? !bytes.empty() : open.quic->length() > known;
  }
  if (open.session.state() == FilterSession::State::New) {
    open.session.newFlow(stream ? open.flight.length() - bytes.size() : 0);
  }
  if (open.session.holdsData()) open.session.outboundData(bytes);
  if (ends) open.session.outboundComplete();
  return true;
}

// Notices when the client goes back to a QUIC connection whose first datagrams the flow's reader no longer knows.
void QueuedFlows::noteConnection(Flow& flow, Examination& open) {
  auto& known = flow.connectionIDs;
  const std::vector<uint8_t>& current = open.quic->connectionID();
  if (current.empty() || (!known.empty() && known.back() == current)) return;
  const bool isKnown = std::erase(known, current) > 0;
  if (isKnown || known.size() == kConnectionsLimit) open.hasReturned = true;
  if (known.size() == kConnectionsLimit) known.erase(known.begin());
  known.push_back(current);
}

// Searches the flow's next bytes for its server name. Returns whether the flow can be shown to the provider now, with
// or without a name.
bool QueuedFlows::readName(Flow& flow, Examination& open, std::span<const uint8_t> bytes, bool isLast) {
  const bool stream = flow.pair.protocol == IPPROTO_TCP;
  if (!stream && open.quic == nullptr) open.quic = std::make_unique<QuicInitialReader>();
  const NameState before = stream ? open.name.state() : open.quic->state();
  const NameState state = stream ? open.name.read(bytes) : open.quic->read(bytes);
  if (!stream) {
    noteConnection(flow, open);
    open.isHeld = state == NameState::Open && (open.hasReturned || !open.quic->isReadable());
  }
  if (state == NameState::Open && !isLast) {
    const bool isRefused = isBeyondLimit(flow);
    const bool isUnreadable = open.isHeld && (stream || open.hasReturned || open.quic->isHelloUnreadable());
    if ((isRefused || isUnreadable) && open.session.state() == FilterSession::State::New) {
      open.session.newFlow(open.flight.length());
    }
    if (isRefused) open.session.refuse();
    return false;
  }
  if (before != NameState::Open) return true;  // an earlier packet made the state Known or Unknown
  const ServerNameReader& name = stream ? open.name : open.quic->hello();
  const OpenConnection* ended = endedBefore(flow, open);
  if (ended != nullptr) {
    open.flow->setRemoteHostname(ended->name);
  } else if (state == NameState::Known) {
    open.flow->setRemoteHostname(name.name());
    if (name.isNameHidden()) flow_counters().recordHiddenName();
  } else {
    flow_counters().unknownNames.fetch_add(1, std::memory_order_relaxed);
  }
  return true;
}

void QueuedFlows::rememberEnded(const OpenConnection& conversation, Clock::time_point now) {
  std::erase_if(ended_, [&](const Ended& ended) {
    return ended.conversation.pair.remote == conversation.pair.remote && ended.conversation.owner == conversation.owner;
  });
  ended_.push_back({conversation, now});
  if (ended_.size() <= kEndedLimit) return;
  auto user = [](const Ended& ended) { return ended.conversation.user; };
  std::unordered_map<uid_t, size_t> ofUser;
  for (const Ended& ended : ended_) ++ofUser[user(ended)];
  const uid_t most = std::ranges::max_element(ofUser, {}, [](const auto& each) { return each.second; })->first;
  ended_.erase(std::ranges::find(ended_, most, user));
}

// Returns the dropped conversation of which `flow` may be a continuation (see drop()); the latest if there are several.
// Null if there is none.
const OpenConnection* QueuedFlows::endedBefore(const Flow& flow, const Examination& open) const {
  if (open.quic == nullptr || !open.quic->connectionID().empty()) return nullptr;
  const auto found = std::ranges::find_if(ended_.rbegin(), ended_.rend(), [&](const Ended& ended) {
    return ended.conversation.pair.remote == flow.pair.remote &&
           ended.conversation.owner == open.flow->sourceAppAuditToken();
  });
  const bool isOther = found != ended_.rend() && connections_ != nullptr && connections_->hasOther(found->conversation);
  return found == ended_.rend() || isOther ? nullptr : &found->conversation;
}

void QueuedFlows::evictExpired(Clock::time_point now) {
  while (!ended_.empty() && now - ended_.front().since > kEndedLifetime) ended_.pop_front();
  evictOpen(now);
  while (!settled_.empty() && (settled_.size() > kSettledLimit || now - settled_.front().lastSeen > kSettledLifetime)) {
    erase(settled_.begin());
  }
}

// Checks or removes expired open flows until kEvictionTime is over, but one flow at least.
void QueuedFlows::evictOpen(Clock::time_point now) {
  std::optional<ThreadBudget> budget;  // made only if a flow has expired, because it takes a system call
  while (!open_.empty() && now - open_.front().lastSeen > kOpenLifetime && !(budget && budget->isSpent())) {
    if (!budget) budget.emplace(kEvictionTime);
    const auto flow = open_.begin();
    // The sockets of UDP flows are not looked up, because that takes long, and because a client gives up an incomplete
    // QUIC hello far earlier.
    const auto socket = flow->pair.protocol == IPPROTO_TCP ? owners_.find(flow->pair) : std::nullopt;
    if (!socket || socket->cookie != flow->cookie) {
      erase(flow);
      continue;
    }
    flow->lastSeen = now;
    open_.splice(open_.end(), open_, flow);
  }
}

}  // namespace orvane
