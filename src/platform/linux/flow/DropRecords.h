#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/log/Journal.h"

namespace orvane {

// Sends an entry, in the journal's native protocol, to the journal. Never waits: false if the journal does not take the
// entry at once.
bool send_to_journal(const std::string& entry, const char* journal = kJournalSocket);

// Writes entries to the journal (DropEntry.h) for dropped flows, if the bundle asks for them. An entry has the host's
// name, the browser's bundle identifier and a number of flows, but no address, user or process.
//
// The first flow of a browser to a host gets an entry at once. Further flows of this browser to this host are counted,
// and one entry with their number follows within kInterval.
//
// A page can open any number of connections, so each user has a limit: kEntriesAtOnce entries, and later
// kEntriesOfInterval more in each kInterval. The flows beyond the limit, and those whose entry the journal does not
// take, are only counted, and an entry with their number follows. So no user can use up the entries of another user.
// At most kUsers users have limits of their own; if more users have dropped flows, the further users share one limit.
// By default, journald discards messages of a service after 10,000 in 30 s (RateLimitBurst= in journald.conf(5)); all
// these limits together allow fewer.
//
// Thread-safe. No call waits for the journal.
class DropRecords {
 public:
  using Send = std::function<bool(const std::string& entry)>;

  static constexpr int kEntriesAtOnce = 300, kEntriesOfInterval = 10;
  static constexpr auto kInterval = std::chrono::seconds(10);
  static constexpr size_t kUsers = 16;

  // Until this call, nothing is written and nothing is remembered.
  void switchOn(Send send = [](const std::string& entry) { return send_to_journal(entry); });
  bool isOn() const { return isOn_.load(std::memory_order_acquire); }

  // Calls writeCounts() whenever the interval has passed, as long as there is something to write. Never returns.
  [[noreturn]] void serve(std::chrono::milliseconds interval = kInterval);

  // Records a dropped flow of this user. Call it only if isOn().
  void record(std::string_view host, std::string_view browser, uid_t user);

  // Writes the numbers of the flows that have no entry yet. Call it also when no more flows are judged.
  void writeCounts();

 private:
  using Pair = std::pair<std::string, std::string>;  // the host's name and the browser's identifier
  struct User {
    int entries = kEntriesAtOnce;  // how many entries may be written now
    // How many flows of each pair came after the last entry of the pair. Has only pairs with an entry, so the limit on
    // entries also limits this map.
    std::map<Pair, uint64_t> repeats;
  };

  bool write(User& user, const Pair& pair, uint64_t count);

  std::atomic<bool> isOn_{false};
  std::mutex mutex_;  // guards the members below
  std::condition_variable hasUsers_;
  Send send_;
  std::map<uid_t, User> users_;  // those with fewer entries than kEntriesAtOnce, or with repeats
  uint64_t leftOut_ = 0;         // flows that get no entry of their own
};

// The process's records. Never destroyed, so that detached threads may use them at exit.
DropRecords& drop_records();

}  // namespace orvane
