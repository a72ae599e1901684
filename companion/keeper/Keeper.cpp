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

// The file is read once it has been left alone for this long; but after so much of being written, in any case.
constexpr std::chrono::milliseconds kQuiet = 30ms;
constexpr std::chrono::milliseconds kUnquiet = 1s;

// A list without any name counts only when it stays so: editors take a file away, or empty it, and then write it anew.
constexpr std::chrono::milliseconds kEmptyFor = 1s;

// Besides all notifications the file is looked at: some changes are not told, and a system may have no watch to give.
constexpr std::chrono::milliseconds kLookEvery = 60s;
constexpr std::chrono::milliseconds kLookEveryUnwatched = 2s;

// The clock's timer at the latest: dates may be further away than a timer can be set.
constexpr std::chrono::hours kLongestTimer = 24h * 30;

constexpr size_t kBadLinesTold = 3;

std::string absolute(const std::string& path) { return std::filesystem::absolute(path).lexically_normal(); }

// The timer goes off at a moment of the wall clock, also when the machine slept then, and when the clock is set.
class WallClock {
 public:
  WallClock() : timer_(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {}
  int descriptor() const { return timer_.get(); }

  void setTimer(Moment moment) {
    itimerspec when{};
    when.it_value.tv_sec = std::max<time_t>(moment.time_since_epoch().count(), 1);
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr);
  }
  // Called when the descriptor is readable: whether the clock has been set.
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
    // Whether there is a list or an extension is not its own doing.
    sd_notify(0, "READY=1");
    attend({});
    for (;;) {
      publish();
      const Waited waited = wait();
      if (end_.isMade()) break;
      attend(waited);
    }
    sd_notify(0, "STOPPING=1\nSTATUS=Ending");
    if (lock_) unlink(statePath_.c_str());
  }

 private:
  const HeldNames* known() const { return isKnown_ ? &list_ : nullptr; }

  // What is waited for, by the names of the members that it is for.
  struct Waited {
    pollfd end{-1, POLLIN, 0}, list = end, clock = end, sockets = end, connection = end;
  };

  Waited wait();
  void attend(const Waited& waited);
  void lookAtList();
  void listHappened();
  void readList();
  void take(HeldNames list);
  void setTimer(const HeldNames& list);
  void describe(const BlockList& list);
  void clockHappened();
  void publish();

  const std::string statePath_;
  const Descriptor lock_;  // none where there is no place for a state
  ShutdownRequest end_;
  KeeperState state_;
  nlohmann::json written_;  // what was told last
  std::string status_;
  bool isUnwritable_ = false;

  PathWatch listWatch_;
  WallClock clock_;
  std::optional<Steady::time_point> changedAt_;  // the file, since it was read last
  std::optional<Steady::time_point> emptySince_;
  std::optional<Steady::time_point> readAt_ = Steady::now();
  Steady::time_point lookAt_ = Steady::now() + kLookEveryUnwatched;

  bool isKnown_ = false;  // a list has been read
  HeldNames list_;        // the only copy: what the extension holds whenever it is in step
  std::string toldFaults_;
  ExtensionLink link_;
};

Keeper::Waited Keeper::wait() {
  Steady::time_point due = std::min(link_.due(), lookAt_);
  if (readAt_) due = std::min(due, *readAt_);
  if (isUnwritable_) due = std::min(due, Steady::now() + kLookEveryUnwatched);
  auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Steady::now());
  std::array<pollfd, 5> waited{{{end_.descriptor(), POLLIN, 0},
                                {listWatch_.descriptor(), POLLIN, 0},
                                {clock_.descriptor(), POLLIN, 0},
                                {link_.sockets(), POLLIN, 0},
                                {link_.connection(), POLLRDHUP, 0}}};
  if (poll(waited.data(), waited.size(), static_cast<int>(std::max(left, 0ms).count())) <= 0) return {};
  return {waited[0], waited[1], waited[2], waited[3], waited[4]};
}

// Does what is due. To read a large list, and to call an extension that hangs, takes longer than anybody wants to wait
// for the end, and may be broken off anywhere: whoever keeps the list next sends everything anew.
void Keeper::attend(const Waited& waited) {
  end_.breakOff(true);
  if (waited.list.revents != 0) listHappened();
  if (waited.clock.revents != 0) clockHappened();
  if (waited.sockets.revents != 0) link_.socketsHappened();
  if (waited.connection.revents != 0) link_.hungUp();
  if (readAt_ && Steady::now() >= *readAt_) readList();
  if (Steady::now() >= lookAt_) lookAtList();
  link_.attend(known());
  end_.breakOff(false);
}

void Keeper::lookAtList() {
  lookAt_ = Steady::now() + (listWatch_.descriptor() < 0 ? kLookEveryUnwatched : kLookEvery);
  listWatch_.arm();
  try {
    if (isKnown_ && list_version(state_.listPath) == state_.listVersion) return;
  } catch (const FileError&) {  // reading tells it
  }
  if (!readAt_) readList();
}

void Keeper::listHappened() {
  if (!listWatch_.happened()) return;
  const auto now = Steady::now();
  if (!changedAt_) changedAt_ = now;
  readAt_ = std::min(now + kQuiet, *changedAt_ + kUnquiet);
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
      if (now < *emptySince_ + kEmptyFor) {
        readAt_ = *emptySince_ + kEmptyFor;
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
  // A large list leaves much memory behind, in pieces, which the allocator would keep.
  malloc_trim(0);
}

// What there is to tell of a list besides its names.
void Keeper::describe(const BlockList& list) {
  state_.sites = list.size();
  state_.badLines = list.badLines().size();
  std::string faults;
  for (size_t i = 0; i < std::min(list.badLines().size(), kBadLinesTold); ++i) {
    const auto& bad = list.badLines()[i];
    faults += "; line " + std::to_string(bad.line) + ": " + in_quotes(bad.text) + ": " + bad.fault;
  }
  if (!faults.empty() && faults != toldFaults_)
    keeper_log(LogLevel::Warning, "not obeyed: " + counted(state_.badLines, "line", "lines") + " of the list" + faults);
  toldFaults_ = faults;
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

void Keeper::clockHappened() {
  // Where the clock was set back, suspensions that had passed are ahead again, and the file alone knows them.
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
  if (state == written_) return;
  written_ = std::move(state);
  try {
    write_keeper_state(statePath_, state_);
    isUnwritable_ = false;
  } catch (const FileError& error) {
    if (!isUnwritable_) keeper_log(LogLevel::Warning, error.what());
    isUnwritable_ = true;
    written_ = nullptr;  // it is tried again
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
    // A folder that is not ours is another keeper's, beside which this one would be in the way.
    std::error_code ignored;
    if (std::filesystem::exists(std::filesystem::path(absolute(options.statePath)).parent_path(), ignored)) {
      print_error(std::string(error.what()));
      return kFailed;
    }
    keeper_log(LogLevel::Warning, std::string("nobody can ask this keeper what it does: ") + error.what());
  }
  Keeper(options, std::move(lock)).run();
  return kDone;
}

}  // namespace orvane
