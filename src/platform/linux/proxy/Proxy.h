#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/files/Descriptor.h"
#include "platform/linux/flow/FlowSource.h"

namespace orvane {

inline constexpr uint16_t kProxyDefaultPort = 8118;
inline constexpr size_t kProxyConnectionLimit = 1024;

struct ProxyLimits {
  size_t connections = kProxyConnectionLimit;
  // A connection that passes no bytes for this time ends. Network address translation may forget a connection after the
  // same time (RFC 5382, section 5), so a program that wants to keep an idle connection must send something more often
  // anyway.
  std::chrono::milliseconds idle = std::chrono::minutes(124);
};

// The flow source that needs no privilege: an HTTP/1.1 proxy on 127.0.0.1 and ::1. Programs must be configured to use
// the proxy. The provider sees a CONNECT request as a socket flow, and a request for an absolute URL as a flow with
// this URL. The flow belongs to the process that owns the client's socket.
//
// Each connection has a thread of its own, so a slow provider, name server or peer delays only that connection. If
// there are too many connections, one of them is ended (ProxyPlaces.h).
class Proxy final : public FlowSource {
 public:
  // With port 0, start() chooses a free port.
  // If `endOpenConnections` is true, the proxy asks the provider again about all open connections after each edit of
  // the list of held names, and ends the connections that the provider now drops.
  explicit Proxy(uint16_t port, ProxyLimits limits = {}, bool endOpenConnections = true)
      : port_(port), limits_(limits), endOpenConnections_(endOpenConnections) {}
  ~Proxy() override { stop(); }

  std::optional<std::string> start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) override;
  // Ends all connections, and waits up to 1 s for their threads. A thread that is looking up a name may outlive this
  // call and even the Proxy object. That is safe, because the thread shares the ownership of everything that it uses.
  void stop() override;

  // The port that the started proxy listens on.
  uint16_t port() const { return port_; }

 private:
  struct Shared;

  std::optional<std::string> listenOnLoopback();
  void accept();
  void serve(Descriptor client);

  uint16_t port_;
  const ProxyLimits limits_;
  const bool endOpenConnections_;
  Descriptor stop_;  // an eventfd(2) that ends the thread acceptor_
  std::vector<Descriptor> listeners_;
  std::shared_ptr<Shared> shared_;
  std::thread acceptor_;
};

}  // namespace orvane
