#import "companion/application/ExtensionSwitch.h"

#include "companion/application/Advice.h"

namespace {

// Advice.cpp numbers the codes.
static_assert(OSSystemExtensionErrorUnknown == 1 && OSSystemExtensionErrorMissingEntitlement == 2 &&
              OSSystemExtensionErrorUnsupportedParentBundleLocation == 3 &&
              OSSystemExtensionErrorExtensionNotFound == 4 && OSSystemExtensionErrorExtensionMissingIdentifier == 5 &&
              OSSystemExtensionErrorDuplicateExtensionIdentifer == 6 &&
              OSSystemExtensionErrorUnknownExtensionCategory == 7 && OSSystemExtensionErrorCodeSignatureInvalid == 8 &&
              OSSystemExtensionErrorValidationFailed == 9 && OSSystemExtensionErrorForbiddenBySystemPolicy == 10 &&
              OSSystemExtensionErrorRequestCanceled == 11 && OSSystemExtensionErrorRequestSuperseded == 12 &&
              OSSystemExtensionErrorAuthorizationRequired == 13);

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

- (BOOL)isPending {
  return _request != nil;
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
  [self finish:request withState:failure_text(error, OSSystemExtensionErrorDomain, orvane::extension_advice)];
}

@end
