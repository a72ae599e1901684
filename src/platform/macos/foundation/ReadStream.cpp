#include "platform/ReadStream.h"

#include "platform/macos/base/CoreFoundation.h"

namespace orvane {

void retain(const ReadStream* stream) { CFRetain(stream); }
void release(const ReadStream* stream) { CFRelease(stream); }

Ref<ReadStream> read_stream_create_with_file(const std::string& url) {
  const Owned<CFURLRef> file = url_create(url);
  if (!file) return nullptr;
  return Ref<ReadStream>::adopt(from_native<ReadStream>(CFReadStreamCreateWithFile(kCFAllocatorDefault, file.get())));
}

bool read_stream_open(ReadStream* stream) { return CFReadStreamOpen(to_native<CFReadStreamRef>(stream)); }

const uint8_t* read_stream_get_buffer(ReadStream* stream, int64_t maxBytesToRead, int64_t* numBytesRead) {
  CFIndex count = 0;
  const uint8_t* bytes = CFReadStreamGetBuffer(to_native<CFReadStreamRef>(stream), maxBytesToRead, &count);
  if (bytes != nullptr) *numBytesRead = count;
  return bytes;
}

int64_t read_stream_read(ReadStream* stream, uint8_t* buffer, int64_t bufferLength) {
  return CFReadStreamRead(to_native<CFReadStreamRef>(stream), buffer, bufferLength);
}

void read_stream_close(ReadStream* stream) { CFReadStreamClose(to_native<CFReadStreamRef>(stream)); }

}  // namespace orvane
