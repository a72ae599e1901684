#pragma once

#import <Foundation/Foundation.h>

#include <functional>
#include <string>
#include <vector>

// A stand-in for the framework. Tests make its objects, and inspect what the filter read and called.
//
// Where the behaviour comes from: the declarations, the values of the enumerations, which properties may be nil, and
// when a provider is called are those of the SDK's headers NEFilterFlow.h, NEFilterDataProvider.h, NEFilterProvider.h,
// NEFilterSettings.h, NEProvider.h, NENetworkRule.h and NWHostEndpoint.h. According to NENetworkRule.h, the endpoint of
// a rule must contain an address, and the prefix of a rule without one is NSNotFound. What the framework does with an
// empty host is not documented, so Refusal lists what it may do.

#define NEFilterFlowBytesMax UINT64_MAX

typedef NS_ENUM(NSInteger, NENetworkRuleProtocol) { NENetworkRuleProtocolUDP = 2 };
typedef NS_ENUM(NSInteger, NETrafficDirection) { NETrafficDirectionOutbound = 2 };
typedef NS_ENUM(NSInteger, NEFilterAction) { NEFilterActionAllow = 1, NEFilterActionFilterData = 4 };
typedef NS_ENUM(NSInteger, NEProviderStopReason) { NEProviderStopReasonUserInitiated = 1 };

// The base class. The content is a description, or a dictionary of properties. If the filter reads a property for which
// the class has no method, the object records the property's name and returns its value from the dictionary.
@interface StandInObject : NSObject {
  id _content;
}
+ (instancetype)withContent:(id)content;
- (instancetype)initWithContent:(id)content;
@end

@interface NWEndpoint : StandInObject
@end

@interface NWHostEndpoint : NWEndpoint
+ (instancetype)endpointWithHostname:(NSString*)hostname port:(NSString*)port;
- (NSString*)hostname;
- (NSString*)port;
@end

@interface NEFilterFlow : StandInObject
- (NSURL*)URL;
- (NSUUID*)identifier;
- (NSData*)sourceAppAuditToken;
@end

@interface NEFilterSocketFlow : NEFilterFlow
- (NWEndpoint*)remoteEndpoint;
- (NSString*)remoteHostname;
- (int)socketType;
@end

@interface NEFilterVerdict : StandInObject
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
+ (NEFilterDataVerdict*)dataVerdictWithPassBytes:(NSUInteger)passBytes peekBytes:(NSUInteger)peekBytes;
@end

@interface NENetworkRule : StandInObject {
  NWHostEndpoint* _matchRemoteEndpoint;
  NSUInteger _matchRemotePrefix;
}
- (NWHostEndpoint*)matchRemoteEndpoint;
- (NSUInteger)matchRemotePrefix;
- (instancetype)initWithRemoteNetwork:(NWHostEndpoint*)remoteNetwork
                         remotePrefix:(NSUInteger)remotePrefix
                         localNetwork:(NWHostEndpoint*)localNetwork
                          localPrefix:(NSUInteger)localPrefix
                             protocol:(NENetworkRuleProtocol)protocol
                            direction:(NETrafficDirection)direction;
@end

@interface NEFilterRule : StandInObject
- (instancetype)initWithNetworkRule:(NENetworkRule*)networkRule action:(NEFilterAction)action;
@end

@interface NEFilterSettings : StandInObject
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

// How the framework refuses a rule that does not contain an address.
enum class Refusal { None, NoObject, NoEndpoint, NoPrefix };

// What the filter read and applied, and the handler with which a test completes applySettings.
inline struct NetworkExtensionState {
  std::string reads;  // the properties that were read, each followed by a space
  std::string appliedSettings;
  Refusal refusal = Refusal::None;
  bool refusesAll = false;                      // also rules with an address
  std::function<void(NSError*)> completeApply;  // the completion handler of applySettings
} networkExtension;

// Plays the framework for one flow whose outbound bytes arrive in these pieces. First asks the provider for its verdict
// on the new flow. After each piece, shows the provider the bytes that the provider has not passed yet, at most as many
// as the last verdict's peek count (documentation of dataVerdictWithPassBytes:peekBytes:). Stops at a final verdict. If
// there is none, asks about the end of the data. Returns the final verdict, and how many bytes had passed before it:
// "drop after 0".
// `showsAgain`: whether bytes that the provider has seen but not passed are shown again. The documentation does not say
// what the framework does.
std::string play_flow(NEFilterDataProvider* provider, NEFilterFlow* flow, const std::vector<std::string>& pieces,
                      bool showsAgain);
