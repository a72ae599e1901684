#include "platform/linux/flow/DropRecords.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "platform/files/Descriptor.h"
#include "platform/linux/flow/DropEntry.h"

namespace orvane {
namespace {

constexpr size_t kTextLimit = 255;  // bytes; no host name in DNS and no file name is longer

// The text as printable ASCII on one line, because a line break would start another field of the entry, and because
// programs may print the entry on a terminal. Of a longer text, the end stays: a host's domain is there.
std::string field_text(std::string_view text) {
  std::string result = text.size() > kTextLimit ? "..." : "";
  for (char c : text.substr(text.size() - std::min(text.size(), kTextLimit))) {
    if (c > ' ' && c <= '~' && c != '\\') {
      result += c;
      continue;
    }
    char escaped[5];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
    result += escaped;
  }
  return result;
}

std::string field(const char* name, const std::string& value) { return name + ('=' + value) + '\n'; }

// An entry for this number of flows. `message` says which flows; `fields` has the fields that say the same.
std::string entry_of(uint64_t count, const std::string& message, const std::string& fields) {
  const std::string flows = count == 1 ? "a connection" : std::to_string(count) + " connections";
  constexpr const char* kInformational = "6";
  return field("MESSAGE", "dropped " + flows + message) + field("PRIORITY", kInformational) + kJournalIdentifier +
         '\n' + field("MESSAGE_ID", kDropMessageID) + fields + field(kDropCountField, std::to_string(count));
}

}  // namespace

// sd_journal_sendv(3) would wait while the journal's socket is full.
bool send_to_journal(const std::string& entry, const char* journal) {
  sockaddr_un address{AF_UNIX, {}};
  std::string_view(journal).copy(address.sun_path, sizeof address.sun_path - 1);
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return ::sendto(socket.get(), entry.data(), entry.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) >= 0;
}

void DropRecords::switchOn(Send send) {
  std::lock_guard lock(mutex_);
  send_ = std::move(send);
  isOn_.store(true, std::memory_order_release);
}

void DropRecords::serve(std::chrono::milliseconds interval) {
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      hasUsers_.wait(lock, [this] { return !users_.empty(); });
    }
    std::this_thread::sleep_for(interval);
    writeCounts();
  }
}

void DropRecords::record(std::string_view host, std::string_view browser, uid_t user) {
  constexpr uid_t kFurtherUsers = UINT32_MAX;  // no user has this id
  std::lock_guard lock(mutex_);
  User& account = users_[users_.size() < kUsers || users_.contains(user) ? user : kFurtherUsers];
  const auto [repeats, isFirst] = account.repeats.try_emplace({field_text(host), field_text(browser)});
  if (!isFirst) {
    ++repeats->second;
  } else if (!write(account, repeats->first, 1)) {
    account.repeats.erase(repeats);
  }
  hasUsers_.notify_one();
}

void DropRecords::writeCounts() {
  std::lock_guard lock(mutex_);
  for (auto& [id, user] : users_) {
    user.entries = std::min(kEntriesAtOnce, user.entries + kEntriesOfInterval);
    for (auto repeats = user.repeats.begin(); repeats != user.repeats.end();) {
      const uint64_t count = std::exchange(repeats->second, 0);
      const bool stays = count > 0 && write(user, repeats->first, count);
      repeats = stays ? std::next(repeats) : user.repeats.erase(repeats);
    }
  }
  std::erase_if(users_,
                [](const auto& each) { return each.second.repeats.empty() && each.second.entries == kEntriesAtOnce; });
  if (leftOut_ > 0 && send_(entry_of(leftOut_, " without an entry", ""))) leftOut_ = 0;
}

// Writes an entry for this number of flows of the pair, or counts them as left out and returns false.
bool DropRecords::write(User& user, const Pair& pair, uint64_t count) {
  const auto& [host, browser] = pair;
  if (user.entries == 0 || !send_(entry_of(count, " to " + host + " from " + browser,
                                           field(kDropHostField, host) + field(kDropBrowserField, browser)))) {
    leftOut_ += count;
    return false;
  }
  --user.entries;
  return true;
}

DropRecords& drop_records() {
  static auto* records = new DropRecords;
  return *records;
}

}  // namespace orvane
