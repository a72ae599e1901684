#include "companion/subscriptions/FetcherState.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/watch/FileLock.h"
#include "platform/files/Files.h"

namespace orvane {
namespace {

using Json = nlohmann::json;

constexpr mode_t kReadableByAll = 0644;
constexpr mode_t kLockMode = 0640;  // only members of the group may see whether the fetcher runs
constexpr size_t kLargestState = size_t{4} << 20;

FileError file_error(const char* what, const std::string& path, int error) {
  return FileError(std::string("cannot ") + what + ": " + in_quotes(path) + ": " + std::strerror(error) +
                   ": check the folder, its rights and the space on the disk");
}

std::string lock_path(const std::string& folder) { return fetcher_state_path(folder) + ".lock"; }

Json to_json(const SubscriptionState& state) {
  Json json = {{"name", state.name},
               {"source", state.source},
               {"group", state.group},
               {"sha256", state.sha256},
               {"etag", state.etag},
               {"lastModified", state.lastModified},
               {"changed", json_or_null(state.changed)},
               {"signedAt", json_or_null(state.signedAt)},
               {"checked", json_or_null(state.checked)},
               {"next", json_or_null(state.next)},
               {"plannedFor", state.plannedFor},
               {"failures", state.failures},
               {"error", json_or_null(state.error)},
               {"request", state.request},
               {"waiting", nullptr},
               {"progress", nullptr}};
  json.update(to_json(state.counts));
  if (state.waiting) json["waiting"] = {{"sha256", state.waiting->sha256}, {"names", state.waiting->names}};
  if (state.progress) json["progress"] = {{"received", state.progress->received}, {"total", state.progress->total}};
  return json;
}

SubscriptionState subscription_of(const Json& json) {
  SubscriptionState state;
  const Members members(json);
  members.read("name", state.name);
  members.read("source", state.source);
  members.read("group", state.group);
  members.read("sha256", state.sha256);
  members.read("etag", state.etag);
  members.read("lastModified", state.lastModified);
  members.read("changed", state.changed);
  members.read("signedAt", state.signedAt);
  members.read("names", state.counts.names);
  members.read("exceptions", state.counts.exceptions);
  members.read("duplicates", state.counts.duplicates);
  members.read("skipped", state.counts.skipped);
  members.read("rejected", state.counts.rejected);
  members.read("firstRejected", state.counts.firstRejected);
  members.read("checked", state.checked);
  members.read("next", state.next);
  members.read("plannedFor", state.plannedFor);
  members.read("failures", state.failures);
  members.read("error", state.error);
  members.read("request", state.request);
  // The fetcher reads what servers send, so nobody trusts its texts: they must not control a terminal.
  for (std::string* text : {&state.name, &state.source, &state.group, &state.counts.firstRejected})
    *text = printable(*text, false);
  if (state.error) state.error = printable(*state.error, false);
  if (const Json& waiting = json.at("waiting"); !waiting.is_null())
    state.waiting = WaitingCopy{waiting.at("sha256").get<std::string>(), waiting.at("names").get<uint64_t>()};
  if (const Json& progress = json.at("progress"); !progress.is_null())
    state.progress = FetchProgress{progress.at("received").get<uint64_t>(), progress.at("total").get<uint64_t>()};
  return state;
}

}  // namespace

SubscriptionState* FetcherState::find(std::string_view name) {
  const auto found = std::find_if(subscriptions.begin(), subscriptions.end(),
                                  [&](const SubscriptionState& each) { return each.name == name; });
  return found == subscriptions.end() ? nullptr : &*found;
}

std::string fetcher_state_path(const std::string& folder) { return folder + "/state.json"; }

std::string subscription_list_path(const std::string& folder, const std::string& name) {
  return folder + "/lists/" + name + ".list";
}

Descriptor lock_fetcher(const std::string& folder) {
  std::error_code error;
  Descriptor lock = take_file_lock(lock_path(folder), kLockMode, error);
  if (error) throw file_error("lock the state", lock_path(folder), error.value());
  return lock;
}

bool is_fetcher_running(const std::string& folder) { return is_file_locked(lock_path(folder)); }

void write_fetcher_file(const std::string& path, std::string_view text) {
  // The keeper ignores names that begin with a dot.
  const std::string temporaryName = "." + std::filesystem::path(path).filename().string() + ".new";
  if (auto error = replace_file(path, temporaryName, text, kReadableByAll))
    throw file_error("write", path, error.value());
}

Json to_json(const ListCounts& counts) {
  return {{"names", counts.names},     {"exceptions", counts.exceptions}, {"duplicates", counts.duplicates},
          {"skipped", counts.skipped}, {"rejected", counts.rejected},     {"firstRejected", counts.firstRejected}};
}

void write_fetcher_state(const std::string& folder, const FetcherState& state) {
  Json subscriptions = Json::array();
  for (const SubscriptionState& each : state.subscriptions) subscriptions.push_back(to_json(each));
  const Json json = {{"process", state.process},
                     {"started", time_text(state.started)},
                     {"error", json_or_null(state.error)},
                     {"subscriptions", std::move(subscriptions)}};
  write_fetcher_file(fetcher_state_path(folder), json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

FetcherState read_fetcher_state(const std::string& folder) {
  const std::string path = fetcher_state_path(folder);
  std::error_code ignored;
  if (!std::filesystem::exists(path, ignored)) return {};
  const auto text = read_file_start(path, kLargestState, Links::Refuse);
  if (!text) throw file_error("read the fetcher's state", path, errno);
  try {
    const Json json = Json::parse(*text);
    FetcherState state;
    const Members members(json);
    members.read("process", state.process);
    members.read("started", state.started);
    members.read("error", state.error);
    if (state.error) state.error = printable(*state.error, false);
    for (const Json& each : json.at("subscriptions")) state.subscriptions.push_back(subscription_of(each));
    return state;
  } catch (const std::exception&) {  // Json::exception or InputError
    throw FileError("not a fetcher's state: " + in_quotes(path) + ": remove it, and restart orvane-fetcher");
  }
}

}  // namespace orvane
