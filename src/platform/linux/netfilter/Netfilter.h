#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/linux/base/Descriptor.h"
#include "platform/linux/flow/FlowSource.h"
#include "platform/linux/netfilter/KernelRules.h"

namespace orvane {

// The flow source in the kernel's path: it sees the flows of every program of the network namespace that it is started
// in, whatever their settings. Rules of the kernel (KernelRules.h) lead the first outbound bytes of new connections to
// a packet queue, and act on the verdict. Needs CAP_NET_ADMIN.
//
// One thread serves the queue, so that flows need no lock; one watches over the rules; a process watches over the first
// thread (QueueWatchdog.h).
class Netfilter final : public FlowSource {
 public:
  Netfilter();
  ~Netfilter() override;

  std::optional<std::string> start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) override;
  void stop() override;

  // Whether start() failed because another program has the packet queue: most likely it filters already.
  bool isTaken() const { return taken_; }

 private:
  struct Queue;

  void watchRules();

  KernelRules rules_;
  std::unique_ptr<Queue> queue_;
  Descriptor stopRules_, stopQueue_;
  std::thread rulesThread_, queueThread_;
  bool taken_ = false;
};

}  // namespace orvane
