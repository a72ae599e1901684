#include "companion/keeper/ReadOnlyLists.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <utility>

#include "companion/keeper/KeeperLog.h"
#include "companion/list/ListFile.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "companion/text/Sha256.h"

namespace orvane {
namespace {

using Steady = std::chrono::steady_clock;

constexpr size_t kBadLinesLogged = 3;
constexpr const char* kNoRoom = "left out: the lists have too many names for one message to the extension: remove some";

uint64_t room_of_list(const ReadOnlyList& list) {
  uint64_t room = 0;
  for (const auto& section : list.sections) room += room_of_all(section.names);
  return room;
}

auto count_copies(const auto& lists) {
  return std::count_if(lists.begin(), lists.end(), [](const auto& entry) { return entry.hasCopy; });
}

void log_bad_lines(const std::string& path, const ReadOnlyList& list) {
  if (list.badLineCount == 0) return;
  std::string text = counted(list.badLineCount, "bad line", "bad lines") + " of " + in_quotes(path) + " ignored";
  for (size_t i = 0; i < std::min(list.badLines.size(), kBadLinesLogged); ++i) {
    const auto& bad = list.badLines[i];
    text += "; line " + std::to_string(bad.line) + ": " + in_quotes(bad.text) + ": " + bad.fault;
  }
  keeper_log(LogLevel::Warning, text);
}

}  // namespace

ReadOnlyLists::ReadOnlyLists(const std::string& dropInsPath, const std::string& subscriptionsPath, uint64_t room,
                             std::chrono::milliseconds removalDelay)
    : room_(room), removalDelay_(removalDelay) {
  for (const auto& [kind, path] :
       {std::pair(ListKind::DropIn, dropInsPath), std::pair(ListKind::Subscription, subscriptionsPath)}) {
    const std::filesystem::path folder = std::filesystem::absolute(path).lexically_normal() / "";
    folders_.push_back({kind, folder.string(), ""});
  }
}

std::vector<std::string> ReadOnlyLists::paths() const {
  std::vector<std::string> paths;
  for (const Folder& folder : folders_) paths.push_back(folder.path + "*.list");
  return paths;
}

// Moves the entries of the folder's files to `found`, and makes entries for new files. If the folder cannot be read,
// moves the entries that it had when it was last read.
void ReadOnlyLists::findFiles(Folder& folder, std::vector<Entry>& found) {
  const std::string errorBefore = std::exchange(folder.error, "");
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(folder.path.c_str()), closedir);
  if (!stream && errno != ENOENT && errno != ENOTDIR) {
    folder.error = "cannot read the folder of lists: " + in_quotes(folder.path) + ": " + std::strerror(errno) +
                   ": check its rights";
    if (folder.error != errorBefore) keeper_log(LogLevel::Error, folder.error);
    for (Entry& entry : lists_) {
      if (entry.list.kind != folder.kind) continue;
      entry.isMissing = false;  // read() says that the file cannot be read
      found.push_back(std::move(entry));
    }
    return;
  }
  while (const dirent* file = stream ? readdir(stream.get()) : nullptr) {
    if (is_list_name(file->d_name, folder.kind)) names.emplace_back(file->d_name);
  }
  for (Entry& entry : lists_) {
    if (entry.list.kind != folder.kind || !entry.hasCopy) continue;
    std::string name = entry.state.path.substr(folder.path.size());
    entry.isMissing = std::find(names.begin(), names.end(), name) == names.end();
    if (entry.isMissing && keepsNames(entry)) names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string path = folder.path + name;
    const auto known =
        std::find_if(lists_.begin(), lists_.end(), [&](const Entry& entry) { return entry.state.path == path; });
    if (known != lists_.end()) {
      found.push_back(std::move(*known));
    } else {
      found.emplace_back();
      found.back().list.kind = folder.kind;
      found.back().state.path = path;
    }
  }
}

// Whether the names of a copy still count, although the file has fewer names or is missing.
bool ReadOnlyLists::keepsNames(Entry& entry) const {
  const auto now = Steady::now();
  if (!entry.fewerSince) entry.fewerSince = now;
  return now < *entry.fewerSince + removalDelay_;
}

// Reads the file if it has changed, or if its names were not kept and `hasRoom` is set. Returns whether the list has
// changed. If the file cannot be read, the list stays as it is.
bool ReadOnlyLists::read(Entry& entry, bool hasRoom) {
  const std::string errorBefore = std::exchange(entry.readError, "");
  if (entry.isMissing) return false;
  const std::string& path = entry.state.path;
  try {
    if (entry.hasCopy && !(entry.isTooLarge && hasRoom) && list_version(path) == entry.version) {
      entry.fewerSince.reset();
      return false;
    }
    const ListFileContent content = read_list_file(path);
    std::string hash = sha256_text(content.text);
    ReadOnlyList list = ReadOnlyList::parse(content.text, entry.list.kind);
    if (entry.hasCopy && list.size() < entry.list.size() && keepsNames(entry)) return false;
    entry.fewerSince.reset();
    entry.version = content.version;
    entry.state.modified = content.modified;
    if (entry.hasCopy && !entry.isTooLarge && hash == entry.state.sha256) return false;
    const bool isNew = !entry.hasCopy || hash != entry.state.sha256;
    entry.list = std::move(list);
    entry.hasCopy = true;
    entry.isTooLarge = false;
    entry.room = room_of_list(entry.list);
    entry.state.sha256 = std::move(hash);
    entry.state.isDropIn = entry.list.kind == ListKind::DropIn;
    entry.state.isSuspendable = entry.list.isSuspendable;
    entry.state.names = entry.list.blockingSize();
    entry.state.badLines = entry.list.badLineCount;
    if (isNew) log_bad_lines(path, entry.list);
    return true;
  } catch (const FileError& error) {
    entry.fewerSince.reset();  // otherwise due() would stay in the past
    entry.readError = error.what();
    if (entry.readError != errorBefore) keeper_log(LogLevel::Error, entry.readError);
    return false;
  }
}

bool ReadOnlyLists::refresh() {
  const auto copiesBefore = count_copies(lists_);
  std::vector<Entry> found;
  for (Folder& folder : folders_) findFiles(folder, found);
  const std::string surplus = found.size() > kMostLists ? found[kMostLists].state.path : "";
  if (!surplus.empty() && surplus != firstSurplus_)
    keeper_log(LogLevel::Error, "left out: " + in_quotes(surplus) + " and the lists after it: at most " +
                                    std::to_string(kMostLists) + " lists can be in force: remove some");
  firstSurplus_ = surplus;
  if (!surplus.empty()) found.resize(kMostLists);
  lists_ = std::move(found);
  bool isChanged = count_copies(lists_) != copiesBefore;  // a file was removed
  std::map<Rank, uint64_t> kept;                          // the room of the names that are kept
  const auto hasRoom = [&](const Entry& entry) { return kept[entry.list.rank()] + entry.room <= room_; };
  for (Entry& entry : lists_) {
    isChanged = read(entry, hasRoom(entry)) || isChanged;
    // Names without room are dropped before the next file is read. So they never take the memory of several lists.
    entry.isTooLarge = entry.isTooLarge || !hasRoom(entry);
    if (entry.isTooLarge) {
      entry.list.sections = {};
    } else {
      kept[entry.list.rank()] += entry.room;
    }
  }
  return isChanged;
}

std::optional<Steady::time_point> ReadOnlyLists::due() const {
  bool hasErrors =
      std::any_of(folders_.begin(), folders_.end(), [](const Folder& each) { return !each.error.empty(); });
  auto due = Steady::time_point::max();
  for (const Entry& entry : lists_) {
    hasErrors = hasErrors || !entry.readError.empty();
    if (entry.fewerSince) due = std::min(due, *entry.fewerSince + removalDelay_);
  }
  if (hasErrors) due = std::min(due, Steady::now() + kRereadInterval);
  return due == Steady::time_point::max() ? std::nullopt : std::optional(due);
}

std::vector<RankedNames> ReadOnlyLists::inForce(uint64_t ownRoom, const ReadOnlyList::GroupsInForce& groups) {
  std::vector<RankedNames> result;
  uint64_t room = 0;
  for (const Rank rank : {Rank::Fixed, Rank::Open}) {
    if (rank == Rank::Open) room += ownRoom;
    for (Entry& entry : lists_) {
      if (entry.list.rank() != rank) continue;
      const bool hasRoom = !entry.isTooLarge && room + entry.room <= room_;
      entry.state.isInForce = entry.hasCopy && hasRoom;
      if (entry.state.isInForce) {
        room += entry.room;
        for (const auto& section : entry.list.sections) {
          if (entry.list.isInForce(section, groups)) result.push_back({rank, &section.names});
        }
      }
      const auto errorBefore = std::exchange(entry.state.error, std::nullopt);
      if (!entry.readError.empty()) entry.state.error = entry.readError;
      if (!hasRoom) entry.state.error = kNoRoom;
      if (!hasRoom && errorBefore != entry.state.error)
        keeper_log(LogLevel::Error, in_quotes(entry.state.path) + ": " + *entry.state.error);
    }
  }
  return result;
}

bool ReadOnlyLists::hasFixed() const {
  return std::any_of(lists_.begin(), lists_.end(),
                     [](const Entry& entry) { return entry.hasCopy && entry.list.rank() == Rank::Fixed; });
}

std::vector<KeeperState::ListState> ReadOnlyLists::states() const {
  std::vector<KeeperState::ListState> states;
  for (const Entry& entry : lists_) states.push_back(entry.state);
  return states;
}

}  // namespace orvane
