#include "platform/ReadStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/files/Descriptor.h"
#include "platform/linux/base/FileURL.h"

namespace orvane {

struct ReadStream {
  explicit ReadStream(std::string file) : path(std::move(file)) {}

  mutable std::atomic<size_t> references{1};
  std::string path;
  Descriptor descriptor;
};

void retain(const ReadStream* stream) { stream->references.fetch_add(1, std::memory_order_relaxed); }

void release(const ReadStream* stream) {
  if (stream->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete stream;
}

Ref<ReadStream> read_stream_create_with_file(const std::string& url) {
  std::optional<std::string> path = path_of_file_url(url);
  if (!path) return nullptr;
  return Ref<ReadStream>::adopt(new ReadStream(*std::move(path)));
}

bool read_stream_open(ReadStream* stream) {
  if (stream->descriptor) return false;
  // If the path is a pipe, O_NONBLOCK keeps open() from waiting for a writer. A pipe without a writer reads as an empty
  // file.
  stream->descriptor = Descriptor(::open(stream->path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return static_cast<bool>(stream->descriptor);
}

const uint8_t* read_stream_get_buffer(ReadStream*, int64_t, int64_t*) { return nullptr; }

int64_t read_stream_read(ReadStream* stream, uint8_t* buffer, int64_t bufferLength) {
  if (bufferLength < 0) return -1;
  ssize_t count = 0;
  do {
    count = ::read(stream->descriptor.get(), buffer, static_cast<size_t>(bufferLength));
  } while (count < 0 && errno == EINTR);
  return count;
}

void read_stream_close(ReadStream* stream) { stream->descriptor.reset(); }

}  // namespace orvane
