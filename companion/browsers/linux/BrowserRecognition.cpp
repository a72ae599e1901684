#include "companion/browsers/BrowserRecognition.h"

#include <sys/stat.h>

#include <chrono>

#include "companion/client/ExtensionBundle.h"
#include "companion/client/UnitState.h"
#include "platform/linux/process/BrowserList.h"

namespace orvane {

std::optional<RecognitionFault> recognition_fault(const ClientOptions& client) {
  struct stat status = {};
  if (!client.socket.empty() || stat(kPackageBundle, &status) != 0) return std::nullopt;
  const BrowserList list = read_browser_list(std::string(kPackageBundle) + kBrowserListInBundle);
  if (list.fault.empty()) return std::nullopt;
  const auto service = unit_state(kExtensionUnit);
  const bool isNewer = service && service->since && stat(list.path.c_str(), &status) == 0 &&
                       Moment(std::chrono::seconds(status.st_ctim.tv_sec)) > *service->since;
  return RecognitionFault{list.path + " " + list.fault, !isNewer};
}

}  // namespace orvane
