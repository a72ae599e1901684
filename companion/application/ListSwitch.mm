#import "companion/application/ListSwitch.h"

#include <unistd.h>

#include "companion/application/Advice.h"
#import "companion/application/ControlCommand.h"

// The part of SMAppService that this file uses. SDKs before macOS 13 do not declare this class.
@protocol AgentService
+ (id<AgentService>)agentServiceWithPlistName:(NSString*)name;
+ (NSInteger)statusForLegacyURL:(NSURL*)url;
- (BOOL)registerAndReturnError:(NSError**)error;
- (BOOL)unregisterAndReturnError:(NSError**)error;
@property(readonly) NSInteger status;
@end

namespace {

NSString* const kLabel = @"org.orvane.keeper";
// When this class asks again whether the list is in force: while it is, and while it is not, for example because the
// keeper has only begun to start.
constexpr NSTimeInterval kIntervalInForce = 60;
constexpr NSTimeInterval kIntervalMissing = 5;
constexpr NSTimeInterval kTimeout = 10;      // for orvanectl, which itself waits 2 s for the extension
constexpr NSTimeInterval kEditTimeout = 60;  // changing a list of a million lines takes some seconds

// The values of SMAppServiceStatus.
enum AgentStatus : NSInteger { kNotRegistered, kEnabled, kRequiresApproval, kNotFound };

// Nil before macOS 13.
Class<AgentService> service_class() { return static_cast<Class<AgentService>>(NSClassFromString(@"SMAppService")); }

// Nil before macOS 13.
id<AgentService> agent_service() {
  return [service_class() agentServiceWithPlistName:[kLabel stringByAppendingPathExtension:@"plist"]];
}

NSString* orvanectl() { return [[NSBundle mainBundle] pathForAuxiliaryExecutable:@"orvanectl"]; }

void run_orvanectl(const char* arguments, NSTimeInterval timeout,
                   void (^handler)(int exitCode, NSString* output, NSString* error)) {
  [ControlCommand run:orvanectl()
            arguments:[@(arguments) componentsSeparatedByString:@" "]
              timeout:timeout
                 then:handler];
}

NSString* property_list_path() {
  return [[@"~/Library/LaunchAgents" stringByExpandingTildeInPath]
      stringByAppendingPathComponent:[kLabel stringByAppendingPathExtension:@"plist"]];
}

// Runs launchctl, and waits until it has ended, which takes some milliseconds.
BOOL run_launchctl(NSArray<NSString*>* arguments, NSError** error) {
  NSTask* task = [NSTask launchedTaskWithExecutableURL:[NSURL fileURLWithPath:@"/bin/launchctl"]
                                             arguments:arguments
                                                 error:error
                                    terminationHandler:nil];
  if (task == nil) return NO;
  [task waitUntilExit];
  if (task.terminationStatus == 0) return YES;
  *error = [NSError errorWithDomain:@"launchctl" code:task.terminationStatus userInfo:nil];
  return NO;
}

NSString* session() { return [NSString stringWithFormat:@"gui/%u", getuid()]; }

BOOL has_property_list() { return [[NSFileManager defaultManager] fileExistsAtPath:property_list_path()]; }

BOOL install_agent(NSError** error) {
  NSDictionary* agent = @{
    @"Label" : kLabel,
    @"ProgramArguments" : @[ orvanectl(), @"keep" ],
    @"RunAtLoad" : @YES,
    @"KeepAlive" : @YES,
    // The keeper opens each file of its lists to watch it. The system's default is 256.
    @"SoftResourceLimits" : @{@"NumberOfFiles" : @4096},
  };
  NSString* path = property_list_path();
  NSFileManager* files = [NSFileManager defaultManager];
  if ([files createDirectoryAtPath:path.stringByDeletingLastPathComponent
          withIntermediateDirectories:YES
                           attributes:nil
                                error:error] &&
      [agent writeToURL:[NSURL fileURLWithPath:path] error:error] &&
      run_launchctl(@[ @"bootstrap", session(), path ], error))
    return YES;
  [files removeItemAtPath:path error:nil];  // while the file exists, the agent counts as switched on
  return NO;
}

BOOL remove_agent(NSError** error) {
  run_launchctl(@[ @"bootout", [session() stringByAppendingPathComponent:kLabel] ], error);  // fails if it does not run
  return [[NSFileManager defaultManager] removeItemAtPath:property_list_path() error:error];
}

// If the Mac had an older system when the keeper was switched on, launchd still runs the agent of that time, and the
// system does not count it as registered by the application.
AgentStatus status_of_agent() {
  const Class<AgentService> services = service_class();
  if (services == Nil) return has_property_list() ? kEnabled : kNotRegistered;
  if (!has_property_list()) return static_cast<AgentStatus>(agent_service().status);
  return static_cast<AgentStatus>([services statusForLegacyURL:[NSURL fileURLWithPath:property_list_path()]]);
}

// Removes the agent that was switched on under an older system. It has the label of the agent that the system now
// registers.
void remove_agent_of_older_system() {
  if (agent_service() == nil || !has_property_list()) return;
  NSError* error = nil;
  remove_agent(&error);
}

// `olderAdvice` is for systems before macOS 13.
NSString* failure(NSError* error, const char* advice, const char* olderAdvice) {
  return failure_text(error, agent_service() != nil ? advice : olderAdvice);
}

}  // namespace

@implementation ListSwitch

- (instancetype)initWithObserver:(id<SwitchObserver>)observer {
  return [super initWithExtension:@"" state:@"Asking the system..." observer:observer];
}

- (void)switchOn {
  // Until the user moves a downloaded application, the system runs it from a temporary copy. This copy is gone when the
  // Mac restarts, so the agent must not run it.
  if (![[NSBundle mainBundle].bundlePath hasPrefix:@"/Applications/"])
    return [self show:[@"Off: " stringByAppendingString:@(orvane::kMoveAdvice)]];
  remove_agent_of_older_system();
  NSError* error = nil;
  const id<AgentService> service = agent_service();
  if (status_of_agent() == kEnabled ||
      (service != nil ? [service registerAndReturnError:&error] : install_agent(&error)))
    return [self refresh];
  // The system reports an error if the user must allow the agent first.
  if (status_of_agent() == kRequiresApproval) return [self refresh];
  [self show:failure(error,
                     "Allow OrvaneSE in the system's settings, General, Login Items, and press the button "
                     "again.",
                     "Log out and in, and press the button again. If that does not help, check that you may write in "
                     "~/Library/LaunchAgents.")];
}

- (void)switchOff {
  remove_agent_of_older_system();
  NSError* error = nil;
  const id<AgentService> service = agent_service();
  const AgentStatus status = status_of_agent();
  const bool isRegistered = status == kEnabled || status == kRequiresApproval;
  if (!isRegistered || (service != nil ? [service unregisterAndReturnError:&error] : remove_agent(&error)))
    return [self refresh];
  [self show:failure(error,
                     "Press the button again. If that does not help, switch OrvaneSE off in the system's settings, "
                     "General, Login Items.",
                     "Check that you may write in ~/Library/LaunchAgents, and press the button again.")];
}

- (void)refresh {
  const AgentStatus status = status_of_agent();
  if (status != kEnabled) _list = orvane::ListState();
  switch (status) {
    case kEnabled:
      return [self askOrvanectl];
    case kRequiresApproval:
      [self show:@"Waiting for you: allow OrvaneSE in the system's settings, General, Login Items"];
      return [self refreshAfter:kIntervalMissing];
    case kNotRegistered:
    case kNotFound:  // never registered
      return [self show:@"Off: the extension gets no list"];
  }
}

- (void)refreshAfter:(NSTimeInterval)interval {
  [NSObject cancelPreviousPerformRequestsWithTarget:self selector:@selector(refresh) object:nil];
  [self performSelector:@selector(refresh) withObject:nil afterDelay:interval];
}

- (void)askOrvanectl {
  _asksAgain = _isAsking;
  if (_isAsking) return;
  _isAsking = YES;
  run_orvanectl(orvane::kStatusArguments, kTimeout, ^(int, NSString* output, NSString*) {
    _isAsking = NO;
    _list = orvane::list_state(output.UTF8String);
    if (_asksAgain || status_of_agent() != kEnabled) return [self refresh];
    [self show:@(orvane::list_text(*_list, orvane::now_in_seconds()).c_str())];
    [self refreshAfter:_list->isInForce ? kIntervalInForce : kIntervalMissing];
  });
}

- (void)editWith:(const char*)arguments then:(void (^)(NSString* fault))handler {
  run_orvanectl(arguments, kEditTimeout, ^(int exitCode, NSString*, NSString* error) {
    [self refresh];
    handler(@(orvane::edit_fault(exitCode, error.UTF8String).c_str()));
  });
}

- (void)suspendThen:(void (^)(NSString* fault))handler {
  [self editWith:orvane::kSuspendArguments then:handler];
}

- (void)resumeThen:(void (^)(NSString* fault))handler {
  [self editWith:orvane::kResumeArguments then:handler];
}

- (BOOL)isOn {
  return status_of_agent() == kEnabled;
}

- (std::optional<orvane::ListState>)list {
  return _list;
}

- (BOOL)hasSuspendedNames {
  return _list && _list->suspendedNames > 0;
}

@end
