#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "companion/commandline/CommandSet.h"
#include "companion/doctor/Doctor.h"

namespace orvane {

// The folder of orvane-fetcher, in which the folder with the fetched lists is.
inline std::string fetcher_folder(const CommonOptions& options) {
  return std::filesystem::path(options.subscriptionsPath).parent_path();
}

// What the doctor needs to know about the subscriptions. Throws FileError if their file or the fetcher's state cannot
// be read.
std::vector<SubscriptionFacts> look_at_subscriptions(const CommonOptions& options);

// Declares "subscribe", "unsubscribe", "subscriptions" and "refresh".
void declare_subscription_commands(CommandSet& commands);

}  // namespace orvane
