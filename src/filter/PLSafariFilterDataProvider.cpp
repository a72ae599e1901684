#include "filter/PLSafariFilterDataProvider.h"

#include "database/db.h"
#include "database/db_properties.h"
#include "filter/PellUtils.h"
#include "filter/ProviderLifecycle.h"
#include "filter/URLHost.h"
#include "identity/PLAudtToken.h"
#include "platform/Bundle.h"

namespace orvane {

namespace {

constexpr std::string_view kSafariIdentifier = "com.apple.Safari";

// The host of the flow's URL. If the flow has no URL, the host name that the application asked for.
std::optional<std::string> hostname_of(const NEFilterFlow& flow, const Ref<NSURL>& url) {
  if (url) return url_host(*url);
  const NEFilterSocketFlow* socket = socketFlow(flow);
  return socket == nullptr ? std::nullopt : socket->remoteHostname();
}

}  // namespace

Ref<PLSafariFilterDataProvider> PLSafariFilterDataProvider::init() {
  auto provider = Ref<PLSafariFilterDataProvider>::adopt(new PLSafariFilterDataProvider);
  if (!provider->initialise()) return nullptr;
  provider->_log = os_log_create(kBundleIdentifier, "PLSafariFilterDataProvider");
  return provider;
}

void PLSafariFilterDataProvider::startFilterWithCompletionHandler(ErrorHandler completionHandler) {
  ORVANE_LOG_DEBUG(_log, "start filter");
  start_filter(*this, _log, createFilterRules(), std::move(completionHandler));
}

void PLSafariFilterDataProvider::stopFilterWithReason(NEProviderStopReason /*reason*/,
                                                      const std::function<void()>& completionHandler) {
  stop_filter(_log, completionHandler);
}

NEFilterNewFlowVerdict PLSafariFilterDataProvider::handleNewFlow(const NEFilterFlow& flow) {
  if (!isSafariBrowser(flow)) return NEFilterNewFlowVerdict::allowVerdict();

  const Ref<NSURL> url = flow.URL();
  if (url) ORVANE_LOG_DEBUG(_log, "URL: %@", url->absoluteString());
  const std::optional<std::string> hostname = hostname_of(flow, url);
  // For every flow to a held host, the provider asks for the flow's data, because only handleOutboundDataFromFlow()
  // reads the host's date DontBlockUntil.
  if (hostname && db_has_hostname(*hostname)) {
    ORVANE_LOG_DEBUG(_log, "found hostname (%@) in database : examining data flow.", *hostname);
    return NEFilterNewFlowVerdict::filterDataVerdictWithFilterInbound(false, 0, true, kFilterFlowBytesMax);
  }
  ORVANE_LOG_DEBUG(_log, "allowing flow.");
  return NEFilterNewFlowVerdict::allowVerdict();
}

NEFilterDataVerdict PLSafariFilterDataProvider::handleOutboundDataFromFlow(const NEFilterFlow& flow,
                                                                           uint64_t /*readBytesStartOffset*/,
                                                                           std::span<const uint8_t> /*readBytes*/) {
  ORVANE_LOG_DEBUG(_log, "handleOutboundDataFromFlow.");
  const std::optional<std::string> hostname = hostname_of(flow, flow.URL());
  if (hostname && db_hostname_is_blockable(*hostname)) {
    ORVANE_LOG_DEBUG(_log, "found hostname (%@) in database : drop flow.", *hostname);
    return NEFilterDataVerdict::dropVerdict();
  }
  ORVANE_LOG_DEBUG(_log, "allowing flow.");
  return NEFilterDataVerdict::allowVerdict();
}

NEFilterDataVerdict PLSafariFilterDataProvider::handleOutboundDataCompleteForFlow(const NEFilterFlow& /*flow*/) {
  ORVANE_LOG_DEBUG(_log, "handleOutboundDataCompleteForFlow.");
  return NEFilterDataVerdict::allowVerdict();
}

bool PLSafariFilterDataProvider::isSafariBrowser(const NEFilterFlow& flow) const {
  const Ref<PLAudtToken> token = PLAudtToken::auditTokenWithData(flow.sourceAppAuditToken());
  if (!token) return false;
  if (token->bundleIdentifier() == kSafariIdentifier) return true;
  return token->responsibleBundleIdentifier() == kSafariIdentifier;
}

std::vector<NEFilterRule> PLSafariFilterDataProvider::createFilterRules() const {
  std::vector<NEFilterRule> rules;
  append_web_rules(rules);
  return rules;
}

}  // namespace orvane
