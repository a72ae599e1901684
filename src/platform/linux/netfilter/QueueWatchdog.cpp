#include "platform/linux/netfilter/QueueWatchdog.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/close_range.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

namespace orvane {
namespace {

constexpr int kCheckMilliseconds = 250;
constexpr int kSilentChecks = QueueWatchdog::kTimeoutMilliseconds / kCheckMilliseconds;
constexpr int kStarvedChecks = QueueWatchdog::kLongestStarvationMilliseconds / kCheckMilliseconds;
constexpr uint32_t kLongestWaitChecks = QueueWatchdog::kLongestWaitMilliseconds / kCheckMilliseconds;

std::string failure(const char* what) {
  return std::string("watchdog: ") + what + ": " + std::generic_category().message(errno);
}

// Whether a thread runs or is ready to run. `status` is the path of its file /proc/PID/task/TID/stat (proc(5)). The
// state is the word after the program's name, which is in parentheses and may contain any character.
bool is_runnable(const char* status) {
  char text[128] = {};
  Descriptor file(open(status, O_RDONLY | O_CLOEXEC));
  if (!file || read(file.get(), text, sizeof text - 1) <= 0) return false;
  const char* name = strrchr(text, ')');
  return name != nullptr && strncmp(name, ") R", 3) == 0;
}

}  // namespace

std::optional<std::string> QueueWatchdog::start(int queueSocket, uint16_t queueNumber) {
  queueSocket_ = queueSocket;
  queueNumber_ = queueNumber;
  void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return failure("no shared memory");
  shared_ = new (page) Shared;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return failure("no pipe");
  pipeReadEnd_ = Descriptor(ends[0]);
  pipeWriteEnd_ = Descriptor(ends[1]);
  return startProcess();
}

std::optional<std::string> QueueWatchdog::startProcess() {
  process_ = fork();
  if (process_ < 0) return failure("no process");
  if (process_ == 0) watch();
  return std::nullopt;
}

bool QueueWatchdog::beat() {
  if (shared_->status[0] == '\0') {
    snprintf(shared_->status, sizeof shared_->status, "/proc/%d/task/%d/stat", getpid(), gettid());
  }
  // Only one heartbeat in 16 checks whether the child has died, because the check is a system call, and under load
  // there is a heartbeat for every packet.
  if (shared_->beats.fetch_add(1, std::memory_order_release) % 16 == 0 && process_ > 0 &&
      waitpid(process_, nullptr, WNOHANG) == process_) {
    startProcess();
  }
  return shared_->released.load(std::memory_order_relaxed) && shared_->released.exchange(false);
}

void QueueWatchdog::stop() {
  pipeWriteEnd_.reset();
  if (process_ > 0) {
    // Kill the child, because closing the pipe is not enough: a stopped child (SIGSTOP) would not notice the closed
    // pipe.
    kill(process_, SIGKILL);
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  process_ = -1;
  if (shared_ != nullptr) munmap(shared_, sizeof(Shared));
  shared_ = nullptr;
}

// Everything that the child process runs. The child was forked from a program with threads, so it calls nothing that
// takes a lock or allocates memory.
void QueueWatchdog::watch() {
  setsid();  // so that signals from the terminal do not reach the child
  prctl(PR_SET_NAME, "queue-watchdog");
  // A service manager sends SIGTERM to all processes of a service. The child ignores this signal and ends when the pipe
  // breaks.
  signal(SIGTERM, SIG_IGN);
  // The child needs only the queue's socket and the pipe's read end. Close every other inherited descriptor: otherwise
  // a file would stay open in the child after the parent has closed it.
  int low = std::min(queueSocket_, pipeReadEnd_.get()), high = std::max(queueSocket_, pipeReadEnd_.get());
  if (low > 0) close_range(0, static_cast<unsigned>(low - 1), 0);
  if (high - low > 1) close_range(static_cast<unsigned>(low + 1), static_cast<unsigned>(high - 1), 0);
  close_range(static_cast<unsigned>(high + 1), ~0U, 0);

  alignas(nlmsghdr) std::array<char, 512> messages[2]{};
  nlmsghdr* release = nfq_nlmsg_put(messages[0].data(), NFQNL_MSG_CONFIG, queueNumber_);
  nfq_nlmsg_cfg_put_cmd(release, AF_UNSPEC, NFQNL_CFG_CMD_UNBIND);
  nlmsghdr* probe = nfq_nlmsg_put(messages[1].data(), NFQNL_MSG_CONFIG, queueNumber_);
  nfq_nlmsg_cfg_put_cmd(probe, AF_UNSPEC, NFQNL_CFG_CMD_PF_UNBIND);  // does nothing
  probe->nlmsg_flags |= NLM_F_ACK;
  uint32_t settled = shared_->probes.load();  // the last probe that was answered, or that needs no answer any more
  uint64_t last = 0;
  for (int silent = 0, starved = 0;;) {
    pollfd end{pipeReadEnd_.get(), 0, 0};
    if (poll(&end, 1, kCheckMilliseconds) > 0) _exit(0);
    const uint64_t beats = shared_->beats.load(std::memory_order_acquire);
    const bool isSilent = beats == std::exchange(last, beats);
    starved = isSilent && is_runnable(shared_->status) ? starved + 1 : 0;
    if (starved > 0 && starved <= kStarvedChecks) continue;
    silent = isSilent ? silent + 1 : 0;
    if (beats == 0 || shared_->released.load()) continue;  // the queue is not served yet, or was released
    settled = std::max(settled, shared_->answered.load());
    if (silent < kSilentChecks && shared_->probes.load() - settled < kLongestWaitChecks) {
      probe->nlmsg_seq = ++shared_->probes;
      send(queueSocket_, probe, probe->nlmsg_len, 0);
      continue;
    }
    send(queueSocket_, release, release->nlmsg_len, 0);
    settled = shared_->probes.load();
    shared_->released.store(true);
  }
}

}  // namespace orvane
