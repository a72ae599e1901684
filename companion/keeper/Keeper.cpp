#include "companion/keeper/Keeper.h"

#include <malloc.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "companion/keeper/ExtensionLink.h"
#include "companion/keeper/KeeperLog.h"
#include "companion/keeper/KeeperState.h"
#include "companion/keeper/ListSync.h"
#include "companion/keeper/PathWatch.h"
#include "companion/keeper/ShutdownRequest.h"
#include "companion/list/ListFile.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "platform/linux/base/Descriptor.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

// The list's file is read when it has not changed for kDebounce, but at the latest kMaxDebounce after the first change.
constexpr std::chrono::milliseconds kDebounce = 30ms;
constexpr std::chrono::milliseconds kMaxDebounce = 1s;

// An empty list takes effect only after this time, because editors remove or truncate a file before they write it.
constexpr std::chrono::milliseconds kEmptyDelay = 1s;

// The time between two checks of the list's file for changes that PathWatch does not report. If the system has no
// inotify instance left, PathWatch reports nothing, and kUnwatchedCheckInterval applies. kUnwatchedCheckInterval is
// also the longest time until the next attempt to write the state file after an error.
constexpr std::chrono::milliseconds kCheckInterval = 60s;
constexpr std::chrono::milliseconds kUnwatchedCheckInterval = 2s;

// The keeper sets a timer for the moment at which the first suspension ends, but at most this far ahead. The reason is
// that a suspension may end after the year 2262, in which the kernel's clocks end. If the timer fires before the
// suspension ends, the keeper sets it again.
constexpr std::chrono::hours kLongestTimer = 24h * 30;

constexpr size_t kBadLinesLogged = 3;

std::string absolute(const std::string& path) { return std::filesystem::absolute(path).lexically_normal(); }

// A timer on the wall clock. If the machine sleeps past the timer's moment, the timer fires after the sleep. It also
// fires when the clock is set.
class WallClock {
 public:
  WallClock() : timer_(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {}
  int descriptor() const { return timer_.get(); }

  void setTimer(Moment moment) {
    itimerspec when{};
    when.it_value.tv_sec = std::max<time_t>(moment.time_since_epoch().count(), 1);
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr);
  }
  // Call when the descriptor is readable. Returns whether the clock was set.
  bool wasSet() {
    uint64_t expirations = 0;
    return read(timer_.get(), &expirations, sizeof expirations) < 0 && errno == ECANCELED;
  }

 private:
  Descriptor timer_;
};

class Keeper {
 public:
  Keeper(const KeeperOptions& options, Descriptor lock)
      : statePath_(options.statePath),
        lock_(std::move(lock)),
        listWatch_({absolute(options.listPath)}),
        link_(options.client, state_) {
    state_.process = getpid();
    state_.started = now_in_seconds();
    state_.listPath = absolute(options.listPath);
  }

  void run() {
    publish();
    // Readiness does not depend on the list or the extension.
    sd_notify(0, "READY=1");
    attend({});
    for (;;) {
      publish();
      const Events events = wait();
      if (shutdown_.isMade()) break;
      attend(events);
    }
    sd_notify(0, "STOPPING=1\nSTATUS=Ending");
    if (lock_) unlink(statePath_.c_str());
  }

 private:
  const HeldNames* known() const { return isKnown_ ? &list_ : nullptr; }

  // The entries for poll(2), each named after what it waits for.
  struct Events {
    pollfd shutdown{-1, POLLIN, 0}, list = shutdown, clock = shutdown, sockets = shutdown, connection = shutdown;
  };

  Events wait();
  void attend(const Events& events);
  void checkList();
  void onListChange();
  void readList();
  void take(HeldNames list);
  void setTimer(const HeldNames& list);
  void describe(const BlockList& list);
  void onClockChange();
  void publish();

  const std::string statePath_;
  const Descriptor lock_;  // empty if the state file's folder does not exist
  ShutdownRequest shutdown_;
  KeeperState state_;
  nlohmann::json writtenState_;  // as last written
  std::string status_;
  bool isUnwritable_ = false;

  PathWatch listWatch_;
  WallClock clock_;
  std::optional<Steady::time_point> changedAt_;  // the first change of the list's file since the last read
  std::optional<Steady::time_point> emptySince_;
  std::optional<Steady::time_point> readAt_ = Steady::now();
  Steady::time_point checkAt_ = Steady::now() + kUnwatchedCheckInterval;

  bool isKnown_ = false;  // a list has been read
  // The list as last read. While link_ is in sync, the extension holds the same names. So the keeper needs no copy of
  // what it has sent, which would double the memory.
  HeldNames list_;
  std::string lastLoggedFaults_;
  ExtensionLink link_;
};

Keeper::Events Keeper::wait() {
  Steady::time_point due = std::min(link_.due(), checkAt_);
  if (readAt_) due = std::min(due, *readAt_);
  if (isUnwritable_) due = std::min(due, Steady::now() + kUnwatchedCheckInterval);
  auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Steady::now());
  std::array<pollfd, 5> events{{{shutdown_.descriptor(), POLLIN, 0},
                                {listWatch_.descriptor(), POLLIN, 0},
                                {clock_.descriptor(), POLLIN, 0},
                                {link_.socketWatch(), POLLIN, 0},
                                {link_.connection(), POLLRDHUP, 0}}};
  if (poll(events.data(), events.size(), static_cast<int>(std::max(left, 0ms).count())) <= 0) return {};
  return {events[0], events[1], events[2], events[3], events[4]};
}

// Reading a large list or calling an extension that hangs takes long. So during this function, a shutdown request ends
// the process at once. That is safe, because the next keeper sends everything again.
void Keeper::attend(const Events& events) {
  shutdown_.exitAtOnce(true);
  if (events.list.revents != 0) onListChange();
  if (events.clock.revents != 0) onClockChange();
  if (events.sockets.revents != 0) link_.onSocketEvent();
  if (events.connection.revents != 0) link_.onHangUp();
  if (readAt_ && Steady::now() >= *readAt_) readList();
  if (Steady::now() >= checkAt_) checkList();
  link_.attend(known());
  shutdown_.exitAtOnce(false);
}

void Keeper::checkList() {
  checkAt_ = Steady::now() + (listWatch_.descriptor() < 0 ? kUnwatchedCheckInterval : kCheckInterval);
  listWatch_.arm();
  try {
    if (isKnown_ && list_version(state_.listPath) == state_.listVersion) return;
  } catch (const FileError&) {  // readList() logs it
  }
  if (!readAt_) readList();
}

void Keeper::onListChange() {
  if (!listWatch_.readEvents()) return;
  const auto now = Steady::now();
  if (!changedAt_) changedAt_ = now;
  readAt_ = std::min(now + kDebounce, *changedAt_ + kMaxDebounce);
}

void Keeper::readList() {
  changedAt_.reset();
  readAt_.reset();
  try {
    StoredList stored = read_list(state_.listPath);
    HeldNames list = held_names(stored.list, now_in_seconds());
    if (list.names.empty() && list.suspended.empty()) {
      const auto now = Steady::now();
      if (!emptySince_) emptySince_ = now;
      if (now < *emptySince_ + kEmptyDelay) {
        readAt_ = *emptySince_ + kEmptyDelay;
        return;
      }
    } else {
      emptySince_.reset();
    }
    describe(stored.list);
    state_.listVersion = stored.version;
    state_.listError.reset();
    stored = {};
    take(std::move(list));
  } catch (const std::exception& error) {
    if (state_.listError != error.what()) keeper_log(LogLevel::Error, error.what());
    state_.listError = error.what();
  }
  // Parsing a large list leaves fragmented free memory, which the allocator would keep.
  malloc_trim(0);
}

// Updates the counts in the state and logs the first bad lines.
void Keeper::describe(const BlockList& list) {
  state_.sites = list.size();
  state_.badLines = list.badLines().size();
  std::string faults;
  for (size_t i = 0; i < std::min(list.badLines().size(), kBadLinesLogged); ++i) {
    const auto& bad = list.badLines()[i];
    faults += "; line " + std::to_string(bad.line) + ": " + in_quotes(bad.text) + ": " + bad.fault;
  }
  if (!faults.empty() && faults != lastLoggedFaults_)
    keeper_log(LogLevel::Warning, counted(state_.badLines, "bad line", "bad lines") + " of the list ignored" + faults);
  lastLoggedFaults_ = faults;
}

void Keeper::take(HeldNames list) {
  setTimer(list);
  link_.update(known(), list);
  list_ = std::move(list);
  isKnown_ = true;
  state_.names = list_.names.size();
  state_.suspended = list_.suspended;
}

void Keeper::setTimer(const HeldNames& list) {
  const Moment latest = now_in_seconds() + kLongestTimer;
  clock_.setTimer(std::min(list.nextChange.value_or(latest), latest));
}

void Keeper::onClockChange() {
  // If the clock was set back, a suspension that had ended may be in force again. Only the list's file still has
  // the date of this suspension.
  if (clock_.wasSet()) {
    keeper_log(LogLevel::Notice, "the clock was set");
    readList();
  }
  const Moment now = now_in_seconds();
  if (!list_.nextChange || *list_.nextChange > now) return setTimer(list_);
  HeldNames list = list_;
  end_suspensions(list, now);
  take(std::move(list));
}

void Keeper::publish() {
  std::string status = !state_.connected    ? "Waiting for the extension"
                       : state_.sentVersion ? counted(state_.sentNames, "name", "names") + " sent"
                                            : "Connected, without a list";
  if (!state_.suspended.empty()) status += ", " + std::to_string(state_.suspended.size()) + " suspended";
  if (status != status_) sd_notify(0, ("STATUS=" + status).c_str());
  status_ = std::move(status);
  if (!lock_) return;
  nlohmann::json state = to_json(state_);
  if (state == writtenState_) return;
  writtenState_ = std::move(state);
  try {
    write_keeper_state(statePath_, state_);
    isUnwritable_ = false;
  } catch (const FileError& error) {
    if (!isUnwritable_) keeper_log(LogLevel::Warning, error.what());
    isUnwritable_ = true;
    writtenState_ = nullptr;  // so that the next call tries again
  }
}

}  // namespace

int run_keeper(const KeeperOptions& options) {
  Descriptor lock;
  try {
    lock = lock_keeper_state(options.statePath);
    if (!lock) {
      print_error("cannot keep the list: another keeper has its state in " + in_quotes(options.statePath) +
                  ": end that one, or name another file with --state");
      return kFailed;
    }
  } catch (const FileError& error) {
    // If the state file's folder exists but this keeper may not write to it, the folder belongs to another keeper.
    // This keeper must not run beside the other one, so it ends.
    std::error_code ignored;
    if (std::filesystem::exists(std::filesystem::path(absolute(options.statePath)).parent_path(), ignored)) {
      print_error(std::string(error.what()));
      return kFailed;
    }
    keeper_log(LogLevel::Warning, std::string("running without a state file: ") + error.what());
  }
  Keeper(options, std::move(lock)).run();
  return kDone;
}

}  // namespace orvane
