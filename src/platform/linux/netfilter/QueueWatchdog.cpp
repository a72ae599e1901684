#include "platform/linux/netfilter/QueueWatchdog.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
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
// The child sleeps after this number of checks in a row that found neither packets nor a heartbeat. One such check is
// not enough, because falling asleep and waking up cost more than a check.
constexpr int kQuietChecks = 4;

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

bool is_readable(int socket) {
  pollfd entry{socket, POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}

// Sets whether the kernel sends SIGIO to the socket's owner (F_SETOWN) when something arrives in the socket's buffer.
// Returns whether the kernel accepted the setting.
bool set_signals(int socket, bool enabled) {
  const int flags = fcntl(socket, F_GETFL);
  return flags >= 0 && fcntl(socket, F_SETFL, enabled ? flags | O_ASYNC : flags & ~O_ASYNC) == 0;
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
  if (child_.start("queue-watchdog", {queueSocket_, pipeReadEnd_.get()}, [this] { watch(); })) return std::nullopt;
  return failure("no process");
}

bool QueueWatchdog::beat() {
  if (shared_->status[0] == '\0') {
    snprintf(shared_->status, sizeof shared_->status, "/proc/%d/task/%d/stat", getpid(), gettid());
  }
  shared_->isResting.store(false, std::memory_order_relaxed);
  shared_->beats.fetch_add(1, std::memory_order_release);
  return shared_->released.load(std::memory_order_relaxed) && shared_->released.exchange(false);
}

void QueueWatchdog::revive() {
  if (child_.hasEnded()) startProcess();
}

void QueueWatchdog::stop() {
  pipeWriteEnd_.reset();
  // Closing the pipe is not enough: a stopped child (SIGSTOP) would not notice the closed pipe.
  child_.kill();
  child_.wait();
  if (shared_ != nullptr) munmap(shared_, sizeof(Shared));
  shared_ = nullptr;
}

// Everything that the child process runs. It ends when the pipe breaks.
void QueueWatchdog::watch() {
  alignas(nlmsghdr) std::array<char, 512> messages[2]{};
  nlmsghdr* release = nfq_nlmsg_put(messages[0].data(), NFQNL_MSG_CONFIG, queueNumber_);
  nfq_nlmsg_cfg_put_cmd(release, AF_UNSPEC, NFQNL_CFG_CMD_UNBIND);
  nlmsghdr* probe = nfq_nlmsg_put(messages[1].data(), NFQNL_MSG_CONFIG, queueNumber_);
  nfq_nlmsg_cfg_put_cmd(probe, AF_UNSPEC, NFQNL_CFG_CMD_PF_UNBIND);  // does nothing
  probe->nlmsg_flags |= NLM_F_ACK;
  const auto send_probe = [this, probe] {
    probe->nlmsg_seq = ++shared_->probes;
    send(queueSocket_, probe, probe->nlmsg_len, 0);
  };

  // SIGIO is blocked except during awaitCheck(), so that none is lost between a check and the wait for the next check.
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGIO, &action, nullptr);
  sigset_t blocked, mask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGIO);
  sigprocmask(SIG_BLOCK, &blocked, &mask);
  sigdelset(&mask, SIGIO);
  fcntl(queueSocket_, F_SETOWN, getpid());

  uint32_t settled = shared_->probes.load();  // the last probe that was answered, or that needs no answer any more
  uint64_t last = 0;
  for (int silent = 0, starved = 0, quiet = 0;;) {
    awaitCheck(quiet >= kQuietChecks, mask);
    const bool hasPackets = hasWork();
    const uint64_t beats = shared_->beats.load(std::memory_order_acquire);
    const bool isSilent = beats == std::exchange(last, beats);
    quiet = isSilent && !hasPackets ? quiet + 1 : 0;
    starved = isSilent && hasPackets && is_runnable(shared_->status) ? starved + 1 : 0;
    if (starved > 0 && starved <= kStarvedChecks) continue;
    silent = isSilent && hasPackets ? silent + 1 : 0;
    settled = is_readable(queueSocket_) ? std::max(settled, shared_->answered.load()) : shared_->probes.load();
    if (beats == 0 || !hasPackets) continue;  // the queue is not served yet, or nothing waits
    if (silent < kSilentChecks && shared_->probes.load() - settled < kLongestWaitChecks) {
      send_probe();
      continue;
    }
    send(queueSocket_, release, release->nlmsg_len, 0);
    shared_->released.store(true);
    // The thread may be about to wait for packets, which will not come. The answer to this probe wakes the thread, and
    // its next heartbeat binds the queue again.
    send_probe();
    settled = shared_->probes.load();
  }
}

// Whether packets may wait: in the socket's buffer, or in the thread's hands.
bool QueueWatchdog::hasWork() const {
  // The order of the two questions matters: first the buffer, then the thread. The thread ends its rest before it
  // reads. So if the buffer is empty because the thread has just read the packet, the thread no longer rests.
  return !shared_->released.load() && (is_readable(queueSocket_) || !shared_->isResting.load());
}

// Waits until the next check is due. If `isQuiet` is true, the next check is due when a packet arrives. Ends the
// process when its parent has ended.
void QueueWatchdog::awaitCheck(bool isQuiet, const sigset_t& mask) const {
  // After the signals are on, look again, because a packet that arrived before sends no signal.
  const bool sleeps = isQuiet && set_signals(queueSocket_, true) && !hasWork();
  if (isQuiet && !sleeps) set_signals(queueSocket_, false);
  const timespec interval{0, kCheckMilliseconds * 1'000'000L};
  pollfd end{pipeReadEnd_.get(), 0, 0};
  if (ppoll(&end, 1, sleeps ? nullptr : &interval, &mask) > 0) _exit(0);
  if (sleeps) set_signals(queueSocket_, false);
}

}  // namespace orvane
