#pragma once

#include <cstdint>

#include "platform/Log.h"

namespace orvane {

// Writes bytes to the log in hexadecimal, one entry at debug level for each line of the dump; nothing for a length of
// 0. Allocates nothing. Lengths of 2^31 and more are not supported.
//
//   prefix        stands at the start of every line, with nothing behind it
//   offsetStyle   2: the line's offset follows, ": " behind it; 1: its address; else neither
//   bytesPerLine  16 or 32; another value is 16
//   groupSize     bytes read as one number of the machine's own byte order: 1, 2, 4 or 8; another value is 1
//   showASCII     the bytes follow as characters, "." for those that are not printable ASCII
//
// A line whose length is no multiple of the group size falls back to single bytes.
void os_log_dump(os_log_t log, const char* prefix, int32_t offsetStyle, int32_t bytesPerLine, int32_t groupSize,
                 const void* data, uint64_t length, bool showASCII);

}  // namespace orvane
