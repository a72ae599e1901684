#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <unordered_map>

#include "platform/linux/flow/FilterSession.h"
#include "platform/linux/flow/LinuxFlow.h"
#include "platform/linux/netfilter/FirstFlight.h"
#include "platform/linux/netfilter/Packet.h"
#include "platform/linux/sockets/SocketOwner.h"

namespace orvane {

// Who may be asked about a socket: SocketOwners, or a test.
class FlowOwners {
 public:
  virtual ~FlowOwners() = default;
  virtual std::optional<SocketFacts> find(const SocketPair& pair) = 0;
  virtual Value ownerOf(const SocketFacts& socket) = 0;
};

enum class PacketVerdict {
  Ignored,  // says nothing of a flow
  Open,     // the packet goes on, and the flow's next one is looked at too
  Allowed,  // for the flow
  Dropped,  // for the flow
};

// The flows whose first outbound packets pass a queue, from the first packet that is seen of each until the provider
// has settled it, and a moment longer. A flow is shown to the provider when the name of its server is known or cannot
// be known, or when it ends.
//
// Not thread-safe: there is one queue, and one thread serves it.
class QueuedFlows {
 public:
  using Clock = std::chrono::steady_clock;

  QueuedFlows(Ref<NEFilterDataProvider> provider, FlowOwners& owners)
      : provider_(std::move(provider)), owners_(owners) {}

  // What becomes of a packet.
  PacketVerdict judge(const Packet& packet, Clock::time_point now = Clock::now());

  // Whether the packet just judged belongs to a flow from which more of them came than any first flight has: somebody
  // takes the answers off its packets, which come to the queue again and again.
  bool circles() const { return circles_; }

  // The queue is empty: what comes from now on was queued after the verdicts so far.
  void drained() { ++round_; }

  size_t size() const { return flows_.size(); }

 private:
  struct Flow {
    Flow(const SocketPair& ends, uint64_t socketCookie, const Ref<LinuxSocketFlow>& shown,
         Ref<NEFilterDataProvider> provider)
        : pair(ends), cookie(socketCookie), flow(shown), session(std::move(provider), shown) {}

    SocketPair pair;
    uint64_t cookie;  // of its socket; 0 when there was none to be found
    Ref<LinuxSocketFlow> flow;
    FilterSession session;
    FirstFlight flight;
    Clock::time_point touched{};
    uint64_t round = 0;  // in which it was judged
    size_t packets = 0;
  };
  using Flows = std::list<Flow>;  // those touched last at the end

  Flows::iterator flowOf(const Packet& packet);
  void settle(Flow& flow, const Packet& packet);
  void forgetOldOnes(Clock::time_point now);

  Ref<NEFilterDataProvider> provider_;
  FlowOwners& owners_;
  uint64_t round_ = 0;
  bool circles_ = false;
  Flows open_, judged_;
  std::unordered_map<SocketPair, Flows::iterator, SocketPairHash> flows_;
};

}  // namespace orvane
