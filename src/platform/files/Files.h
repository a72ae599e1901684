#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/files/Descriptor.h"

namespace orvane {

// Writes the whole text, retrying short and interrupted writes. False, with errno set, when a write fails.
bool write_all(int file, std::string_view text);

// Reads from the current position to the end of the file, at most `limit` bytes. Nothing, with errno set, when a read
// fails. The size that the file probably has saves copies.
std::optional<std::string> read_up_to(int file, size_t limit, size_t probableSize = 0);

// Whether a symbolic link in the last part of a path is followed.
enum class Links { Follow, Refuse };

// The first bytes of a regular file, at most `limit`. Nothing when the file cannot be read or is not a regular file. If
// the path is a pipe, the function returns without waiting for a writer.
std::optional<std::string> read_file_start(const std::string& path, size_t limit, Links links);
// Does the same for a `path` that is relative to the open folder `folder`.
std::optional<std::string> read_file_start_at(int folder, const char* path, size_t limit, Links links);

// The next version of a file. It is written under a temporary name and then renamed, so that at every moment, even if
// the process is killed or the power fails, the file is either the old version or the new one. The destructor removes
// the temporary file unless it was renamed.
//
// Names are relative to `folder`, an open folder that outlives the object. The temporary file must be on the same file
// system as the file that it replaces. No other process may use the temporary name at the same time: hold a lock, or
// put the process identifier in the name.
class FileReplacement {
 public:
  FileReplacement(int folder, std::string temporaryName) : folder_(folder), temporaryName_(std::move(temporaryName)) {}
  ~FileReplacement();
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;

  // Creates the temporary file and returns when the text is on the disk. The file gets exactly this mode; the umask
  // does not change it. A killed process may have left a file with the temporary name; write() removes that file first.
  std::error_code write(std::string_view text, mode_t mode);
  std::error_code renameTo(const std::string& name);
  // Returns when the rename is on the disk. After an error, processes see the new version, but a power failure may
  // bring the old version back.
  std::error_code syncFolder();

  // The descriptor of the new file. -1 before write().
  int descriptor() const { return file_.get(); }

 private:
  const int folder_;
  const std::string temporaryName_;
  Descriptor file_;
  bool isTemporary_ = false;  // the file exists under the temporary name
};

// Replaces the file at `path`: calls write(), renameTo() and syncFolder() of a FileReplacement and stops at the first
// error. `temporaryName` is relative to the folder of `path`.
std::error_code replace_file(const std::string& path, const std::string& temporaryName, std::string_view text,
                             mode_t mode);

}  // namespace orvane
