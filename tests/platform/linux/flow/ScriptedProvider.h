#pragma once

#include <mutex>
#include <string>
#include <utility>

#include "platform/NetworkExtension.h"

namespace orvane {

inline const auto kAllow = NEFilterNewFlowVerdict::allowVerdict(), kDrop = NEFilterNewFlowVerdict::dropVerdict();
inline const auto kExamine =
    NEFilterNewFlowVerdict::filterDataVerdictWithFilterInbound(false, 0, true, kFilterFlowBytesMax);
inline const auto kAllowData = NEFilterDataVerdict::allowVerdict(), kDropData = NEFilterDataVerdict::dropVerdict();

// Returns the verdicts that a test sets, and records the calls. Allows every flow under a marked name (Subdomains.h).
class ScriptedProvider : public NEFilterDataProvider {
 public:
  struct Seen {
    std::string calls;   // the calls without a marked name, each with the flow's host name at that call
    std::string marked;  // the marked names, in the order of the calls with them
    std::string bytes;
    Value owner;  // the owner of the last call's flow
  };

  NEFilterNewFlowVerdict newFlow = kAllow;
  NEFilterDataVerdict data = kAllowData, complete = kAllowData;

  Seen take() {
    std::lock_guard lock(mutex_);
    return std::exchange(seen_, {});
  }

  void startFilterWithCompletionHandler(ErrorHandler) override {}
  void stopFilterWithReason(NEProviderStopReason, const std::function<void()>&) override {}
  NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override { return note("new", flow, {}, newFlow); }
  NEFilterDataVerdict handleOutboundDataFromFlow(const NEFilterFlow& flow, uint64_t offset,
                                                 std::span<const uint8_t> bytes) override {
    return note("data " + std::to_string(offset), flow, bytes, data);
  }
  NEFilterDataVerdict handleOutboundDataCompleteForFlow(const NEFilterFlow& flow) override {
    return note("complete", flow, {}, complete);
  }

 private:
  template <class Verdict>
  Verdict note(const std::string& call, const NEFilterFlow& flow, std::span<const uint8_t> bytes, Verdict answer) {
    std::lock_guard lock(mutex_);
    auto* socket = dynamic_cast<const NEFilterSocketFlow*>(&flow);
    std::string name = socket != nullptr ? socket->remoteHostname().value_or("-") : flow.URL()->absoluteString();
    if (name.find_first_of(".!") == 0 || name.starts_with("http://.") || name.starts_with("http://!")) {
      seen_.marked += name + " ";
      return Verdict::allowVerdict();
    }
    seen_.calls += call + " " + name + "; ";
    seen_.bytes.append(bytes.begin(), bytes.end());
    seen_.owner = flow.sourceAppAuditToken();
    return answer;
  }

  std::mutex mutex_;
  Seen seen_;
};

}  // namespace orvane
