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

// Finds a flow's socket and its owner, with the contract of SocketOwners.
class FlowOwners {
 public:
  virtual ~FlowOwners() = default;
  virtual std::optional<SocketFacts> find(const SocketPair& pair) = 0;
  virtual Value ownerOf(const SocketFacts& socket) = 0;
};

enum class PacketVerdict {
  Ignored,  // the packet tells nothing about a flow
  Open,     // the packet passes; the flow's next packets are needed
  Allowed,  // the flow is allowed
  Dropped,  // the flow is dropped
};

// The flows whose first outbound packets are in the queue. A flow is shown to the provider when its server's name is
// known or cannot become known, or when the flow ends. Once settled it is remembered for some seconds, for packets that
// were queued before its verdict.
//
// Not thread-safe: one thread serves the queue.
class QueuedFlows {
 public:
  using Clock = std::chrono::steady_clock;

  QueuedFlows(Ref<NEFilterDataProvider> provider, FlowOwners& owners)
      : provider_(std::move(provider)), owners_(owners) {}

  // Decides about a packet.
  PacketVerdict judge(const Packet& packet, Clock::time_point now = Clock::now());

  // Whether the flow of the last packet had more packets than a first flight has. Then another program overwrites the
  // mark of its packets, and they are queued again and again.
  bool isLooping() const { return isLooping_; }

  // The queue is empty: later packets were queued after all verdicts so far.
  void queueDrained() { ++generation_; }

  size_t size() const { return flows_.size(); }

 private:
  struct Flow {
    Flow(const SocketPair& ends, uint64_t socketCookie, const Ref<LinuxSocketFlow>& shown,
         Ref<NEFilterDataProvider> provider)
        : pair(ends), cookie(socketCookie), flow(shown), session(std::move(provider), shown) {}

    SocketPair pair;
    uint64_t cookie;  // of its socket; 0 when no socket was found
    Ref<LinuxSocketFlow> flow;
    FilterSession session;
    FirstFlight flight;
    Clock::time_point lastSeen{};
    uint64_t generation = 0;  // in which it was settled
    size_t packets = 0;
  };
  using Flows = std::list<Flow>;  // the last seen one at the end

  Flows::iterator findOrCreate(const Packet& packet);
  void settle(Flow& flow, const Packet& packet);
  void evictExpired(Clock::time_point now);

  Ref<NEFilterDataProvider> provider_;
  FlowOwners& owners_;
  uint64_t generation_ = 0;
  bool isLooping_ = false;
  Flows open_, settled_;
  std::unordered_map<SocketPair, Flows::iterator, SocketPairHash> flows_;
};

}  // namespace orvane
