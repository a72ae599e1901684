#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace orvane {

// Sends an entry, in the journal's native protocol, to the journal. Never waits: false if the journal does not take the
// entry at once.
bool send_to_journal(const std::string& entry);

// Writes an entry to the journal (DropEntry.h) for each dropped flow, if the bundle asks for these entries. An entry
// has the host's name and the browser's bundle identifier, but no address, user or process.
//
// A page can open any number of connections, so the entries are limited. The flows of one name within kRepeatTime count
// as one flow and get one entry. In all, kBurst entries can be written at once, and then one more in each kInterval.
// Flows beyond that, and those whose entry the journal does not take, are only counted. An entry with this count
// follows with the next dropped flow, but at most once in kLeftOutInterval, and at the end.
//
// Thread-safe. No call waits for the journal.
class DropRecords {
 public:
  using Clock = std::chrono::steady_clock;
  using Send = std::function<bool(const std::string& entry)>;

  static constexpr auto kRepeatTime = std::chrono::seconds(1);
  static constexpr int kBurst = 300;
  static constexpr auto kInterval = std::chrono::seconds(1);
  static constexpr auto kLeftOutInterval = std::chrono::minutes(1);

  // Until this call, nothing is written and nothing is remembered.
  void switchOn(Send send = send_to_journal);
  bool isOn() const { return isOn_.load(std::memory_order_acquire); }

  // Records a dropped flow. Call it only if isOn().
  void record(std::string_view host, std::string_view browser, Clock::time_point now = Clock::now());

  // Writes how many flows were left out since the last entry that says so. Call it when no more flows are judged.
  void finish();

 private:
  void writeLeftOut();

  std::atomic<bool> isOn_{false};
  std::mutex mutex_;  // guards the members below
  Send send_;
  // The names in the entries of the last kRepeatTime. The limit on entries also limits this list.
  std::deque<std::pair<Clock::time_point, std::string>> recent_;
  // The number of entries that can be written at `now` is (now - spent_) / kInterval, but at most kBurst.
  Clock::time_point spent_ = Clock::time_point::min();
  uint64_t leftOut_ = 0;                     // flows without an entry
  Clock::time_point leftOutSince_ = spent_;  // when the first of them was dropped, or the count was last written
};

// The process's records. Never destroyed, so that detached threads may use them at exit.
DropRecords& drop_records();

}  // namespace orvane
