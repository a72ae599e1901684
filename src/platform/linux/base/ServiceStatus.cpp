#include "platform/linux/base/ServiceStatus.h"

#include "platform/linux/base/Text.h"

namespace orvane {
namespace {

constexpr std::string_view kFiltering = "Filtering";
constexpr std::string_view kFilteringNothing = "Filtering nothing: no browser is recognised: ";
constexpr std::string_view kHiddenNames = "Filtering; connections with hidden names: ";

}  // namespace

std::string filtering_status(uint64_t hiddenNames) {
  return hiddenNames == 0 ? std::string(kFiltering) : std::string(kHiddenNames) + std::to_string(hiddenNames);
}

std::string no_browser_status(const std::string& reason) { return std::string(kFilteringNothing) + reason; }

bool says_filtering(std::string_view status) { return status.starts_with(kFiltering); }

bool says_filtering_nothing(std::string_view status) { return status.starts_with(kFilteringNothing); }

uint64_t hidden_names_in(std::string_view status) {
  if (!status.starts_with(kHiddenNames)) return 0;
  return parse_number<uint64_t>(status.substr(kHiddenNames.size())).value_or(0);
}

}  // namespace orvane
