#include "platform/Security.h"

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include "platform/macos/base/CoreFoundation.h"
#include "platform/macos/base/Values.h"

namespace orvane {
namespace {

// Null when it cannot be made.
Ref<Dictionary> dictionary_of_one(GuestAttribute key, CFTypeRef value) {
  CFTypeRef name = key == GuestAttribute::Audit ? kSecGuestAttributeAudit : kSecGuestAttributePid;
  return Ref<Dictionary>::adopt(ours<Dictionary>(CFDictionaryCreate(
      kCFAllocatorDefault, &name, &value, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks)));
}

// The framework's object for a key of ours. Null for one that is none of ours.
CFStringRef information_key(std::string_view key) {
  if (key == kSecCodeInfoPList) return ::kSecCodeInfoPList;
  return key == kCFBundleIdentifierKey ? ::kCFBundleIdentifierKey : nullptr;
}

// What a dictionary holds under a key, when it is of the type that we read it as. Borrowed; else null. A signed program
// may put what it likes into its own property list.
CFTypeRef entry(const Dictionary* dictionary, std::string_view key, CFTypeID type) {
  CFStringRef name = information_key(key);
  if (dictionary == nullptr || name == nullptr) return nullptr;
  CFTypeRef value = CFDictionaryGetValue(native<CFDictionaryRef>(dictionary), name);
  return value != nullptr && CFGetTypeID(value) == type ? value : nullptr;
}

std::string text_of_string(CFTypeRef string) { return text_of(static_cast<::NSString*>(string)); }

}  // namespace

void retain(const SecCode* code) { CFRetain(code); }
void release(const SecCode* code) { CFRelease(code); }
void retain(const SecStaticCode* code) { CFRetain(code); }
void release(const SecStaticCode* code) { CFRelease(code); }
void retain(const CodeURL* url) { CFRetain(url); }
void release(const CodeURL* url) { CFRelease(url); }
void retain(const Number* number) { CFRetain(number); }
void release(const Number* number) { CFRelease(number); }
void retain(const Dictionary* dictionary) { CFRetain(dictionary); }
void release(const Dictionary* dictionary) { CFRelease(dictionary); }

Ref<Number> number_create(int32_t value) {
  return Ref<Number>::adopt(ours<Number>(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &value)));
}

Ref<Dictionary> dictionary_create(GuestAttribute key, const Value& auditTokenData) {
  const auto bytes = auditTokenData.asData();
  const Owned token(CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size())));
  return token ? dictionary_of_one(key, token.get()) : nullptr;
}

Ref<Dictionary> dictionary_create(GuestAttribute key, const Ref<Number>& pid) {
  return pid ? dictionary_of_one(key, pid.get()) : nullptr;
}

const Dictionary* dictionary_get_dictionary(const Dictionary* dictionary, std::string_view key) {
  return ours<Dictionary>(entry(dictionary, key, CFDictionaryGetTypeID()));
}

std::optional<std::string> dictionary_copy_string(const Dictionary* dictionary, std::string_view key) {
  CFTypeRef string = entry(dictionary, key, CFStringGetTypeID());
  return string == nullptr ? std::nullopt : std::optional(text_of_string(string));
}

// Status and output are passed on as they come: what a failure means is for the caller to say.

OSStatus SecCodeCopyGuestWithAttributes(SecCode* host, const Dictionary* attributes, uint32_t flags, SecCode** guest) {
  SecCodeRef found = nullptr;
  const OSStatus status =
      ::SecCodeCopyGuestWithAttributes(native<SecCodeRef>(host), native<CFDictionaryRef>(attributes), flags, &found);
  *guest = ours<SecCode>(found);
  return status;
}

OSStatus SecCodeCopyStaticCode(SecCode* code, uint32_t flags, SecStaticCode** staticCode) {
  SecStaticCodeRef found = nullptr;
  const OSStatus status = ::SecCodeCopyStaticCode(native<SecCodeRef>(code), flags, &found);
  *staticCode = ours<SecStaticCode>(found);
  return status;
}

OSStatus SecCodeCopySigningInformation(SecStaticCode* code, uint32_t flags, Dictionary** information) {
  CFDictionaryRef found = nullptr;
  const OSStatus status = ::SecCodeCopySigningInformation(native<SecStaticCodeRef>(code), flags, &found);
  *information = ours<Dictionary>(found);
  return status;
}

OSStatus SecCodeCopyPath(SecStaticCode* code, uint32_t flags, CodeURL** path) {
  CFURLRef found = nullptr;
  const OSStatus status = ::SecCodeCopyPath(native<SecStaticCodeRef>(code), flags, &found);
  *path = ours<CodeURL>(found);
  return status;
}

std::optional<std::string> url_copy_file_system_path(const CodeURL* url) {
  const Owned path(CFURLCopyFileSystemPath(native<CFURLRef>(url), kCFURLPOSIXPathStyle));
  return path ? std::optional(text_of_string(path.get())) : std::nullopt;
}

}  // namespace orvane
