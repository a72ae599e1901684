#pragma once

#import <Foundation/Foundation.h>

#include <cstdint>

// The messages from a companion to the extension, in the order of orvane::OrvaneSECommunication. The companion and the
// extension must be built with the same types.
@protocol OrvaneSECommunication <NSObject>
- (void)pingWithReply:(void (^)(BOOL alive))reply;
- (void)getAppFilterStateWithReply:(void (^)(BOOL active))reply;
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
