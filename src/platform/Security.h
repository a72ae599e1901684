#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Ref.h"
#include "platform/Value.h"

// The code-signing services: who a running process is. All objects are counted.
namespace orvane {

struct SecCode;        // a running program
struct SecStaticCode;  // a program on disk
struct CodeURL;        // where a program stands
struct Number;      // a number object; an immediate value on the systems we run on, so that one left over costs nothing
struct Dictionary;  // attributes to look for, or facts that were found

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

// Keys of what is looked for.
enum class GuestAttribute {
  Audit,  // kSecGuestAttributeAudit: an audit token of 32 bytes
  Pid,    // kSecGuestAttributePid: a process identifier
};

// Null when the number object cannot be made.
Ref<Number> number_create(int32_t value);

// A dictionary of one entry, which retains its value. Null when it cannot be made.
Ref<Dictionary> dictionary_create(GuestAttribute key, const Value& auditTokenData);
Ref<Dictionary> dictionary_create(GuestAttribute key, const Ref<Number>& pid);

// The keys of signing information and of the property list in it.
inline constexpr std::string_view kSecCodeInfoPList = "info-plist";
inline constexpr std::string_view kCFBundleIdentifierKey = "CFBundleIdentifier";

// The dictionary under a key: borrowed from the outer one. Null when there is none.
const Dictionary* dictionary_get_dictionary(const Dictionary* dictionary, std::string_view key);
// A new copy of the string under a key. Nothing when there is none.
std::optional<std::string> dictionary_copy_string(const Dictionary* dictionary, std::string_view key);

// Each returns 0 and sets its output to an object that the caller owns, or returns another status. Callers must be
// ready for any pairing of status and output. `host` is always null, flags are always kDefaultFlags.
OSStatus SecCodeCopyGuestWithAttributes(SecCode* host, const Dictionary* attributes, uint32_t flags, SecCode** guest);
OSStatus SecCodeCopyStaticCode(SecCode* code, uint32_t flags, SecStaticCode** staticCode);
OSStatus SecCodeCopySigningInformation(SecStaticCode* code, uint32_t flags, Dictionary** information);
OSStatus SecCodeCopyPath(SecStaticCode* code, uint32_t flags, CodeURL** path);

// The POSIX path of a URL, owned by the caller. Nothing when it has none.
std::optional<std::string> url_copy_file_system_path(const CodeURL* url);

}  // namespace orvane
