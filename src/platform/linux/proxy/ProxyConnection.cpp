#include "platform/linux/proxy/ProxyConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <optional>

#include "platform/linux/base/SocketIO.h"
#include "platform/linux/flow/FilterRules.h"
#include "platform/linux/flow/FilterSession.h"
#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/flow/LinuxFlow.h"
#include "platform/linux/proxy/ProxyHead.h"
#include "platform/linux/proxy/Relay.h"
#include "platform/linux/sockets/ConnectionOwner.h"
#include "platform/names/HostName.h"
#include "platform/names/ServerName.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr auto kHeadTime = 30s;   // limit on the time to receive a request's head
constexpr auto kReplyTime = 10s;  // limit on the time to send a short reply

// Asks the provider about the flow of one connection. If no rule selects the flow, begin() is not called, and
// everything passes.
class Examination {
 public:
  enum class Answer { Pass, Drop };

  // Shows the flow to the provider.
  template <class Flow>
  Answer begin(const Ref<NEFilterDataProvider>& provider, const Ref<Flow>& flow) {
    session_ = std::make_unique<FilterSession>(provider, flow);
    return session_->newFlow() == FilterSession::State::Dropped ? Answer::Drop : Answer::Pass;
  }

  // Lets ask() read the flow's name from the flow's first bytes. When ask() has found the name, it calls `onName`, and
  // then shows the flow's data to the provider.
  void readNameFor(Ref<LinuxSocketFlow> flow, std::function<void(const std::string&)> onName) {
    unnamedFlow_ = std::move(flow);
    onName_ = std::move(onName);
  }

  // Answers the relay's GateQuestion: may the outbound bytes in `held` leave?
  Gate ask(std::span<const uint8_t> held, bool ended, bool silent) {
    if (!session_) return Gate::Open;
    if (session_->holdsData() && !held.empty()) {
      if (!readName(held, ended || silent)) return Gate::Held;
      session_->outboundData(held);
    }
    if (ended) session_->outboundComplete();
    if (session_->state() == FilterSession::State::Dropped) return Gate::Dropped;
    return session_->holdsData() ? Gate::Held : Gate::Open;
  }

 private:
  // Sets the flow's name if the bytes contain it. Returns false if more bytes are needed to find the name.
  bool readName(std::span<const uint8_t> held, bool last) {
    if (unnamedFlow_ == nullptr) return true;
    // `held` begins with the bytes that the previous call got, so only the bytes after them are new. If `held` fills
    // the relay's buffer, no more bytes can come.
    const ServerNameReader::State state = name_.read(held.subspan(std::exchange(read_, held.size())));
    if (state == ServerNameReader::State::Open && !last && held.size() < kRelayBufferSize) return false;
    if (state == ServerNameReader::State::Known) {
      unnamedFlow_->setRemoteHostname(name_.name());
      onName_(name_.name());
    }
    if (name_.isNameHidden()) flow_counters().recordHiddenName();
    unnamedFlow_ = nullptr;
    return true;
  }

  std::unique_ptr<FilterSession> session_;
  Ref<LinuxSocketFlow> unnamedFlow_;
  std::function<void(const std::string&)> onName_;
  ServerNameReader name_;
  size_t read_ = 0;  // how many of the held bytes were passed to name_
};

const char* phrase(unsigned status) {
  switch (status) {
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 408:
      return "Request Timeout";
    case 431:
      return "Request Header Fields Too Large";
    case 501:
      return "Not Implemented";
    default:
      return "Bad Gateway";
  }
}

class ProxyConnection {
 public:
  ProxyConnection(const ProxyContext& context, ProxyPlace& place, Descriptor client)
      : context_(context), place_(place), stop_(place.stop()), client_(std::move(client)) {}

  void serve() {
    if (!readHead() || !examine()) return;
    // The first bytes of a forwarded request are here already, so the provider sees them before the proxy connects to
    // the server. A tunnel's first bytes usually come later, after the proxy's answer to CONNECT, so the provider sees
    // them while the relay runs.
    if (request_.form == ProxyRequest::Form::Forward && !gatherFirstBytes()) return;
    if (connectUpstream()) carry();
  }

 private:
  bool readHead();
  bool examine();
  template <class MakeFlow>
  void endAfterEdits(MakeFlow makeFlow);
  bool gatherFirstBytes();
  bool connectUpstream();
  void carry();
  void refuse(unsigned status, const std::string& line);
  std::string destination() const;

  const ProxyContext& context_;
  ProxyPlace& place_;
  int stop_;
  Descriptor client_;
  Descriptor upstream_;
  ProxyRequest request_{};
  std::string first_;  // outbound bytes that were read before the relay starts
  Examination examination_;
};

// Reads the request's head, and the bytes that came with it. Returns false when the connection has ended.
bool ProxyConnection::readHead() {
  Deadline end = deadline_after(kHeadTime);
  char bytes[16384];
  for (;;) {
    pollfd entry{client_.get(), POLLIN, 0};
    Wait waited = wait_for({&entry, 1}, stop_, end);
    if (waited == Wait::TimedOut && !first_.empty()) refuse(408, "The request did not arrive in time.");
    if (waited != Wait::Ready) return false;
    ssize_t count = recv(client_.get(), bytes, sizeof bytes, 0);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return false;
    first_.append(bytes, static_cast<size_t>(count));

    ProxyHead head = parse_proxy_head(first_);
    if (head.state == ProxyHead::State::Incomplete) continue;
    if (head.state == ProxyHead::State::Refused) {
      refuse(head.status, head.reason);
      return false;
    }
    request_ = std::move(head.request);
    first_.erase(0, request_.length);
    return true;
  }
}

// Shows the new flow to the provider if a rule selects it. Returns false when the flow was refused.
bool ProxyConnection::examine() {
  NEFilterAction action =
      action_for_outbound_flow(context_.settings, {request_.host, request_.port, NENetworkRuleProtocol::TCP});
  auto answer = action == NEFilterAction::Drop ? Examination::Answer::Drop : Examination::Answer::Pass;
  if (action == NEFilterAction::FilterData) {
    auto ends = socket_ends(client_.get());
    if (!ends) return false;
    // Looks up the owner of the client's socket. The local address of that socket is the peer address of our socket.
    Value token = audit_token_of_socket_owner(reinterpret_cast<const sockaddr*>(&ends->peer),
                                              reinterpret_cast<const sockaddr*>(&ends->local));
    if (request_.form == ProxyRequest::Form::Forward) {
      auto makeFlow = [token, url = request_.url, host = listed_form(request_.host)] {
        return LinuxURLFlow::create(token, url, host);
      };
      endAfterEdits(makeFlow);
      answer = examination_.begin(context_.provider, makeFlow());
    } else {
      auto makeFlow = [token, host = request_.host, port = request_.port](const std::optional<std::string>& name) {
        auto flow = LinuxSocketFlow::create(token, host, port, SOCK_STREAM);
        if (name) flow->setRemoteHostname(*name);
        return flow;
      };
      auto onName = [this, makeFlow](const std::string& name) {
        endAfterEdits([makeFlow, name] { return makeFlow(name); });
      };
      auto flow = makeFlow(std::nullopt);
      if (request_.hostIsAddress) {
        examination_.readNameFor(flow, onName);
      } else {
        flow->setRemoteHostname(listed_form(request_.host));
        onName(listed_form(request_.host));
      }
      answer = examination_.begin(context_.provider, flow);
    }
  }
  if (answer == Examination::Answer::Pass) return true;
  refuse(403, "The filter of this computer blocks " + destination() + ".");
  return false;
}

// From now on, this connection ends if the provider drops its flow after an edit of the list of held names. Another
// thread then asks the provider about a new flow, which `makeFlow` returns, so that the two threads share no flow.
template <class MakeFlow>
void ProxyConnection::endAfterEdits(MakeFlow makeFlow) {
  place_.setReview([provider = context_.provider, makeFlow] {
    return FilterSession(provider, makeFlow()).openFlow() != FilterSession::State::Dropped;
  });
}

// Inserts request_.head before the body's first bytes, and shows both to the provider. Returns false when the flow was
// dropped or the body is malformed.
bool ProxyConnection::gatherFirstBytes() {
  std::span<const uint8_t> rest(reinterpret_cast<const uint8_t*>(first_.data()), first_.size());
  first_.resize(request_.body.take(rest));
  if (request_.body.malformed()) {
    refuse(400, "The body of the request is malformed.");
    return false;
  }
  first_.insert(0, request_.head);
  std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(first_.data()), first_.size());
  if (examination_.ask(bytes, request_.body.ended(), false) != Gate::Dropped) return true;
  reset_connection(std::move(client_));
  return false;
}

// Whether the connection's peer is the proxy itself: the proxy's port on 127.0.0.1, ::1 or ::ffff:127.0.0.1.
bool leads_to_proxy(int upstream, uint16_t port) {
  auto ends = socket_ends(upstream);
  if (!ends) return false;
  if (ends->peer.ss_family == AF_INET) {
    auto& peer = reinterpret_cast<const sockaddr_in&>(ends->peer);
    return ntohs(peer.sin_port) == port && ntohl(peer.sin_addr.s_addr) == INADDR_LOOPBACK;
  }
  auto& peer = reinterpret_cast<const sockaddr_in6&>(ends->peer);
  const in6_addr& address = peer.sin6_addr;
  bool loopback = IN6_IS_ADDR_LOOPBACK(&address) ||
                  (IN6_IS_ADDR_V4MAPPED(&address) && address.s6_addr32[3] == htonl(INADDR_LOOPBACK));
  return loopback && ntohs(peer.sin6_port) == port;
}

bool ProxyConnection::connectUpstream() {
  Connected connected = connect_to_host(request_.host, request_.port, stop_);
  if (!connected.socket) {
    refuse(502, "No connection to " + destination() + ": " + connected.reason + ".");
    return false;
  }
  if (leads_to_proxy(connected.socket.get(), context_.port)) {
    refuse(403, "The proxy does not connect to itself.");
    return false;
  }
  upstream_ = std::move(connected.socket);
  // Ends an idle connection two minutes after a peer has vanished, not after the system's two hours, because the
  // connection takes up one of the proxy's places. If sent data are unacknowledged, the kernel sends these data again
  // instead of probes, and gives up by itself. TCP_USER_TIMEOUT would also end a download that a browser pauses.
  int on = 1, idle = 60, interval = 15, probes = 4;
  for (int socket : {client_.get(), upstream_.get()}) {
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  }
  return true;
}

void ProxyConnection::carry() {
  bool tunnel = request_.form == ProxyRequest::Form::Tunnel;
  if (tunnel &&
      !send_all(client_.get(), "HTTP/1.1 200 Connection established\r\n\r\n", stop_, deadline_after(kReplyTime))) {
    return;
  }
  Relay relay(
      client_.get(), upstream_.get(), stop_, first_, tunnel ? nullptr : &request_.body,
      [this](std::span<const uint8_t> held, bool ended, bool silent) { return examination_.ask(held, ended, silent); },
      [this] { place_.recordBytes(); });
  first_ = {};
  switch (relay.run()) {
    case Relay::Outcome::Ended:
      upstream_.reset();
      if (!tunnel) close_gently(std::move(client_), stop_);
      break;
    case Relay::Outcome::Dropped:
    case Relay::Outcome::Broken:
      reset_connection(std::move(upstream_));
      reset_connection(std::move(client_));
      break;
    case Relay::Outcome::Stopped:
      break;
  }
}

void ProxyConnection::refuse(unsigned status, const std::string& line) {
  std::string reply = "HTTP/1.1 " + std::to_string(status) + " " + phrase(status) +
                      "\r\nContent-Type: text/plain; charset=utf-8\r\nConnection: close\r\nContent-Length: " +
                      std::to_string(line.size() + 1) + "\r\n\r\n" + line + "\n";
  if (send_all(client_.get(), reply, stop_, deadline_after(kReplyTime))) close_gently(std::move(client_), stop_);
}

std::string ProxyConnection::destination() const { return request_.host + " port " + std::to_string(request_.port); }

}  // namespace

void serve_proxy_connection(const ProxyContext& context, ProxyPlace& place, Descriptor client) {
  ProxyConnection(context, place, std::move(client)).serve();
}

}  // namespace orvane
