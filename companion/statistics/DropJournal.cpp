#include "companion/statistics/DropJournal.h"

#include <systemd/sd-id128.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "companion/client/UnitState.h"
#include "companion/text/Input.h"
#include "platform/linux/flow/DropEntry.h"

namespace orvane {
namespace {

using std::chrono::microseconds;

struct CloseJournal {
  void operator()(sd_journal* journal) const { sd_journal_close(journal); }
};
using Journal = std::unique_ptr<sd_journal, CloseJournal>;

FileError journal_error(int error) {
  return FileError(std::string("cannot read the journal: ") + std::strerror(-error) + ": run journalctl --verify");
}

// Returns a result of the journal's library. Throws if the result is an error.
int checked(int result) {
  if (result < 0) throw journal_error(result);
  return result;
}

// Throws if the machine has no journal, or if the calling user may not read the journal of the machine's services. The
// library itself reports neither: it then finds no entries.
void expect_readable_journal() {
  sd_id128_t machine;
  std::array<char, SD_ID128_STRING_MAX> name{};
  if (sd_id128_get_machine(&machine) >= 0) sd_id128_to_string(machine, name.data());
  bool exists = false;
  for (const std::string parent : {"/var/log/journal/", "/run/log/journal/"}) {
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(parent + name.data(), error)) {
      if (!file.path().filename().string().starts_with("system")) continue;
      exists = true;
      if (::access(file.path().c_str(), R_OK) == 0) return;
    }
    exists = exists || error == std::errc::permission_denied;
  }
  if (!exists)
    throw FileError(
        "this machine has no journal, in which blocked connections would be recorded: start systemd-journald, and see "
        "Storage= in journald.conf(5)");
  throw FileError(
      "you may not read the journal, in which blocked connections are recorded: run the command with sudo, or run sudo "
      "usermod -aG systemd-journal \"$USER\", then log out and in again");
}

Journal open_journal(const std::string& folder) {
  sd_journal* journal = nullptr;
  if (folder.empty()) {
    expect_readable_journal();
    checked(sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY | SD_JOURNAL_SYSTEM));
  } else {
    checked(sd_journal_open_directory(&journal, folder.c_str(), 0));
  }
  Journal owner(journal);
  // Fields whose names begin with an underscore are the journal's own; no client can set them.
  for (const std::string& match :
       {std::string("_SYSTEMD_UNIT=") + kExtensionUnit, std::string("MESSAGE_ID=") + kDropMessageID})
    checked(sd_journal_add_match(journal, match.data(), match.size()));
  return owner;
}

// The value of a field of the current entry. Empty if the entry lacks the field.
std::string value_of(sd_journal* journal, const char* field) {
  const void* data = nullptr;
  size_t length = 0;
  if (sd_journal_get_data(journal, field, &data, &length) < 0) return "";
  const std::string text(static_cast<const char*>(data), length);
  return text.substr(std::strlen(field) + 1);
}

uint64_t microseconds_of(Moment moment) {
  return static_cast<uint64_t>(microseconds(moment.time_since_epoch()).count());
}

Moment moment_of(sd_journal* journal) {
  uint64_t time = 0;
  checked(sd_journal_get_realtime_usec(journal, &time));
  return Moment(std::chrono::floor<std::chrono::seconds>(microseconds(time)));
}

}  // namespace

void DropJournal::read(Moment since, Moment until, const std::function<void(DropEntry)>& take) const {
  const Journal owner = open_journal(folder_);
  sd_journal* const journal = owner.get();
  checked(sd_journal_seek_realtime_usec(journal, microseconds_of(since)));
  while (checked(sd_journal_next(journal)) > 0) {
    DropEntry entry{moment_of(journal), value_of(journal, kDropHostField), value_of(journal, kDropBrowserField)};
    // An entry may be out of order, because the clock may have been set.
    if (entry.when < since || entry.when >= until) continue;
    const std::string count = value_of(journal, kDropCountField);
    if (std::from_chars(count.data(), count.data() + count.size(), entry.count).ec == std::errc()) take(entry);
  }
}

std::optional<Moment> DropJournal::lastBefore(Moment moment) const {
  const Journal journal = open_journal(folder_);
  checked(sd_journal_seek_realtime_usec(journal.get(), microseconds_of(moment)));
  return checked(sd_journal_previous(journal.get())) > 0 ? std::optional(moment_of(journal.get())) : std::nullopt;
}

}  // namespace orvane
