#pragma once

#include <filesystem>
#include <string>

#include "companion/commands/CommandSet.h"

namespace orvane {

// The folder of orvane-fetcher, in which the folder with the fetched lists is.
inline std::string fetcher_folder(const CommonOptions& options) {
  return std::filesystem::path(options.subscriptionsPath).parent_path();
}

// Declares "subscribe", "unsubscribe", "subscriptions" and "refresh".
void declare_subscription_commands(CommandSet& commands);

}  // namespace orvane
