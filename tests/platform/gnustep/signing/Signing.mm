#include <Security/Security.h>
#include <bsm/libbsm.h>

#include <cstring>

#include "platform/StandIn.h"

using orvane::stand_in::security;

// A running program or a program on disk, by the process identifier.
@interface StandInCode : NSObject {
 @public
  int32_t _pid;
}
@end

@implementation StandInCode
@end

namespace {

StandInCode* code_of(int32_t pid) {
  StandInCode* code = [[StandInCode alloc] init];
  code->_pid = pid;
  return code;
}

int32_t pid_of(CFTypeRef code) { return static_cast<StandInCode*>(object_of(code))->_pid; }

}  // namespace

OSStatus SecCodeCopyGuestWithAttributes(SecCodeRef, CFDictionaryRef attributes, uint32_t, SecCodeRef* guest) {
  NSData* token = object_of(CFDictionaryGetValue(attributes, kSecGuestAttributeAudit));
  int32_t pid = [object_of(CFDictionaryGetValue(attributes, kSecGuestAttributePid)) intValue];
  if (token != nil) {
    audit_token_t words;
    std::memcpy(&words, [token bytes], sizeof words);
    pid = audit_token_to_pid(words);
  }
  security.lookUps.push_back(pid);
  if (!security.identifiers.contains(pid)) return errSecCSNoSuchCode;
  *guest = bridged<SecCodeRef>(code_of(pid));
  return errSecSuccess;
}

OSStatus SecCodeCopyStaticCode(SecCodeRef code, uint32_t, SecStaticCodeRef* staticCode) {
  const int32_t pid = pid_of(code);
  security.lookUps.push_back(pid);
  *staticCode = bridged<SecStaticCodeRef>(code_of(pid));
  return errSecSuccess;
}

OSStatus SecCodeCopySigningInformation(SecStaticCodeRef code, uint32_t, CFDictionaryRef* information) {
  const int32_t pid = pid_of(code);
  security.lookUps.push_back(pid);
  NSString* identifier = @(security.identifiers[pid].c_str());
  *information = bridged<CFDictionaryRef>([@{
    object_of(kSecCodeInfoPList) : @{object_of(kCFBundleIdentifierKey) : identifier}
  } retain]);
  return errSecSuccess;
}

OSStatus SecCodeCopyPath(SecStaticCodeRef, uint32_t, CFURLRef*) { return errSecCSNoSuchCode; }

// No header declares this function. The extension calls it as platform/Process.h describes it.
extern "C" pid_t responsibility_get_pid_responsible_for_pid(pid_t pid) {
  security.pidsAsked.push_back(pid);
  return security.responsible.contains(pid) ? security.responsible[pid] : pid;
}
