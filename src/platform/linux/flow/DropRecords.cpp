#include "platform/linux/flow/DropRecords.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdio>

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

// An entry with this message. `fields` has further fields, each with a line break at the end.
std::string entry_with(const std::string& message, const std::string& fields) {
  constexpr const char* kInformational = "6";
  return "MESSAGE=" + message + "\nPRIORITY=" + kInformational +
         "\nSYSLOG_IDENTIFIER=OrvaneSE\nMESSAGE_ID=" + kDropMessageID + '\n' + fields;
}

}  // namespace

// sd_journal_sendv(3) would wait while the journal's socket is full.
bool send_to_journal(const std::string& entry) {
  constexpr sockaddr_un kJournal{AF_UNIX, "/run/systemd/journal/socket"};
  static const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  return ::sendto(socket, entry.data(), entry.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&kJournal),
                  sizeof kJournal) >= 0;
}

void DropRecords::switchOn(Send send) {
  std::lock_guard lock(mutex_);
  send_ = std::move(send);
  isOn_.store(true, std::memory_order_release);
}

void DropRecords::record(std::string_view host, std::string_view browser, Clock::time_point now) {
  std::string name = field_text(host);
  std::lock_guard lock(mutex_);
  while (!recent_.empty() && now - recent_.front().first >= kRepeatTime) recent_.pop_front();
  if (std::any_of(recent_.begin(), recent_.end(), [&](const auto& each) { return each.second == name; })) return;
  if (leftOut_ > 0 && now - leftOutSince_ >= kLeftOutInterval) {
    leftOutSince_ = now;
    writeLeftOut();
  }
  const auto spent = std::max(spent_, now - kBurst * kInterval);
  const std::string identifier = field_text(browser);
  const auto entry = [&] {
    return entry_with("dropped a connection to " + name + " from " + identifier,
                      std::string(kDropHostField) + '=' + name + '\n' + kDropBrowserField + '=' + identifier + '\n');
  };
  if (now - spent < kInterval || !send_(entry())) {
    if (leftOut_++ == 0) leftOutSince_ = now;
    return;
  }
  spent_ = spent + kInterval;
  recent_.emplace_back(now, std::move(name));
}

void DropRecords::writeLeftOut() {
  const std::string count = std::to_string(leftOut_);
  if (send_(entry_with("dropped connections without an entry: " + count,
                       std::string(kDropLeftOutField) + '=' + count + '\n')))
    leftOut_ = 0;
}

void DropRecords::finish() {
  std::lock_guard lock(mutex_);
  if (leftOut_ > 0) writeLeftOut();
}

DropRecords& drop_records() {
  static auto* records = new DropRecords;
  return *records;
}

}  // namespace orvane
