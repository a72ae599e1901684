#include "companion/commands/Try.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "companion/browsers/BrowserRecognition.h"
#include "companion/client/ExtensionProbe.h"
#include "companion/commands/KeeperCommands.h"
#include "companion/keeper/KeeperState.h"
#include "companion/list/ListFile.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

enum class Verdict { Blocked, NotBlocked, Unknown };

struct VerdictName {
  const char* text;
  int exitCode;
  Colour colour;
};
VerdictName name_of(Verdict verdict) {
  switch (verdict) {
    case Verdict::Blocked:
      return {"blocked", kDone, Colour::Bad};
    case Verdict::NotBlocked:
      return {"not blocked", kNotInForce, Colour::Good};
    case Verdict::Unknown:
      break;
  }
  return {"unknown", kUnknown, Colour::Warning};
}

// What the list contains about a name.
struct Listing {
  std::optional<BlockedSite> site;  // the site that the name belongs to; nothing if the name is not on the list
  std::optional<Moment> until;      // the end of the site's suspension
  bool isHeld = false;              // on the list and not suspended
};

// Up to two sites cover a name: the site of that exact name, and the site that has it as a usual name. The name is held
// if at least one of them is not suspended.
Listing look_up(const BlockList& list, const std::string& name, Moment now) {
  Listing listing;
  for (const BlockedSite* site : {list.find(name), list.findByUsualName(name)}) {
    if (site == nullptr || listing.isHeld) continue;
    listing.isHeld = !site->isSuspended(now);
    if (listing.isHeld) listing.until.reset();
    if (!listing.isHeld) listing.until = std::min(listing.until.value_or(*site->until), *site->until);
    listing.site = *site;
  }
  return listing;
}

// For a name that is not on the list: a text about a similar site on the list that the user may expect to cover the
// name. Empty if there is no such site.
std::string nearest_miss(const BlockList& list, const std::string& name) {
  std::string other(site_of(name));
  if (other != name && list.find(other) != nullptr)
    return other + " is on the list under its exact name only: block it without --no-www to cover this name";
  for (size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.', dot + 1)) {
    other = name.substr(dot + 1);
    if (other.find('.') != std::string::npos && list.find(other) != nullptr)
      return other.append(" is on the list, but does not cover ").append(name).append(": block that name, too");
  }
  if (list.find("www." + name) != nullptr) return "www." + name + " is on the list, but does not cover " + name;
  return "";
}

std::string listing_text(const BlockList& list, const std::string& name, const Listing& listing, Moment now) {
  if (!listing.site) {
    std::string miss = nearest_miss(list, name);
    return "it is not on the list" + (miss.empty() ? "" : "; " + miss);
  }
  std::string text =
      listing.site->host == name ? "it is on the list" : "it is on the list, as a usual name of " + listing.site->host;
  if (listing.until) text += ", but suspended " + suspension_text(*listing.until, now);
  return text;
}

// Whether the extension has the list.
struct Delivery {
  enum class State { InForce, Behind, NothingBlocked, Unknown } state;
  std::string text;
};

Delivery delivery_of(const ListVersion& version, const std::optional<KeeperState>& keeper,
                     const ExtensionProbe& extension) {
  using State = Delivery::State;
  if (extension.isUnresponsive || extension.isAbsent || (keeper && !keeper->connected && !extension.answers))
    return {State::NothingBlocked, "nothing is blocked: " + extension.error};
  if (!keeper)
    return {State::Unknown,
            "no keeper runs, so what the extension holds is not known: sudo systemctl start orvane-keeper.service" +
                (extension.answers ? "" : "; " + extension.error)};
  if (keeper->sentVersion == version && !keeper->extensionError)
    return {State::InForce, "the keeper has sent the list to the extension"};
  return {State::Behind, "the keeper has not sent this list yet: " +
                             keeper->listError.value_or(keeper->extensionError.value_or("try again in a moment"))};
}

Verdict verdict_of(const Listing& listing, Delivery::State delivery) {
  using State = Delivery::State;
  if (delivery == State::NothingBlocked) return Verdict::NotBlocked;
  if (delivery != State::InForce) return Verdict::Unknown;
  return listing.isHeld ? Verdict::Blocked : Verdict::NotBlocked;
}

}  // namespace

int try_host(const CommonOptions& options, const std::string& given) {
  std::string name, fault;
  if (!normalize_hostname(given, name, fault)) throw InputError("not a host name: " + in_quotes(given) + ": " + fault);

  const StoredList stored = read_list(options.listPath);
  const Moment now = now_in_seconds();
  const Listing listing = look_up(stored.list, name, now);
  const std::optional<KeeperState> keeper = read_keeper_state(options.keeperStatePath);
  Delivery delivery = delivery_of(stored.version, keeper, probe_extension(options.client));
  const auto unrecognised = recognition_fault(options.client);
  if (unrecognised && unrecognised->isInForce)
    delivery = {Delivery::State::NothingBlocked, "nothing is blocked: no browser is recognised: " + unrecognised->text};
  const Verdict verdict = verdict_of(listing, delivery.state);

  std::vector<std::string> reasons{listing_text(stored.list, name, listing, now), delivery.text};
  if (keeper && keeper->changesOfOthers > 0 && delivery.state != Delivery::State::NothingBlocked)
    reasons.push_back(
        "but other clients have edited what the extension holds, and the extension cannot list its names");

  const VerdictName shown = name_of(verdict);
  if (options.json) {
    print_json({{"host", name},
                {"verdict", shown.text},
                {"site", listing.site ? nlohmann::json(listing.site->host) : nlohmann::json()},
                {"suspendedUntil", listing.until ? nlohmann::json(time_text(*listing.until)) : nlohmann::json()},
                {"reasons", reasons}});
  } else {
    std::printf("%s: %s\n", name.c_str(), coloured(shown.text, shown.colour).c_str());
    for (const std::string& reason : reasons) std::printf("  %s\n", reason.c_str());
  }
  return shown.exitCode;
}

}  // namespace orvane
