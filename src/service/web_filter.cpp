#include "service/web_filter.h"

#include "filter/FilterDataProvider.h"
#include "filter/PLSafariFilterDataProvider.h"
#include "platform/NetworkExtension.h"

namespace orvane {

int32_t web_filter_init() {
  // The platform creates the class that the bundle names.
  NEFilterProvider::registerProviderClass("FilterDataProvider",
                                          []() -> Ref<NEFilterDataProvider> { return FilterDataProvider::init(); });
  NEFilterProvider::registerProviderClass(
      "PLSafariFilterDataProvider", []() -> Ref<NEFilterDataProvider> { return PLSafariFilterDataProvider::init(); });
  return NEFilterProvider::startSystemExtensionMode();
}

}  // namespace orvane
