#import "platform/gnustep/NetworkExtension/NetworkExtension.h"

#include <objc/runtime.h>

#include "platform/macos/base/Block.h"

// What is left out is answered at run time, or by derived classes.
#pragma clang diagnostic ignored "-Wincomplete-implementation"

@implementation Described

static id answer(Described* object, SEL question) {
  networkExtension.asked.append(sel_getName(question)).append(" ");
  return [object->_content objectForKey:NSStringFromSelector(question)];
}

+ (BOOL)resolveInstanceMethod:(SEL)question {
  return class_addMethod(self, question, reinterpret_cast<IMP>(answer), "@@:");
}

+ (instancetype)described:(id)content {
  return [[[self alloc] initWithDescription:content] autorelease];
}

- (instancetype)initWithDescription:(id)content {
  self = [super init];
  _content = [content retain];
  return self;
}

- (void)dealloc {
  [_content release];
  [super dealloc];
}

- (NSString*)description {
  return [_content description];
}

@end

@implementation NWEndpoint
@end

@implementation NWHostEndpoint

+ (instancetype)endpointWithHostname:(NSString*)hostname port:(NSString*)port {
  return [self described:@{@"hostname" : hostname, @"port" : port}];
}

@end

@implementation NEFilterFlow
@end

@implementation NEFilterSocketFlow

- (int)socketType {
  return 1;
}

@end

@implementation NEFilterVerdict

+ (instancetype)allowVerdict {
  return [self described:@"allow"];
}

+ (instancetype)dropVerdict {
  return [self described:@"drop"];
}

@end

@implementation NEFilterNewFlowVerdict

+ (NEFilterNewFlowVerdict*)filterDataVerdictWithFilterInbound:(BOOL)filterInbound
                                             peekInboundBytes:(NSUInteger)peekInboundBytes
                                               filterOutbound:(BOOL)filterOutbound
                                            peekOutboundBytes:(NSUInteger)peekOutboundBytes {
  return [self described:[NSString stringWithFormat:@"in %d %lu out %d %lu", filterInbound, peekInboundBytes,
                                                    filterOutbound, peekOutboundBytes]];
}

@end

@implementation NEFilterDataVerdict
@end

@implementation NENetworkRule

- (instancetype)initWithRemoteNetwork:(NWHostEndpoint*)remoteNetwork
                         remotePrefix:(NSUInteger)remotePrefix
                         localNetwork:(NWHostEndpoint*)localNetwork
                          localPrefix:(NSUInteger)localPrefix
                             protocol:(NENetworkRuleProtocol)protocol
                            direction:(NETrafficDirection)direction {
  return [self
      initWithDescription:[NSString stringWithFormat:@"%@/%lu from %@/%lu protocol %ld direction %ld", remoteNetwork,
                                                     remotePrefix, localNetwork, localPrefix, protocol, direction]];
}

@end

@implementation NEFilterRule

- (instancetype)initWithNetworkRule:(NENetworkRule*)networkRule action:(NEFilterAction)action {
  return [self initWithDescription:[NSString stringWithFormat:@"%@: %ld", networkRule, action]];
}

@end

@implementation NEFilterSettings

- (instancetype)initWithRules:(NSArray*)rules defaultAction:(NEFilterAction)defaultAction {
  return [self initWithDescription:[NSString stringWithFormat:@"%@; else %ld", [rules componentsJoinedByString:@"; "],
                                                              defaultAction]];
}

@end

@implementation NEFilterDataProvider

+ (void)startSystemExtensionMode {
  networkExtension.asked += "start ";
}

- (void)applySettings:(NEFilterSettings*)settings completionHandler:(void (^)(NSError* error))completionHandler {
  networkExtension.applied = [[settings description] UTF8String];
  networkExtension.complete = orvane::Block<void(NSError*)>(completionHandler);
}

@end
