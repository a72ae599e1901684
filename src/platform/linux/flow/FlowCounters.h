#pragma once

#include <atomic>
#include <cstdint>

namespace orvane {

// What the flow sources have seen since the extension's start. Thread-safe.
struct FlowCounters {
  using Count = std::atomic<uint64_t>;

  Count flows{0};          // shown to the provider
  Count allowed{0};        // at the new flow
  Count dropped{0};        // at the new flow
  Count examined{0};       // the provider asked for data
  Count allowedByData{0};  // at the data, or the end of it
  Count droppedByData{0};
  Count unknownOwners{0};            // flows shown without an audit token
  Count unknownNames{0};             // flows of which no name could be read; DNS flows have none and do not count
  Count queuedPackets{0};            // that the kernel handed over
  Count lateQueued{0};               // of these, those queued after their connection's verdict: there should be none
  Count queueOverruns{0};            // times that the kernel passed packets unseen, as the queue was full
  Count queueReleases{0};            // times that the watchdog gave the queue up
  Count ruleRepairs{0};              // times that wiped rules were put back
  Count longestHoldMicroseconds{0};  // from a packet's receipt to its verdict

  void held(uint64_t microseconds) {
    uint64_t longest = longestHoldMicroseconds.load(std::memory_order_relaxed);
    while (microseconds > longest && !longestHoldMicroseconds.compare_exchange_weak(longest, microseconds)) {
    }
  }
};

// The one of this process. Never destroyed.
inline FlowCounters& flow_counters() {
  static auto* counters = new FlowCounters;
  return *counters;
}

// Writes them to the default log, at default level.
void log_flow_counters();

}  // namespace orvane
