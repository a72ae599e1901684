#include "companion/watch/FileLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace orvane {
namespace {

// Linux has locks that belong to an open file description. Elsewhere, a lock belongs to a process, and ends when the
// process closes any descriptor of the file.
#ifdef F_OFD_SETLK
constexpr int kSetLock = F_OFD_SETLK, kGetLock = F_OFD_GETLK;
#else
constexpr int kSetLock = F_SETLK, kGetLock = F_GETLK;
#endif

// A lock on the whole file.
struct flock whole_file(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

Descriptor take_file_lock(const std::string& path, mode_t mode, std::error_code& error) {
  Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  struct flock lock = whole_file(F_WRLCK);
  if (file && fchmod(file.get(), mode) == 0) {
    if (fcntl(file.get(), kSetLock, &lock) == 0) return file;
    if (errno == EAGAIN || errno == EACCES) return Descriptor();
  }
  error = std::error_code(errno, std::generic_category());
  return Descriptor();
}

bool is_file_locked(const std::string& path) {
  Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  // This call tests for a lock without taking it, even if the holder is in another PID namespace. Only a write lock
  // stands in the way of a read lock, and only a process that may write the file can have a write lock.
  struct flock lock = whole_file(F_RDLCK);
  return file && fcntl(file.get(), kGetLock, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace orvane
