#import "platform/gnustep/NetworkExtension/NetworkExtension.h"

#include <objc/runtime.h>

#include <algorithm>
#include <cstdio>

#include "platform/macos/base/Block.h"

// resolveInstanceMethod: or a derived class has the methods that the header declares and this file lacks.
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

+ (NEFilterDataVerdict*)dataVerdictWithPassBytes:(NSUInteger)passBytes peekBytes:(NSUInteger)peekBytes {
  return [self withContent:[NSString stringWithFormat:@"pass %lu peek %lu", passBytes, peekBytes]];
}

@end

@implementation NENetworkRule

- (instancetype)initWithRemoteNetwork:(NWHostEndpoint*)remoteNetwork
                         remotePrefix:(NSUInteger)remotePrefix
                         localNetwork:(NWHostEndpoint*)localNetwork
                          localPrefix:(NSUInteger)localPrefix
                             protocol:(NENetworkRuleProtocol)protocol
                            direction:(NETrafficDirection)direction {
  const bool isRefused = networkExtension.refusesAll || [[remoteNetwork hostname] length] == 0;
  if (isRefused && networkExtension.refusal == Refusal::NoObject) {
    [self release];
    return nil;
  }
  if (!isRefused || networkExtension.refusal != Refusal::NoEndpoint) _matchRemoteEndpoint = [remoteNetwork retain];
  _matchRemotePrefix = isRefused && networkExtension.refusal == Refusal::NoPrefix ? NSNotFound : remotePrefix;
  return
      [self initWithContent:[NSString stringWithFormat:@"%@/%lu from %@/%lu protocol %ld direction %ld", remoteNetwork,
                                                       remotePrefix, localNetwork, localPrefix, protocol, direction]];
}

- (NWHostEndpoint*)matchRemoteEndpoint {
  return _matchRemoteEndpoint;
}

- (NSUInteger)matchRemotePrefix {
  return _matchRemotePrefix;
}

- (void)dealloc {
  [_matchRemoteEndpoint release];
  [super dealloc];
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

std::string play_flow(NEFilterDataProvider* provider, NEFilterFlow* flow, const std::vector<std::string>& pieces,
                      bool showsAgain) {
  size_t passed = 0, shown = 0, pass = 0, peek = 0;
  const auto final = [&](id verdict) {
    return [[verdict description] UTF8String] + (" after " + std::to_string(passed));
  };
  NEFilterVerdict* verdict = [provider handleNewFlow:flow];
  if (sscanf([[verdict description] UTF8String], "in 0 0 out 1 %lu", &peek) < 1) return final(verdict);
  std::string bytes;
  for (const std::string& piece : pieces) {
    bytes += piece;
    const size_t begin = showsAgain ? passed : std::max(passed, shown),
                 end = std::min(bytes.size() - passed, peek) + passed;
    if (end <= std::max(passed, shown)) continue;
    verdict = [provider handleOutboundDataFromFlow:flow
                              readBytesStartOffset:begin
                                         readBytes:[NSData dataWithBytes:&bytes[begin] length:end - begin]];
    shown = end;
    if (sscanf([[verdict description] UTF8String], "pass %lu peek %lu", &pass, &peek) < 2) return final(verdict);
    passed = std::min(passed + pass, bytes.size());
  }
  return final([provider handleOutboundDataCompleteForFlow:flow]);
}
