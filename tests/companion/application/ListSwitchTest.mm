#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>

#import "companion/application/ListSwitch.h"
#include "support/TemporaryFolder.h"

namespace {

// The system, of which launchd runs agents.
struct {
  NSInteger status, statusOfLegacyAgent;  // values of SMAppServiceStatus
  std::string home, launchctl;            // the user's folder, and the arguments of the last call of launchctl
  std::string application = "/Applications/OrvaneSE.app";
  bool refuses = false;  // to register the agent, and to unregister it
} launchd;

}  // namespace

// A stand-in for macOS 13 and later. Apple's page on SMAppService describes these methods, and its page on
// statusForLegacyPlist(at:) says that this method takes the property list of an agent from an earlier system.
@interface SMAppService : NSObject
@end

@implementation SMAppService
+ (instancetype)agentServiceWithPlistName:(NSString*)name {
  return [[self new] autorelease];
}
+ (NSInteger)statusForLegacyURL:(NSURL*)url {
  return [[NSFileManager defaultManager] fileExistsAtPath:[url path]] ? launchd.statusOfLegacyAgent : 3;
}
- (NSInteger)status {
  return launchd.status;
}
- (BOOL)registerAndReturnError:(NSError**)error {
  return [self changeStatus:1 error:error];
}
- (BOOL)unregisterAndReturnError:(NSError**)error {
  return [self changeStatus:0 error:error];
}
- (BOOL)changeStatus:(NSInteger)status error:(NSError**)error {
  if (launchd.refuses && error != nullptr)
    *error = [NSError errorWithDomain:@"SMAppServiceErrorDomain" code:1 userInfo:nil];
  if (!launchd.refuses) launchd.status = status;
  return !launchd.refuses;
}
@end

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wobjc-protocol-method-implementation"  // replaces methods on purpose
@implementation NSTask (StandIn)
+ (NSTask*)launchedTaskWithExecutableURL:(NSURL*)url
                               arguments:(NSArray*)arguments
                                   error:(NSError**)error
                      terminationHandler:(void (^)(NSTask*))terminationHandler {
  launchd.launchctl = [[arguments componentsJoinedByString:@" "] UTF8String];
  return [NSTask launchedTaskWithLaunchPath:@"/bin/true" arguments:@[]];
}
@end
@implementation NSDictionary (StandIn)
- (BOOL)writeToURL:(NSURL*)url error:(NSError**)error {
  return [self writeToFile:[url path] atomically:NO];
}
@end
@implementation NSBundle (StandIn)
- (NSString*)bundlePath {
  return @(launchd.application.c_str());
}
- (NSString*)pathForAuxiliaryExecutable:(NSString*)name {
  return @"/bin/false";
}
@end
@implementation NSString (StandIn)
- (NSString*)stringByExpandingTildeInPath {
  return [@(launchd.home.c_str()) stringByAppendingString:[self substringFromIndex:1]];
}
@end
#pragma clang diagnostic pop

namespace orvane {
namespace {

TEST(ListSwitch, ShowsTheAgentOfAnOlderSystemUntilItIsReplaced) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  const TemporaryFolder folder;
  launchd = {3, 1, folder.path(), ""};
  const auto agent = folder.write("Library/LaunchAgents/org.orvane.keeper.plist", "");
  ListSwitch* list = [[[ListSwitch alloc] initWithObserver:nil] autorelease];
  [list refresh];
  EXPECT_TRUE([list isOn]);
  EXPECT_EQ([[list state] rangeOfString:@"Off"].location, NSNotFound) << [[list state] UTF8String];
  launchd.statusOfLegacyAgent = 2;
  [list refresh];
  EXPECT_EQ([[list state] rangeOfString:@"Waiting for you"].location, 0U) << [[list state] UTF8String];
  [list switchOn];
  EXPECT_FALSE(std::filesystem::exists(agent));
  EXPECT_EQ(launchd.launchctl, "bootout gui/" + std::to_string(getuid()) + "/org.orvane.keeper");
  EXPECT_TRUE([list isOn]) << "the agent of the bundle";
  [list switchOff];
  EXPECT_EQ([[list state] rangeOfString:@"Off"].location, 0U) << [[list state] UTF8String];
  [pool drain];
}

TEST(ListSwitch, InstallsNoAgentForAnApplicationThatTheUserHasNotMoved) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  const TemporaryFolder folder;
  launchd = {3, 3, folder.path(), "", "/private/var/folders/AppTranslocation/OrvaneSE.app"};
  ListSwitch* list = [[[ListSwitch alloc] initWithObserver:nil] autorelease];
  [list switchOn];
  EXPECT_FALSE([list isOn]);
  EXPECT_NE([[list state] rangeOfString:@"Move the application"].location, NSNotFound) << [[list state] UTF8String];
  [pool drain];
}

TEST(ListSwitch, AdvisesHowToDoInTheSettingsWhatTheSystemRefuses) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  const TemporaryFolder folder;
  const std::tuple<NSInteger, SEL, NSString*> rows[] = {
      {0, @selector(switchOn), @"Allow OrvaneSE in the system's settings"},
      {1, @selector(switchOff), @"switch OrvaneSE off in the system's settings"}};
  for (const auto& [isOn, request, expected] : rows) {
    launchd = {isOn, 3, folder.path(), ""};
    launchd.refuses = true;
    ListSwitch* list = [[[ListSwitch alloc] initWithObserver:nil] autorelease];
    [list performSelector:request];
    EXPECT_EQ([list isOn], isOn);
    EXPECT_NE([[list state] rangeOfString:expected].location, NSNotFound) << [[list state] UTF8String];
  }
  [pool drain];
}

}  // namespace
}  // namespace orvane
