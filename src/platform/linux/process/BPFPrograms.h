#pragma once

#include <bpf/libbpf.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

namespace orvane {

inline std::string bpf_failure(const char* what, int error) {
  return std::string("cannot ") + what + ": " + std::strerror(error);
}

// Opens and loads the programs of a skeleton that `bpftool gen skeleton` has made. Tells the programs the extension's
// PID namespace; `prepare(*kernel)` may set more constants of the programs. Returns the reason if something fails. Even
// after a failure, the caller passes `kernel`, which may then be null, to Skeleton::destroy() at the end.
template <class Skeleton, class Prepare>
std::optional<std::string> load_bpf_programs(Skeleton*& kernel, Prepare prepare) {
  // The inode of the initial PID namespace (PROC_PID_INIT_INO in the kernel; linux/nsfs.h has it since Linux 6.17).
  constexpr ino_t kInitialPidNamespace = 0xEFFFFFFC;
  ::libbpf_set_print(nullptr);  // errors are returned, not written to standard error
  kernel = Skeleton::open();
  if (kernel == nullptr) return bpf_failure("read the BPF programs", errno);
  struct stat own;
  if (::stat("/proc/self/ns/pid", &own) != 0) return bpf_failure("identify the PID namespace", errno);
  if (own.st_ino != kInitialPidNamespace) {
    kernel->rodata->pid_namespace_device = own.st_dev;
    kernel->rodata->pid_namespace_inode = own.st_ino;
  }
  prepare(*kernel);
  if (int error = Skeleton::load(kernel); error != 0) return bpf_failure("load BPF programs", -error);
  return std::nullopt;
}

}  // namespace orvane
