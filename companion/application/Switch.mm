#import "companion/application/Switch.h"

@implementation Switch

- (instancetype)initWithExtension:(NSString*)identifier state:(NSString*)state observer:(id<SwitchObserver>)observer {
  self = [super init];
  if (self != nil) {
    _extension = [identifier copy];
    _state = [state copy];
    _observer = observer;
  }
  return self;
}

- (void)dealloc {
  [_extension release];
  [_state release];
  [super dealloc];
}

- (NSString*)state {
  return [[_state copy] autorelease];
}

- (void)show:(NSString*)state {
  [_state autorelease];
  _state = [state copy];
  [_observer switchChanged];
}

@end

NSString* failure_text(NSError* error, const std::string& advice) {
  return [NSString stringWithFormat:@"Failed: %@ (%@, %ld) %s", error.localizedDescription, error.domain,
                                    static_cast<long>(error.code), advice.c_str()];
}

NSString* failure_text(NSError* error, NSString* domain, std::string (*advice)(int64_t code)) {
  constexpr int64_t kOtherDomain = 0;  // no domain has this code
  return failure_text(error, advice([error.domain isEqualToString:domain] ? error.code : kOtherDomain));
}
