#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/base/Descriptor.h"
#include "platform/linux/flow/FlowSource.h"

namespace orvane {

inline constexpr uint16_t kProxyDefaultPort = 8118;
inline constexpr size_t kProxyConnectionLimit = 1024;

struct ProxyLimits {
  size_t connections = kProxyConnectionLimit;
  // A connection that passes no bytes for this time ends. Programs rely on this much from network address translation
  // (RFC 5382, section 5), so their own signs of life come more often.
  std::chrono::milliseconds idle = std::chrono::minutes(124);
};

// The flow source that needs no privilege: an HTTP/1.1 proxy on 127.0.0.1 and ::1, which programs are set to use. A
// CONNECT is a socket flow; a request for an absolute URL is a flow with that URL. The flow's source is the process
// that owns the client's end of the connection.
//
// Each connection has a thread of its own, so a slow provider, name server or peer delays only that connection. If
// there are too many, one of them ends (ProxyPlaces.h).
class Proxy final : public FlowSource {
 public:
  // Port 0 picks a free one.
  explicit Proxy(uint16_t port, ProxyLimits limits = {}) : port_(port), limits_(limits) {}
  ~Proxy() override { stop(); }

  std::optional<std::string> start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) override;
  // Waits up to 1 s for open connections to end. One that is resolving a name may outlive the call; it owns its state.
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
  Descriptor stop_;  // an eventfd(2), for the acceptor
  std::vector<Descriptor> listeners_;
  std::shared_ptr<Shared> shared_;
  std::thread acceptor_;
};

}  // namespace orvane
