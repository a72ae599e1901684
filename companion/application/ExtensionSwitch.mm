#import "companion/application/ExtensionSwitch.h"

namespace {

// What the user can do about a failed request. Nil if the system's message says enough.
NSString* advice_for_code(NSInteger code) {
  switch (code) {
    case OSSystemExtensionErrorMissingEntitlement:
      return @"Sign the application with the entitlement com.apple.developer.system-extension.install.";
    case OSSystemExtensionErrorUnsupportedParentBundleLocation:
      return @"Move the application into /Applications.";
    case OSSystemExtensionErrorExtensionNotFound:
      return @"The application contains no extension of this name. Build and install it again.";
    case OSSystemExtensionErrorCodeSignatureInvalid:
      return @"Sign the extension, then the application, with the same identity.";
    case OSSystemExtensionErrorValidationFailed:
      return @"The system refuses the extension's Info.plist or entitlements. Its log says why: "
             @"log show --last 5m --predicate 'process == \"sysextd\"'";
    case OSSystemExtensionErrorForbiddenBySystemPolicy:
      return @"A rule of this Mac's administrator forbids the extension.";
    case OSSystemExtensionErrorRequestCanceled:
      return @"It was cancelled.";
    case OSSystemExtensionErrorAuthorizationRequired:
      return @"It needs an administrator's password.";
    default:
      return nil;
  }
}

NSString* advice_for(NSError* error) {
  return [error.domain isEqualToString:OSSystemExtensionErrorDomain] ? advice_for_code(error.code) : nil;
}

}  // namespace

@implementation ExtensionSwitch

- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer {
  return [super initWithExtension:identifier state:@"No request yet" observer:observer];
}

- (void)dealloc {
  _request.delegate = nil;
  [_request release];
  [super dealloc];
}

- (void)submit:(OSSystemExtensionRequest*)request {
  [_request autorelease];
  _request = [request retain];
  request.delegate = self;
  [self show:_activating ? @"Activating..." : @"Deactivating..."];
  [[OSSystemExtensionManager sharedManager] submitRequest:request];
}

- (void)activate {
  _activating = YES;
  [self submit:[OSSystemExtensionRequest activationRequestForExtension:_extension queue:dispatch_get_main_queue()]];
}

- (void)deactivate {
  _activating = NO;
  [self submit:[OSSystemExtensionRequest deactivationRequestForExtension:_extension queue:dispatch_get_main_queue()]];
}

// Shows the outcome of the last request. The outcome of a replaced request is ignored, because the later request
// decides the state.
- (void)finish:(OSSystemExtensionRequest*)request withState:(NSString*)state {
  if (request != _request) return;
  [_request autorelease];
  _request = nil;
  [self show:state];
}

- (OSSystemExtensionReplacementAction)request:(OSSystemExtensionRequest*)request
                  actionForReplacingExtension:(OSSystemExtensionProperties*)existing
                                withExtension:(OSSystemExtensionProperties*)extension {
  // Replace even a newer version: a user who opens an older application wants that application's extension.
  return OSSystemExtensionReplacementActionReplace;
}

- (void)requestNeedsUserApproval:(OSSystemExtensionRequest*)request {
  if (request == _request) [self show:@"Waiting for you: allow it in the system's settings"];
}

- (void)request:(OSSystemExtensionRequest*)request didFinishWithResult:(OSSystemExtensionRequestResult)result {
  NSString* state = _activating ? @"Active" : @"Not active";
  if (result == OSSystemExtensionRequestWillCompleteAfterReboot)
    state = [state stringByAppendingString:@" after a restart"];
  [self finish:request withState:state];
}

- (void)request:(OSSystemExtensionRequest*)request didFailWithError:(NSError*)error {
  [self finish:request withState:failure_text(error, advice_for(error))];
}

@end
