#include "platform/linux/netfilter/QueuedFlows.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/flow/ServerName.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr uint16_t kDNSPort = 53;
// For clients that stop in the middle of their hello. Later bytes count as the begin of the flow.
constexpr auto kOpenLifetime = 60s;
constexpr size_t kOpenLimit = 4096;
// For packets that the kernel queued before it had the verdict.
constexpr auto kSettledLifetime = 5s;
constexpr size_t kSettledLimit = 8192;
constexpr size_t kFirstFlightPackets = 100;

bool is_settled(const FilterSession& session) {
  return session.state() == FilterSession::State::Allowed || session.state() == FilterSession::State::Dropped;
}

PacketVerdict verdict_of(const FilterSession& session) {
  if (!is_settled(session)) return PacketVerdict::Open;
  return session.state() == FilterSession::State::Dropped ? PacketVerdict::Dropped : PacketVerdict::Allowed;
}

}  // namespace

PacketVerdict QueuedFlows::judge(const Packet& packet, Clock::time_point now) {
  evictExpired(now);
  isLooping_ = false;
  bool ends = packet.fin || packet.rst;
  // An acknowledgment. The kernel queues it only when it has IPv6 extension headers, which its rule cannot skip.
  if (packet.ends.protocol == IPPROTO_TCP && packet.payload.empty() && !ends) return PacketVerdict::Ignored;

  auto flow = findOrCreate(packet);
  isLooping_ = ++flow->packets > kFirstFlightPackets;
  if (is_settled(flow->session)) {
    if (flow->generation != generation_) flow_counters().lateQueued.fetch_add(1, std::memory_order_relaxed);
    return verdict_of(flow->session);
  }
  flow->lastSeen = now;
  settle(*flow, packet);
  bool settled = is_settled(flow->session);
  if (settled) {
    flow->flight = FirstFlight();
    flow->generation = generation_;
  }
  auto& list = settled ? settled_ : open_;
  list.splice(list.end(), open_, flow);
  return verdict_of(flow->session);
}

// The flow with the packet's ends, or a new one: when there is none, or when another socket has these ends by now.
QueuedFlows::Flows::iterator QueuedFlows::findOrCreate(const Packet& packet) {
  auto socket = owners_.find(packet.ends);
  auto found = flows_.find(packet.ends);
  if (found != flows_.end()) {
    uint64_t known = found->second->cookie;
    bool settled = is_settled(found->second->session);
    if (!socket || socket->cookie == known || (known == 0 && !settled)) return found->second;
    auto& list = settled ? settled_ : open_;
    list.erase(found->second);
    flows_.erase(found);
  }
  Value owner = socket ? owners_.ownerOf(*socket) : Value();
  int32_t type = packet.ends.protocol == IPPROTO_TCP ? SOCK_STREAM : SOCK_DGRAM;
  auto flow = LinuxSocketFlow::create(std::move(owner), packet.ends.remote.host(), packet.ends.remote.port, type);
  open_.emplace_back(packet.ends, socket ? socket->cookie : 0, std::move(flow), provider_);
  return flows_.emplace(packet.ends, std::prev(open_.end())).first->second;
}

// Adds the packet to the flow, and asks the provider as soon as the flow can be shown.
void QueuedFlows::settle(Flow& flow, const Packet& packet) {
  bool stream = packet.ends.protocol == IPPROTO_TCP;
  bool ends = packet.fin || packet.rst;
  if (flow.session.state() == FilterSession::State::New) {
    bool complete = ends;
    if (stream && !packet.payload.empty() && !flow.flight.add(packet.sequence, packet.payload)) complete = true;
    // A DNS question names no server: the provider reads the name in its bytes.
    if (stream && packet.ends.remote.port != kDNSPort) {
      ServerName name = find_server_name(flow.flight.bytes());
      if (name.state == ServerName::State::Open && !complete) return;
      if (name.state == ServerName::State::Known) {
        flow.flow->setRemoteHostname(std::move(name.name));
      } else {
        flow_counters().unknownNames.fetch_add(1, std::memory_order_relaxed);
      }
    }
    flow.session.newFlow();
    if (flow.session.holdsData()) flow.session.outboundData(stream ? flow.flight.bytes() : packet.payload);
  } else if (flow.session.holdsData()) {
    flow.session.outboundData(packet.payload);
  }
  if (ends) flow.session.outboundComplete();
}

void QueuedFlows::evictExpired(Clock::time_point now) {
  auto forget = [&](Flows& list, Clock::duration life, size_t limit) {
    while (!list.empty() && (list.size() > limit || now - list.front().lastSeen > life)) {
      flows_.erase(list.front().pair);
      list.pop_front();
    }
  };
  forget(open_, kOpenLifetime, kOpenLimit);
  forget(settled_, kSettledLifetime, kSettledLimit);
}

}  // namespace orvane
