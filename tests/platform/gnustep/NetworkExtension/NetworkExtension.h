#pragma once

#import <Foundation/Foundation.h>

#include <functional>
#include <string>

// The part of the framework that a filter meets, as a test scripts it and looks into it.

#define NEFilterFlowBytesMax UINT64_MAX

typedef NS_ENUM(NSInteger, NENetworkRuleProtocol) { NENetworkRuleProtocolUDP = 2 };
typedef NS_ENUM(NSInteger, NETrafficDirection) { NETrafficDirectionOutbound = 2 };
typedef NS_ENUM(NSInteger, NEFilterAction) { NEFilterActionAllow = 1, NEFilterActionFilterData = 4 };
typedef NS_ENUM(NSInteger, NEProviderStopReason) { NEProviderStopReasonUserInitiated = 1 };

// What each object here is: one other, such as its description. A question for which its class has no method is noted
// down, and answered from that other, a dictionary then.
@interface Described : NSObject {
  id _content;
}
+ (instancetype)described:(id)content;
- (instancetype)initWithDescription:(id)content;
@end

@interface NWEndpoint : Described
@end

@interface NWHostEndpoint : NWEndpoint
+ (instancetype)endpointWithHostname:(NSString*)hostname port:(NSString*)port;
- (NSString*)hostname;
- (NSString*)port;
@end

@interface NEFilterFlow : Described
- (NSURL*)URL;
- (NSData*)sourceAppAuditToken;
@end

@interface NEFilterSocketFlow : NEFilterFlow
- (NWEndpoint*)remoteEndpoint;
- (NSString*)remoteHostname;
- (int)socketType;
@end

@interface NEFilterVerdict : Described
+ (instancetype)allowVerdict;
+ (instancetype)dropVerdict;
@end

@interface NEFilterNewFlowVerdict : NEFilterVerdict
+ (NEFilterNewFlowVerdict*)filterDataVerdictWithFilterInbound:(BOOL)filterInbound
                                             peekInboundBytes:(NSUInteger)peekInboundBytes
                                               filterOutbound:(BOOL)filterOutbound
                                            peekOutboundBytes:(NSUInteger)peekOutboundBytes;
@end

@interface NEFilterDataVerdict : NEFilterVerdict
@end

@interface NENetworkRule : Described
- (instancetype)initWithRemoteNetwork:(NWHostEndpoint*)remoteNetwork
                         remotePrefix:(NSUInteger)remotePrefix
                         localNetwork:(NWHostEndpoint*)localNetwork
                          localPrefix:(NSUInteger)localPrefix
                             protocol:(NENetworkRuleProtocol)protocol
                            direction:(NETrafficDirection)direction;
@end

@interface NEFilterRule : Described
- (instancetype)initWithNetworkRule:(NENetworkRule*)networkRule action:(NEFilterAction)action;
@end

@interface NEFilterSettings : Described
- (instancetype)initWithRules:(NSArray*)rules defaultAction:(NEFilterAction)defaultAction;
@end

@interface NEFilterDataProvider : NSObject
+ (void)startSystemExtensionMode;
- (void)startFilterWithCompletionHandler:(void (^)(NSError* error))completionHandler;
- (void)stopFilterWithReason:(NEProviderStopReason)reason completionHandler:(void (^)(void))completionHandler;
- (NEFilterNewFlowVerdict*)handleNewFlow:(NEFilterFlow*)flow;
- (NEFilterDataVerdict*)handleOutboundDataFromFlow:(NEFilterFlow*)flow
                              readBytesStartOffset:(NSUInteger)offset
                                         readBytes:(NSData*)readBytes;
- (NEFilterDataVerdict*)handleOutboundDataCompleteForFlow:(NEFilterFlow*)flow;
- (void)applySettings:(NEFilterSettings*)settings completionHandler:(void (^)(NSError* error))completionHandler;
@end

@compatibility_alias NEFilterProvider NEFilterDataProvider;

// What happened, and what a test does to the framework.
inline struct NetworkExtensionState {
  std::string asked;                       // each question, followed by a space
  std::string applied;                     // the settings
  std::function<void(NSError*)> complete;  // answers what was applied
} networkExtension;
