#import "platform/macos/control/OrvaneController.h"

#include <mutex>

#include "platform/macos/base/Values.h"
#include "platform/macos/foundation/Counterpart.h"

using orvane::value_of;

@implementation OrvaneController

+ (OrvaneController*)adapterFor:(orvane::OrvaneSECommunication*)controller {
  static auto* mutex = new std::mutex;  // never destroyed, because other threads may use it while the process ends
  if (controller == nullptr) return nil;
  std::lock_guard guard(*mutex);
  auto* adapter = static_cast<OrvaneController*>(orvane::counterpart(controller));
  if (adapter == nil) {
    adapter = [[self alloc] initWithController:controller];
    orvane::set_counterpart(controller, adapter);
    [adapter release];
  }
  return adapter;
}

- (instancetype)initWithController:(orvane::OrvaneSECommunication*)controller {
  self = [super init];
  if (self != nil) _controller = orvane::Ref<orvane::OrvaneSECommunication>::retained(controller);
  return self;
}

- (void)pingWithReply:(void (^)(bool alive))reply {
  _controller->pingWithReply([reply](bool alive) { reply(alive); });
}

- (void)getAppFilterStateWithReply:(void (^)(bool active))reply {
  _controller->getAppFilterStateWithReply([reply](bool active) { reply(active); });
}

- (void)start {
  _controller->start();
}

- (void)stop {
  _controller->stop();
}

- (void)addApplicationIdentifier:(NSString*)identifier {
  @autoreleasepool {
    _controller->addApplicationIdentifier(value_of(identifier));
  }
}

- (void)removeApplicationIdentifier:(NSString*)identifier {
  @autoreleasepool {
    _controller->removeApplicationIdentifier(value_of(identifier));
  }
}

- (void)setApplicationIdentifiers:(NSArray*)identifiers {
  @autoreleasepool {
    _controller->setApplicationIdentifiers(value_of(identifiers));
  }
}

- (void)addHostname:(NSString*)hostname {
  @autoreleasepool {
    _controller->addHostname(value_of(hostname));
  }
}

- (void)removeHostname:(NSString*)hostname {
  @autoreleasepool {
    _controller->removeHostname(value_of(hostname));
  }
}

- (void)setHostnames:(NSSet*)hostnames {
  @autoreleasepool {
    _controller->setHostnames(value_of(hostnames));
  }
}

- (void)setProperties:(NSDictionary*)properties forHostname:(NSString*)hostname {
  @autoreleasepool {
    _controller->setProperties(value_of(properties), value_of(hostname));
  }
}

- (void)getChangesCount:(void (^)(uint64_t count))reply {
  _controller->getChangesCount([reply](uint64_t count) { reply(count); });
}

@end
