#include "platform/linux/sockets/SocketOwner.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/linux/process/ProcessChanges.h"
#include "platform/linux/sockets/SocketDiagnostics.h"
#include "platform/linux/sockets/SocketHolders.h"
#include "platform/linux/sockets/SocketOpeners.h"

namespace orvane {
namespace {

constexpr uint32_t kUnset = UINT32_MAX;  // the kernel's value of an unset audit id

// Whether the process is the recorded opener, and not a later process that has the same pid. Start times are rounded
// down to clock ticks, so the opener's start time is never after the record's time.
bool is_opener(const ProcessInformation& process, const SocketOpener& opener) {
  static const uint64_t kTick = 1'000'000'000 / static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));  // nanoseconds
  return process.startTime() * kTick <= opener.time;
}

// Whether the extension's user namespace has the same user ids as the initial user namespace. The packet queue reports
// a user by the id in the initial namespace, but the socket diagnostics by the id in the extension's namespace.
bool has_initial_users() {
  std::ifstream map("/proc/self/uid_map");
  uint32_t first = 1, initial = 1, count = 0;
  return map >> first >> initial >> count && first == 0 && initial == 0 && count == kUnset;
}

audit_token_t token_of_ended(const SocketOpener& opener) {
  return {{kUnset, opener.user, opener.group, opener.user, opener.group, opener.process, kUnset, 0}};
}

// Keeps the processes that opened sockets recently, and their tokens, the latest first. A browser opens many sockets in
// a row, and its token need not be read again for each of them.
class RecentOpeners {
 public:
  // The opener's token. Nothing if the process has ended.
  std::optional<audit_token_t> token(const SocketOpener& opener);

 private:
  struct Recent {
    bool isSameProcess() const {
      return version ? ProcessChanges::system().version(process.pid()) == version : process.runs();
    }

    ProcessInformation process;
    audit_token_t token;
    std::optional<ProcessChanges::Version> version;  // read before the token; nothing if it cannot be relied on
    std::chrono::steady_clock::time_point read;
  };

  static constexpr size_t kLimit = 16;  // each entry keeps a descriptor open
  // A change of the process's user or groups does not change its version, so the token is read again after this time.
  static constexpr auto kTokenLifetime = std::chrono::seconds(10);
  std::vector<Recent> recent_;
};

std::optional<audit_token_t> RecentOpeners::token(const SocketOpener& opener) {
  auto pid = static_cast<pid_t>(opener.process);
  auto now = std::chrono::steady_clock::now();
  auto known =
      std::find_if(recent_.begin(), recent_.end(), [pid](const auto& each) { return each.process.pid() == pid; });
  if (known != recent_.end()) {
    std::rotate(recent_.begin(), known, known + 1);
    const Recent& recent = recent_.front();
    if (now - recent.read < kTokenLifetime && recent.isSameProcess()) {
      return is_opener(recent.process, opener) ? std::optional(recent.token) : std::nullopt;
    }
    recent_.erase(recent_.begin());
  }
  auto version = ProcessChanges::system().version(pid);
  auto process = ProcessInformation::open(pid);
  auto token = process && is_opener(*process, opener) ? process->auditToken() : std::nullopt;
  if (!token) return std::nullopt;
  if (process->isEnding()) version.reset();
  if (recent_.size() == kLimit) recent_.pop_back();
  recent_.insert(recent_.begin(), Recent{std::move(*process), *token, version, now});
  return token;
}

}  // namespace

struct SocketOwners::Implementation {
  SocketDiagnostics diagnostics;
  SocketHolders holders;
  RecentOpeners recent;
  SocketOpeners openers;
  const bool hasInitialUsers = has_initial_users();
  StreamSocket lastStream{};  // the last result of sender() that was found in the kernel's record
};

SocketOwners::SocketOwners() : implementation_(std::make_unique<Implementation>()) {}
SocketOwners::~SocketOwners() = default;

std::optional<std::string> SocketOwners::check() {
  const std::tuple<int, uint8_t, const char*> kKinds[] = {{SOCK_STREAM, IPPROTO_TCP, "tcp_diag"},
                                                          {SOCK_DGRAM, IPPROTO_UDP, "udp_diag"}};
  for (const auto& [type, protocol, module] : kKinds) {
    Descriptor trial(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (!trial || ::bind(trial.get(), generic, size) != 0 || (type == SOCK_STREAM && ::listen(trial.get(), 1) != 0) ||
        ::getsockname(trial.get(), generic, &size) != 0) {
      return std::string("cannot make a socket to check with: ") + std::strerror(errno);
    }
    const uint8_t any[4]{};
    auto local = SocketAddress::from(generic, size);
    errno = 0;
    if (local && find({protocol, *local, SocketAddress::v4(any, 0)})) continue;
    return std::string("the kernel's socket diagnostics do not find the extension's own socket: ") +
           (errno != 0 ? std::strerror(errno) : std::string("load the kernel module ") + module);
  }
  return std::nullopt;
}

std::optional<std::string> SocketOwners::recordOpeners() { return implementation_->openers.start(); }

std::optional<SocketFacts> SocketOwners::find(const SocketPair& pair, uid_t user) {
  auto found = implementation_->diagnostics.find(pair);
  if (pair.protocol != IPPROTO_UDP) return found;
  const bool isUserKnown = user != kNoUser && implementation_->hasInitialUsers;
  if (found) found->isOthers = isUserKnown && found->user != user;
  if (found && (found->connected || found->isOthers)) return found;
  // For a datagram, socket diagnostics may find a wrong socket (several sockets may use the port) or no socket (the
  // sender may have closed it already). The kernel's record names the socket that sent the datagram.
  int error = errno;
  auto sender = implementation_->openers.sender(pair);
  errno = error;
  // The record has no local address, so it may be of a later datagram, which another user sent from the same port of
  // another address. If the user is known, a record of another user does not replace the socket that was found.
  return sender && (!found || !isUserKnown || sender->user == user) ? sender : found;
}

std::optional<SocketFacts> SocketOwners::sender(const SocketPair& pair, uid_t user) {
  const auto stream = implementation_->openers.stream(pair);
  if (!stream) return find(pair, user);
  implementation_->lastStream = *stream;
  const auto firstByte = stream->hasFirstByte != 0 ? std::optional(stream->firstByte) : std::nullopt;
  return SocketFacts{stream->cookie, 0, stream->opener.user, true, firstByte};
}

bool SocketOwners::isOpen(const SocketPair& pair, uint64_t cookie) {
  const auto opener = implementation_->openers.opener(pair.protocol, cookie);
  if (opener && opener->isClosed != 0) return false;
  // A socket that is not closed may have other endpoints by now, or none.
  const auto socket = find(pair);
  return socket && socket->cookie == cookie;
}

std::vector<uint64_t> SocketOwners::streams() { return implementation_->diagnostics.streams(); }

Value SocketOwners::ownerOf(const SocketPair& pair, const SocketFacts& socket) {
  const bool isLast = socket.cookie == implementation_->lastStream.cookie;
  const auto opener = isLast ? std::optional(implementation_->lastStream.opener)
                             : implementation_->openers.opener(pair.protocol, socket.cookie);
  if (opener) {
    if (auto token = implementation_->recent.token(*opener)) return token_value(token);
    // The opener has ended, but a child of it may have inherited the socket. The search for a holder needs the socket's
    // inode, which the kernel's record lacks.
    const auto facts = isLast ? implementation_->diagnostics.find(pair) : socket;
    auto holder = facts && facts->cookie == socket.cookie ? implementation_->holders.find(*facts) : std::nullopt;
    auto token = holder ? holder->auditToken() : std::nullopt;
    return token_value(token ? token : token_of_ended(*opener));
  }
  auto holder = implementation_->holders.find(socket);
  return token_value(holder ? holder->auditToken() : std::nullopt);
}

}  // namespace orvane
