#include "platform/Security.h"

#include <cstring>

#include "platform/IdentityAnswers.h"
#include "platform/Process.h"
#include "platform/StandIn.h"

namespace orvane {

using stand_in::security;

// In an object of each of these types, `content` is the pid of the process that the object describes.
ORVANE_STAND_IN_COUNTED(struct, SecCode, int32_t)
ORVANE_STAND_IN_COUNTED(struct, SecStaticCode, int32_t)
ORVANE_STAND_IN_COUNTED(struct, CodeURL, int32_t)
ORVANE_STAND_IN_COUNTED(struct, Number, int32_t)
ORVANE_STAND_IN_COUNTED(struct, Dictionary, int32_t)

template <class Object, class... Arguments>
static OSStatus answer(const stand_in::SecurityState::Step& step, Object** output, Arguments... arguments) {
  if (!step.second) *output = new Object(arguments...);
  return step.first;
}

pid_t audit_token_to_pid(audit_token_t token) { return static_cast<pid_t>(token.val[5]); }

pid_t responsibility_get_pid_responsible_for_pid(pid_t pid) {
  return IdentityAnswers::responsible(pid, [pid] {
    security.pidsAsked.push_back(pid);
    return security.responsible.contains(pid) ? security.responsible[pid] : pid;
  });
}

Ref<Number> number_create(int32_t value) {
  return security.numberFails ? nullptr : Ref<Number>::adopt(new Number(value));
}

Ref<Dictionary> dictionary_create(GuestAttribute key, const Value& auditTokenData) {
  if (key != GuestAttribute::Audit) return nullptr;
  audit_token_t token;
  std::memcpy(&token, auditTokenData.asData().data(), sizeof token);
  return Ref<Dictionary>::adopt(new Dictionary(audit_token_to_pid(token), "attributes"));
}

Ref<Dictionary> dictionary_create(GuestAttribute key, const Ref<Number>& pid) {
  if (key != GuestAttribute::Pid) return nullptr;
  return Ref<Dictionary>::adopt(new Dictionary(pid->content, "attributes"));
}

const Dictionary* dictionary_get_dictionary(const Dictionary* dictionary, std::string_view key) {
  return key == kSecCodeInfoPList && !security.noPropertyList ? dictionary : nullptr;
}

std::optional<std::string> dictionary_copy_string(const Dictionary* dictionary, std::string_view key) {
  const std::string& identifier = security.identifiers[dictionary->content];
  if (key != kCFBundleIdentifierKey || identifier.empty()) return std::nullopt;
  return identifier;
}

OSStatus SecCodeCopyGuestWithAttributes(SecCode* host, const Dictionary* attributes, uint32_t flags, SecCode** guest) {
  if (host != nullptr || flags != 0) return -1;
  if (!security.identifiers.contains(attributes->content)) return -67065;
  return answer(security.guest, guest, attributes->content);
}

OSStatus SecCodeCopyStaticCode(SecCode* code, uint32_t, SecStaticCode** staticCode) {
  return answer(security.staticCode, staticCode, code->content);
}

OSStatus SecCodeCopySigningInformation(SecStaticCode* code, uint32_t, Dictionary** information) {
  return answer(security.information, information, code->content, "information");
}

OSStatus SecCodeCopyPath(SecStaticCode* code, uint32_t, CodeURL** path) {
  return answer(security.path, path, code->content);
}

std::optional<std::string> url_copy_file_system_path(const CodeURL*) {
  return security.noFileSystemPath ? std::nullopt : std::optional<std::string>("/opt/browser/browser");
}

}  // namespace orvane
