#include "platform/linux/netfilter/Netfilter.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "platform/Log.h"
#include "platform/linux/base/ListEdits.h"
#include "platform/linux/base/SocketIO.h"
#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/netfilter/ConnectionTracking.h"
#include "platform/linux/netfilter/KernelRulesText.h"
#include "platform/linux/netfilter/OpenConnections.h"
#include "platform/linux/netfilter/PacketBacklog.h"
#include "platform/linux/netfilter/PacketQueue.h"
#include "platform/linux/netfilter/QueueWatchdog.h"
#include "platform/linux/netfilter/QueuedFlows.h"
#include "platform/linux/process/ProcessChanges.h"
#include "platform/linux/process/ProcessInformation.h"
#include "platform/linux/sockets/SocketAborter.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr auto kPauseAfterFailure = 400ms;  // the watchdog needs two heartbeats in a second
constexpr int kReadsOfBatch = 32;
constexpr auto kReviewTime = 1ms;  // how long packets may wait while connections are reviewed
// For how long connection tracking remembers a dropped UDP conversation: the kernel's default for UDP
// (nf_conntrack_udp_timeout).
constexpr auto kDroppedLifetime = 30s;
constexpr auto kRulesDebounce = 200ms;  // delay from a change to the check: a firewall reload makes many changes
constexpr auto kRulesPoll = 500ms;      // time between checks if the kernel sends no messages or the last repair failed

class SystemOwners final : public FlowOwners {
 public:
  explicit SystemOwners(SocketAborter& aborter) : aborter_(aborter) {}
  std::optional<std::string> check() { return owners_.check(); }
  std::optional<std::string> recordOpeners() { return owners_.recordOpeners(); }
  std::optional<SocketFacts> find(const SocketPair& pair) override { return owners_.find(pair); }
  std::optional<SocketFacts> sender(const SocketPair& pair, uid_t user) override { return owners_.sender(pair, user); }
  bool isOpen(const SocketPair& pair, uint64_t cookie) override { return owners_.isOpen(pair, cookie); }
  Value ownerOf(const SocketPair& pair, const SocketFacts& socket) override { return owners_.ownerOf(pair, socket); }
  void abort(const SocketPair& pair, uint64_t cookie) override {
    if (aborter_.abort(pair, cookie)) return;
    ORVANE_LOG_DEBUG(default_log(), "netfilter: a socket is not aborted: %s", std::strerror(errno));
  }
  std::vector<uint64_t> streams() { return owners_.streams(); }

 private:
  SocketOwners owners_;
  SocketAborter& aborter_;
};

// Whether the executables of other users' processes can be read. True if other users have no processes.
bool sees_other_users_programs() {
  bool wasDenied = false;
  for (pid_t pid : process_identifiers()) {
    const std::string folder = "/proc/" + std::to_string(pid);
    struct stat status;
    if (::stat(folder.c_str(), &status) != 0 || status.st_uid == ::geteuid()) continue;
    char first = 0;
    if (::readlink((folder + "/exe").c_str(), &first, 1) > 0) return true;
    wasDenied = wasDenied || errno == EACCES;
  }
  return !wasDenied;
}

}  // namespace

// Once the queue thread runs, only that thread uses this object.
struct Netfilter::Queue {
  explicit Queue(const Ref<NEFilterDataProvider>& provider)
      : connections(
            provider, owners, [this](const OpenConnection& connection) { end(connection); },
            [this](uid_t user, OpenConnections::Clock::duration time) { backlog.charge(user, time); }),
        flows(provider, owners) {}

  void serve(int stop);
  PacketQueue::Read readBatch(int most);
  void handleNext();
  void dropUnjudged(const QueuedPacket& queued);
  void handle(const QueuedPacket& queued, PacketBacklog::Clock::time_point start);
  void rebind();
  void reviewConnections();
  void end(const OpenConnection& connection);
  void keepDropped(const SocketPair& conversation);
  void noteAbort();

  PacketQueue packets{kQueueNumber};
  PacketBacklog backlog;
  QueueWatchdog watchdog;
  SocketAborter aborter;
  SystemOwners owners{aborter};
  std::optional<ConnectionTracking> tracking;  // nothing if the kernel does not let us change connections
  ListEdits* edits = nullptr;                  // null if edits do not end open connections
  OpenConnections connections;
  QueuedFlows flows;
};

Netfilter::Netfilter(bool endOpenConnections) : endOpenConnections_(endOpenConnections) {}

Netfilter::~Netfilter() { stop(); }

std::optional<std::string> Netfilter::start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) {
  stopRules_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  stopQueue_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!stopRules_ || !stopQueue_) return "no event descriptor: " + std::generic_category().message(errno);
  auto queue = std::make_unique<Queue>(std::move(provider));
  // The queue is opened before the rules are installed: if another extension has the queue, that extension's rules must
  // stay.
  auto error = queue->packets.open();
  taken_ = queue->packets.isTaken();
  if (!error) error = queue->watchdog.start(queue->packets.descriptor(), kQueueNumber);
  if (!error) error = queue->aborter.start();
  if (!error) error = queue->owners.check();
  if (error) return error;
  const auto noTracking = queue->tracking.emplace().open();
  if (noTracking) queue->tracking.reset();
  if (noTracking && endOpenConnections_) {
    ORVANE_LOG_ERROR(default_log(), "netfilter: an edit of the list does not end open connections: %@", *noTracking);
  } else if (endOpenConnections_) {
    queue->edits = &ListEdits::shared();
    queue->flows.addAllowedTo(queue->connections);
  }
  auto noRecords = queue->owners.recordOpeners();
  // ProcessChanges lets the extension remember which program a process runs. Without the kernel's record of openers,
  // this would save little, because finding the owner of a flow takes far longer than finding the owner's program. So
  // the kernel then need not count the changes of processes.
  auto noChanges = noRecords ? noRecords : ProcessChanges::system().start();
  // Connections that are older than the kernel rules stay as they are: flows of all TCP sockets that exist now are
  // allowed.
  for (uint64_t cookie : queue->owners.streams()) queue->flows.allowSocket(cookie);
  queue_ = std::move(queue);
  try {
    // The thread starts before the rules are installed, so that the first packets do not wait until all rules are
    // there.
    queueThread_ = std::thread([this] { queue_->serve(stopQueue_.get()); });
    if (error = rules_.install(settings); error) {
      stop();
      return error;
    }
    rulesThread_ = std::thread(&Netfilter::watchRules, this);
  } catch (const std::system_error& failure) {
    stop();
    return std::string("no thread: ") + failure.what();
  }
  if (noRecords) {
    ORVANE_LOG_DEFAULT(default_log(), "netfilter: flows' owners are read from the process table: %@", *noRecords);
  } else {
    ORVANE_LOG_DEFAULT(default_log(), "netfilter: flows' owners are recorded by the kernel");
  }
  if (noChanges) {
    ORVANE_LOG_DEFAULT(default_log(), "netfilter: programs are read from the process table for each flow: %@",
                       *noChanges);
  }
  if (!sees_other_users_programs()) {
    ORVANE_LOG_DEFAULT(default_log(), "netfilter: programs of other users are not recognised, without CAP_SYS_PTRACE");
  }
  return std::nullopt;
}

void Netfilter::stop() {
  if (queue_ == nullptr) return;
  if (rulesThread_.joinable()) {
    eventfd_write(stopRules_.get(), 1);
    rulesThread_.join();
  }
  // The rules are removed while the queue is still served, so that no packet is lost in the queue.
  if (auto error = rules_.remove()) {
    ORVANE_LOG_ERROR(default_log(), "netfilter: the kernel rules cannot be removed: %@", *error);
  }
  if (queueThread_.joinable()) {
    eventfd_write(stopQueue_.get(), 1);
    queueThread_.join();
  }
  queue_.reset();
}

void Netfilter::watchRules() {
  bool isNotified = rules_.changeDescriptor() >= 0;
  bool broken = false;
  for (;;) {
    pollfd change{rules_.changeDescriptor(), POLLIN, 0};
    auto poll = isNotified && !broken ? Deadline() : deadline_after(kRulesPoll);
    Wait event = wait_for({&change, 1}, stopRules_.get(), poll);
    if (event == Wait::Stopped) return;
    if (event == Wait::Ready && wait_for({}, stopRules_.get(), deadline_after(kRulesDebounce)) == Wait::Stopped) return;
    std::string error;
    KernelRules::State state = rules_.check(error, stopRules_.get());
    if (wait_for({}, stopRules_.get(), deadline_after(0ms)) == Wait::Stopped) return;  // the check may be incomplete
    if (state == KernelRules::State::Repaired) {
      flow_counters().ruleRepairs.fetch_add(1, std::memory_order_relaxed);
      ORVANE_LOG_DEFAULT(default_log(), "netfilter: another program changed the kernel rules; they are repaired");
    }
    if (state == KernelRules::State::Broken && !broken) {
      ORVANE_LOG_ERROR(default_log(), "netfilter: the kernel rules cannot be repaired: %@", error);
    }
    broken = state == KernelRules::State::Broken;
  }
}

void Netfilter::Queue::serve(int stop) {
  if (watchdog.beat()) rebind();  // the first heartbeat starts the watch
  for (;;) {
    // poll(2) ignores the descriptor -1.
    pollfd events[] = {{packets.descriptor(), POLLIN, 0},
                       {edits == nullptr ? -1 : edits->descriptor(), POLLIN, 0},
                       {watchdog.childDescriptor(), POLLIN, 0},
                       {aborter.descriptor(), POLLIN, 0}};
    Deadline end = connections.nextChecks();
    if (connections.hasPlans()) end = deadline_after(0ms);
    watchdog.rest();
    const bool stopped = wait_for(events, stop, end) == Wait::Stopped;
    if (events[2].revents != 0) watchdog.revive();
    if (events[3].revents != 0) noteAbort();
    PacketQueue::Read read;
    int rounds = 0;
    do {
      // In a flood, the queue is never empty, so without these tests the thread would not notice `stop`, nor what the
      // child processes did.
      if (++rounds % 64 == 0) {
        if (wait_for({}, stop, deadline_after(0ms)) == Wait::Stopped) return;
        watchdog.revive();
        noteAbort();
      }
      if (watchdog.beat()) rebind();
      // The first round reads one packet, so that a packet that arrives alone gets its verdict at once.
      read = readBatch(rounds == 1 ? 1 : kReadsOfBatch);
      watchdog.setAnswered(packets.acknowledged());
      handleNext();
      reviewConnections();
    } while (!backlog.empty() || (read != PacketQueue::Read::Nothing && read != PacketQueue::Read::Failed));
    flows.queueDrained();
    connections.removeEnded(PacketBacklog::Clock::now());
    if (stopped) return;
    if (read == PacketQueue::Read::Failed) {
      ORVANE_LOG_ERROR(default_log(), "netfilter: the packet queue cannot be read: %s", std::strerror(errno));
      wait_for({}, stop, deadline_after(kPauseAfterFailure));
    }
  }
}

// Reads up to `most` messages from the kernel's queue and adds their packets to the backlog. serve() reads many
// messages for each packet that it judges: if it read only one, a flood would fill the kernel's queue, and the kernel
// would then drop packets of all users.
PacketQueue::Read Netfilter::Queue::readBatch(int most) {
  const auto now = PacketBacklog::Clock::now();
  auto drop = [this](const QueuedPacket& queued) { dropUnjudged(queued); };
  auto keep = [&](const QueuedPacket& queued) { backlog.add(queued, now, drop); };
  PacketQueue::Read read = PacketQueue::Read::Nothing;
  for (int i = 0; i < most; ++i) {
    read = packets.read(keep);
    if (read == PacketQueue::Read::Overrun) flow_counters().queueOverruns.fetch_add(1, std::memory_order_relaxed);
    if (read == PacketQueue::Read::Nothing || read == PacketQueue::Read::Failed) break;
  }
  return read;
}

void Netfilter::Queue::handleNext() {
  auto packet = backlog.next();
  if (!packet) return;
  const auto start = PacketBacklog::Clock::now();
  if (start - packet->since > PacketBacklog::kLongestWait) {
    dropUnjudged(packet->queued);
  } else {
    handle(packet->queued, start);
    flows.recordAllowed();
  }
  const auto end = PacketBacklog::Clock::now();
  backlog.charge(end - start);
  connections.removeEnded(end);  // not only when the queue is empty: in a flood it never is
}

void Netfilter::Queue::dropUnjudged(const QueuedPacket& queued) {
  flow_counters().unjudgedPackets.fetch_add(1, std::memory_order_relaxed);
  const auto packet = parse_packet(queued.bytes, queued.interface, queued.length);
  if (packet && !queued.isInbound) flows.noteUnjudged(*packet);
  packets.drop(queued.id);
}

void Netfilter::Queue::handle(const QueuedPacket& queued, PacketBacklog::Clock::time_point start) {
  flow_counters().queuedPackets.fetch_add(1, std::memory_order_relaxed);
  auto packet = parse_packet(queued.bytes, queued.interface, queued.length);
  if (packet) packet->user = queued.user;
  if (queued.isInbound) {
    const bool hasConnection = (queued.mark & kMarkMask) != kMarkPending;
    switch (packet ? flows.judgeInbound(*packet, hasConnection, start) : PacketVerdict::Ignored) {
      case PacketVerdict::Ignored:  // an inbound packet with this mark passes, and no verdict is saved
        return packets.repeat(queued.id, answer_mark(queued.mark, kMarkDropped));
      case PacketVerdict::Allowed:
        return packets.repeat(queued.id, answer_mark(queued.mark, kMarkAllowed));
      default:  // the server sends the payload again
        return packets.drop(queued.id);
    }
  }
  uint32_t answer = kMarkPending;
  switch (packet ? flows.judge(*packet, start) : PacketVerdict::Ignored) {
    case PacketVerdict::Ignored:
      return packets.accept(queued.id, answer_mark(queued.mark, kMarkPending));
    case PacketVerdict::Open:
      break;
    case PacketVerdict::Held:
      return packets.drop(queued.id);
    case PacketVerdict::Allowed:
      answer = kMarkAllowed;
      break;
    case PacketVerdict::Dropped:
      answer = kMarkDropped;
      if (packet->ends.protocol == IPPROTO_UDP) keepDropped(packet->ends);
      break;
  }
  if (flows.isLooping()) {
    // Another program's rule ahead of ours replaces the mark, and the packet is queued again and again. An accepted
    // packet skips that rule, and table filter saves its verdict.
    packets.accept(queued.id, answer_mark(queued.mark, answer));
  } else {
    packets.repeat(queued.id, answer_mark(queued.mark, answer));
  }
  auto held = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
  flow_counters().recordHold(static_cast<uint64_t>(held.count()));
}

// Takes the queue back after the watchdog released it. The kernel has dropped the packets that are left in the socket
// and in the backlog. They get no verdict, because the kernel starts again with packet id 1, so the verdict could reach
// another packet.
void Netfilter::Queue::rebind() {
  backlog.clear();
  PacketQueue::Read left;
  do {
    left = packets.read([](const QueuedPacket&) {});
  } while (left != PacketQueue::Read::Nothing && left != PacketQueue::Read::Failed);
  packets.rebind();
  flow_counters().queueReleases.fetch_add(1, std::memory_order_relaxed);
  ORVANE_LOG_ERROR(default_log(), "netfilter: the filter hung or fell behind, and traffic passed unfiltered meanwhile");
}

// Asks the provider about open connections that edits of the list concern. Packets wait during this call, so it ends
// after kReviewTime, and the next call continues with the remaining connections.
void Netfilter::Queue::reviewConnections() {
  if (edits == nullptr) return;
  connections.plan(edits->take());
  connections.review(kReviewTime);
}

// Marks a connection as dropped. The kernel rules reset the connection at its next outbound packet.
void Netfilter::Queue::end(const OpenConnection& connection) {
  flows.drop(connection);
  flow_counters().ended.fetch_add(1, std::memory_order_relaxed);
  const bool isUDP = connection.pair.protocol == IPPROTO_UDP;
  const int error = tracking->setMark(connection.pair, kMarkDropped, kMarkMask,
                                      isUDP ? std::optional(kDroppedLifetime) : std::nullopt);
  // If connection tracking has forgotten a TCP connection, flows.drop() has done what is needed.
  if (error == 0 || (error == ENOENT && !isUDP)) return;
  ORVANE_LOG_ERROR(default_log(), "netfilter: an open connection cannot be ended: %s", std::strerror(error));
}

// Makes connection tracking remember a dropped conversation, in case its socket cannot be aborted. On its own,
// connection tracking remembers a conversation only after a packet of it has left, and here the first packet may be the
// dropped one. If connection tracking remembers the conversation, the kernel rules reject its next datagram at once,
// during the browser's call that sends the datagram. Otherwise the datagram waits in the queue and is rejected after
// that call, and Firefox ignores such a rejection.
void Netfilter::Queue::keepDropped(const SocketPair& conversation) {
  if (!tracking) return;
  const int error = tracking->setMark(conversation, kMarkDropped, kMarkMask, kDroppedLifetime);
  if (error == 0) return;
  ORVANE_LOG_DEBUG(default_log(), "netfilter: a dropped conversation is not remembered: %s", std::strerror(error));
}

// Reads whether the child process has aborted a socket. If the socket was aborted or closed, another program may get
// its port. So the next datagram with the same endpoints must get a verdict of its own. Takes one answer at a time,
// because the search for a socket takes long if a user has very many sockets, and the thread must call beat() in
// between.
void Netfilter::Queue::noteAbort() {
  const auto abort = aborter.next();
  if (!abort) return;
  if (abort->error != 0 && owners.isOpen(abort->pair, abort->cookie)) {
    ORVANE_LOG_DEBUG(default_log(), "netfilter: a socket is not aborted: %s", std::strerror(abort->error));
  } else if (tracking) {
    tracking->setMark(abort->pair, kMarkPending, kMarkMask);
  }
}

}  // namespace orvane
