#include "platform/files/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace orvane {
namespace {

std::error_code last_error() { return {errno, std::generic_category()}; }

}  // namespace

bool write_all(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(file, text.data(), text.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

std::optional<std::string> read_up_to(int file, size_t limit, size_t probableSize) {
  // One byte more than the file has, so that the read(2) which finds the end needs no larger buffer.
  const size_t firstChunk = std::max<size_t>(4096, probableSize + 1);
  std::string bytes;
  size_t length = 0;
  while (length < limit) {
    if (length == bytes.size()) bytes.resize(std::min(limit, std::max(firstChunk, 2 * length)));
    const ssize_t count = ::read(file, bytes.data() + length, bytes.size() - length);
    if (count < 0 && errno != EINTR) return std::nullopt;
    if (count == 0) break;
    if (count > 0) length += static_cast<size_t>(count);
  }
  bytes.resize(length);
  return bytes;
}

std::optional<std::string> read_file_start(const std::string& path, size_t limit, Links links) {
  return read_file_start_at(AT_FDCWD, path.c_str(), limit, links);
}

std::optional<std::string> read_file_start_at(int folder, const char* path, size_t limit, Links links) {
  const int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (links == Links::Refuse ? O_NOFOLLOW : 0);
  Descriptor file(::openat(folder, path, flags));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return read_up_to(file.get(), limit);
}

FileReplacement::~FileReplacement() {
  if (isTemporary_) ::unlinkat(folder_, temporaryName_.c_str(), 0);
}

std::error_code FileReplacement::write(std::string_view text, mode_t mode) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  if (::unlinkat(folder_, temporaryName_.c_str(), 0) != 0 && errno != ENOENT) return last_error();
  file_ = Descriptor(::openat(folder_, temporaryName_.c_str(), kFlags, 0600));
  isTemporary_ = static_cast<bool>(file_);
  const bool written =
      isTemporary_ && write_all(file_.get(), text) && ::fchmod(file_.get(), mode) == 0 && ::fsync(file_.get()) == 0;
  return written ? std::error_code() : last_error();
}

std::error_code FileReplacement::renameTo(const std::string& name) {
  if (::renameat(folder_, temporaryName_.c_str(), folder_, name.c_str()) != 0) return last_error();
  isTemporary_ = false;
  return {};
}

std::error_code FileReplacement::syncFolder() { return ::fsync(folder_) == 0 ? std::error_code() : last_error(); }

std::error_code replace_file(const std::string& path, const std::string& temporaryName, std::string_view text,
                             mode_t mode) {
  const size_t slash = path.rfind('/');
  const std::string folderPath = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor folder(::open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return last_error();
  FileReplacement file(folder.get(), temporaryName);
  if (auto error = file.write(text, mode)) return error;
  if (auto error = file.renameTo(path.substr(slash + 1))) return error;  // without a slash, npos + 1 is 0
  return file.syncFolder();
}

}  // namespace orvane
