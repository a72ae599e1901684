#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/files/Descriptor.h"
#include "platform/linux/flow/FlowSource.h"
#include "platform/linux/netfilter/KernelRules.h"

namespace orvane {

// The flow source that sees the flows of all programs in the network namespace of the thread that calls start(). Kernel
// rules (KernelRules.h) send the first outbound bytes of new connections to a packet queue and carry out the verdicts.
// Needs CAP_NET_ADMIN.
//
//   queue thread          reads packets, asks the provider, answers the kernel; only this thread uses flows, so flows
//                         need no lock
//   rules thread          repairs the kernel rules
//   queue-watchdog        a process that releases the queue when the queue thread hangs (QueueWatchdog.h)
//   socket-aborter        a process that aborts the sockets of dropped HTTP/3 conversations (SocketAborter.h)
class Netfilter final : public FlowSource {
 public:
  // If `endOpenConnections` is true, the provider is asked about open connections again after each edit of the list,
  // and the connections that the provider then drops are ended.
  explicit Netfilter(bool endOpenConnections);
  ~Netfilter() override;

  std::optional<std::string> start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) override;
  void stop() override;

  // Whether start() failed because another process has the packet queue, most likely another extension.
  bool isTaken() const { return taken_; }

 private:
  struct Queue;

  void watchRules();

  const bool endOpenConnections_;
  KernelRules rules_;
  std::unique_ptr<Queue> queue_;
  Descriptor stopRules_, stopQueue_;
  std::thread rulesThread_, queueThread_;
  bool taken_ = false;
};

}  // namespace orvane
