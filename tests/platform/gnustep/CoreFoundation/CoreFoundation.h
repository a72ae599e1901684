#pragma once

#include <string>

// A stand-in for the part of the framework that the look-up of public suffixes uses.

using Boolean = unsigned char;
using CFStringRef = const std::string*;
enum { kCFAllocatorDefault, kCFStringEncodingUTF8 };

inline CFStringRef CFStringCreateWithCString(int /*allocator*/, const char* text, int /*encoding*/) {
  return new std::string(text);
}
inline void CFRelease(CFStringRef string) { delete string; }
