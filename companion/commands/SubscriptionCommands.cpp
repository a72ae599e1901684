#include "companion/commands/SubscriptionCommands.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "companion/commandline/GroupState.h"
#include "companion/list/ListFile.h"
#include "companion/subscriptions/FetcherState.h"
#include "companion/subscriptions/Subscription.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"
#include "companion/text/ProgressBar.h"
#include "companion/text/TimeText.h"
#include "companion/watch/PathWatch.h"

namespace orvane {
namespace {

struct Arguments {
  std::string url;
  std::optional<std::string> name, group, every, key;
  bool insecure = false;
  bool accept = false;
};

std::string subscriptions_path(const CommonOptions& options) { return path_beside_list(options, kSubscriptionsName); }

SubscriptionFile read_file(const CommonOptions& options) {
  return read_subscriptions(read_list_text(subscriptions_path(options)));
}

std::string bad_line_text(const CommonOptions& options, const SubscriptionFile::BadLine& bad) {
  return "bad line: " + in_quotes(subscriptions_path(options)) + ":" + std::to_string(bad.line) + ": " + bad.fault;
}

const Subscription& subscription_named(const SubscriptionFile& file, const std::string& given) {
  if (const Subscription* found = file.find(given)) return *found;
  throw InputError("no such subscription: " + in_quotes(given) + ": see orvanectl subscriptions");
}

// A key, or the key in a file that minisign has written: a comment, and then a line with the key.
std::string read_key(const std::string& given) {
  if (key_fault(given).empty()) return given;
  std::error_code ignored;
  if (!std::filesystem::exists(given, ignored))
    throw InputError("neither a key nor a file: " + in_quotes(given) + ": " + key_fault(given));
  std::string text = read_input(given);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  std::string key(trimmed(std::string_view(text).substr(text.rfind('\n') + 1)));
  if (std::string fault = key_fault(key); !fault.empty())
    throw InputError("bad key: " + in_quotes(given) + ": " + fault);
  return key;
}

Subscription given_subscription(const CommonOptions& options, const Arguments& arguments) {
  Subscription subscription;
  subscription.url = arguments.url;
  subscription.isInsecure = arguments.insecure;
  if (std::string fault = url_fault(arguments.url, arguments.insecure); !fault.empty())
    throw InputError("bad URL: " + in_quotes(arguments.url) + ": " + fault);
  if (arguments.name) subscription.name = *arguments.name;
  if (arguments.name && !subscription_name_fault(*arguments.name).empty())
    throw InputError("bad name: " + in_quotes(*arguments.name) + ": " + subscription_name_fault(*arguments.name));
  if (arguments.group) subscription.group = *arguments.group;
  if (std::string fault = group_name_fault(subscription.group); !fault.empty())
    throw InputError("bad group: " + in_quotes(subscription.group) + ": " + fault);
  // Throws if the list has no such group.
  find_group(read_list(options.listPath).list, subscription.group, keeper_of_list(options));
  if (arguments.every) subscription.every = read_interval(*arguments.every);
  if (arguments.key) subscription.key = read_key(*arguments.key);
  return subscription;
}

// Whether the number of a request is `first` or one of the next numbers. The numbers wrap around.
bool is_from(uint64_t number, uint64_t first) {
  constexpr uint64_t kMostRequests = 1 << 16;  // more requests do not wait for the fetcher at a time
  return number - first < kMostRequests;
}

// Asks the fetcher to fetch these subscriptions now. If `accepts`, a copy that waits for consent is accepted. Returns
// all requests.
RefreshRequests request(const CommonOptions& options, const std::vector<Subscription>& subscriptions, bool accepts) {
  FetcherState state = read_fetcher_state(fetcher_folder(options));
  RefreshRequests requests;
  edit_list_text(path_beside_list(options, kRequestsName), [&](const std::string& text) {
    requests = read_requests(text);
    // Requests for subscriptions that somebody has removed by hand would take the place of others.
    const SubscriptionFile file = read_file(options);
    std::erase_if(requests, [&](const auto& each) { return file.find(each.first) == nullptr; });
    for (const Subscription& each : subscriptions) {
      const SubscriptionState* known = state.find(each.name);
      RefreshRequest& request = requests[each.name];
      const uint64_t last = known == nullptr ? 0 : known->request;
      request.number = (is_from(request.number, last) ? request.number : last) + 1;
      if (accepts && known != nullptr && known->waiting) request.accepted = known->waiting->sha256;
    }
    return std::optional(text_of(requests));
  });
  return requests;
}

// Whether the fetcher has carried out this request, or a later one.
bool is_carried_out(const SubscriptionState& state, const RefreshRequest& request) {
  return !state.progress && is_from(state.request, request.number);
}

void show_progress(ProgressBar& bar, const SubscriptionState& state) {
  constexpr double kMegabyte = 1e6;
  constexpr uint64_t kBig = 1'000'000;
  const auto& [received, total] = *state.progress;
  if (std::max(received, total) < kBig) return;
  char text[100];
  std::snprintf(text, sizeof text, "%s: %.1f MB", state.name.c_str(), static_cast<double>(received) / kMegabyte);
  bar.show(received, total, text);
}

// Waits until isDone(state) returns true for the fetcher's state. Returns false if no fetcher runs.
bool wait_for_fetcher(const CommonOptions& options, FetcherState& state,
                      const std::function<bool(FetcherState&)>& isDone) {
  // If the fetcher is killed, no file changes. So the loop also checks at intervals whether it still runs.
  constexpr int kCheckInterval = 500;  // milliseconds
  ProgressBar bar(!options.json);
  PathWatch watch({std::filesystem::absolute(fetcher_state_path(fetcher_folder(options))).lexically_normal()});
  for (;;) {
    if (!is_fetcher_running(fetcher_folder(options))) return false;
    state = read_fetcher_state(fetcher_folder(options));
    if (state.error) throw FileError("the fetcher cannot read the subscriptions: " + *state.error);
    if (isDone(state)) return true;
    for (const SubscriptionState& each : state.subscriptions) {
      if (each.progress) show_progress(bar, each);
    }
    pollfd waited{watch.descriptor(), POLLIN, 0};
    poll(&waited, 1, kCheckInterval);
    watch.readEvents();
  }
}

std::string names_text(const SubscriptionState& state) {
  const ListCounts& counts = state.counts;
  std::string text = counted(counts.names, "name", "names");
  if (counts.exceptions > 0) text += ", " + counted(counts.exceptions, "exception", "exceptions");
  if (counts.skipped > 0) text += ", " + std::to_string(counts.skipped) + " skipped";
  if (counts.rejected > 0) text += ", " + std::to_string(counts.rejected) + " rejected (" + counts.firstRejected + ")";
  return text;
}

nlohmann::json to_json(const Subscription& subscription, const SubscriptionState& state) {
  nlohmann::json json = {{"name", subscription.name},
                         {"url", subscription.url},
                         {"group", subscription.group},
                         {"every", subscription.every.count()},
                         {"key", subscription.key},
                         {"insecure", subscription.isInsecure},
                         {"sha256", state.sha256},
                         {"checked", json_or_null(state.checked)},
                         {"changed", json_or_null(state.changed)},
                         {"signedAt", json_or_null(state.signedAt)},
                         {"next", json_or_null(state.next)},
                         {"waitingNames", nullptr},
                         {"error", json_or_null(state.error)}};
  json.update(to_json(state.counts));
  if (state.waiting) json["waitingNames"] = state.waiting->names;
  return json;
}

SubscriptionState state_of(FetcherState& state, const std::string& name) {
  const SubscriptionState* known = state.find(name);
  if (known != nullptr) return *known;
  SubscriptionState none;
  none.name = name;
  return none;
}

// Fetches the subscriptions now, and prints what has changed. Returns the exit code. `note` follows the error of a
// subscription.
int fetch(const CommonOptions& options, const std::vector<Subscription>& subscriptions, bool accepts,
          const std::string& note = "") {
  FetcherState before = read_fetcher_state(fetcher_folder(options)), after;
  const RefreshRequests requests = request(options, subscriptions, accepts);
  SubscriptionFile file;
  const auto isDone = [&](const Subscription& each) {
    const SubscriptionState* state = after.find(each.name);
    return file.find(each.name) == nullptr || (state != nullptr && is_carried_out(*state, requests.at(each.name)));
  };
  if (!wait_for_fetcher(options, after, [&](const FetcherState&) {
        file = read_file(options);  // somebody may remove a subscription meanwhile
        return std::all_of(subscriptions.begin(), subscriptions.end(), isDone);
      }))
    throw FileError(kFetcherNotRunning);
  int code = kDone;
  nlohmann::json json = nlohmann::json::array();
  for (const Subscription& each : subscriptions) {
    const SubscriptionState then = state_of(before, each.name), now = state_of(after, each.name);
    json.push_back(to_json(each, now));
    const bool isRemoved = file.find(each.name) == nullptr;
    if (isRemoved || now.error) {
      print_error(each.name + ": " + (isRemoved ? "removed before it was fetched" : *now.error + note));
      code = kFailed;
    } else if (!options.json) {
      const bool isSame = now.sha256 == then.sha256 && now.source == then.source;
      std::string text = each.name + ": " + names_text(now);
      if (isSame) text += ", unchanged";
      if (!isSame && then.hasCopy()) text += "; before: " + std::to_string(then.counts.names);
      std::puts(text.c_str());
    }
  }
  if (options.json) print_json(json);
  return code;
}

int subscribe(const CommonOptions& options, const Arguments& arguments) {
  Subscription subscription = given_subscription(options, arguments);
  edit_list_text(subscriptions_path(options), [&](std::string text) {
    const SubscriptionFile file = read_subscriptions(text);
    if (const Subscription* same = file.find(subscription.url))
      throw InputError("already subscribed: " + in_quotes(subscription.url) + ": its name is " + same->name +
                       ": to change it, remove it first: orvanectl unsubscribe " + same->name);
    if (subscription.name.empty()) subscription.name = name_for_url(subscription.url, file.subscriptions);
    if (file.find(subscription.name) != nullptr)
      throw InputError("the name is taken: " + in_quotes(subscription.name) + ": give another one with --name");
    if (file.subscriptions.size() >= kMostSubscriptions)
      throw InputError("too many subscriptions: at most 100: remove one with orvanectl unsubscribe");
    if (!text.empty() && !text.ends_with('\n')) text += '\n';
    return std::optional(text + line_of(subscription) + "\n");
  });
  if (!options.json) std::printf("%s: subscribed\n", subscription.name.c_str());
  std::fflush(stdout);
  if (is_fetcher_running(fetcher_folder(options)))
    return fetch(options, {subscription}, false,
                 "; it is fetched again later; to correct the URL, first remove the subscription: orvanectl "
                 "unsubscribe " +
                     subscription.name);
  print_error(std::string("saved, but not fetched: ") + kFetcherNotRunning);
  if (options.json) print_json({to_json(subscription, {})});
  return kDone;
}

int unsubscribe(const CommonOptions& options, const Arguments& arguments) {
  std::string name;
  edit_list_text(subscriptions_path(options), [&](const std::string& text) {
    name = subscription_named(read_subscriptions(text), arguments.url).name;
    return std::optional(without_subscription(text, name));
  });
  edit_list_text(path_beside_list(options, kRequestsName), [&](const std::string& text) {
    RefreshRequests requests = read_requests(text);
    return requests.erase(name) > 0 ? std::optional(text_of(requests)) : std::nullopt;
  });
  options.json ? print_json({{"unsubscribed", name}})
               : static_cast<void>(std::printf("%s: unsubscribed\n", name.c_str()));
  FetcherState state;
  // Somebody may add a subscription of this name meanwhile.
  const auto isGone = [&](FetcherState& now) {
    return now.find(name) == nullptr || read_file(options).find(name) != nullptr;
  };
  if (!wait_for_fetcher(options, state, isGone))
    print_error(std::string("saved, but its names stay on the list until the fetcher runs: ") + kFetcherNotRunning);
  return kDone;
}

void print_table(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(rows.front().size());
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i)
      line += (i == 0 ? "" : "  ") + row[i] + std::string(i + 1 < row.size() ? widths[i] - row[i].size() : 0, ' ');
    std::puts(line.c_str());
  }
}

int list(const CommonOptions& options) {
  const SubscriptionFile file = read_file(options);
  FetcherState fetcher = read_fetcher_state(fetcher_folder(options));
  const Moment now = now_in_seconds();
  nlohmann::json json = nlohmann::json::array();
  std::vector<std::vector<std::string>> rows{{"NAME", "NAMES", "SKIPPED", "REJECTED", "AGE", "GROUP", "URL"}};
  for (const Subscription& each : file.subscriptions) {
    const SubscriptionState state = state_of(fetcher, each.name);
    json.push_back(to_json(each, state));
    const std::string age =
        state.checked ? duration_text(std::max(now - *state.checked, std::chrono::seconds(0))) : "never";
    rows.push_back({each.name, std::to_string(state.counts.names), std::to_string(state.counts.skipped),
                    std::to_string(state.counts.rejected), age, each.group, each.url});
  }
  if (options.json) {
    print_json(json);
  } else if (file.subscriptions.empty()) {
    std::puts("There are no subscriptions. To add one: orvanectl subscribe URL");
  } else {
    print_table(rows);
  }
  for (const auto& each : file.badLines) print_error(bad_line_text(options, each));
  if (file.badLineCount > file.badLines.size())
    print_error("and " + std::to_string(file.badLineCount - file.badLines.size()) + " more bad lines");
  for (const Subscription& each : file.subscriptions) {
    const SubscriptionState state = state_of(fetcher, each.name);
    if (state.error) print_error(each.name + ": " + *state.error);
  }
  if (!is_fetcher_running(fetcher_folder(options)) && !file.subscriptions.empty())
    print_error(std::string("no subscription is fetched: ") + kFetcherNotRunning);
  return kDone;
}

int refresh(const CommonOptions& options, const Arguments& arguments) {
  const SubscriptionFile file = read_file(options);
  if (arguments.accept && arguments.url.empty())
    throw InputError("bad command line: refresh --accept: give the name of the subscription");
  const std::vector<Subscription> chosen =
      arguments.url.empty() ? file.subscriptions : std::vector{subscription_named(file, arguments.url)};
  if (chosen.empty()) throw InputError("no subscription: see orvanectl subscribe --help");
  if (!is_fetcher_running(fetcher_folder(options))) throw FileError(std::string("cannot fetch: ") + kFetcherNotRunning);
  return fetch(options, chosen, arguments.accept);
}

}  // namespace

void look_at_subscriptions(const CommonOptions& options, Facts& facts) {
  try {
    FetcherState fetcher = read_fetcher_state(fetcher_folder(options));
    facts.fetcherError = fetcher.error.value_or("");
    const SubscriptionFile file = read_file(options);
    for (const Subscription& each : file.subscriptions) {
      const SubscriptionState state = state_of(fetcher, each.name);
      facts.subscriptions.push_back({each.name, state.checked.has_value(), state.error, state.waiting.has_value()});
    }
    for (const auto& each : file.badLines) facts.badSubscriptions.push_back(bad_line_text(options, each));
  } catch (const FileError& error) {
    facts.subscriptionsError = error.what();
  }
}

void declare_subscription_commands(CommandSet& commands) {
  auto arguments = std::make_shared<Arguments>();
  const auto declare = [&](const char* name, const char* description,
                           int (*command)(const CommonOptions&, const Arguments&)) {
    return commands.declare(commands.app, kListGroup, name, description,
                            [&options = commands.options, arguments, command] { return command(options, *arguments); });
  };
  CLI::App* add = declare("subscribe", "Add the list at a URL, and keep it up to date", subscribe);
  add->add_option("URL", arguments->url, "The address of a list: names, hosts(5) lines or ||name^ rules")
      ->required()
      ->type_name("");
  add->add_option("--name", arguments->name, "The subscription's name (default: made from the URL's host)")
      ->type_name("NAME");
  add->add_option("--group", arguments->group, "The group of all names (default: default)")->type_name("GROUP");
  add->add_option("--every", arguments->every, "The time between two fetches (default: 24h)")->type_name("TIME");
  add->add_option("--key", arguments->key, "Accept only copies that minisign has signed with this key")
      ->type_name("KEY|FILE");
  add->add_flag("--insecure", arguments->insecure,
                "Allow http, with which anybody on the network path can change the list");
  declare("unsubscribe", "Remove a subscription and its names", unsubscribe)
      ->add_option("SUBSCRIPTION", arguments->url, "The name or URL of a subscription")
      ->required()
      ->type_name("");
  commands.declare(commands.app, kListGroup, "subscriptions", "Print the subscriptions",
                   [&options = commands.options] { return list(options); });
  CLI::App* again = declare("refresh", "Fetch subscriptions now", refresh);
  again->add_option("SUBSCRIPTION", arguments->url, "The name or URL of a subscription (default: all)")->type_name("");
  again->add_flag("--accept", arguments->accept, "Accept a copy that has shrunk by more than half");
}

}  // namespace orvane
