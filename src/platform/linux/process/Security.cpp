#include "platform/Security.h"

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <utility>

#include "platform/IdentityAnswers.h"
#include "platform/Process.h"
#include "platform/linux/process/ProcessIdentity.h"

namespace orvane {
namespace {

// The status codes of macOS (<Security/CSCommon.h>).
constexpr OSStatus errSecSuccess = 0;
constexpr OSStatus errSecCSObjectRequired = -67069;              // the code object is null
constexpr OSStatus errSecCSUnsupportedGuestAttributes = -67067;  // no known attribute
constexpr OSStatus errSecCSInvalidAttributeValues = -67066;      // no pid, or an audit token that is not 32 bytes long
constexpr OSStatus errSecCSNoSuchCode = -67065;                  // the process does not exist

struct Counted {
  mutable std::atomic<size_t> references{1};
};

template <class T>
void release_counted(const T* object) {
  if (object->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete object;
}

}  // namespace

// SecCode and SecStaticCode hold a copy of what was known about the program when the object was made. So later calls do
// not need the process, and an object that is never released does not keep a file open. Each of the two also keeps the
// object that was made from it (staticCode, information), so that a repeated question about the same code is answered
// at once. No lock guards these members, so only one thread at a time may use an object.
struct SecCode : Counted {
  ProcessIdentity::Program program;
  Ref<SecStaticCode> staticCode;
};

struct SecStaticCode : Counted {
  ProcessIdentity::Program program;
  Ref<Dictionary> information;
};

struct CodeURL : Counted {
  std::string path;
};

struct Dictionary : Counted {
  // In a dictionary of attributes: the attribute by which a process is looked up.
  std::optional<GuestAttribute> attribute;
  Value auditToken;
  Ref<Number> pid;
  // In other dictionaries: the information by key.
  std::map<std::string, Ref<Dictionary>, std::less<>> dictionaries;
  std::map<std::string, std::string, std::less<>> strings;
};

void retain(const SecCode* code) { code->references.fetch_add(1, std::memory_order_relaxed); }
void release(const SecCode* code) { release_counted(code); }
void retain(const SecStaticCode* code) { code->references.fetch_add(1, std::memory_order_relaxed); }
void release(const SecStaticCode* code) { release_counted(code); }
void retain(const CodeURL* url) { url->references.fetch_add(1, std::memory_order_relaxed); }
void release(const CodeURL* url) { release_counted(url); }
void retain(const Dictionary* dictionary) { dictionary->references.fetch_add(1, std::memory_order_relaxed); }
void release(const Dictionary* dictionary) { release_counted(dictionary); }

// No Number object exists. The pointer itself holds the value, shifted left by one bit. The pointer's lowest bit is 1;
// the address of an object would have a 0 there.
void retain(const Number*) {}
void release(const Number*) {}

Ref<Number> number_create(int32_t value) {
  static_assert(sizeof(uintptr_t) > sizeof(value));
  uintptr_t bits = (uintptr_t{static_cast<uint32_t>(value)} << 1) | 1;
  return Ref<Number>::adopt(reinterpret_cast<Number*>(bits));  // NOLINT(performance-no-int-to-ptr): never dereferenced
}

static int32_t value_of(const Number* number) {
  return static_cast<int32_t>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(number) >> 1));
}

Ref<Dictionary> dictionary_create(GuestAttribute key, const Value& auditTokenData) {
  auto dictionary = Ref<Dictionary>::adopt(new Dictionary);
  dictionary->attribute = key;
  dictionary->auditToken = auditTokenData;
  return dictionary;
}

Ref<Dictionary> dictionary_create(GuestAttribute key, const Ref<Number>& pid) {
  auto dictionary = Ref<Dictionary>::adopt(new Dictionary);
  dictionary->attribute = key;
  dictionary->pid = pid;
  return dictionary;
}

const Dictionary* dictionary_get_dictionary(const Dictionary* dictionary, std::string_view key) {
  if (dictionary == nullptr) return nullptr;
  auto it = dictionary->dictionaries.find(key);
  return it == dictionary->dictionaries.end() ? nullptr : it->second.get();
}

std::optional<std::string> dictionary_copy_string(const Dictionary* dictionary, std::string_view key) {
  if (dictionary == nullptr) return std::nullopt;
  auto it = dictionary->strings.find(key);
  return it == dictionary->strings.end() ? std::nullopt : std::optional(it->second);
}

// Returns success and the process that has these attributes; on failure, an error status and null.
static std::pair<OSStatus, std::shared_ptr<const ProcessIdentity::Process>> find_guest(const Dictionary& attributes) {
  auto& identity = ProcessIdentity::system();
  if (!attributes.attribute) return {errSecCSUnsupportedGuestAttributes, nullptr};
  if (*attributes.attribute == GuestAttribute::Pid) {
    if (!attributes.pid) return {errSecCSInvalidAttributeValues, nullptr};
    auto process = identity.find(value_of(attributes.pid.get()));
    OSStatus status = process ? errSecSuccess : errSecCSNoSuchCode;
    return {status, std::move(process)};
  }
  const auto token = read_audit_token(attributes.auditToken);
  if (!token) return {errSecCSInvalidAttributeValues, nullptr};
  auto process = identity.find(audit_token_to_pid(*token));
  // A process may change its user and groups, so only pid and version are compared. If another process has the pid now,
  // its version differs.
  if (!process || process->information.version() != token->val[7]) return {errSecCSNoSuchCode, nullptr};
  return {errSecSuccess, std::move(process)};
}

// Returns the process's code object. As long as ProcessIdentity finds the same process, the function returns the same
// object, so the objects that were made from it need not be made again.
static Ref<SecCode> code_of(const std::shared_ptr<const ProcessIdentity::Process>& process) {
  struct Known {
    std::weak_ptr<const ProcessIdentity::Process> process;
    Ref<SecCode> code;
  };
  thread_local std::array<Known, 8> known;  // of each thread, because no lock guards a code object
  thread_local size_t next = 0;
  for (const Known& each : known) {
    if (!each.process.owner_before(process) && !process.owner_before(each.process)) return each.code;
  }
  auto code = Ref<SecCode>::adopt(new SecCode);
  code->program = process->program;
  known[next++ % known.size()] = {process, code};
  return code;
}

OSStatus SecCodeCopyGuestWithAttributes(SecCode*, const Dictionary* attributes, uint32_t, SecCode** guest) {
  if (attributes == nullptr) return errSecCSUnsupportedGuestAttributes;
  auto find = [attributes]() -> IdentityAnswers::Result<SecCode> {
    auto [status, process] = find_guest(*attributes);
    if (!process) return {status, nullptr};
    return {errSecSuccess, code_of(process)};
  };
  auto found = IdentityAnswers::guest(attributes->auditToken, attributes->pid, find);
  if (found.object) *guest = found.object.detach();
  return found.status;
}

OSStatus SecCodeCopyStaticCode(SecCode* code, uint32_t, SecStaticCode** staticCode) {
  if (code == nullptr) return errSecCSObjectRequired;
  if (!code->staticCode) {
    code->staticCode = Ref<SecStaticCode>::adopt(new SecStaticCode);
    code->staticCode->program = code->program;
  }
  *staticCode = Ref(code->staticCode).detach();
  return errSecSuccess;
}

OSStatus SecCodeCopySigningInformation(SecStaticCode* code, uint32_t, Dictionary** information) {
  if (code == nullptr) return errSecCSObjectRequired;
  auto find = [code]() -> IdentityAnswers::Result<Dictionary> {
    if (!code->information) {
      code->information = Ref<Dictionary>::adopt(new Dictionary);
      // Without an identifier there is no property list.
      if (auto identifier = ProcessIdentity::system().identifierOf(code->program)) {
        auto propertyList = Ref<Dictionary>::adopt(new Dictionary);
        propertyList->strings.emplace(kCFBundleIdentifierKey, std::move(*identifier));
        code->information->dictionaries.emplace(kSecCodeInfoPList, std::move(propertyList));
      }
    }
    return {errSecSuccess, code->information};
  };
  *information = IdentityAnswers::information(code, find).object.detach();
  return errSecSuccess;
}

OSStatus SecCodeCopyPath(SecStaticCode* code, uint32_t, CodeURL** path) {
  if (code == nullptr) return errSecCSObjectRequired;
  auto result = Ref<CodeURL>::adopt(new CodeURL);
  if (code->program.executable) result->path = code->program.executable->path;
  *path = result.detach();
  return errSecSuccess;
}

std::optional<std::string> url_copy_file_system_path(const CodeURL* url) {
  if (url == nullptr || url->path.empty()) return std::nullopt;
  return url->path;
}

}  // namespace orvane
