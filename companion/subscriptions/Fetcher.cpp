#include "companion/subscriptions/Fetcher.h"

#include <curl/curl.h>
#include <malloc.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "companion/list/ListFile.h"
#include "companion/subscriptions/FetchPlan.h"
#include "companion/subscriptions/FetcherState.h"
#include "companion/subscriptions/Signature.h"
#include "companion/subscriptions/Subscription.h"
#include "companion/subscriptions/SubscriptionList.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "companion/text/ServiceLog.h"
#include "companion/text/Sha256.h"
#include "companion/watch/PathWatch.h"
#include "companion/watch/Timer.h"
#include "platform/files/Descriptor.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;
namespace fs = std::filesystem;

// Each fetch takes memory: up to the largest body.
constexpr size_t kMostFetches = 4;

// The files are read when they have not changed for kDebounce. If the subscriptions' file has become empty, it is read
// after kEmptyDelay, because some editors empty or remove a file before they write it.
constexpr std::chrono::milliseconds kDebounce = 50ms;
constexpr std::chrono::milliseconds kEmptyDelay = 1s;

// While a fetch goes on, the state with its progress is written at most this often.
constexpr std::chrono::milliseconds kProgressInterval = 500ms;

// After this time, a state that could not be written is written again.
constexpr std::chrono::milliseconds kRetryInterval = 10s;

constexpr size_t kLargestSignature = 4096;
constexpr size_t kBadLinesLogged = 20;

constexpr const char* kUnfinished =
    "the service ended while it read the fetched list: the old copy stays in force: see journalctl -u orvane-fetcher";

void log(LogLevel level, const std::string& text) { service_log("orvane-fetcher", level, text); }

// Identifies where a copy comes from: only copies from the same source are compared with each other.
std::string source_of(const Subscription& subscription) {
  return sha256_text(subscription.url + " " + subscription.key).substr(0, 16);
}

struct FreeHandles {
  void operator()(CURLM* handles) const { curl_multi_cleanup(handles); }
};

// The fetch of one subscription: of its list, and then of the list's signature.
struct Fetch {
  Subscription subscription;  // as it was when the fetch began
  uint64_t request = 0;
  std::unique_ptr<Transfer> transfer;
  std::optional<Transfer::Result> list;  // has a value while the signature is fetched
};

class Fetcher {
 public:
  explicit Fetcher(const FetcherOptions& options, Descriptor lock)
      : options_(options),
        lock_(std::move(lock)),
        subscriptionsPath_(options.listFolder + "/" + kSubscriptionsName),
        requestsPath_(options.listFolder + "/" + kRequestsName),
        watch_({subscriptionsPath_, requestsPath_}),
        timer_(Timer::Clock::Wall),
        handles_(curl_multi_init()) {
    if (!handles_) throw std::bad_alloc();
    // If the state cannot be read, the service does not run: without the time of each copy's signature, a server could
    // bring an old list back. The copies stay in force meanwhile.
    state_ = read_fetcher_state(options_.folder);
    state_.process = getpid();
    state_.started = now_in_seconds();
    state_.error.reset();
    for (SubscriptionState& each : state_.subscriptions) each.progress.reset();
  }

  void run(int signals) {
    readFiles();
    isStart_ = false;
    for (;;) {
      lookAtUnwatchedFiles();
      startDueFetches();
      writeStateIfChanged();
      std::vector<curl_waitfd> waited;
      for (int descriptor : {signals, watch_.descriptor(), timer_.descriptor()})
        waited.push_back({descriptor, CURL_WAIT_POLLIN, 0});
      curl_multi_poll(handles_.get(), waited.data(), static_cast<unsigned>(waited.size()), timeout(), nullptr);
      if (waited[0].revents != 0) return;
      if (watch_.readEvents()) readAt_ = Steady::now() + kDebounce;
      timer_.wasSet();
      if (readAt_ && Steady::now() >= *readAt_) readFiles();
      advanceFetches();
    }
  }

 private:
  // How long to wait for an event, in milliseconds.
  int timeout() const {
    std::chrono::milliseconds time(INT_MAX);
    if (!fetches_.empty()) time = kProgressInterval;
    const auto wakeAt = [&](Steady::time_point moment) {
      time = std::min(time, std::chrono::ceil<std::chrono::milliseconds>(moment - Steady::now()));
    };
    wakeAt(watch_.lookAt());
    if (readAt_) wakeAt(*readAt_);
    if (isChanged_) wakeAt(writeAt_);
    return static_cast<int>(std::max(time, 0ms).count());
  }

  SubscriptionState& stateOf(const std::string& name) {
    if (SubscriptionState* known = state_.find(name)) return *known;
    state_.subscriptions.emplace_back().name = name;
    return state_.subscriptions.back();
  }

  double random() { return std::uniform_real_distribution<>(0, 1)(random_); }

  bool hasList(const std::string& name) const {
    std::error_code ignored;
    return fs::exists(subscription_list_path(options_.folder, name), ignored);
  }

  // Call this when the file of the copy is gone. Keeps `source` and `signedAt`, so that an older copy is still refused.
  static void forgetCopy(SubscriptionState& state) {
    state.counts = {};
    forgetVersion(state);
    state.changed.reset();
    state.checked.reset();
    state.next.reset();
    state.waiting.reset();
  }

  // Afterwards, the whole list is fetched, and replaces the copy even if it is the same.
  static void forgetVersion(SubscriptionState& state) { state.sha256 = state.etag = state.lastModified = ""; }

  // While a limit of the system keeps PathWatch from watching the files, finds their changes without it.
  void lookAtUnwatchedFiles() {
    const bool isDue = watch_.isLookDue();
    if (const auto news = watch_.news("the subscriptions"))
      log(news->isFault ? LogLevel::Warning : LogLevel::Notice, news->text);
    if (isDue && versions() != versions_) readFiles();
  }

  // The versions of the files that readFiles() reads.
  std::string versions() const { return list_versions({subscriptionsPath_, requestsPath_}); }

  void readFiles() {
    readAt_.reset();
    versions_ = versions();
    try {
      const std::string text = read_list_text(subscriptionsPath_);
      SubscriptionFile file = read_subscriptions(text);
      requests_ = read_requests(read_list_text(requestsPath_));
      const bool isEmptied = file.subscriptions.empty() && !state_.subscriptions.empty();
      if (!isEmptied) emptySince_.reset();
      if (isEmptied && !emptySince_) emptySince_ = Steady::now();
      if (isEmptied && Steady::now() < *emptySince_ + kEmptyDelay) {
        readAt_ = *emptySince_ + kEmptyDelay;
        return;
      }
      useFile(std::move(file));
      state_.error.reset();
    } catch (const FileError& error) {
      if (state_.error != error.what()) log(LogLevel::Error, error.what());
      state_.error = error.what();
    }
    isChanged_ = true;
  }

  void useFile(SubscriptionFile file) {
    logBadLines(file);
    std::set<std::string, std::less<>> names;
    for (const Subscription& each : file.subscriptions) names.insert(each.name);
    for (const auto& bad : file.badLines) names.insert(bad.name);  // a line that has become bad ends no subscription
    std::erase_if(state_.subscriptions, [&](const SubscriptionState& each) { return !names.contains(each.name); });
    removeOtherLists(names);
    std::erase_if(fetches_, [&](const auto& fetch) {
      const auto now = std::find(file.subscriptions.begin(), file.subscriptions.end(), fetch.second.subscription);
      return now == file.subscriptions.end();
    });
    file_ = std::move(file);
    for (const auto& [line, name, fault] : file_.badLines) {
      if (name.empty() || file_.find(name) != nullptr) continue;
      SubscriptionState& state = stateOf(name);
      state.error = "line " + std::to_string(line) + " of the subscriptions is bad: " + fault;
      state.progress.reset();
      state.plannedFor.clear();  // the corrected line is fetched at once
    }
    for (const Subscription& each : file_.subscriptions) {
      SubscriptionState& state = stateOf(each.name);
      if (!fetches_.contains(each.name)) state.progress.reset();
      if (state.hasCopy() && !hasList(each.name)) forgetCopy(state);
      // A new URL, group or key has an effect at once.
      const std::string plannedFor = source_of(each) + " " + each.group;
      if (std::exchange(state.plannedFor, plannedFor) != plannedFor) state.next.reset();
      if (isStart_ || !state.next)
        state.next = after_start(state.next, now_in_seconds(), each.every, state.hasCopy(), random());
      // A shorter interval counts from now on.
      state.next = std::min(*state.next, std::max(now_in_seconds() + each.every + each.every / 10, Moment()));
    }
  }

  void logBadLines(const SubscriptionFile& file) {
    std::string text;
    if (file.badLineCount > 0) text = counted(file.badLineCount, "bad line", "bad lines") + " in the subscriptions";
    for (size_t i = 0; i < std::min(file.badLines.size(), kBadLinesLogged); ++i)
      text += "; line " + std::to_string(file.badLines[i].line) + ": " + file.badLines[i].fault;
    if (!text.empty() && text != badLinesLogged_) log(LogLevel::Warning, text);
    badLinesLogged_ = std::move(text);
  }

  void removeOtherLists(const std::set<std::string, std::less<>>& names) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(options_.folder + "/lists", ignored)) {
      if (!names.contains(entry.path().stem().string())) fs::remove(entry.path(), ignored);
    }
  }

  bool isDue(const Subscription& subscription, const SubscriptionState& state, Moment now) const {
    const auto request = requests_.find(subscription.name);
    return (request != requests_.end() && request->second.number != state.request) ||
           is_due(state.next.value_or(now), now, subscription.every);
  }

  void startDueFetches() {
    const Moment now = now_in_seconds();
    std::optional<Moment> next;
    for (const Subscription& each : file_.subscriptions) {
      if (fetches_.contains(each.name)) continue;
      SubscriptionState& state = stateOf(each.name);
      if (isDue(each, state, now)) {
        if (fetches_.size() < kMostFetches) start(each, state);
      } else {
        next = std::min(next.value_or(*state.next), *state.next);
      }
    }
    next ? timer_.set(next->time_since_epoch()) : timer_.stop();
  }

  void start(const Subscription& subscription, SubscriptionState& state) {
    Fetch& fetch = fetches_[subscription.name];
    fetch.subscription = subscription;
    fetch.request = state.request;
    if (const auto request = requests_.find(subscription.name); request != requests_.end())
      fetch.request = request->second.number;
    Transfer::Request request{subscription.url, subscription.isInsecure, "", ""};
    if (state.source == source_of(subscription) && state.group == subscription.group && state.hasCopy()) {
      request.etag = state.etag;
      request.lastModified = state.lastModified;
    }
    fetch.transfer = std::make_unique<Transfer>(handles_.get(), request, options_.transfer);
    state.progress.emplace();
    isChanged_ = true;
  }

  void advanceFetches() {
    int ignored = 0;
    curl_multi_perform(handles_.get(), &ignored);
    while (const CURLMsg* message = curl_multi_info_read(handles_.get(), &ignored)) {
      if (message->msg != CURLMSG_DONE) continue;
      const auto fetch = std::find_if(fetches_.begin(), fetches_.end(), [&](const auto& each) {
        return each.second.transfer->handle() == message->easy_handle;
      });
      if (fetch == fetches_.end()) continue;
      onEnd(fetch->second, fetch->second.transfer->result(message->data.result));
      if (!fetch->second.transfer) fetches_.erase(fetch);
      malloc_trim(0);
    }
    for (const auto& [name, fetch] : fetches_) {
      SubscriptionState& state = stateOf(name);
      if (fetch.list || !state.progress || state.progress->received == fetch.transfer->received()) continue;
      state.progress = FetchProgress{fetch.transfer->received(), fetch.transfer->announced()};
      hasProgress_ = true;
    }
  }

  // At the end of a transfer. Starts the transfer of the signature, or resets fetch.transfer if the fetch is over.
  void onEnd(Fetch& fetch, Transfer::Result result) {
    const bool isSignature = fetch.list.has_value();
    const Subscription& subscription = fetch.subscription;
    if (!isSignature && result.outcome == Transfer::Outcome::Fetched && !subscription.key.empty()) {
      TransferOptions options = options_.transfer;
      options.largest = kLargestSignature;
      fetch.transfer.reset();
      fetch.list = std::move(result);
      fetch.transfer = std::make_unique<Transfer>(
          handles_.get(), Transfer::Request{signature_url(subscription.url), subscription.isInsecure, "", ""}, options);
      return;
    }
    SubscriptionState& state = stateOf(subscription.name);
    fetch.transfer.reset();
    // The state is as after a failure until the copy is in force: see writeUnfinished().
    state.request = fetch.request;
    state.next = after_failure(now_in_seconds(), subscription.every, state.hasCopy(), ++state.failures,
                               result.retryAfter, random());
    try {
      if (isSignature && result.outcome == Transfer::Outcome::NotFound)
        throw InputError(
            "it is not signed, but the subscription has a key: its signature must be at its URL with "
            ".minisig at the end");
      if (isSignature && result.outcome != Transfer::Outcome::Fetched)
        throw InputError("its signature cannot be fetched: " + result.error);
      const bool isUnchanged = result.outcome == Transfer::Outcome::NotModified && state.hasCopy();
      if (!isUnchanged && !isSignature && result.outcome != Transfer::Outcome::Fetched)
        throw InputError(result.error.empty() ? "the server answers 304 without being asked: check the URL"
                                              : result.error);
      if (isUnchanged) {
        state.waiting.reset();
        state.error.reset();
      } else {
        use(subscription, isSignature ? *fetch.list : result, result.body, state);
      }
      const Moment now = now_in_seconds();
      if (!state.waiting) state.checked = now;
      state.failures = 0;
      state.next = after_success(now, subscription.every, random());
    } catch (const std::runtime_error& error) {  // InputError or FileError
      state.error = error.what();
      log(LogLevel::Warning, subscription.name + ": " + *state.error);
    }
    state.progress.reset();
    isChanged_ = true;
  }

  // Writes a state in which the fetch has failed. This state stays if the process dies before it has read the fetched
  // copy and written the copy's state. The service then does not repeat the fetch at once. The state does not say which
  // version the copy in force has, so the next fetch gets the whole list. Throws FileError.
  void writeUnfinished(const std::string& name) const {
    FetcherState unfinished = state_;
    SubscriptionState& state = *unfinished.find(name);
    forgetVersion(state);
    state.error = kUnfinished;
    write_fetcher_state(options_.folder, unfinished);
  }

  // Puts a fetched copy into force. Throws InputError if it is not acceptable, and FileError.
  void use(const Subscription& subscription, const Transfer::Result& fetched, std::string_view signature,
           SubscriptionState& state) {
    std::optional<Moment> signedAt;
    const bool isSameSource = state.source == source_of(subscription);
    if (!subscription.key.empty()) signedAt = verify_signature(fetched.body, signature, subscription.key).timestamp;
    if (isSameSource && signedAt < state.signedAt)  // no time is before any time
      throw InputError(
          "it was signed before the copy that is in force, or without a time: if this list is wanted, sign it again");
    const std::string hash = sha256_text(fetched.body);
    if (!isSameSource || state.group != subscription.group || state.sha256 != hash) {
      writeUnfinished(subscription.name);
      // Write no time into the file, so that machines with the same list have files with the same digest.
      const SubscriptionList list =
          convert_list(fetched.body, subscription.group, "From " + std::string(authority_of(subscription.url)));
      const auto request = requests_.find(subscription.name);
      const bool isAccepted = request != requests_.end() && request->second.accepted == hash;
      const uint64_t names = list.counts.names, before = state.counts.names;
      if (isSameSource && names * 2 < before && !isAccepted) {
        state.waiting = WaitingCopy{hash, names};
        state.error = "the list has shrunk from " + counted(before, "name", "names") + " to " + std::to_string(names) +
                      ": the old copy stays in force: to use the new one: orvanectl refresh " + subscription.name +
                      " --accept";
        log(LogLevel::Warning, subscription.name + ": " + *state.error);
        return;
      }
      forgetVersion(state);  // if the write fails, the file may be the old or the new one
      write_fetcher_file(subscription_list_path(options_.folder, subscription.name), list.text);
      log(LogLevel::Info, subscription.name + ": " + counted(list.counts.names, "name", "names") + " in place of " +
                              std::to_string(state.counts.names));
      state.counts = list.counts;
      state.changed = now_in_seconds();
    }
    state.source = source_of(subscription);
    state.group = subscription.group;
    state.sha256 = hash;
    state.etag = fetched.etag;
    state.lastModified = fetched.lastModified;
    state.signedAt = signedAt;
    state.waiting.reset();
    state.error.reset();
  }

  void writeStateIfChanged() {
    const auto now = Steady::now();
    if (!(isChanged_ && now >= writeAt_) && !(hasProgress_ && now >= written_ + kProgressInterval)) return;
    written_ = now;
    try {
      write_fetcher_state(options_.folder, state_);
      isChanged_ = hasProgress_ = false;
      writeError_.clear();
    } catch (const FileError& error) {
      if (std::exchange(writeError_, error.what()) != error.what()) log(LogLevel::Error, error.what());
      isChanged_ = true;
      writeAt_ = now + kRetryInterval;
    }
  }

  const FetcherOptions& options_;
  const Descriptor lock_;
  const std::string subscriptionsPath_, requestsPath_;
  PathWatch watch_;
  std::string versions_;  // versions() when the files were last read
  Timer timer_;
  std::unique_ptr<CURLM, FreeHandles> handles_;
  std::mt19937_64 random_{std::random_device{}()};

  FetcherState state_;
  SubscriptionFile file_;
  RefreshRequests requests_;
  std::map<std::string, Fetch> fetches_;          // by the subscriptions' names
  std::optional<Steady::time_point> readAt_;      // when to read the files
  std::optional<Steady::time_point> emptySince_;  // since when the subscriptions' file has been empty
  bool isStart_ = true;
  std::string badLinesLogged_;
  bool isChanged_ = true, hasProgress_ = false;
  Steady::time_point written_, writeAt_;  // when the state was last written, and may next be written
  std::string writeError_;
};

}  // namespace

int run_fetcher(const FetcherOptions& options) {
  // Block the signals before libcurl starts threads, because threads inherit the mask.
  sigset_t ends;
  sigemptyset(&ends);
  for (int number : {SIGTERM, SIGINT}) sigaddset(&ends, number);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  const Descriptor signals(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::error_code error;
  const std::string lists = options.folder + "/lists";
  fs::create_directory(lists, error);
  // The keeper reads the lists as another user.
  if (error || chmod(lists.c_str(), 0755) != 0)
    throw FileError("cannot make the folder: " + in_quotes(lists) + ": check its parent folder and its rights");
  Descriptor lock = lock_fetcher(options.folder);
  if (!lock) throw FileError("another orvane-fetcher uses the folder: " + in_quotes(options.folder) + ": end it first");
  Fetcher(options, std::move(lock)).run(signals.get());
  return kDone;
}

}  // namespace orvane
