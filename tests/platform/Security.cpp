#include "platform/Security.h"

#include <cstring>

#include "platform/Counted.h"
#include "platform/Process.h"

namespace orvane {

using stand_in::security;

stand_in::SecurityState& stand_in::security() {
  static SecurityState state;
  return state;
}

struct SecCode : stand_in::Counted {
  explicit SecCode(int32_t owner) : Counted("SecCode"), pid(owner) {}
  int32_t pid;
};
struct SecStaticCode : stand_in::Counted {
  explicit SecStaticCode(int32_t owner) : Counted("SecStaticCode"), pid(owner) {}
  int32_t pid;
};
struct CodeURL : stand_in::Counted {
  CodeURL() : Counted("CodeURL") {}
};
struct Number : stand_in::Counted {
  explicit Number(int32_t number) : Counted("Number"), value(number) {}
  int32_t value;
};
struct Dictionary : stand_in::Counted {
  Dictionary(const char* kindName, int32_t owner) : Counted(kindName), pid(owner) {}
  int32_t pid;
};

ORVANE_STAND_IN_COUNTED(SecCode)
ORVANE_STAND_IN_COUNTED(SecStaticCode)
ORVANE_STAND_IN_COUNTED(CodeURL)
ORVANE_STAND_IN_COUNTED(Number)
ORVANE_STAND_IN_COUNTED(Dictionary)

namespace {

template <class Object, class... Arguments>
OSStatus answer(const stand_in::SecurityState::Step& step, Object** output, Arguments... arguments) {
  if (!step.null) *output = new Object(arguments...);
  return step.status;
}

}  // namespace

Value stand_in::token_of(int32_t pid) {
  audit_token_t token{};
  token.val[5] = static_cast<uint32_t>(pid);
  uint8_t bytes[sizeof token];
  std::memcpy(bytes, &token, sizeof token);
  return Value::data(bytes);
}

pid_t audit_token_to_pid(audit_token_t token) { return static_cast<pid_t>(token.val[5]); }

pid_t responsibility_get_pid_responsible_for_pid(pid_t pid) {
  security().pidsAsked.push_back(pid);
  auto responsible = security().responsible.find(pid);
  return responsible == security().responsible.end() ? pid : responsible->second;
}

Ref<Number> number_create(int32_t value) {
  return security().numberFails ? nullptr : Ref<Number>::adopt(new Number(value));
}

Ref<Dictionary> dictionary_create(GuestAttribute key, const Value& auditTokenData) {
  if (key != GuestAttribute::Audit) return nullptr;
  audit_token_t token;
  std::memcpy(&token, auditTokenData.asData().data(), sizeof token);
  return Ref<Dictionary>::adopt(new Dictionary("attributes", audit_token_to_pid(token)));
}

Ref<Dictionary> dictionary_create(GuestAttribute key, const Ref<Number>& pid) {
  if (key != GuestAttribute::Pid) return nullptr;
  return Ref<Dictionary>::adopt(new Dictionary("attributes", pid->value));
}

const Dictionary* dictionary_get_dictionary(const Dictionary* dictionary, std::string_view key) {
  return key == kSecCodeInfoPList && !security().noPropertyList ? dictionary : nullptr;
}

std::optional<std::string> dictionary_copy_string(const Dictionary* dictionary, std::string_view key) {
  const std::string& identifier = security().identifiers[dictionary->pid];
  if (key != kCFBundleIdentifierKey || identifier.empty()) return std::nullopt;
  return identifier;
}

OSStatus SecCodeCopyGuestWithAttributes(SecCode*, const Dictionary* attributes, uint32_t, SecCode** guest) {
  if (!security().identifiers.contains(attributes->pid)) return -67065;
  return answer(security().guest, guest, attributes->pid);
}

OSStatus SecCodeCopyStaticCode(SecCode* code, uint32_t, SecStaticCode** staticCode) {
  return answer(security().staticCode, staticCode, code->pid);
}

OSStatus SecCodeCopySigningInformation(SecStaticCode* code, uint32_t, Dictionary** information) {
  return answer(security().information, information, "information", code->pid);
}

OSStatus SecCodeCopyPath(SecStaticCode*, uint32_t, CodeURL** path) { return answer(security().path, path); }

std::optional<std::string> url_copy_file_system_path(const CodeURL*) {
  return security().noFileSystemPath ? std::nullopt : std::optional<std::string>("/opt/browser/browser");
}

}  // namespace orvane
