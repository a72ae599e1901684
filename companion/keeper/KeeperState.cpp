#include "companion/keeper/KeeperState.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "companion/list/Places.h"
#include "companion/text/AccessGroup.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/watch/FileLock.h"
#include "companion/watch/PathWatch.h"
#include "platform/files/Files.h"

namespace orvane {
namespace {

using Json = nlohmann::json;

// The members of the group orvane may read the list, so they may read the state as well.
constexpr mode_t kReadableByGroup = 0640;

FileError file_error(const char* what, const std::string& path, int error) {
  const bool isMachines = path == places().keeperState && (error == EACCES || error == EPERM);
  return FileError(
      std::string("cannot ") + what + ": " + in_quotes(path) + ": " + std::strerror(error) + ": " +
      (isMachines ? access_advice() : "check the folder and its rights, or name another file with --state"));
}

std::string lock_path(const std::string& path) { return path + ".lock"; }

constexpr const char *kDropIn = "drop-in", *kSubscription = "subscription";

KeeperState::ListState list_state_of(const Json& json) {
  KeeperState::ListState list;
  Members members(json);
  std::string kind;
  members.read("path", list.path);
  members.read("kind", kind);
  list.isDropIn = kind == kDropIn;
  members.read("suspendable", list.isSuspendable);
  members.read("inForce", list.isInForce);
  members.read("names", list.names);
  members.read("badLines", list.badLines);
  members.read("modified", list.modified);
  members.read("sha256", list.sha256);
  members.read("error", list.error);
  return list;
}

Json json_of(const KeeperState::ListState& list) {
  return {{"path", list.path},
          {"kind", list.isDropIn ? kDropIn : kSubscription},
          {"suspendable", list.isSuspendable},
          {"inForce", list.isInForce},
          {"names", list.names},
          {"badLines", list.badLines},
          {"modified", json_or_null(list.modified)},
          {"sha256", list.sha256},
          {"error", json_or_null(list.error)}};
}

KeeperState state_of(const Json& json) {
  KeeperState state;
  Members keeper(json), list(json, "list"), extension(json, "extension");
  keeper.read("process", state.process);
  keeper.read("version", state.version);
  keeper.read("started", state.started);
  list.read("path", state.listPath);
  list.read("version", state.listVersion);
  list.read("modified", state.listModified);
  list.read("sha256", state.listSha256);
  list.read("sites", state.sites);
  list.read("names", state.names);
  list.read("badLines", state.badLines);
  list.read("suspendedNames", state.suspendedNames);
  list.read("error", state.listError);
  list.read("guarded", state.isGuarded);
  list.read("watchError", state.watchError);
  list.read("guardError", state.guardError);
  list.read("restSeconds", state.restSeconds);
  for (const Json& entry : json.at("list").at("suspended").get_ref<const Json::array_t&>()) {
    state.suspended.emplace_back(entry.at("name"), read_moment(entry.at("until").get_ref<const std::string&>()));
  }
  for (const Json& entry : json.at("list").value("groups", Json::array())) {
    Members members(entry);
    KeeperState::GroupState& group = state.groups.emplace_back();
    members.read("name", group.name);
    members.read("inForce", group.isInForce);
    members.read("nextChange", group.nextChange);
    members.read("lockedUntil", group.lockedUntil);
    members.read("pendingChanges", group.pendingChanges);
    uint64_t delay = 0;
    members.read("delay", delay);
    group.delay = std::chrono::seconds(std::min<uint64_t>(delay, kLongestDelay.count()));
    members.read("settingsUntil", group.settingsUntil);
    members.read("unguardedSites", group.unguardedSites);
  }
  for (const Json& entry : json.at("list").value("pending", Json::array())) {
    Members members(entry);
    KeeperState::PendingSite& site = state.pending.emplace_back();
    members.read("group", site.group);
    members.read("host", site.host);
    members.read("until", site.until);
  }
  for (const Json& entry : json.value("readOnlyLists", Json::array())) {
    state.readOnlyLists.push_back(list_state_of(entry));
  }
  extension.read("connected", state.connected);
  extension.read("sentVersion", state.sentVersion);
  extension.read("sentNames", state.sentNames);
  extension.read("sentAt", state.sentAt);
  extension.read("changes", state.changes);
  extension.read("changesOfOthers", state.changesOfOthers);
  extension.read("error", state.extensionError);
  extension.read("onlyGuarded", state.hasOnlyGuarded);
  return state;
}

}  // namespace

Json to_json(const KeeperState& state) {
  Json suspended = Json::array();
  for (const auto& [name, until] : state.suspended) suspended.push_back({{"name", name}, {"until", time_text(until)}});
  Json groups = Json::array();
  for (const auto& group : state.groups) {
    groups.push_back({{"name", group.name},
                      {"inForce", group.isInForce},
                      {"nextChange", json_or_null(group.nextChange)},
                      {"lockedUntil", json_or_null(group.lockedUntil)},
                      {"pendingChanges", group.pendingChanges},
                      {"delay", group.delay.count()},
                      {"settingsUntil", json_or_null(group.settingsUntil)},
                      {"unguardedSites", group.unguardedSites}});
  }
  Json readOnlyLists = Json::array();
  for (const auto& list : state.readOnlyLists) readOnlyLists.push_back(json_of(list));
  Json pending = Json::array();
  for (const auto& site : state.pending)
    pending.push_back({{"group", site.group}, {"host", site.host}, {"until", time_text(site.until)}});
  return {{"process", state.process},
          {"version", state.version},
          {"started", time_text(state.started)},
          {"list",
           {{"path", state.listPath},
            {"version", state.listVersion},
            {"modified", json_or_null(state.listModified)},
            {"sha256", state.listSha256},
            {"sites", state.sites},
            {"names", state.names},
            {"badLines", state.badLines},
            {"suspendedNames", state.suspendedNames},
            {"suspended", std::move(suspended)},
            {"groups", std::move(groups)},
            {"pending", std::move(pending)},
            {"guarded", state.isGuarded},
            {"error", json_or_null(state.listError)},
            {"watchError", json_or_null(state.watchError)},
            {"guardError", json_or_null(state.guardError)},
            {"restSeconds", state.restSeconds}}},
          {"readOnlyLists", std::move(readOnlyLists)},
          {"extension",
           {{"connected", state.connected},
            {"sentVersion", json_or_null(state.sentVersion)},
            {"sentNames", state.sentNames},
            {"sentAt", json_or_null(state.sentAt)},
            {"changes", state.changes},
            {"changesOfOthers", state.changesOfOthers},
            {"error", json_or_null(state.extensionError)},
            {"onlyGuarded", state.hasOnlyGuarded}}}};
}

std::string list_in_force_path(const std::string& statePath) { return statePath + ".list"; }

Descriptor lock_keeper_state(const std::string& path) {
  const std::string lockPath = lock_path(path);
  std::error_code error;
  Descriptor lock = take_file_lock(lockPath, kReadableByGroup, error);
  if (error) throw file_error("lock the state", lockPath, error.value());
  return lock;
}

void write_keeper_state(const std::string& path, const KeeperState& state) {
  const std::string text = to_json(state).dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  const std::string temporaryName = std::filesystem::path(path).filename().string() + ".new";
  if (auto error = replace_file(path, temporaryName, text, kReadableByGroup))
    throw file_error("write the state", path, error.value());
}

std::optional<KeeperState> read_keeper_state(const std::string& path) {
  Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file && errno != ENOENT && errno != ENOTDIR) throw file_error("read the keeper's state", path, errno);
  if (!file || !is_file_locked(lock_path(path))) return std::nullopt;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(fdopen(file.detach(), "r"), std::fclose);
  if (!stream) throw file_error("read the keeper's state", path, errno);
  try {
    return state_of(Json::parse(stream.get()));
  } catch (const std::exception&) {  // Json::exception or InputError
    throw FileError("not a keeper's state: " + in_quotes(path) + ": name the right file with --state");
  }
}

void add_later_changes(KeeperState& state, uint64_t changes) {
  if (!state.connected || changes <= state.changes) return;
  state.changesOfOthers += changes - state.changes;
  state.changes = changes;
}

InForce wait_until_in_force(const std::string& statePath, const ListVersion& version, std::chrono::milliseconds timeout,
                            const std::function<void()>& waiting) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + timeout;
  // Start watching before the first read, so that no change between reading and waiting is missed.
  PathWatch watch({std::filesystem::absolute(statePath).lexically_normal()});
  for (;;) {
    std::optional<KeeperState> state = read_keeper_state(statePath);
    if (!state) return InForce::NoKeeper;
    // Whether `other` is the awaited version, or the version that the list's file has now. If the file no longer has
    // the awaited version, it has a later one.
    auto isCurrent = [&](const ListVersion& other) {
      return other == version || other == list_version(state->listPath);
    };
    if (state->sentVersion && isCurrent(*state->sentVersion)) return InForce::Yes;
    if (!state->connected && isCurrent(state->listVersion)) return InForce::NoExtension;
    const auto rest = std::chrono::seconds(state->restSeconds);
    auto left = std::chrono::ceil<std::chrono::milliseconds>(end + rest - Clock::now());
    if (left.count() <= 0) return InForce::TimedOut;
    if (waiting) waiting();
    // If the keeper is killed, no file changes. So the loop also checks at intervals whether the keeper still runs.
    constexpr std::chrono::milliseconds kCheckInterval(500);
    pollfd waited{watch.descriptor(), POLLIN, 0};
    poll(&waited, 1, static_cast<int>(std::min(left, kCheckInterval).count()));
    watch.readEvents();
  }
}

}  // namespace orvane
