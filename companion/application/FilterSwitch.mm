#import "companion/application/FilterSwitch.h"

#import <NetworkExtension/NetworkExtension.h>

namespace {

NSString* advice_for(NSError* error) {
  if (![error.domain isEqualToString:NEFilterErrorDomain] ||
      error.code != NEFilterManagerErrorConfigurationPermissionDenied)
    return nil;
  return @"Permission was denied: allow it when the system asks, and sign the application with the entitlement "
         @"com.apple.developer.networking.networkextension.";
}

}  // namespace

@implementation FilterSwitch

- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer {
  self = [super initWithExtension:identifier state:@"Unknown" observer:observer];
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

- (void)remove {
  [self loadThen:@selector(removeConfiguration)];
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

- (void)removeConfiguration {
  NEFilterManager* filter = [NEFilterManager sharedManager];
  if (filter.providerConfiguration == nil) return [self showConfiguration];
  [filter removeFromPreferencesWithCompletionHandler:^(NSError* error) {
    [self didSave:error];
  }];
}

- (void)configurationChanged:(NSNotification*)notification {
  [self performSelectorOnMainThread:@selector(showConfiguration) withObject:nil waitUntilDone:NO];
}

- (void)showConfiguration {
  NEFilterManager* filter = [NEFilterManager sharedManager];
  if (filter.providerConfiguration == nil) return [self show:@"Off, and not set up yet"];
  [self show:filter.enabled ? @"On" : @"Off"];
}

- (void)showFailure:(NSError*)error {
  [self show:failure_text(error, advice_for(error))];
}

@end
