#pragma once

#include <filesystem>
#include <string>

#include "companion/commandline/CommandSet.h"
#include "companion/doctor/Doctor.h"

namespace orvane {

// The folder of orvane-fetcher, in which the folder with the fetched lists is.
inline std::string fetcher_folder(const CommonOptions& options) {
  return std::filesystem::path(options.subscriptionsPath).parent_path();
}

inline constexpr const char* kFetcherNotRunning = "no orvane-fetcher runs: sudo systemctl start orvane-fetcher";

// Adds to the facts what the doctor needs to know about the subscriptions.
void look_at_subscriptions(const CommonOptions& options, Facts& facts);

// Declares "subscribe", "unsubscribe", "subscriptions" and "refresh".
void declare_subscription_commands(CommandSet& commands);

}  // namespace orvane
