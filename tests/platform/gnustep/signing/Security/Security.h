#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>

// A stand-in for the code-signing services, as the comments in the SDK's SecCode.h describe them: a function that fails
// leaves its output unchanged, and a process that does not run has no code (errSecCSNoSuchCode). The processes are
// those of stand_in::security.

using OSStatus = int32_t;
constexpr OSStatus errSecSuccess = 0, errSecCSNoSuchCode = -67065;
using SecCodeRef = struct SecCodeObject*;
using SecStaticCodeRef = const struct SecStaticCodeObject*;

inline const CFStringRef kSecGuestAttributeAudit = bridged<CFStringRef>(@"audit"),
                         kSecGuestAttributePid = bridged<CFStringRef>(@"pid"),
                         kSecCodeInfoPList = bridged<CFStringRef>(@"info-plist"),
                         kCFBundleIdentifierKey = bridged<CFStringRef>(@"CFBundleIdentifier");

OSStatus SecCodeCopyGuestWithAttributes(SecCodeRef host, CFDictionaryRef attributes, uint32_t flags, SecCodeRef* guest);
OSStatus SecCodeCopyStaticCode(SecCodeRef code, uint32_t flags, SecStaticCodeRef* staticCode);
OSStatus SecCodeCopySigningInformation(SecStaticCodeRef code, uint32_t flags, CFDictionaryRef* information);
OSStatus SecCodeCopyPath(SecStaticCodeRef code, uint32_t flags, CFURLRef* path);
