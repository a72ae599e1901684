#import "platform/gnustep/NetworkExtension/NetworkExtension.h"

#include <objc/runtime.h>

#include "platform/macos/base/Block.h"

// The header declares methods that this file does not implement. resolveInstanceMethod: adds them at run time, or
// derived classes have them.
#pragma clang diagnostic ignored "-Wincomplete-implementation"

@implementation StandInObject

// Every property has this method, under the property's own name.
- (id)readProperty {
  networkExtension.reads.append(sel_getName(_cmd)).append(" ");
  return [_content objectForKey:NSStringFromSelector(_cmd)];
}

+ (BOOL)resolveInstanceMethod:(SEL)property {
  return class_addMethod(self, property, [self instanceMethodForSelector:@selector(readProperty)], "@@:");
}

+ (instancetype)withContent:(id)content {
  return [[[self alloc] initWithContent:content] autorelease];
}

- (instancetype)initWithContent:(id)content {
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
  return [self withContent:@{@"hostname" : hostname, @"port" : port}];
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
  return [self withContent:@"allow"];
}

+ (instancetype)dropVerdict {
  return [self withContent:@"drop"];
}

@end

@implementation NEFilterNewFlowVerdict

+ (NEFilterNewFlowVerdict*)filterDataVerdictWithFilterInbound:(BOOL)filterInbound
                                             peekInboundBytes:(NSUInteger)peekInboundBytes
                                               filterOutbound:(BOOL)filterOutbound
                                            peekOutboundBytes:(NSUInteger)peekOutboundBytes {
  return [self withContent:[NSString stringWithFormat:@"in %d %lu out %d %lu", filterInbound, peekInboundBytes,
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
  return
      [self initWithContent:[NSString stringWithFormat:@"%@/%lu from %@/%lu protocol %ld direction %ld", remoteNetwork,
                                                       remotePrefix, localNetwork, localPrefix, protocol, direction]];
}

@end

@implementation NEFilterRule

- (instancetype)initWithNetworkRule:(NENetworkRule*)networkRule action:(NEFilterAction)action {
  return [self initWithContent:[NSString stringWithFormat:@"%@: %ld", networkRule, action]];
}

@end

@implementation NEFilterSettings

- (instancetype)initWithRules:(NSArray*)rules defaultAction:(NEFilterAction)defaultAction {
  return [self initWithContent:[NSString stringWithFormat:@"%@; else %ld", [rules componentsJoinedByString:@"; "],
                                                          defaultAction]];
}

@end

@implementation NEFilterDataProvider

+ (void)startSystemExtensionMode {
}

- (void)applySettings:(NEFilterSettings*)settings completionHandler:(void (^)(NSError* error))completionHandler {
  networkExtension.appliedSettings = [[settings description] UTF8String];
  networkExtension.completeApply = orvane::Block<void(NSError*)>(completionHandler);
}

@end
