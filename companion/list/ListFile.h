#pragma once

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "companion/list/BlockList.h"

namespace orvane {

// Identifies a version of the list's file by its device, inode, size and time of change. Empty if there is no file.
using ListVersion = std::string;

struct StoredList {
  BlockList list;
  ListVersion version;
};

// Reads the list. A missing file is an empty list. Throws FileError if the file or its folder cannot be read.
StoredList read_list(const std::string& path);

// The text, version and modification time of a list's file, for a caller that parses the text itself. Checks the
// file as read_list() does. A missing file has an empty version.
struct ListFileContent {
  std::string text;
  ListVersion version;
  Moment modified;
};
ListFileContent read_list_file(const std::string& path);

// The file's current version. Throws FileError if the folder cannot be read.
ListVersion list_version(const std::string& path);

// A text that changes when one of these files changes: their versions, or why one of them cannot be looked at.
std::string list_versions(std::initializer_list<std::string> paths);

// Reads the list, calls `edit`, and writes the list back if `edit` returns true. Returns the file's version afterwards.
//
// - The function holds a lock on the folder, so other calls of edit_list() wait.
// - The file is always either the old version or the new one. The new one is on the disk when the function returns.
// - If another program replaces the file meanwhile, `edit` is called again with the list in that new file.
// - Throws FileError on failure and passes on what `edit` throws. The file is then unchanged, unless only the fsync of
//   the folder failed; then the file has changed, and the error's text says so.
ListVersion edit_list(const std::string& path, const std::function<bool(BlockList&)>& edit);

// Does the same for the text of the list, or of a file beside the list. `edit` returns the new text; nothing if the
// file stays as it is.
ListVersion edit_list_text(const std::string& path, const std::function<std::optional<std::string>(std::string)>& edit);

// Reads or replaces the text of a file beside the list. The functions check, protect and replace this file as they do
// the list. A missing file is an empty text. They take no lock, so call replace_list_text() only while edit_list()
// calls `edit`. They throw FileError.
std::string read_list_text(const std::string& path);
void replace_list_text(const std::string& path, std::string_view text);

}  // namespace orvane
