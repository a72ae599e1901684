#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// A TCP connection or a UDP conversation of one process.
class LinuxSocketFlow final : public NEFilterSocketFlow {
 public:
  // `auditToken` is nil when the owner is unknown. `host` is a name, or a literal address without brackets.
  static Ref<LinuxSocketFlow> create(Value auditToken, std::string host, uint16_t port, int32_t socketType);

  // Sets the server name that the application asked for.
  void setRemoteHostname(std::string name) { remoteHostname_ = std::move(name); }

  Value sourceAppAuditToken() const override { return auditToken_; }
  Ref<NSURL> URL() const override { return nullptr; }
  Ref<NWEndpoint> remoteEndpoint() const override { return remoteEndpoint_; }
  std::optional<std::string> remoteHostname() const override { return remoteHostname_; }
  int32_t socketType() const override { return socketType_; }

 private:
  LinuxSocketFlow(Value auditToken, Ref<NWEndpoint> remoteEndpoint, int32_t socketType)
      : auditToken_(std::move(auditToken)), remoteEndpoint_(std::move(remoteEndpoint)), socketType_(socketType) {}

  Value auditToken_;
  Ref<NWEndpoint> remoteEndpoint_;
  std::optional<std::string> remoteHostname_;
  int32_t socketType_;
};

// A process's request for a URL. It is not a socket flow, because the proxy, and not the process, makes the connection
// to the server. The flow's host name is the host in the URL.
class LinuxURLFlow final : public NEFilterFlow {
 public:
  // `url` as the application wrote it.
  static Ref<LinuxURLFlow> create(Value auditToken, std::string url);

  Value sourceAppAuditToken() const override { return auditToken_; }
  Ref<NSURL> URL() const override { return url_; }

 private:
  LinuxURLFlow(Value auditToken, Ref<NSURL> url) : auditToken_(std::move(auditToken)), url_(std::move(url)) {}

  Value auditToken_;
  Ref<NSURL> url_;
};

}  // namespace orvane
