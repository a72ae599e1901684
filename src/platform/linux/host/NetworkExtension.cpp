#include "platform/NetworkExtension.h"

#include <csignal>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/base/Error.h"
#include "platform/linux/host/MainSignals.h"
#include "platform/linux/host/ProviderHost.h"

namespace orvane {

void NEFilterProvider::registerProviderClass(std::string_view name, Ref<NEFilterDataProvider> (*create)()) {
  ProviderHost::shared().registerClass(name, create);
}

int32_t NEFilterProvider::startSystemExtensionMode() {
  block_main_signals();
  std::signal(SIGPIPE, SIG_IGN);
  // If the parent process ignores SIGCHLD, this process inherits the setting, and would lose the exit statuses of its
  // children.
  std::signal(SIGCHLD, SIG_DFL);
  return ProviderHost::shared().start() ? 0 : -1;
}

void NEFilterDataProvider::applySettings(const NEFilterSettings& settings, ErrorHandler completionHandler) {
  auto error = ProviderHost::shared().applySettings(Ref<NEFilterDataProvider>::retained(this), settings);
  const ErrorHandler handler = std::move(completionHandler);
  handler(error ? error_create(std::move(*error)) : nullptr);
}

}  // namespace orvane
