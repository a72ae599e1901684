#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// A flow that the provider can see under another host name than its own.
class NamedFlow {
 public:
  // The flow's own host name. Nothing if it is unknown.
  const std::optional<std::string>& hostName() const { return hostName_; }

  // From now on, the provider sees the flow under this name; without a name, under its own name again.
  void setAlias(std::optional<std::string> name) { alias_ = std::move(name); }

 protected:
  NamedFlow() = default;
  ~NamedFlow() = default;

  std::optional<std::string> hostName_, alias_;
};

// A TCP connection or a UDP conversation of one process.
class LinuxSocketFlow final : public NEFilterSocketFlow, public NamedFlow {
 public:
  // `auditToken` is nil when the owner is unknown. `host` is a name, or a literal address without brackets.
  static Ref<LinuxSocketFlow> create(Value auditToken, std::string host, uint16_t port, int32_t socketType);

  // Sets the server name that the application asked for.
  void setRemoteHostname(std::string name) { hostName_ = std::move(name); }

  Value sourceAppAuditToken() const override { return auditToken_; }
  Ref<NSURL> URL() const override { return nullptr; }
  Ref<NWEndpoint> remoteEndpoint() const override { return remoteEndpoint_; }
  std::optional<std::string> remoteHostname() const override { return alias_ ? alias_ : hostName_; }
  int32_t socketType() const override { return socketType_; }

 private:
  LinuxSocketFlow(Value auditToken, Ref<NWEndpoint> remoteEndpoint, int32_t socketType)
      : auditToken_(std::move(auditToken)), remoteEndpoint_(std::move(remoteEndpoint)), socketType_(socketType) {}

  Value auditToken_;
  Ref<NWEndpoint> remoteEndpoint_;
  int32_t socketType_;
};

// A process's request for a URL. It is not a socket flow, because the proxy, and not the process, makes the connection
// to the server. While an alias is set, URL() is a URL with the alias as its host, and without the path.
class LinuxURLFlow final : public NEFilterFlow, public NamedFlow {
 public:
  // `url` is the URL as the application wrote it. `host` is the host in this URL, in the form of the list's names
  // (HostName.h).
  static Ref<LinuxURLFlow> create(Value auditToken, std::string url, std::string host);

  Value sourceAppAuditToken() const override { return auditToken_; }
  Ref<NSURL> URL() const override;

 private:
  LinuxURLFlow(Value auditToken, Ref<NSURL> url, std::string host)
      : auditToken_(std::move(auditToken)), url_(std::move(url)) {
    hostName_ = std::move(host);
  }

  Value auditToken_;
  Ref<NSURL> url_;
};

}  // namespace orvane
