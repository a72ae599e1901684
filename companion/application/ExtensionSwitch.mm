#import "companion/application/ExtensionSwitch.h"

namespace {

// What to do about an error of a request. Nil for those that the system's own words explain.
NSString* advice(NSInteger code) {
  switch (code) {
    case OSSystemExtensionErrorMissingEntitlement:
      return @"Sign the application with the entitlement com.apple.developer.system-extension.install.";
    case OSSystemExtensionErrorUnsupportedParentBundleLocation:
      return @"Move the application into /Applications.";
    case OSSystemExtensionErrorExtensionNotFound:
      return @"The application holds no extension of this name: build and install it anew.";
    case OSSystemExtensionErrorCodeSignatureInvalid:
      return @"Sign the extension, then the application around it, with one identity.";
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

NSString* words_for(NSError* error) {
  return [error.domain isEqualToString:OSSystemExtensionErrorDomain] ? advice(error.code) : nil;
}

}  // namespace

@implementation ExtensionSwitch

- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer {
  return [super initWithExtension:identifier state:@"Nothing asked yet" observer:observer];
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

// An answer to the last request; one to a request before it says nothing about how things stand.
- (void)answer:(OSSystemExtensionRequest*)request with:(NSString*)state {
  if (request != _request) return;
  [_request autorelease];
  _request = nil;
  [self show:state];
}

- (OSSystemExtensionReplacementAction)request:(OSSystemExtensionRequest*)request
                  actionForReplacingExtension:(OSSystemExtensionProperties*)existing
                                withExtension:(OSSystemExtensionProperties*)extension {
  // Also an older version: whoever starts an application of an older build wants that one.
  return OSSystemExtensionReplacementActionReplace;
}

- (void)requestNeedsUserApproval:(OSSystemExtensionRequest*)request {
  if (request == _request) [self show:@"Waiting for you: allow it in the system's settings"];
}

- (void)request:(OSSystemExtensionRequest*)request didFinishWithResult:(OSSystemExtensionRequestResult)result {
  NSString* state = _activating ? @"Active" : @"Not active";
  if (result == OSSystemExtensionRequestWillCompleteAfterReboot)
    state = [state stringByAppendingString:@" after a restart"];
  [self answer:request with:state];
}

- (void)request:(OSSystemExtensionRequest*)request didFailWithError:(NSError*)error {
  [self answer:request with:failure_text(error, words_for(error))];
}

@end
