#include "companion/commands/WaitForKeeper.h"

#include <chrono>

#include "companion/browsers/BrowserRecognition.h"
#include "companion/client/UnitState.h"
#include "companion/commandline/GroupState.h"
#include "companion/keeper/KeeperState.h"
#include "companion/list/Places.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "companion/text/ProgressBar.h"

namespace orvane {
namespace {

// The longest time in which the keeper reads this number of sites and the extension loads their names.
std::chrono::milliseconds patience_for(size_t sites) {
  constexpr std::chrono::milliseconds kMinimum(5000);
  constexpr size_t kSitesPerMillisecond = 20;
  return kMinimum + std::chrono::milliseconds(sites / kSitesPerMillisecond);
}

Effect wait(const CommonOptions& options, const ListVersion& version, size_t sites) {
  ProgressBar bar(!options.json);
  const auto messageAt = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  const auto waiting = [&] {
    if (std::chrono::steady_clock::now() >= messageAt) bar.show(0, 0, "waiting until the list is in force");
  };
  switch (wait_until_in_force(options.keeperStatePath, version, patience_for(sites), waiting)) {
    case InForce::Yes: {
      const auto unrecognised = recognition_fault(options.client);
      if (!unrecognised || !unrecognised->isInForce) return {true};
      return {false, "no browser is recognised: " + unrecognised->text + ": see orvanectl doctor"};
    }
    case InForce::NoKeeper:
      return {false, std::string("no keeper runs: ") + kStartKeeper};
    case InForce::NoExtension:
      return {false, std::string("the keeper has no connection to the extension: ") + kStartExtension +
                         "; see orvanectl status"};
    case InForce::TimedOut:
      break;
  }
  return {false, "the keeper has not sent the list yet: see orvanectl status"};
}

}  // namespace

Effect wait_for_keeper(const CommonOptions& options, const ListVersion& version, size_t sites) {
  try {
    const auto keeper = read_keeper_state(options.keeperStatePath);
    // If a keeper runs, wait only if the list is in the file that this keeper sends, because nobody sends a list in any
    // other file. If no keeper runs, call wait() only for the default file; wait() then reports that no keeper runs.
    if (!(keeper ? keeps_list(*keeper, options) : options.listPath == places().list)) return {};
    return wait(options, version, sites);
  } catch (const FileError& error) {
    return {std::nullopt, error.what()};
  }
}

std::string report_effect(const Effect& effect) {
  if (effect.reason.empty()) return "";
  const bool isUnknown = !effect.isInForce;
  print_error((isUnknown ? "saved, but perhaps not in force: " : "saved, but not in force, because ") + effect.reason);
  return isUnknown ? "perhaps not in force: " : "not in force yet: ";
}

}  // namespace orvane
