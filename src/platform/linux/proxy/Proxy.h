#pragma once

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
// More clients than this wait in the kernel's queue until one of these has gone.
inline constexpr size_t kProxyConnectionLimit = 1024;

// The flow source that needs no privilege: an HTTP/1.1 proxy on the loopback addresses 127.0.0.1 and ::1, which a
// program is told to use. A CONNECT is a socket flow, a request for an absolute URL is a flow with that URL and no
// socket flow. The process that owns the client's end of the connection is the flow's source.
//
// Each connection is served on a thread of its own, in plain sequence: a provider that takes its time, a name that
// resolves slowly and a peer that does not read delay that connection alone.
class Proxy final : public FlowSource {
 public:
  // Port 0 is any free one.
  explicit Proxy(uint16_t port) : port_(port) {}
  ~Proxy() override { stop(); }

  std::optional<std::string> start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) override;
  // Waits a moment for open connections to end. One that is resolving a name outlives the call, and does no harm.
  void stop() override;

  // That it listens on, once started.
  uint16_t port() const { return port_; }

 private:
  struct Shared;

  std::optional<std::string> listenOnLoopback();
  void accept();
  void serve(Descriptor client);

  uint16_t port_;
  std::vector<Descriptor> listeners_;
  std::shared_ptr<Shared> shared_;
  std::thread acceptor_;
};

}  // namespace orvane
