#include "platform/linux/process/ProcessChanges.h"

#include <mutex>

#include "ProcessChanges.skel.h"
#include "platform/linux/process/BPFPrograms.h"

namespace orvane {

std::optional<std::string> ProcessChanges::start() {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  if (events_.load() != nullptr) return std::nullopt;
  static process_changes* kernel;  // after a success never destroyed: the programs count until this process ends
  auto error = load_bpf_programs(kernel, [](process_changes&) {});
  if (!error) {
    const int failed = process_changes::attach(kernel);
    if (failed != 0) error = bpf_failure("attach BPF programs", -failed);
  }
  if (error) {
    process_changes::destroy(kernel);
    kernel = nullptr;
    return error;
  }
  static_assert(sizeof(kernel->bss->events) == (kSlots + 1) * sizeof(uint64_t));
  events_.store(reinterpret_cast<const uint64_t*>(kernel->bss->events));
  return std::nullopt;
}

}  // namespace orvane
