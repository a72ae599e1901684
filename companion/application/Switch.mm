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

NSString* failure_text(NSError* error, NSString* domain, std::string (*advice)(int64_t code)) {
  NSString* words = [error.domain isEqualToString:domain] ? @(advice(error.code).c_str()) : @"";
  return [NSString stringWithFormat:@"Failed: %@ (%@, %ld) %@", error.localizedDescription, error.domain,
                                    static_cast<long>(error.code), words];
}
