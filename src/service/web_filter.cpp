#include "service/web_filter.h"

#include "filter/FilterDataProvider.h"
#include "filter/PLSafariFilterDataProvider.h"
#include "platform/NetworkExtension.h"

namespace orvane {

int32_t web_filter_init() {
  // The bundle names one of these two classes, and the platform creates an object of that class.
  NEFilterProvider::registerProviderClass("FilterDataProvider",
                                          []() -> Ref<NEFilterDataProvider> { return FilterDataProvider::init(); });
  NEFilterProvider::registerProviderClass(
      "PLSafariFilterDataProvider", []() -> Ref<NEFilterDataProvider> { return PLSafariFilterDataProvider::init(); });
  return NEFilterProvider::startSystemExtensionMode();
}

}  // namespace orvane
