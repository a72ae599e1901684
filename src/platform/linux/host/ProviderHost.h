#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/NetworkExtension.h"
#include "platform/linux/flow/FlowSource.h"

namespace orvane {

// Runs the filter provider that the bundle names, and the flow source that asks this provider for verdicts.
// Thread-safe.
//
//   main thread           provider's thread
//   start() ------------> the provider is made and started
//                         applySettings(): the flow source starts
//                         the service manager learns the outcome, and later how many connections hid their host names
//
// At the end the main thread runs stop() on another thread and waits for it for at most two seconds. The flow source
// stops, then the provider.
class ProviderHost {
 public:
  using CreateProvider = Ref<NEFilterDataProvider> (*)();

  // The process's only ProviderHost. Never destroyed, because threads of connections may outlive main().
  static ProviderHost& shared();

  void registerClass(std::string_view name, CreateProvider create);

  // Makes the provider and starts it on another thread. If the bundle names no registered class, or if the thread
  // cannot be started, reports the reason and returns false. A failure on the other thread is reported, but does not
  // change the result.
  bool start();

  // Starts a flow source for the provider in place of the previous one. Returns the reason on failure.
  std::optional<std::string> applySettings(const Ref<NEFilterDataProvider>& provider, const NEFilterSettings& settings);

  // Stops the flow source, and then the provider, so that nothing asks the provider while it stops. Waits one second at
  // most for the provider. After this call, no provider and no flow source starts any more.
  void stop();

 private:
  CreateProvider findClass(const std::string& name);
  void run(CreateProvider create, const std::string& className);
  bool isStopped();

  std::optional<std::string> startFlowSource(const Ref<NEFilterDataProvider>& provider,
                                             const NEFilterSettings& settings);
  std::optional<std::string> startProxy(const Ref<NEFilterDataProvider>& provider, const NEFilterSettings& settings);

  void reportFailure(const std::string& reason);

  std::mutex mutex_;  // guards the members below
  std::map<std::string, CreateProvider, std::less<>> classes_;
  Ref<NEFilterDataProvider> provider_;
  std::unique_ptr<FlowSource> source_;
  bool stopped_ = false;
};

}  // namespace orvane
