#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "platform/names/ServerName.h"

namespace orvane {

// Finds the host names of flows in the flows' first outbound bytes. Keeps a reader only for a flow whose name is not
// complete yet. Thread-safe.
class FlowNames {
 public:
  // Limit on the readers that are kept. The system does not report every flow that ends early, so readers of ended
  // flows accumulate. At the limit, a new reader replaces the oldest one. If the oldest reader's flow is still open, no
  // name is found for this flow. A reader takes about 2 KiB at most.
  static constexpr size_t kFlowsLimit = 1024;

  struct Result {
    NameState state;
    std::string name{};  // in the form of the list's names (HostName.h); empty unless the state is Known
  };

  // Reads outbound bytes of a flow. `flow` is the flow's identifier, and `offset` is the position of the first of these
  // bytes in the flow. Skips bytes that an earlier call has read. If bytes before `offset` are missing, the state is
  // Unknown. After a call whose state is not Open, the flow is forgotten.
  Result read(const std::string& flow, uint64_t offset, std::span<const uint8_t> bytes);

  void forget(const std::string& flow);

 private:
  struct Reader {
    std::string flow;
    uint64_t length = 0;  // the number of bytes that were read
    ServerNameReader names{};
  };

  std::mutex mutex_;
  std::deque<Reader> readers_;  // the oldest first
};

}  // namespace orvane
