#include "platform/linux/flow/LinuxFlow.h"

namespace orvane {
namespace {

class RequestURL final : public NSURL {
 public:
  explicit RequestURL(std::string text) : text_(std::move(text)) {}
  std::string absoluteString() const override { return text_; }

 private:
  std::string text_;
};

}  // namespace

Ref<LinuxSocketFlow> LinuxSocketFlow::create(Value auditToken, std::string host, uint16_t port, int32_t socketType) {
  auto endpoint = NWHostEndpoint::endpointWithHostname(std::move(host), std::to_string(port));
  return Ref<LinuxSocketFlow>::adopt(new LinuxSocketFlow(std::move(auditToken), std::move(endpoint), socketType));
}

Ref<LinuxURLFlow> LinuxURLFlow::create(Value auditToken, std::string url, std::string host) {
  auto object = Ref<NSURL>::adopt(new RequestURL(std::move(url)));
  return Ref<LinuxURLFlow>::adopt(new LinuxURLFlow(std::move(auditToken), std::move(object), std::move(host)));
}

Ref<NSURL> LinuxURLFlow::URL() const {
  return alias_ ? Ref<NSURL>::adopt(new RequestURL("http://" + *alias_ + "/")) : url_;
}

}  // namespace orvane
