#import "companion/application/FilterSwitch.h"

#import <NetworkExtension/NetworkExtension.h>

#include "companion/application/Advice.h"

namespace {

// Advice.cpp numbers the codes.
static_assert(NEFilterManagerErrorConfigurationInvalid == 1 && NEFilterManagerErrorConfigurationDisabled == 2 &&
              NEFilterManagerErrorConfigurationStale == 3 && NEFilterManagerErrorConfigurationCannotBeRemoved == 4 &&
              NEFilterManagerErrorConfigurationPermissionDenied == 5 &&
              NEFilterManagerErrorConfigurationInternalError == 6);

}  // namespace

@implementation FilterSwitch

- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer {
  self = [super initWithExtension:identifier state:@"Asking the system..." observer:observer];
  if (self != nil) {
    [[NSNotificationCenter defaultCenter] addObserver:self
                                             selector:@selector(configurationChanged:)
                                                 name:NEFilterConfigurationDidChangeNotification
                                               object:nil];
  }
  return self;
}

- (void)dealloc {
  [[NSNotificationCenter defaultCenter] removeObserver:self];
  [super dealloc];
}

- (void)refresh {
  [self loadThen:@selector(showConfiguration)];
}

- (void)switchOn {
  [self loadThen:@selector(saveOn)];
}

- (void)switchOff {
  [self loadThen:@selector(saveOff)];
}

- (void)removeThen:(void (^)(void))handler {
  NEFilterManager* filter = [NEFilterManager sharedManager];
  [filter loadFromPreferencesWithCompletionHandler:^(NSError* error) {
    dispatch_async(dispatch_get_main_queue(), ^{
      if (error == nil && filter.providerConfiguration != nil) {
        return [filter removeFromPreferencesWithCompletionHandler:^(NSError* fault) {
          [self didSave:fault];
          dispatch_async(dispatch_get_main_queue(), handler);
        }];
      }
      if (error != nil) [self showFailure:error];
      handler();
    });
  }];
}

// Loads the stored configuration, because the system refuses to save a configuration that was not loaded. Then runs
// `step` on the main thread, because the system may call the completion handler on any thread.
- (void)loadThen:(SEL)step {
  [[NEFilterManager sharedManager] loadFromPreferencesWithCompletionHandler:^(NSError* error) {
    [self performSelectorOnMainThread:error != nil ? @selector(showFailure:) : step withObject:error waitUntilDone:NO];
  }];
}

- (void)didSave:(NSError*)error {
  if (error == nil) return [self performSelectorOnMainThread:@selector(refresh) withObject:nil waitUntilDone:NO];
  // Load again, because the shared object still has the change that the system refused.
  [[NEFilterManager sharedManager] loadFromPreferencesWithCompletionHandler:^(NSError*) {
    [self performSelectorOnMainThread:@selector(showFailure:) withObject:error waitUntilDone:NO];
  }];
}

- (void)saveOn {
  NEFilterManager* filter = [NEFilterManager sharedManager];
  NEFilterProviderConfiguration* configuration = [[[NEFilterProviderConfiguration alloc] init] autorelease];
  configuration.filterSockets = YES;
  configuration.filterPackets = NO;
  configuration.filterDataProviderBundleIdentifier = _extension;
  filter.providerConfiguration = configuration;
  filter.localizedDescription = @"OrvaneSE";
  filter.enabled = YES;
  [filter saveToPreferencesWithCompletionHandler:^(NSError* error) {
    [self didSave:error];
  }];
}

- (void)saveOff {
  NEFilterManager* filter = [NEFilterManager sharedManager];
  if (filter.providerConfiguration == nil) return [self showConfiguration];
  filter.enabled = NO;
  [filter saveToPreferencesWithCompletionHandler:^(NSError* error) {
    [self didSave:error];
  }];
}

- (void)configurationChanged:(NSNotification*)notification {
  [self performSelectorOnMainThread:@selector(showConfiguration) withObject:nil waitUntilDone:NO];
}

- (void)showConfiguration {
  NEFilterManager* filter = [NEFilterManager sharedManager];
  _isSetUp = filter.providerConfiguration != nil;
  _isSwitchedOn = _isSetUp && filter.enabled;
  [self show:nil];
}

- (void)showFailure:(NSError*)error {
  [self show:failure_text(error, NEFilterErrorDomain, orvane::filter_advice)];
}

@end
