#pragma once

#include <atomic>
#include <cstdint>

namespace orvane {

// Counts what the flow sources have seen since the process started. Thread-safe.
struct FlowCounters {
  using Count = std::atomic<uint64_t>;

  Count flows{0};                    // flows that were shown to the provider; a flow that is shown again counts again
  Count allowed{0};                  // shown flows that were allowed at once
  Count dropped{0};                  // shown flows that were dropped at once
  Count examined{0};                 // shown flows whose data the provider wanted to see first
  Count allowedByData{0};            // examined flows that were allowed later
  Count droppedByData{0};            // examined flows that were dropped later
  Count unknownOwners{0};            // flows without an audit token
  Count unknownNames{0};             // flows of the packet queue without a readable name; DNS flows are not counted
  Count hiddenNames{0};              // flows whose real name may be in an encrypted hello
  Count ended{0};                    // open flows that were ended after an edit of the list
  Count queuedPackets{0};            // packets from the kernel's queue
  Count lateQueued{0};               // packets that were queued after their connection's verdict; expected to be 0
  Count queueOverruns{0};            // times that the queue's socket buffer was full, so packets were dropped
  Count unjudgedPackets{0};          // packets dropped without a verdict: too many waited, or a packet waited too long
  Count queueReleases{0};            // times that the watchdog released the queue
  Count ruleRepairs{0};              // times that the kernel rules were repaired
  Count longestHoldMicroseconds{0};  // the longest time to judge a packet that is not inbound, ignored or held

  // Counts a flow in hiddenNames, and wakes the threads that wait for a change of this counter.
  void recordHiddenName() {
    hiddenNames.fetch_add(1, std::memory_order_relaxed);
    hiddenNames.notify_all();
  }

  void recordHold(uint64_t microseconds) {
    uint64_t longest = longestHoldMicroseconds.load(std::memory_order_relaxed);
    while (microseconds > longest && !longestHoldMicroseconds.compare_exchange_weak(longest, microseconds)) {
    }
  }
};

// The process's counters. Never destroyed, so that detached threads may use them at exit.
inline FlowCounters& flow_counters() {
  static auto* counters = new FlowCounters;
  return *counters;
}

// Writes the counters to the default log, at default level.
void log_flow_counters();

}  // namespace orvane
