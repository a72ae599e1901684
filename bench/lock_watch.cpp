// million_names preloads this library into the extension. The library measures the longest time for which a thread
// holds the database's lock, and prints this time on SIGUSR2. The library watches the recursive mutexes in the
// program's static memory. The database's lock is the only one there.
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>

namespace {

using LockFunction = int (*)(pthread_mutex_t*);

std::atomic<uint64_t> longest{0}, holds{0};
thread_local int depth = 0;
thread_local uint64_t taken = 0;

uint64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1000000000U + static_cast<uint64_t>(time.tv_nsec);
}

struct Range {
  uintptr_t start = 0, end = 0;
};

// A callback of dl_iterate_phdr(), which reports the program itself first. Returns 1, which ends the iteration after
// the program.
int find_program(dl_phdr_info* info, size_t, void* out) {
  auto* range = static_cast<Range*>(out);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& header = info->dlpi_phdr[i];
    if (header.p_type == PT_LOAD) range->end = info->dlpi_addr + header.p_vaddr + header.p_memsz;
  }
  range->start = info->dlpi_addr;
  return 1;
}

bool watched(const pthread_mutex_t* mutex) {
  static const Range program = [] {
    Range range;
    dl_iterate_phdr(find_program, &range);
    return range;
  }();
  const auto address = reinterpret_cast<uintptr_t>(mutex);
  return address >= program.start && address < program.end && mutex->__data.__kind == PTHREAD_MUTEX_RECURSIVE;
}

void report(int) {
  char text[128];
  const int length =
      std::snprintf(text, sizeof text, "longest hold: %llu ns in %llu holds\n",
                    static_cast<unsigned long long>(longest.load()), static_cast<unsigned long long>(holds.load()));
  if (write(STDERR_FILENO, text, static_cast<size_t>(length)) < 0) return;
}

__attribute__((constructor)) void watch() { signal(SIGUSR2, report); }

}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real = reinterpret_cast<LockFunction>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  const int status = real(mutex);
  if (watched(mutex) && depth++ == 0) taken = now();
  return status;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static const auto real = reinterpret_cast<LockFunction>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
  if (watched(mutex) && --depth == 0) {
    const uint64_t held = now() - taken;
    ++holds;
    uint64_t seen = longest;
    while (held > seen && !longest.compare_exchange_weak(seen, held)) {
    }
  }
  return real(mutex);
}
