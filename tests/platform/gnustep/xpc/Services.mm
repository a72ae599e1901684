#include "platform/gnustep/xpc/Services.h"

#include <Block.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "platform/StandIn.h"
#include "platform/macos/base/Retained.h"
#import "platform/macos/control/OrvaneSECommunication.h"

using orvane::Retained;
using orvane::stand_in::trace;

// An interface: the name of its protocol, and the classes that each message's first argument may contain.
@interface StandInInterface : NSObject {
 @public
  std::string _name;
  std::map<std::string, Retained<NSSet>> _classes;
}
- (bool)allows:(id)object in:(SEL)message;
@end

@implementation StandInInterface
- (void)setClasses:(NSSet*)classes forSelector:(SEL)message argumentIndex:(NSUInteger)index ofReply:(BOOL)isReply {
  _classes.emplace(sel_getName(message), classes);
}
// The classes hold for containers, their elements, and the elements of these (documentation of setClasses:...).
- (bool)allows:(id)object in:(SEL)message {
  const auto classes = _classes.find(sel_getName(message));
  if (classes == _classes.end() || object == nil) return true;
  bool isAllowed = false;
  for (Class each in classes->second.get()) isAllowed = isAllowed || [object isKindOfClass:each];
  if (![object respondsToSelector:@selector(objectEnumerator)]) return isAllowed;
  if ([object isKindOfClass:[NSDictionary class]]) isAllowed = isAllowed && [self allows:[object allValues] in:message];
  for (id element in object) isAllowed = isAllowed && [self allows:element in:message];
  return isAllowed;
}
@end

// The client's or the service's side of a connection. The client's side is also the proxy that sends messages.
@interface StandInConnection : NSXPCConnection {
 @public
  NSString* _name;               // the service's name; only on the client's side
  StandInConnection* _peer;      // the service's side; only on the client's side
  StandInInterface* _interface;  // of the exported or remote object
  id _object;                    // the exported object
  GSXPCInvalidationHandler _invalidationHandler;
  GSXPCInterruptionHandler _interruptionHandler;
  GSXPCProxyErrorHandler _errorHandler;
  bool _isActive, _isBroken;
  int _process;  // the service's process id; only on the client's side
}
@end

namespace {

struct Service {
  std::string name;
  id delegate = nil;  // not retained
  bool isResumed = false;
};

struct Services {
  std::recursive_mutex mutex;  // of all members and all connections, because a test may break connections in use
  std::map<NSXPCListener*, Service> listeners;
  std::set<StandInConnection*> clients;
  std::deque<std::function<void()>> messages;
  int process = 1;
};

// Never destroyed, because listeners may be released when the process exits.
Services& services() {
  static auto* shared = new Services;
  return *shared;
}

std::lock_guard<std::recursive_mutex> lock() { return std::lock_guard(services().mutex); }

std::atomic<bool> is_hanging = false;

NSError* error_of(int code) { return [NSError errorWithDomain:NSCocoaErrorDomain code:code userInfo:nil]; }

}  // namespace

@implementation StandInConnection
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options {
  _name = [name copy];
  return self;
}
- (void)dealloc {
  for (id each : {static_cast<id>(_name), static_cast<id>(_peer), static_cast<id>(_interface), _object}) [each release];
  Block_release(_invalidationHandler);
  Block_release(_interruptionHandler);
  Block_release(_errorHandler);
  [super dealloc];
}
- (void)setExportedInterface:(NSXPCInterface*)exportedInterface {
  _interface = [static_cast<id>(exportedInterface) retain];
  trace("interface " + _interface->_name);
}
- (void)setExportedObject:(id)object {
  trace(std::string("object ") + class_getName([object class]));
  _object = [object retain];
}
- (void)setRemoteObjectInterface:(NSXPCInterface*)remoteObjectInterface {
  _interface = [static_cast<id>(remoteObjectInterface) retain];
}
- (void)activate {
  trace("activate");
  _isActive = true;
}
- (void)setInvalidationHandler:(GSXPCInvalidationHandler)handler {
  if (_name == nil) trace("invalidation handler");
  _invalidationHandler = Block_copy(handler);
}
- (void)setInterruptionHandler:(GSXPCInterruptionHandler)handler {
  if (_name == nil) trace("interruption handler");
  _interruptionHandler = Block_copy(handler);
}
- (pid_t)processIdentifier {
  return _process;
}
- (void)resume {
  _isActive = true;
}
- (void)invalidate {
  const auto guard = lock();
  services().clients.erase(self);
  is_hanging = false;
  if (_peer != nil && _peer->_invalidationHandler != nil) _peer->_invalidationHandler();
}
- (id)synchronousRemoteObjectProxyWithErrorHandler:(GSXPCProxyErrorHandler)handler {
  Block_release(_errorHandler);
  _errorHandler = Block_copy(handler);
  return self;
}
// Each message with a reply has its own method here, because forwardInvocation: cannot pass on the reply's block.
- (void)pingWithReply:(void (^)(bool))reply {
  [[self receiverForReply] pingWithReply:reply];
}
- (void)getAppFilterStateWithReply:(void (^)(bool))reply {
  [[self receiverForReply] getAppFilterStateWithReply:reply];
}
- (void)getChangesCount:(void (^)(uint64_t))reply {
  [[self receiverForReply] getChangesCount:reply];
}
- (id)receiverForReply {
  if (![self connect]) return _errorHandler(error_of(NSXPCConnectionInvalid)), nil;
  if (is_hanging) {
    while (is_hanging) std::this_thread::yield();
    return _errorHandler(error_of(NSXPCConnectionInvalid)), nil;
  }
  const auto guard = lock();
  orvane::stand_in::deliver_messages();
  if (_peer->_isBroken) _errorHandler(error_of(NSXPCConnectionInterrupted));
  return [_peer receiver];
}
- (void)forwardInvocation:(NSInvocation*)message {
  const auto guard = lock();
  if (![self connect]) return _errorHandler(error_of(NSXPCConnectionInvalid));
  id argument = nil;
  if ([[message methodSignature] numberOfArguments] > 2) [message getArgument:&argument atIndex:2];
  if (![_peer->_interface allows:argument in:[message selector]]) return;  // the receiving side drops the message
  [message retainArguments];
  services().messages.emplace_back(
      [peer = Retained(_peer), kept = Retained(message)] { [kept.get() invokeWithTarget:[peer.get() receiver]]; });
}
- (BOOL)connect {
  const auto guard = lock();
  if (_peer != nil && !_peer->_isBroken) return YES;
  if (!_isActive || _interface == nil) return NO;
  for (const auto& [listener, service] : services().listeners) {
    if (!service.isResumed || service.name != [_name UTF8String]) continue;
    [_peer release];
    _peer = [[StandInConnection alloc] init];
    _process = services().process;
    services().clients.insert(self);
    _peer->_isBroken = ![service.delegate listener:listener shouldAcceptNewConnection:_peer];
    return !_peer->_isBroken;
  }
  return NO;
}
- (id)receiver {
  return !_isBroken && _isActive && _interface != nil && _interface->_name == "OrvaneSECommunication" ? _object : nil;
}
@end

// Makes [NSXPCConnection alloc] return a stand-in.
@implementation NSXPCConnection (StandIn)
+ (instancetype)allocWithZone:(NSZone*)zone {
  return NSAllocateObject([StandInConnection class], 0, zone);
}
@end

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wobjc-protocol-method-implementation"  // replaces methods on purpose
@implementation NSXPCListener (StandIn)
- (instancetype)initWithMachServiceName:(NSString*)name {
  if (![name isKindOfClass:[NSString class]]) [NSException raise:NSInvalidArgumentException format:@"no name"];
  const auto guard = lock();
  services().listeners[self].name = [name UTF8String];
  return self;
}
- (void)setDelegate:(id<NSXPCListenerDelegate>)delegate {
  const auto guard = lock();
  services().listeners[self].delegate = delegate;
}
- (void)resume {
  const auto guard = lock();
  services().listeners[self].isResumed = true;
}
- (void)invalidate {
  const auto guard = lock();
  services().listeners.erase(self);
}
@end
@implementation NSXPCInterface (StandIn)
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol {
  // GNUstep's runtime cannot return the name of a protocol that no class adopts. In the structure that the compiler
  // makes for a protocol, the second word points to the name.
  StandInInterface* interface = [[[StandInInterface alloc] init] autorelease];
  interface->_name = reinterpret_cast<const char* const*>(protocol)[1];
  return static_cast<id>(interface);
}
@end
#pragma clang diagnostic pop

namespace orvane::stand_in {

void deliver_messages() {
  const auto guard = lock();
  while (!services().messages.empty()) {
    const auto deliver = std::move(services().messages.front());
    services().messages.pop_front();
    deliver();
  }
}

void hang() { is_hanging = true; }

void break_connections(bool restarted) {
  const auto guard = lock();
  services().messages.clear();
  if (restarted) ++services().process;
  for (StandInConnection* client : services().clients) {
    client->_peer->_isBroken = true;
    if (restarted) continue;
    client->_interruptionHandler();
    if (client->_peer->_interruptionHandler != nil) client->_peer->_interruptionHandler();
  }
}

void invalidate_connections() {
  const auto guard = lock();
  for (StandInConnection* client : services().clients) {
    client->_peer->_isBroken = true;
    if (client->_invalidationHandler != nil) client->_invalidationHandler();
  }
}

}  // namespace orvane::stand_in
