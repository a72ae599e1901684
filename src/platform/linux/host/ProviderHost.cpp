#include "platform/linux/host/ProviderHost.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Bundle.h"
#include "platform/Log.h"
#include "platform/Value.h"
#include "platform/linux/base/FileURL.h"
#include "platform/linux/base/ServiceStatus.h"
#include "platform/linux/flow/DropRecords.h"
#include "platform/linux/flow/FilterRules.h"
#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/netfilter/Netfilter.h"
#include "platform/linux/process/BrowserList.h"
#include "platform/linux/proxy/Proxy.h"

namespace orvane {
namespace {

constexpr auto kStopTimeout = std::chrono::seconds(1);
constexpr auto kStatusInterval = std::chrono::minutes(1);
constexpr std::string_view kProviderKind = "com.apple.networkextension.filter-data";
// This provider recognises its browser without the list of browsers.
constexpr std::string_view kProviderWithoutList = "PLSafariFilterDataProvider";

// A value of the NetworkExtension dictionary in the bundle's Info.plist. Nil if it is missing.
Value extension_setting(std::string_view key) {
  const Value description = bundle_get_information(bundle_get_main(), "NetworkExtension");
  const Value* value = description.find(key);
  return value == nullptr ? Value() : *value;
}

// Why a setting that may be missing, or have one of two values, is wrong. Nothing if it is right.
std::optional<std::string> fault_of_choice(std::string_view key, std::string_view one, std::string_view other) {
  const Value value = extension_setting(key);
  if (value.isNil() || value == Value::borrowed(one) || value == Value::borrowed(other)) return std::nullopt;
  return std::string(key) + " is " + value.description() + ", neither " + std::string(one) + " nor " +
         std::string(other);
}

bool ends_open_connections() { return extension_setting("OrvaneOpenConnections") != Value::borrowed("keep"); }

// Why the extension recognises no browser, or an empty text. The core, which reads the list of browsers, logs only what
// went wrong, and not in which file.
std::string browser_list_fault() {
  const auto url = bundle_copy_resource_url(bundle_get_main(), "Browsers", "plist");
  const auto path = url ? path_of_file_url(*url) : std::nullopt;
  if (!path) return "the bundle has no Browsers.plist: see orvanectl doctor";
  const BrowserList list = read_browser_list(*path);
  return list.fault.empty() ? "" : list.path + " " + list.fault;
}

// Tells the service manager that the start is complete. The start also counts as complete if the filter could not
// start, because the extension still serves its companion, which can ask what is wrong.
void report_ready(const std::string& status) { sd_notify(0, ("READY=1\nSTATUS=" + status).c_str()); }

// Tells the service manager the number of connections with hidden names: after each change, but once a minute at most.
// Never returns.
void report_hidden_names() {
  const FlowCounters::Count& hidden = flow_counters().hiddenNames;
  for (uint64_t reported = 0;; std::this_thread::sleep_for(kStatusInterval)) {
    hidden.wait(reported);
    reported = hidden;
    sd_notify(0, ("STATUS=" + filtering_status(reported)).c_str());
  }
}

}  // namespace

ProviderHost& ProviderHost::shared() {
  static auto* host = new ProviderHost;
  return *host;
}

void ProviderHost::registerClass(std::string_view name, CreateProvider create) {
  std::lock_guard lock(mutex_);
  classes_.insert_or_assign(std::string(name), create);
}

bool ProviderHost::start() {
  const Value classes = extension_setting("NEProviderClasses");
  const Value* name = classes.find(kProviderKind);
  if (name == nullptr || !name->isString()) {
    reportFailure("the bundle names no class for " + std::string(kProviderKind));
    return false;
  }
  std::string className(name->asString());
  CreateProvider create = findClass(className);
  if (create == nullptr) {
    reportFailure("the extension has no provider class " + className);
    return false;
  }
  try {
    if (extension_setting("OrvaneRecordDrops") == Value::borrowed("yes")) {
      ORVANE_LOG_DEFAULT(default_log(), "dropped connections are recorded in the journal");
      drop_records().switchOn();
      std::thread([] { drop_records().serve(); }).detach();
    }
    std::thread([this, create, className] {
      run(create, className);
      report_hidden_names();
    }).detach();
  } catch (const std::system_error& error) {
    reportFailure(std::string("cannot start a thread: ") + error.what());
    return false;
  }
  return true;
}

ProviderHost::CreateProvider ProviderHost::findClass(const std::string& name) {
  std::lock_guard lock(mutex_);
  auto found = classes_.find(name);
  return found == classes_.end() ? nullptr : found->second;
}

void ProviderHost::run(CreateProvider create, const std::string& className) {
  Ref<NEFilterDataProvider> provider = create();
  if (provider == nullptr) return reportFailure("cannot make an object of the class " + className);
  {
    std::lock_guard lock(mutex_);
    if (stopped_) return;
    provider_ = provider;
  }
  const bool usesBrowserList = className != kProviderWithoutList;
  provider->startFilterWithCompletionHandler([this, usesBrowserList](const Ref<NSError>& error) {
    if (isStopped()) return;  // the service manager already knows that the extension stops
    if (error != nullptr) {
      reportFailure(error->localizedDescription());
    } else if (const std::string fault = usesBrowserList ? browser_list_fault() : ""; !fault.empty()) {
      ORVANE_LOG_ERROR(default_log(), "no browser is recognised, so nothing is blocked: %@", fault);
      report_ready(no_browser_status(fault));
    } else {
      report_ready(filtering_status(0));
    }
  });
}

bool ProviderHost::isStopped() {
  std::lock_guard lock(mutex_);
  return stopped_;
}

std::optional<std::string> ProviderHost::applySettings(const Ref<NEFilterDataProvider>& provider,
                                                       const NEFilterSettings& settings) {
  std::lock_guard lock(mutex_);
  if (stopped_) return "the extension is being stopped";
  source_.reset();
  return startFlowSource(provider, settings);
}

// Starts the flow source that the bundle names. If the bundle names none, tries netfilter first, then the proxy.
std::optional<std::string> ProviderHost::startFlowSource(const Ref<NEFilterDataProvider>& provider,
                                                         const NEFilterSettings& settings) {
  if (auto fault = fault_of_choice("OrvaneOpenConnections", "end", "keep")) return fault;
  if (auto fault = fault_of_choice("OrvaneRecordDrops", "yes", "no")) return fault;
  Value name = extension_setting("OrvaneFlowSource");
  if (name == Value::borrowed("proxy")) return startProxy(provider, settings);
  if (auto fault = fault_of_choice("OrvaneFlowSource", "netfilter", "proxy")) return fault;
  if (auto fault = fault_of_choice("OrvaneHTTP3", "judge", "pass")) return fault;
  const bool passesHTTP3 = extension_setting("OrvaneHTTP3") == Value::borrowed("pass");
  auto netfilter = std::make_unique<Netfilter>(ends_open_connections());
  auto error = netfilter->start(provider, passesHTTP3 ? settings : with_http3(settings));
  if (!error) {
    ORVANE_LOG_DEFAULT(default_log(), "flow source: netfilter");
    source_ = std::move(netfilter);
    return std::nullopt;
  }
  // If another running extension has the packet queue, companions send their host names to that extension. A proxy in
  // this process would then filter with an empty list.
  if (!name.isNil() || netfilter->isTaken()) return "netfilter: " + *error;
  ORVANE_LOG_DEFAULT(default_log(), "flow source: proxy, because netfilter is unavailable: %@", *error);
  return startProxy(provider, settings);
}

std::optional<std::string> ProviderHost::startProxy(const Ref<NEFilterDataProvider>& provider,
                                                    const NEFilterSettings& settings) {
  Value port = extension_setting("OrvaneProxyPort");
  bool valid = port.kind() == Value::Kind::Number && port.numberForm() == Value::NumberForm::Signed &&
               port.asSigned() >= 0 && port.asSigned() <= UINT16_MAX;
  if (!valid && !port.isNil()) return "OrvaneProxyPort is not a port number: " + port.description();
  auto proxy = std::make_unique<Proxy>(valid ? static_cast<uint16_t>(port.asSigned()) : kProxyDefaultPort,
                                       ProxyLimits(), ends_open_connections());
  auto error = proxy->start(provider, settings);
  if (!error) source_ = std::move(proxy);
  return error;
}

// Logs the reason and tells it to the service manager. If the bundle names a flow source other than the proxy, the
// extension runs as a system service, and nobody would notice that it filters nothing. So the process then ends with an
// error, which the service manager shows.
void ProviderHost::reportFailure(const std::string& reason) {
  ORVANE_LOG_ERROR(default_log(), "filter not started: %@", reason);
  const std::string status = "Filter not started: " + reason;
  const Value source = extension_setting("OrvaneFlowSource");
  if (source.isNil() || source == Value::borrowed("proxy")) return report_ready(status);
  sd_notify(0, ("STATUS=" + status).c_str());
  stop();
  _exit(EXIT_FAILURE);
}

void ProviderHost::stop() {
  std::unique_ptr<FlowSource> source;
  Ref<NEFilterDataProvider> provider;
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    source = std::move(source_);
    provider = std::move(provider_);
  }
  if (source != nullptr) {
    source->stop();
    drop_records().writeCounts();
    log_flow_counters();
  }
  if (provider == nullptr) return;
  auto stopped = std::make_shared<std::promise<void>>();
  provider->stopFilterWithReason(NEProviderStopReason::UserInitiated, [stopped] { stopped->set_value(); });
  stopped->get_future().wait_for(kStopTimeout);
}

}  // namespace orvane
