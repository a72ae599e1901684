#include "platform/linux/netfilter/QueuedFlows.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/flow/ServerName.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr uint16_t kDNSPort = 53;
// A client that stops in the middle of its hello. What it says later is looked at as if it were the begin.
constexpr auto kOpenLife = 60s;
constexpr size_t kOpenLimit = 4096;
// Packets that the kernel queued before it had the verdict.
constexpr auto kJudgedLife = 5s;
constexpr size_t kJudgedLimit = 8192;
constexpr size_t kPacketsLimit = 100;

bool is_settled(const FilterSession& session) {
  return session.state() == FilterSession::State::Allowed || session.state() == FilterSession::State::Dropped;
}

PacketVerdict verdict_of(const FilterSession& session) {
  if (!is_settled(session)) return PacketVerdict::Open;
  return session.state() == FilterSession::State::Dropped ? PacketVerdict::Dropped : PacketVerdict::Allowed;
}

}  // namespace

PacketVerdict QueuedFlows::judge(const Packet& packet, Clock::time_point now) {
  forgetOldOnes(now);
  circles_ = false;
  bool ends = packet.fin || packet.rst;
  // Such as an acknowledgment, which comes here when it has extension headers that the kernel's rule does not see
  // through.
  if (packet.ends.protocol == IPPROTO_TCP && packet.payload.empty() && !ends) return PacketVerdict::Ignored;

  auto flow = flowOf(packet);
  circles_ = ++flow->packets > kPacketsLimit;
  if (is_settled(flow->session)) {
    if (flow->round != round_) flow_counters().lateQueued.fetch_add(1, std::memory_order_relaxed);
    return verdict_of(flow->session);
  }
  flow->touched = now;
  settle(*flow, packet);
  bool settled = is_settled(flow->session);
  if (settled) {
    flow->flight = FirstFlight();
    flow->round = round_;
  }
  auto& list = settled ? judged_ : open_;
  list.splice(list.end(), open_, flow);
  return verdict_of(flow->session);
}

// The packet's flow: the one that is known by its two ends, unless another socket has them by now; else a new one.
QueuedFlows::Flows::iterator QueuedFlows::flowOf(const Packet& packet) {
  auto socket = owners_.find(packet.ends);
  auto found = flows_.find(packet.ends);
  if (found != flows_.end()) {
    uint64_t known = found->second->cookie;
    bool settled = is_settled(found->second->session);
    if (!socket || socket->cookie == known || (known == 0 && !settled)) return found->second;
    auto& list = settled ? judged_ : open_;
    list.erase(found->second);
    flows_.erase(found);
  }
  Value owner = socket ? owners_.ownerOf(*socket) : Value();
  int32_t type = packet.ends.protocol == IPPROTO_TCP ? SOCK_STREAM : SOCK_DGRAM;
  auto flow = LinuxSocketFlow::create(std::move(owner), packet.ends.remote.host(), packet.ends.remote.port, type);
  open_.emplace_back(packet.ends, socket ? socket->cookie : 0, std::move(flow), provider_);
  return flows_.emplace(packet.ends, std::prev(open_.end())).first->second;
}

// Takes a flow as far as this packet can.
void QueuedFlows::settle(Flow& flow, const Packet& packet) {
  bool stream = packet.ends.protocol == IPPROTO_TCP;
  bool ends = packet.fin || packet.rst;
  if (flow.session.state() == FilterSession::State::New) {
    bool complete = ends;
    if (stream && !packet.payload.empty() && !flow.flight.add(packet.sequence, packet.payload)) complete = true;
    // A question's own name is in its bytes; the server that it goes to has none.
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

void QueuedFlows::forgetOldOnes(Clock::time_point now) {
  auto forget = [&](Flows& list, Clock::duration life, size_t limit) {
    while (!list.empty() && (list.size() > limit || now - list.front().touched > life)) {
      flows_.erase(list.front().pair);
      list.pop_front();
    }
  };
  forget(open_, kOpenLife, kOpenLimit);
  forget(judged_, kJudgedLife, kJudgedLimit);
}

}  // namespace orvane
