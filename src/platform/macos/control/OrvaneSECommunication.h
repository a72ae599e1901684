#pragma once

#import <Foundation/Foundation.h>

#include <cstdint>

// The messages from a companion to the extension, in the order of orvane::OrvaneSECommunication. The companion and the
// extension must be built with the same types. The replies have bool and not BOOL, because BOOL is a char on Intel and
// a bool on Apple silicon, so the two ends would disagree if one of them ran under Rosetta.
@protocol OrvaneSECommunication <NSObject>
- (void)pingWithReply:(void (^)(bool alive))reply;
- (void)getAppFilterStateWithReply:(void (^)(bool active))reply;
- (void)start;
- (void)stop;
- (void)addApplicationIdentifier:(NSString*)identifier;
- (void)removeApplicationIdentifier:(NSString*)identifier;
- (void)setApplicationIdentifiers:(NSArray*)identifiers;
- (void)addHostname:(NSString*)hostname;
- (void)removeHostname:(NSString*)hostname;
- (void)setHostnames:(NSSet*)hostnames;
- (void)setProperties:(NSDictionary*)properties forHostname:(NSString*)hostname;
- (void)getChangesCount:(void (^)(uint64_t count))reply;
@end
