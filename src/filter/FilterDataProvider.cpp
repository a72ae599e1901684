#include "filter/FilterDataProvider.h"

#include "database/db.h"
#include "database/db_browsers.h"
#include "diagnostics/os_log_dump.h"
#include "filter/PellUtils.h"
#include "filter/ProviderLifecycle.h"
#include "filter/URLHost.h"
#include "identity/PLAudtToken.h"
#include "platform/Bundle.h"
#include "platform/DNS.h"

namespace orvane {

namespace {

constexpr uint64_t kDNSPort = 53;
constexpr uint64_t kDNSPeekBytes = 1024;

NEFilterNewFlowVerdict peek_outbound(uint64_t bytes) {
  return NEFilterNewFlowVerdict::filterDataVerdictWithFilterInbound(false, 0, true, bytes);
}

}  // namespace

Ref<FilterDataProvider> FilterDataProvider::init() {
  auto provider = Ref<FilterDataProvider>::adopt(new FilterDataProvider);
  if (!provider->initialise()) return nullptr;
  provider->_log = os_log_create(kBundleIdentifier, "FilterDataProvider");
  return provider;
}

void FilterDataProvider::startFilterWithCompletionHandler(ErrorHandler completionHandler) {
  ORVANE_LOG_DEBUG(_log, "start filter");
  start_filter(*this, _log, createFilterRules(), std::move(completionHandler));
}

void FilterDataProvider::stopFilterWithReason(NEProviderStopReason /*reason*/,
                                              const std::function<void()>& completionHandler) {
  stop_filter(_log, completionHandler);
}

NEFilterNewFlowVerdict FilterDataProvider::handleNewFlow(const NEFilterFlow& flow) {
  if (!isFlowFromBrowser(flow)) return NEFilterNewFlowVerdict::allowVerdict();

  // The port is tested before the host name, because the host name of a DNS flow is the name server's, not the name in
  // the question.
  if (socketFlow(flow) != nullptr && port(flow) == kDNSPort) {
    ORVANE_LOG_DEBUG(_log, "DNS packet data; waiting more data...");
    return peek_outbound(kDNSPeekBytes);
  }

  std::optional<std::string> hostname;
  if (const Ref<NSURL> url = flow.URL()) {
    ORVANE_LOG_DEBUG(_log, "URL: %@", url->absoluteString());
    hostname = url_host(*url);
    ORVANE_LOG_DEBUG(_log, "hostname: %@", hostname);
  } else if (const NEFilterSocketFlow* socket = socketFlow(flow)) {
    hostname = socket->remoteHostname();
    ORVANE_LOG_DEBUG(_log, "remote hostname: %@", hostname);
  }

  if (!hostname) {
    ORVANE_LOG_DEBUG(_log, "not enough data; waiting more...");
    return peek_outbound(kFilterFlowBytesMax);
  }
  // The host's date DontBlockUntil has no effect here, because only PLSafariFilterDataProvider reads it.
  if (db_has_hostname(*hostname)) {
    ORVANE_LOG_DEBUG(_log, "found hostname in database : dropping flow.");
    return NEFilterNewFlowVerdict::dropVerdict();
  }
  ORVANE_LOG_DEBUG(_log, "allowing flow.");
  return NEFilterNewFlowVerdict::allowVerdict();
}

void FilterDataProvider::logQuestion(std::span<const uint8_t> readBytes) const {
  ORVANE_LOG_DEBUG(_log, "handleOutboundDataFromFlow: DNS flow");
  // The first byte of the data is parsed as the start of a question, although a DNS header comes before the question,
  // and over TCP a length comes before the header. That is frozen (docs/compatibility.md), and harmless: no verdict
  // depends on the result.
  dns_question_t* question =
      dns_parse_question(reinterpret_cast<const char*>(readBytes.data()), static_cast<uint32_t>(readBytes.size()));
  if (question == nullptr) {
    os_log_dump(_log, "handleOutboundDataFromFlow: cannot parse dns question :", 2, 32, 1, readBytes.data(),
                readBytes.size(), true);
    return;
  }
  if (question->name != nullptr) {
    ORVANE_LOG_DEBUG(_log, "handleOutboundDataFromFlow: dns_name:%s", question->name);
  }
  dns_free_question(question);
}

NEFilterDataVerdict FilterDataProvider::handleOutboundDataFromFlow(const NEFilterFlow& flow,
                                                                   uint64_t /*readBytesStartOffset*/,
                                                                   std::span<const uint8_t> readBytes) {
  if (!isSocketFlow(flow)) {
    ORVANE_LOG_DEBUG(_log, "handleOutboundDataFromFlow: not a socket flow...");
    return NEFilterDataVerdict::allowVerdict();
  }
  const NEFilterSocketFlow* socket = socketFlow(flow);
  ORVANE_LOG_DEBUG(_log, "handleOutboundDataFromFlow: socket type:%d, port:%lu", socket->socketType(),
                   static_cast<unsigned long>(port(flow)));
  if (port(flow) == kDNSPort) {
    // Even a question for a held name is allowed, because the connection that follows the question is dropped.
    logQuestion(readBytes);
    return NEFilterDataVerdict::allowVerdict();
  }
  const std::optional<std::string> hostname = socket->remoteHostname();
  if (!hostname) {
    ORVANE_LOG_DEBUG(_log, "handleOutboundDataFromFlow: remoteHostname is nil; accept flow");
    return NEFilterDataVerdict::allowVerdict();
  }
  if (!db_has_hostname(*hostname)) return NEFilterDataVerdict::allowVerdict();
  ORVANE_LOG_DEBUG(_log, "handleOutboundDataFromFlow: found hostname in database : dropping flow");
  return NEFilterDataVerdict::dropVerdict();
}

NEFilterDataVerdict FilterDataProvider::handleOutboundDataCompleteForFlow(const NEFilterFlow& flow) {
  // The port is not checked here: when a DNS flow's data ends, the host name decides, as for any other flow.
  const NEFilterSocketFlow* socket = socketFlow(flow);
  const std::optional<std::string> hostname = socket == nullptr ? std::nullopt : socket->remoteHostname();
  if (!hostname) {
    // "allowinf" is misspelt, but the text is frozen (docs/compatibility.md).
    ORVANE_LOG_DEBUG(_log, "handleOutboundDataCompleteForFlow: remoteHostname is nil; allowinf flow...");
    return NEFilterDataVerdict::allowVerdict();
  }
  if (!db_has_hostname(*hostname)) return NEFilterDataVerdict::allowVerdict();
  ORVANE_LOG_DEBUG(_log, "handleOutboundDataCompleteForFlow: found hostname in database : dropping flow");
  return NEFilterDataVerdict::dropVerdict();
}

bool FilterDataProvider::isFlowFromBrowser(const NEFilterFlow& flow) const {
  const Ref<PLAudtToken> token = PLAudtToken::auditTokenWithData(flow.sourceAppAuditToken());
  if (!token) return false;
  std::optional<std::string> identifier = token->bundleIdentifier();
  if (identifier && db_is_browser(*identifier)) return true;
  // The second look-up costs as much as the first, so it runs only if the first one found no browser.
  identifier = token->responsibleBundleIdentifier();
  return identifier && db_is_browser(*identifier);
}

std::vector<NEFilterRule> FilterDataProvider::createFilterRules() const {
  std::vector<NEFilterRule> rules;
  // DNS uses UDP and TCP.
  rules.push_back(outbound_rule("53", NENetworkRuleProtocol::Any));
  append_web_rules(rules);
  return rules;
}

}  // namespace orvane
