#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace orvane {

// Notices when a process executes a program, ends, or moves to another control group, and when a control group is
// renamed. BPF programs count these events in memory that the kernel shares with the extension, so reading a version is
// not a system call.
//
// A version is exact. It is not computed from messages, which may arrive late: the kernel counts an exec before the
// first instruction of the new program, the end of a process before its pid is free, and a move before the write(2)
// that asked for it returns.
//
// Thread-safe.
class ProcessChanges {
 public:
  // The object for this machine, which the whole extension shares. Never destroyed.
  static ProcessChanges& system() {
    static auto* changes = new ProcessChanges;
    return *changes;
  }

  // Starts counting; the kernel stops counting when the extension ends. Returns the reason on failure. Needs CAP_BPF
  // and CAP_PERFMON. Does nothing if an earlier call was successful.
  std::optional<std::string> start();

  // To find out later whether facts about a process are still true, take its version before you read the facts. As long
  // as version() returns the same version, the process runs the same program, in the same control group. This does not
  // hold for a process that had begun to end before you read the facts (ProcessInformation::isEnding()). A version may
  // also change when the process has not changed.
  struct Version {
    uint64_t ofProcess = 0, ofAny = 0;
    friend bool operator==(const Version& left, const Version& right) {
      return left.ofProcess == right.ofProcess && left.ofAny == right.ofAny;
    }
  };

  // Nothing if the events are not counted.
  std::optional<Version> version(pid_t pid) const {
    const uint64_t* events = events_.load(std::memory_order_acquire);
    if (events == nullptr) return std::nullopt;
    return Version{__atomic_load_n(&events[static_cast<uint32_t>(pid) % kSlots], __ATOMIC_ACQUIRE),
                   __atomic_load_n(&events[kSlots], __ATOMIC_ACQUIRE)};
  }

 private:
  static constexpr size_t kSlots = 65536;  // the same number as in ProcessChanges.bpf.c

  std::atomic<const uint64_t*> events_{nullptr};
};

}  // namespace orvane
