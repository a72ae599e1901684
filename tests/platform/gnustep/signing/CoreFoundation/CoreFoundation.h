#pragma once

#import <Foundation/Foundation.h>

#include <initializer_list>

// A stand-in for the part of the framework that the code for code signing uses. Its objects are Foundation's, as
// "Toll-Free Bridged Types" in Apple's Core Foundation Design Concepts allows.

using CFTypeRef = const void*;
using CFStringRef = const struct CFString*;
using CFDataRef = const struct CFData*;
using CFNumberRef = const struct CFNumber*;
using CFDictionaryRef = const struct CFDictionary*;
using CFURLRef = const struct CFURL*;
using CFIndex = NSInteger;
using CFTypeID = Class;
enum { kCFAllocatorDefault, kCFURLPOSIXPathStyle = 0, kCFNumberSInt32Type = 3 };
inline const int kCFTypeDictionaryKeyCallBacks = 0, kCFTypeDictionaryValueCallBacks = 0;

inline id object_of(CFTypeRef reference) { return static_cast<id>(const_cast<void*>(reference)); }
template <class Reference>
Reference bridged(id object) {
  return reinterpret_cast<Reference>(object);
}

inline void CFRetain(CFTypeRef object) { [object_of(object) retain]; }
inline void CFRelease(CFTypeRef object) { [object_of(object) release]; }
inline CFTypeID CFStringGetTypeID() { return [NSString class]; }
inline CFTypeID CFDictionaryGetTypeID() { return [NSDictionary class]; }
inline CFTypeID CFGetTypeID(CFTypeRef object) {
  for (const CFTypeID type : {CFStringGetTypeID(), CFDictionaryGetTypeID()}) {
    if ([object_of(object) isKindOfClass:type]) return type;
  }
  return Nil;
}

inline CFDataRef CFDataCreate(int /*allocator*/, const uint8_t* bytes, CFIndex length) {
  return bridged<CFDataRef>([[NSData alloc] initWithBytes:bytes length:static_cast<NSUInteger>(length)]);
}
inline CFNumberRef CFNumberCreate(int /*allocator*/, int /*type*/, const int32_t* value) {
  return bridged<CFNumberRef>([[NSNumber alloc] initWithInt:*value]);
}
inline CFDictionaryRef CFDictionaryCreate(int /*allocator*/, CFTypeRef* keys, CFTypeRef* values, CFIndex count,
                                          const int* /*keys*/, const int* /*values*/) {
  return bridged<CFDictionaryRef>([[NSDictionary alloc] initWithObjects:reinterpret_cast<const id*>(values)
                                                                forKeys:reinterpret_cast<const id*>(keys)
                                                                  count:static_cast<NSUInteger>(count)]);
}
inline CFTypeRef CFDictionaryGetValue(CFDictionaryRef dictionary, CFTypeRef key) {
  return [object_of(dictionary) objectForKey:object_of(key)];
}
inline CFStringRef CFURLCopyFileSystemPath(CFURLRef url, int /*style*/) {
  return bridged<CFStringRef>([[object_of(url) path] copy]);
}
