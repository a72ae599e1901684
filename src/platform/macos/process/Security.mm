#include "platform/Security.h"

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include <utility>

#include "platform/IdentityAnswers.h"
#include "platform/macos/base/CoreFoundation.h"
#include "platform/macos/base/Values.h"
#include "platform/macos/process/SigningCache.h"

namespace orvane {
namespace {

// Null on failure.
Ref<Dictionary> dictionary_of_one(GuestAttribute key, CFTypeRef value) {
  CFTypeRef name = key == GuestAttribute::Audit ? kSecGuestAttributeAudit : kSecGuestAttributePid;
  return Ref<Dictionary>::adopt(from_native<Dictionary>(CFDictionaryCreate(
      kCFAllocatorDefault, &name, &value, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks)));
}

// The framework's constant for a key of platform/Security.h; null for any other key.
CFStringRef information_key(std::string_view key) {
  if (key == kSecCodeInfoPList) return ::kSecCodeInfoPList;
  return key == kCFBundleIdentifierKey ? ::kCFBundleIdentifierKey : nullptr;
}

// The value under a key, borrowed. Null if the value is not of the given type: the property list of a signed program
// may contain anything.
CFTypeRef entry(const Dictionary* dictionary, std::string_view key, CFTypeID type) {
  CFStringRef name = information_key(key);
  if (dictionary == nullptr || name == nullptr) return nullptr;
  CFTypeRef value = CFDictionaryGetValue(to_native<CFDictionaryRef>(dictionary), name);
  return value != nullptr && CFGetTypeID(value) == type ? value : nullptr;
}

// Never destroyed, because other threads may use it while the process ends.
SigningCache& cache() {
  static auto* shared = new SigningCache;
  return *shared;
}

// The value under a key of attributes with which a program is looked up, borrowed; null if there is none.
CFTypeRef attribute(const Dictionary* attributes, CFStringRef name) {
  return attributes == nullptr ? nullptr : CFDictionaryGetValue(to_native<CFDictionaryRef>(attributes), name);
}

// The audit token in attributes. Nil if they contain none.
Value token_in(const Dictionary* attributes) {
  return value_of(static_cast<id>(attribute(attributes, kSecGuestAttributeAudit)));
}

// The process identifier in attributes; null if there is none.
Ref<Number> pid_in(const Dictionary* attributes) {
  return Ref<Number>::retained(from_native<Number>(attribute(attributes, kSecGuestAttributePid)));
}

// The status and the output of a function of the framework. Calls `keep` with the object if the function has succeeded.
template <class Object, class Native, class Keep>
IdentityAnswers::Result<Object> result_of(OSStatus status, Native found, Keep keep) {
  auto object = Ref<Object>::adopt(from_native<Object>(found));
  if (status == errSecSuccess && object) keep(object.get());
  return {status, std::move(object)};
}

// Passes a result to the caller of one of the functions below.
template <class Object>
OSStatus give(IdentityAnswers::Result<Object> result, Object** output) {
  *output = result.object.detach();
  return result.status;
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
  return Ref<Number>::adopt(from_native<Number>(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &value)));
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
  return from_native<Dictionary>(entry(dictionary, key, CFDictionaryGetTypeID()));
}

std::optional<std::string> dictionary_copy_string(const Dictionary* dictionary, std::string_view key) {
  CFTypeRef string = entry(dictionary, key, CFStringGetTypeID());
  return string == nullptr ? std::nullopt : std::optional(text_of_string(string));
}

// The functions below pass on the framework's status and output unchanged, because their callers handle every
// combination of the two. The cache keeps only objects that the framework returned with success.

OSStatus SecCodeCopyGuestWithAttributes(SecCode* host, const Dictionary* attributes, uint32_t flags, SecCode** guest) {
  const Value token = token_in(attributes);
  const Ref<Number> pid = pid_in(attributes);
  const auto find = [&]() -> IdentityAnswers::Result<SecCode> {
    if (Ref<SecCode> kept = cache().find(token)) return {errSecSuccess, std::move(kept)};
    SecCodeRef found = nullptr;
    const OSStatus status = ::SecCodeCopyGuestWithAttributes(to_native<SecCodeRef>(host),
                                                             to_native<CFDictionaryRef>(attributes), flags, &found);
    return result_of<SecCode>(status, found, [&](SecCode* code) {
      if (!token.isNil()) cache().keep(token, code);  // it is nil for a look-up by process identifier
    });
  };
  return give(IdentityAnswers::guest(token, pid, find), guest);
}

OSStatus SecCodeCopyStaticCode(SecCode* code, uint32_t flags, SecStaticCode** staticCode) {
  if (Ref<SecStaticCode> kept = cache().find(code)) return *staticCode = kept.detach(), errSecSuccess;
  const auto find = [&] {
    SecStaticCodeRef found = nullptr;
    const OSStatus status = ::SecCodeCopyStaticCode(to_native<SecCodeRef>(code), flags, &found);
    return result_of<SecStaticCode>(status, found, [&](SecStaticCode* made) { cache().keep(code, made); });
  };
  return give(IdentityAnswers::staticCode(code, find), staticCode);
}

OSStatus SecCodeCopySigningInformation(SecStaticCode* code, uint32_t flags, Dictionary** information) {
  if (Ref<Dictionary> kept = cache().find(code)) return *information = kept.detach(), errSecSuccess;
  const auto find = [&] {
    CFDictionaryRef found = nullptr;
    const OSStatus status = ::SecCodeCopySigningInformation(to_native<SecStaticCodeRef>(code), flags, &found);
    return result_of<Dictionary>(status, found, [&](Dictionary* made) { cache().keep(code, made); });
  };
  return give(IdentityAnswers::information(code, find), information);
}

OSStatus SecCodeCopyPath(SecStaticCode* code, uint32_t flags, CodeURL** path) {
  CFURLRef found = nullptr;
  const OSStatus status = ::SecCodeCopyPath(to_native<SecStaticCodeRef>(code), flags, &found);
  *path = from_native<CodeURL>(found);
  return status;
}

std::optional<std::string> url_copy_file_system_path(const CodeURL* url) {
  const Owned path(CFURLCopyFileSystemPath(to_native<CFURLRef>(url), kCFURLPOSIXPathStyle));
  return path ? std::optional(text_of_string(path.get())) : std::nullopt;
}

}  // namespace orvane
