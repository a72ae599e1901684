#include "platform/linux/process/ProcessChanges.h"

#include <bpf/libbpf.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "ProcessChanges.skel.h"

namespace orvane {
namespace {

// The inode of the initial PID namespace (PROC_PID_INIT_INO in the kernel; linux/nsfs.h has it since Linux 6.18).
constexpr ino_t kInitialPidNamespace = 0xEFFFFFFC;

std::string failure(const char* what, int error) { return std::string("cannot ") + what + ": " + std::strerror(error); }

// Returns an error on failure.
std::optional<std::string> load_and_attach(process_changes& kernel) {
  const auto own = own_pid_namespace();
  if (!own) return failure("identify the PID namespace", errno);
  kernel.rodata->pid_namespace_device = own->device;
  kernel.rodata->pid_namespace_inode = own->inode;
  if (int error = process_changes::load(&kernel); error != 0) return failure("load BPF programs", -error);
  if (int error = process_changes::attach(&kernel); error != 0) return failure("attach BPF programs", -error);
  return std::nullopt;
}

}  // namespace

std::optional<std::string> ProcessChanges::start() {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  if (events_.load() != nullptr) return std::nullopt;
  ::libbpf_set_print(nullptr);  // errors are returned, not written to standard error
  process_changes* kernel = process_changes::open();
  if (kernel == nullptr) return failure("read the BPF programs", errno);
  if (auto error = load_and_attach(*kernel)) {
    process_changes::destroy(kernel);
    return error;
  }
  static_assert(sizeof(kernel->bss->events) == (kSlots + 1) * sizeof(uint64_t));
  events_.store(reinterpret_cast<const uint64_t*>(kernel->bss->events));
  return std::nullopt;
}

std::optional<PidNamespace> own_pid_namespace() {
  struct stat status;
  if (::stat("/proc/self/ns/pid", &status) != 0) return std::nullopt;
  return status.st_ino == kInitialPidNamespace ? PidNamespace() : PidNamespace{status.st_dev, status.st_ino};
}

}  // namespace orvane
