#pragma once

#include <cstdint>
#include <string>

#include "platform/Ref.h"

namespace orvane {

// A stream of a file's bytes. Reference-counted. Not thread-safe.
struct ReadStream;
void retain(const ReadStream* stream);
void release(const ReadStream* stream);

// A stream of the file at a file URL, not opened yet. Null when the URL is not a file URL.
Ref<ReadStream> read_stream_create_with_file(const std::string& url);

// Opens the stream. If this returns false, release the stream without closing it.
bool read_stream_open(ReadStream* stream);

// Direct access to the stream's internal buffer: at most maxBytesToRead bytes, or all bytes if maxBytesToRead is 0.
// Sets *numBytesRead and returns a pointer to the first byte; the bytes are valid until the next call on the stream.
// Returns null if the stream has no internal buffer; that is not an error.
const uint8_t* read_stream_get_buffer(ReadStream* stream, int64_t maxBytesToRead, int64_t* numBytesRead);

// Calls the system's read function once, for at most bufferLength bytes. Returns the number of bytes read, 0 at the end
// of the stream, or a negative number on an error.
int64_t read_stream_read(ReadStream* stream, uint8_t* buffer, int64_t bufferLength);

void read_stream_close(ReadStream* stream);

}  // namespace orvane
