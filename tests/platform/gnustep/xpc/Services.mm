#include "platform/gnustep/xpc/Services.h"

#include <Block.h>

#include <deque>
#include <functional>
#include <map>
#include <set>

#include "platform/StandIn.h"
#include "platform/macos/base/Retained.h"
#import "platform/macos/control/OrvaneSECommunication.h"

using orvane::Retained;
using orvane::stand_in::trace;

// A connection, and its own proxy.
@interface StandInConnection : NSXPCConnection {
 @public
  NSString* _name;           // of the service, for a client
  StandInConnection* _peer;  // the service's side, for a client
  id _interface;             // exported or remote: its protocol's name
  id _object;                // exported
  GSXPCInvalidationHandler _invalidated;
  GSXPCInterruptionHandler _interrupted;
  GSXPCProxyErrorHandler _failed;
  bool _active, _dead;
  int _process;  // the service's, for a client
}
@end

namespace {

struct Service {
  std::string name;
  id delegate = nil;  // not retained
  bool isThere = false;
};

struct Services {
  std::map<NSXPCListener*, Service> known;
  std::set<StandInConnection*> clients;
  std::deque<std::function<void()>> underWay;
  int process = 1;
};

// Never destroyed: listeners may go later.
Services& services() {
  static auto* shared = new Services;
  return *shared;
}

NSError* error_of(int code) { return [NSError errorWithDomain:NSCocoaErrorDomain code:code userInfo:nil]; }

}  // namespace

@implementation StandInConnection
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options {
  _name = [name copy];
  return self;
}
- (void)dealloc {
  for (id each : {static_cast<id>(_name), static_cast<id>(_peer), _interface, _object}) [each release];
  Block_release(_invalidated);
  Block_release(_interrupted);
  Block_release(_failed);
  [super dealloc];
}
- (void)setExportedInterface:(NSXPCInterface*)exportedInterface {
  _interface = [exportedInterface retain];
  trace(std::string("interface ") + [_interface UTF8String]);
}
- (void)setExportedObject:(id)object {
  trace(std::string("object ") + class_getName([object class]));
  _object = [object retain];
}
- (void)setRemoteObjectInterface:(NSXPCInterface*)remoteObjectInterface {
  _interface = [remoteObjectInterface retain];
}
- (void)activate {
  trace("activate");
  _active = true;
}
- (void)setInvalidationHandler:(GSXPCInvalidationHandler)handler {
  trace("invalidation handler");
  _invalidated = Block_copy(handler);
}
- (void)setInterruptionHandler:(GSXPCInterruptionHandler)handler {
  if (_name == nil) trace("interruption handler");
  _interrupted = Block_copy(handler);
}
- (pid_t)processIdentifier {
  return _process;
}
- (void)resume {
  _active = true;
}
- (void)invalidate {
  services().clients.erase(self);
  if (_peer != nil && _peer->_invalidated != nil) _peer->_invalidated();
}
- (id)synchronousRemoteObjectProxyWithErrorHandler:(GSXPCProxyErrorHandler)handler {
  Block_release(_failed);
  _failed = Block_copy(handler);
  return self;
}
// Messages with a reply: forwarding knows no blocks.
- (void)pingWithReply:(void (^)(BOOL))reply {
  [[self answerer] pingWithReply:reply];
}
- (void)getAppFilterStateWithReply:(void (^)(BOOL))reply {
  [[self answerer] getAppFilterStateWithReply:reply];
}
- (void)getChangesCount:(void (^)(uint64_t))reply {
  [[self answerer] getChangesCount:reply];
}
- (id)answerer {
  if (![self connect]) return _failed(error_of(NSXPCConnectionInvalid)), nil;
  orvane::stand_in::settle_services();
  if (_peer->_dead) _failed(error_of(NSXPCConnectionInterrupted));
  return [_peer receiver];
}
- (void)forwardInvocation:(NSInvocation*)message {
  if (![self connect]) return _failed(error_of(NSXPCConnectionInvalid));
  [message retainArguments];
  services().underWay.emplace_back(
      [peer = Retained(_peer), kept = Retained(message)] { [kept.get() invokeWithTarget:[peer.get() receiver]]; });
}
- (BOOL)connect {
  if (_peer != nil && !_peer->_dead) return YES;
  if (!_active || _interface == nil) return NO;
  for (const auto& [listener, service] : services().known) {
    if (!service.isThere || service.name != [_name UTF8String]) continue;
    [_peer release];
    _peer = [[StandInConnection alloc] init];
    _process = services().process;
    services().clients.insert(self);
    _peer->_dead = ![service.delegate listener:listener shouldAcceptNewConnection:_peer];
    return !_peer->_dead;
  }
  return NO;
}
- (id)receiver {
  return !_dead && _active && [_interface isEqual:@"OrvaneSECommunication"] ? _object : nil;
}
@end

// Whoever makes one of the framework's gets one of these.
@implementation NSXPCConnection (StandIn)
+ (instancetype)allocWithZone:(NSZone*)zone {
  return NSAllocateObject([StandInConnection class], 0, zone);
}
@end

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wobjc-protocol-method-implementation"  // on purpose
@implementation NSXPCListener (StandIn)
- (instancetype)initWithMachServiceName:(NSString*)name {
  if (![name isKindOfClass:[NSString class]]) [NSException raise:NSInvalidArgumentException format:@"no name"];
  services().known[self].name = [name UTF8String];
  return self;
}
- (void)setDelegate:(id<NSXPCListenerDelegate>)delegate {
  services().known[self].delegate = delegate;
}
- (void)resume {
  services().known[self].isThere = true;
}
- (void)invalidate {
  services().known.erase(self);
}
@end
@implementation NSXPCInterface (StandIn)
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol {
  // This runtime readies a protocol only where a class adopts it, and tells no name of another; it is there, as the
  // second word.
  return static_cast<id>([NSString stringWithUTF8String:reinterpret_cast<const char* const*>(protocol)[1]]);
}
@end
#pragma clang diagnostic pop

namespace orvane::stand_in {

void settle_services() {
  while (!services().underWay.empty()) {
    const auto deliver = std::move(services().underWay.front());
    services().underWay.pop_front();
    deliver();
  }
}

void break_connections(bool ended) {
  services().underWay.clear();
  if (ended) ++services().process;
  for (StandInConnection* client : services().clients) {
    client->_peer->_dead = true;
    if (ended) continue;
    client->_interrupted();
    if (client->_peer->_interrupted != nil) client->_peer->_interrupted();
  }
}

}  // namespace orvane::stand_in
