#include "diagnostics/os_log_dump.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace orvane {

namespace {

// The text of one line. It lives on the stack.
struct Line {
  static constexpr int32_t kCapacity = 256;  // the terminator included

  char text[kCapacity];
  int32_t length = 0;

  void append(char character) {
    if (length < kCapacity - 1) text[length++] = character;
  }
};

void append_bytes(Line& line, const unsigned char* bytes, int32_t count) {
  static const char kDigits[] = "0123456789abcdef";
  const int32_t shown = std::min<int32_t>(count, Line::kCapacity / 3);
  for (int32_t i = 0; i < shown; ++i) {
    if (i > 0) line.append(' ');
    line.append(kDigits[bytes[i] >> 4]);
    line.append(kDigits[bytes[i] & 0xf]);
  }
}

template <class Number>
Number number_at(const unsigned char* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

int32_t format_group(char (&digits)[24], const unsigned char* bytes, int32_t groupSize) {
  switch (groupSize) {
    case 2:
      return std::snprintf(digits, sizeof digits, "%4.4x", number_at<uint16_t>(bytes));
    case 4:
      return std::snprintf(digits, sizeof digits, "%8.8x", number_at<uint32_t>(bytes));
    default:
      return std::snprintf(digits, sizeof digits, "%16.16llx", number_at<unsigned long long>(bytes));
  }
}

// Returns false when a group does not fit into the line.
bool append_groups(Line& line, const unsigned char* bytes, int32_t count, int32_t groupSize) {
  const int32_t groups = std::max(count / groupSize, 1);
  for (int32_t group = 0; group < groups; ++group) {
    char digits[24];
    const int32_t written = format_group(digits, bytes + static_cast<ptrdiff_t>(group) * groupSize, groupSize);
    const int32_t blank = group > 0 ? 1 : 0;
    if (line.length + blank + written >= Line::kCapacity) return false;
    if (blank != 0) line.append(' ');
    for (int32_t i = 0; i < written; ++i) line.append(digits[i]);
  }
  return true;
}

void append_characters(Line& line, const unsigned char* bytes, int32_t count, int32_t column) {
  while (line.length <= column && line.length < Line::kCapacity - 1) line.append(' ');
  // isprint() is not used, because the result of isprint() depends on the process's locale.
  for (int32_t i = 0; i < count; ++i)
    line.append(bytes[i] >= 0x20 && bytes[i] <= 0x7e ? static_cast<char>(bytes[i]) : '.');
}

void format_line(Line& line, const unsigned char* bytes, int32_t count, int32_t bytesPerLine, int32_t groupSize,
                 bool showASCII) {
  // The group size of a line decides in which column its ASCII characters begin. If the length of the last line is not
  // a multiple of the group size, the line is printed in single bytes, and its characters begin further right than
  // those of the lines above. This layout is frozen (docs/compatibility.md).
  if (count % groupSize != 0) groupSize = 1;
  bool whole = true;
  if (groupSize == 1) {
    append_bytes(line, bytes, count);
  } else {
    whole = append_groups(line, bytes, count, groupSize);
  }
  if (showASCII && whole) append_characters(line, bytes, count, 2 * bytesPerLine + bytesPerLine / groupSize);
}

}  // namespace

// `log` is passed by value, so that the handle lives until the last line of the dump is logged.
void os_log_dump(os_log_t log,  // NOLINT(performance-unnecessary-value-param)
                 const char* prefix, int32_t offsetStyle, int32_t bytesPerLine, int32_t groupSize, const void* data,
                 uint64_t length, bool showASCII) {
  if (bytesPerLine != 16 && bytesPerLine != 32) bytesPerLine = 16;
  if (groupSize != 1 && groupSize != 2 && groupSize != 4 && groupSize != 8) groupSize = 1;

  uint64_t remaining = length;
  for (uint64_t offset = 0; offset < length; offset += static_cast<uint64_t>(bytesPerLine)) {
    const int32_t count = std::min(static_cast<int32_t>(remaining), bytesPerLine);
    // The address is computed as an integer, because `data` may be null, and a null pointer allows no arithmetic.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    const auto* bytes = reinterpret_cast<const unsigned char*>(reinterpret_cast<uintptr_t>(data) + offset);
    Line line;
    if (bytes != nullptr && count > 0) format_line(line, bytes, count, bytesPerLine, groupSize, showASCII);
    line.text[line.length] = '\0';
    const char* text = line.text;
    if (offsetStyle == 2) {
      ORVANE_LOG_DEBUG(log, "%s%.8x: %s\n", prefix, static_cast<unsigned int>(offset), text);
    } else if (offsetStyle == 1) {
      ORVANE_LOG_DEBUG(log, "%s%p: %s\n", prefix, static_cast<const void*>(bytes), text);
    } else {
      ORVANE_LOG_DEBUG(log, "%s%s\n", prefix, text);
    }
    remaining -= static_cast<uint64_t>(count);
  }
}

}  // namespace orvane
