#pragma once

#include <cstdint>

#include "platform/Log.h"

namespace orvane {

// Logs bytes in hexadecimal at debug level, one entry for each line of the dump. A length of 0 logs nothing. Allocates
// no memory. The length must be below 2^31.
//
//   prefix        begins every line
//   offsetStyle   what follows the prefix: for 2, the line's offset in the data and ": "; for 1, the line's address in
//                 memory and ": "; for other values, nothing
//   bytesPerLine  16 or 32; other values mean 16
//   groupSize     how many bytes are printed as one number, in the machine's byte order: 1, 2, 4 or 8; other values
//                 mean 1
//   showASCII     adds the bytes as characters, with "." for each byte that is not printable ASCII
//
// A line whose length is not a multiple of the group size is printed in single bytes.
void os_log_dump(os_log_t log, const char* prefix, int32_t offsetStyle, int32_t bytesPerLine, int32_t groupSize,
                 const void* data, uint64_t length, bool showASCII);

}  // namespace orvane
