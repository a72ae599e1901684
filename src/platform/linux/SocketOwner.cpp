#include "platform/linux/SocketOwner.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/linux/SocketDiagnostics.h"
#include "platform/linux/SocketHolder.h"
#include "platform/linux/SocketOpeners.h"

namespace orvane {
namespace {

constexpr uint32_t kUnknown = UINT32_MAX;  // as the kernel's audit says it

// A process starts within a tick, of which the process table tells the beginning: one that started later has been given
// the identifier since.
bool is_opener(const ProcessInformation& process, const SocketOpener& opener) {
  static const uint64_t kTick = 1'000'000'000 / static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));  // nanoseconds
  return process.startTime() * kTick <= opener.time;
}

audit_token_t token_of_ended(const SocketOpener& opener) {
  return {{kUnknown, opener.user, opener.group, opener.user, opener.group, opener.process, kUnknown, 0}};
}

// The processes that opened the last sockets, the latest first. A browser opens many in a row, and most of the time
// that a token takes goes into opening files.
class RecentOpeners {
 public:
  // Nothing when the process has ended.
  std::optional<audit_token_t> token(const SocketOpener& opener);

 private:
  static constexpr size_t kLimit = 16;  // four descriptors each
  std::vector<ProcessInformation> processes_;
};

std::optional<audit_token_t> RecentOpeners::token(const SocketOpener& opener) {
  auto pid = static_cast<pid_t>(opener.process);
  auto known =
      std::find_if(processes_.begin(), processes_.end(), [pid](const auto& each) { return each.pid() == pid; });
  if (known != processes_.end()) {
    std::rotate(processes_.begin(), known, known + 1);
    auto token = processes_.front().auditToken();
    if (token) return is_opener(processes_.front(), opener) ? token : std::nullopt;
    processes_.erase(processes_.begin());
  }
  auto process = ProcessInformation::open(pid);
  if (!process || !is_opener(*process, opener)) return std::nullopt;
  if (processes_.size() == kLimit) processes_.pop_back();
  return processes_.insert(processes_.begin(), std::move(*process))->auditToken();
}

}  // namespace

struct SocketOwners::Implementation {
  SocketDiagnostics diagnostics;
  RecentOpeners recent;
  SocketOpeners openers;
};

SocketOwners::SocketOwners() : implementation_(std::make_unique<Implementation>()) {}
SocketOwners::~SocketOwners() = default;

std::optional<std::string> SocketOwners::recordOpeners() { return implementation_->openers.start(); }

std::optional<SocketFacts> SocketOwners::find(const SocketPair& pair) {
  // First, as it knows which of the sockets that share a port has sent the datagram.
  if (auto sender = implementation_->openers.sender(pair)) return sender;
  return implementation_->diagnostics.find(pair);
}

Value SocketOwners::ownerOf(const SocketFacts& socket) {
  if (auto opener = implementation_->openers.opener(socket.cookie)) {
    auto token = implementation_->recent.token(*opener);
    return token_value(token ? token : token_of_ended(*opener));
  }
  auto holder = find_socket_holder(socket);
  return token_value(holder ? holder->auditToken() : std::nullopt);
}

}  // namespace orvane
