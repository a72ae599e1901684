#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Ref.h"
#include "platform/Value.h"

// The code-signing services, which identify running programs. All objects are reference-counted.
namespace orvane {

struct SecCode;        // a running program
struct SecStaticCode;  // a program on disk
struct CodeURL;        // the location of a program on disk
struct Number;         // a number object: a tagged pointer on every system, so leaking a number costs nothing
struct Dictionary;     // attributes to look up, or signing information

void retain(const SecCode* code);
void release(const SecCode* code);
void retain(const SecStaticCode* code);
void release(const SecStaticCode* code);
void retain(const CodeURL* url);
void release(const CodeURL* url);
void retain(const Number* number);
void release(const Number* number);
void retain(const Dictionary* dictionary);
void release(const Dictionary* dictionary);

using OSStatus = int32_t;
inline constexpr uint32_t kDefaultFlags = 0;

// The keys of the attributes that dictionary_create() takes.
enum class GuestAttribute {
  Audit,  // kSecGuestAttributeAudit: an audit token of 32 bytes
  Pid,    // kSecGuestAttributePid: a process identifier
};

// Null when the number object cannot be made.
Ref<Number> number_create(int32_t value);

// Attributes with one entry; the dictionary retains the value. Null when the dictionary cannot be made.
Ref<Dictionary> dictionary_create(GuestAttribute key, const Value& auditTokenData);
Ref<Dictionary> dictionary_create(GuestAttribute key, const Ref<Number>& pid);

// The signing information has the program's property list under kSecCodeInfoPList. kCFBundleIdentifierKey is a key of
// this property list.
inline constexpr std::string_view kSecCodeInfoPList = "info-plist";
inline constexpr std::string_view kCFBundleIdentifierKey = "CFBundleIdentifier";

// The dictionary under a key of `dictionary`; null if there is none. Borrowed from `dictionary`.
const Dictionary* dictionary_get_dictionary(const Dictionary* dictionary, std::string_view key);
// A copy of the string under a key of `dictionary`; nothing if there is no string.
std::optional<std::string> dictionary_copy_string(const Dictionary* dictionary, std::string_view key);

// Each of the next four functions returns a status, 0 for success. Its output, which is null before the call, becomes
// an object that the caller owns, or stays null. Callers must handle every combination of status and output. `host` is
// always null, and `flags` is always kDefaultFlags.
OSStatus SecCodeCopyGuestWithAttributes(SecCode* host, const Dictionary* attributes, uint32_t flags, SecCode** guest);
OSStatus SecCodeCopyStaticCode(SecCode* code, uint32_t flags, SecStaticCode** staticCode);
OSStatus SecCodeCopySigningInformation(SecStaticCode* code, uint32_t flags, Dictionary** information);
OSStatus SecCodeCopyPath(SecStaticCode* code, uint32_t flags, CodeURL** path);

// The POSIX path of a URL, if it has one.
std::optional<std::string> url_copy_file_system_path(const CodeURL* url);

}  // namespace orvane
