#include "platform/NetworkExtension.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/Bundle.h"
#include "platform/Log.h"
#include "platform/linux/base/Error.h"
#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/flow/FlowSource.h"
#include "platform/linux/host/ProviderHost.h"
#include "platform/linux/netfilter/Netfilter.h"
#include "platform/linux/proxy/Proxy.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
using CreateProvider = Ref<NEFilterDataProvider> (*)();

// The running provider and where its flows come from.
struct ProviderHost {
  std::mutex mutex;
  std::map<std::string, CreateProvider, std::less<>> classes;
  Ref<NEFilterDataProvider> provider;
  std::unique_ptr<FlowSource> source;
  bool stopped = false;
};

// Never destroyed: connections' threads may outlive the end of main.
ProviderHost& host() {
  static auto* host = new ProviderHost;
  return *host;
}

Value extension_setting(std::string_view key) {
  const Value description = bundle_get_information(bundle_get_main(), "NetworkExtension");
  const Value* value = description.find(key);
  return value == nullptr ? Value() : *value;
}

// Tells the service manager that starting is over, one way or the other: an extension whose filter did not start still
// serves its companion, which can ask what is wrong.
void report_start(const std::string& status) { sd_notify(0, ("READY=1\nSTATUS=" + status).c_str()); }

// A bundle that names a flow source other than the proxy is one that a system runs for everybody on it. Nobody would
// notice there that it filters nothing, so its failure is the service's.
[[noreturn]] void end_service(const std::string& reason) {
  sd_notify(0, ("STATUS=Filter not started: " + reason).c_str());
  stop_provider_host();
  _exit(EXIT_FAILURE);
}

void report_failure(const std::string& reason) {
  ORVANE_LOG_ERROR(default_log(), "filter not started: %@", reason);
  const Value source = extension_setting("OrvaneFlowSource");
  if (!source.isNil() && source != Value::borrowed("proxy")) end_service(reason);
  report_start("Filter not started: " + reason);
}

// A flow source in force, or why there is none.
struct StartedSource {
  std::unique_ptr<FlowSource> source;
  std::string reason;
};

StartedSource start_source(std::unique_ptr<FlowSource> source, const Ref<NEFilterDataProvider>& provider,
                           const NEFilterSettings& settings) {
  if (auto error = source->start(provider, settings)) return {nullptr, std::move(*error)};
  return {std::move(source), {}};
}

StartedSource start_proxy(const Ref<NEFilterDataProvider>& provider, const NEFilterSettings& settings) {
  Value port = extension_setting("OrvaneProxyPort");
  bool valid = port.kind() == Value::Kind::Number && port.numberForm() == Value::NumberForm::Signed &&
               port.asSigned() >= 0 && port.asSigned() <= UINT16_MAX;
  if (!valid && !port.isNil()) return {nullptr, "OrvaneProxyPort is no port number: " + port.description()};
  auto number = valid ? static_cast<uint16_t>(port.asSigned()) : kProxyDefaultPort;
  return start_source(std::make_unique<Proxy>(number), provider, settings);
}

StartedSource start_flow_source(const Ref<NEFilterDataProvider>& provider, const NEFilterSettings& settings) {
  Value name = extension_setting("OrvaneFlowSource");
  if (name == Value::borrowed("proxy")) return start_proxy(provider, settings);
  if (!name.isNil() && name != Value::borrowed("netfilter")) {
    return {nullptr, "OrvaneFlowSource is " + name.description() + ", neither netfilter nor proxy"};
  }
  auto netfilter = std::make_unique<Netfilter>();
  auto error = netfilter->start(provider, settings);
  if (!error) {
    ORVANE_LOG_DEFAULT(default_log(), "flow source: netfilter");
    return {std::move(netfilter), {}};
  }
  // A second filter beside a running one would have a list of its own, which nobody fills.
  if (!name.isNil() || netfilter->isTaken()) return {nullptr, "netfilter: " + *error};
  ORVANE_LOG_DEFAULT(default_log(), "flow source: proxy, as netfilter cannot be had: %@", *error);
  return start_proxy(provider, settings);
}

// Starts a flow source for the provider in place of the one before. Returns what went wrong.
std::optional<std::string> put_in_force(const Ref<NEFilterDataProvider>& provider, const NEFilterSettings& settings) {
  std::lock_guard lock(host().mutex);
  if (host().stopped) return "the extension is being stopped";
  host().source.reset();
  StartedSource started = start_flow_source(provider, settings);
  if (started.source == nullptr) return started.reason;
  host().source = std::move(started.source);
  return std::nullopt;
}

void run_provider(CreateProvider create, const std::string& name) {
  Ref<NEFilterDataProvider> provider = create();
  if (provider == nullptr) return report_failure("no object of the class " + name + " can be made");
  {
    std::lock_guard lock(host().mutex);
    if (host().stopped) return;
    host().provider = provider;
  }
  provider->startFilterWithCompletionHandler([](const Ref<NSError>& error) {
    {
      // The service manager has been told of the stop: a start that ends only now is no news.
      std::lock_guard lock(host().mutex);
      if (host().stopped) return;
    }
    if (error != nullptr) {
      report_failure(error->localizedDescription());
    } else {
      report_start("Filtering");
    }
  });
}

}  // namespace

void NEFilterProvider::registerProviderClass(std::string_view name, Ref<NEFilterDataProvider> (*create)()) {
  std::lock_guard lock(host().mutex);
  host().classes.insert_or_assign(std::string(name), create);
}

int32_t NEFilterProvider::startSystemExtensionMode() {
  block_main_signals();
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGCHLD, SIG_DFL);  // a launcher may have it ignored, and nobody would learn how our children ended
  Value classes = extension_setting("NEProviderClasses");
  const Value* name = classes.find("com.apple.networkextension.filter-data");
  if (name == nullptr || !name->isString()) {
    report_failure("the bundle names no class for com.apple.networkextension.filter-data");
    return -1;
  }
  std::string className(name->asString());
  CreateProvider create = nullptr;
  {
    std::lock_guard lock(host().mutex);
    if (auto found = host().classes.find(className); found != host().classes.end()) create = found->second;
  }
  if (create == nullptr) {
    report_failure("there is no provider class of the name " + className);
    return -1;
  }
  try {
    std::thread(run_provider, create, className).detach();
  } catch (const std::system_error& error) {
    report_failure(std::string("no thread: ") + error.what());
    return -1;
  }
  return 0;
}

void NEFilterDataProvider::applySettings(const NEFilterSettings& settings, ErrorHandler completionHandler) {
  auto error = put_in_force(Ref<NEFilterDataProvider>::retained(this), settings);
  const ErrorHandler handler = std::move(completionHandler);
  handler(error ? error_create(std::move(*error)) : nullptr);
}

void stop_provider_host() {
  std::unique_ptr<FlowSource> source;
  Ref<NEFilterDataProvider> provider;
  {
    std::lock_guard lock(host().mutex);
    host().stopped = true;
    source = std::move(host().source);
    provider = std::move(host().provider);
  }
  if (source != nullptr) {
    source->stop();
    log_flow_counters();
  }
  if (provider == nullptr) return;
  auto stopped = std::make_shared<std::promise<void>>();
  provider->stopFilterWithReason(NEProviderStopReason::UserInitiated, [stopped] { stopped->set_value(); });
  stopped->get_future().wait_for(5s);
}

}  // namespace orvane
