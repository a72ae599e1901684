#pragma once

#include <cstdint>
#include <string>

#include "platform/Ref.h"

namespace orvane {

// A stream of a file's bytes. Counted. Not thread-safe. Every step can fail, and each failure is told apart.
struct ReadStream;
void retain(const ReadStream* stream);
void release(const ReadStream* stream);

// A stream on a file URL, not yet open. Null when none can be made (the URL is not a file's).
Ref<ReadStream> read_stream_create_with_file(const std::string& url);

// False when the file cannot be opened. A stream that was not opened is released without being closed.
bool read_stream_open(ReadStream* stream);

// Direct access to bytes that the stream holds in a buffer of its own: at most maxBytesToRead of them, all for 0.
// Sets *numBytesRead and returns their start; they stay valid until the next call on the stream. Null when the stream
// has no such buffer, which is an ordinary answer and not an error.
const uint8_t* read_stream_get_buffer(ReadStream* stream, int64_t maxBytesToRead, int64_t* numBytesRead);

// One read of at most bufferLength bytes. The number read, 0 at the end, below 0 for an error.
int64_t read_stream_read(ReadStream* stream, uint8_t* buffer, int64_t bufferLength);

void read_stream_close(ReadStream* stream);

}  // namespace orvane
