#pragma once

#include <functional>
#include <string>

#include "companion/list/BlockList.h"

namespace orvane {

// The list of the machine. Its folder is made by whoever installs the system; members of its group may edit the list.
inline constexpr const char* kListPath = "/var/lib/orvane-se/list";

// Which version of the list's file was read or written: its device, inode, size and time of change, in one word. Empty
// where there is no file. Two versions never have the same.
using ListVersion = std::string;

struct StoredList {
  BlockList list;
  ListVersion version;
};

// The list as it is in its file. No file is an empty list; a file or folder that cannot be read is a FileError.
StoredList read_list(const std::string& path);

// The version that is there now. A folder that cannot be read is a FileError.
ListVersion list_version(const std::string& path);

// Changes the list: reads it, has `edit` change it, and writes it back where `edit` returned true. No other orvanectl
// changes the file meanwhile (a lock on its folder). The file is the old one or the new one at every moment, and the
// new one outlasts a loss of power from the return on. Throws FileError where that could not be had, and the old one is
// still there then; what `edit` throws is passed on, with nothing written. Gives the version that is there now.
// `edit` is called again, with the list as it is then, where another program replaced the file meanwhile.
ListVersion edit_list(const std::string& path, const std::function<bool(BlockList&)>& edit);

}  // namespace orvane
