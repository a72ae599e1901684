#include "identity/PLAudtToken.h"

#include <cstring>

#include "platform/Bundle.h"
#include "platform/Process.h"
#include "platform/Security.h"

namespace orvane {

namespace {

bool is_audit_token(const Value& data) { return data.isData() && data.asData().size() == sizeof(audit_token_t); }

// Looks up the bundle identifier of the running program that the attributes describe. On every return, the objects that
// the function creates are released in the reverse order of their creation. The caller then releases the attributes.
std::optional<std::string> copy_bundle_identifier(const os_log_t& log, const Ref<Dictionary>& attributes) {
  Ref<SecCode> code;
  OSStatus status = SecCodeCopyGuestWithAttributes(nullptr, attributes.get(), kDefaultFlags, code.out());
  if (status != 0 || !code) {
    // Status 0 without a code object is a failure, too: the first message then shows status 0, and the second message
    // says that the object is missing.
    ORVANE_LOG_DEBUG(log, "SecCodeCopyGuestWithAttributes = %d", status);
    if (!code) ORVANE_LOG_DEBUG(log, "codeRef == NULL");
    return std::nullopt;
  }

  Ref<SecStaticCode> staticCode;
  status = SecCodeCopyStaticCode(code.get(), kDefaultFlags, staticCode.out());
  if (status != 0 || !staticCode) {
    ORVANE_LOG_DEBUG(log, "SecCodeCopyStaticCode = %d", status);
    if (!staticCode) ORVANE_LOG_DEBUG(log, "staticCodeRef == NULL");
    return std::nullopt;
  }

  // With default flags, the information includes the program's property list.
  Ref<Dictionary> information;
  status = SecCodeCopySigningInformation(staticCode.get(), kDefaultFlags, information.out());
  if (status != 0 || !information) {
    ORVANE_LOG_DEBUG(log, "SecCodeCopySigningInformation = %d", status);
    if (!information) ORVANE_LOG_DEBUG(log, "signInfoRef == NULL");
    return std::nullopt;
  }

  const Dictionary* propertyList = dictionary_get_dictionary(information.get(), kSecCodeInfoPList);
  if (propertyList == nullptr) return std::nullopt;
  return dictionary_copy_string(propertyList, kCFBundleIdentifierKey);
}

}  // namespace

Ref<PLAudtToken> PLAudtToken::initWithData(const Value& data) {
  auto token = Ref<PLAudtToken>::adopt(new PLAudtToken);
  if (!token->initialise()) return nullptr;
  token->_log = os_log_create(kBundleIdentifier, "PLAudtToken");
  token->setAuditTokenData(data);
  return token;
}

Value PLAudtToken::auditTokenData() const {
  std::lock_guard lock(auditTokenDataLock_);
  return _auditTokenData;
}

void PLAudtToken::setAuditTokenData(Value data) {
  std::lock_guard lock(auditTokenDataLock_);
  std::swap(_auditTokenData, data);
}

std::optional<std::string> PLAudtToken::bundleIdentifier() const {
  const Value data = auditTokenData();
  if (!is_audit_token(data)) {
    ORVANE_LOG_DEBUG(_log, "bad auditToken size");
    return std::nullopt;
  }
  return copy_bundle_identifier(_log, dictionary_create(GuestAttribute::Audit, data));
}

std::optional<std::string> PLAudtToken::bundleIdentifierFromPid(int32_t pid) const {
  Ref<Number> number = number_create(pid);
  if (!number) {
    ORVANE_LOG_DEBUG(_log, "cfNumberPid == NULL");
    return std::nullopt;
  }
  std::optional<std::string> identifier = copy_bundle_identifier(_log, dictionary_create(GuestAttribute::Pid, number));
  // The number is never released (docs/compatibility.md). It is a tagged pointer, so no memory leaks.
  (void)number.detach();
  return identifier;
}

std::optional<std::string> PLAudtToken::responsibleBundleIdentifier() const {
  const Value data = auditTokenData();
  // Data of a wrong size are not reported here, because callers call bundleIdentifier() first, and that function logs
  // the wrong size. If the data are longer than a token, their first bytes are used as the token.
  audit_token_t token;
  if (data.asData().size() < sizeof token) return std::nullopt;
  std::memcpy(&token, data.asData().data(), sizeof token);
  return bundleIdentifierFromPid(responsibility_get_pid_responsible_for_pid(audit_token_to_pid(token)));
}

std::optional<std::string> PLAudtToken::applicationPathFromAuditToken(const Value& auditToken) const {
  if (!is_audit_token(auditToken)) {
    ORVANE_LOG_DEBUG(_log, "bad auditToken size");
    return std::nullopt;
  }
  // Two things are frozen here (docs/compatibility.md). The objects that the steps return are never released; no memory
  // is lost, because nothing calls this function. And each failure logs only one message: the status, or, if the status
  // is 0, which object is missing.
  Ref<SecCode> codeOut;
  Ref<Dictionary> attributes = dictionary_create(GuestAttribute::Audit, auditToken);
  OSStatus status = SecCodeCopyGuestWithAttributes(nullptr, attributes.get(), kDefaultFlags, codeOut.out());
  attributes = nullptr;
  SecCode* const code = codeOut.detach();
  if (status != 0) {
    ORVANE_LOG_DEBUG(_log, "SecCodeCopyGuestWithAttributes = %d", status);
    return std::nullopt;
  }
  if (code == nullptr) {
    ORVANE_LOG_DEBUG(_log, "codeRef == NULL");
    return std::nullopt;
  }

  Ref<SecStaticCode> staticCodeOut;
  status = SecCodeCopyStaticCode(code, kDefaultFlags, staticCodeOut.out());
  SecStaticCode* const staticCode = staticCodeOut.detach();
  if (status != 0) {
    ORVANE_LOG_DEBUG(_log, "SecCodeCopyStaticCode = %d", status);
    return std::nullopt;
  }
  if (staticCode == nullptr) {
    ORVANE_LOG_DEBUG(_log, "staticCodeRef == NULL");
    return std::nullopt;
  }

  Ref<CodeURL> urlOut;
  status = SecCodeCopyPath(staticCode, kDefaultFlags, urlOut.out());
  CodeURL* const url = urlOut.detach();
  if (status != 0) {
    ORVANE_LOG_DEBUG(_log, "SecCodeCopyPath = %d", status);
    return std::nullopt;
  }
  if (url == nullptr) {
    ORVANE_LOG_DEBUG(_log, "urlRef == NULL");
    return std::nullopt;
  }
  return url_copy_file_system_path(url);
}

}  // namespace orvane
