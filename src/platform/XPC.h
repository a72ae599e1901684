#pragma once

#include <functional>

#include "platform/Object.h"
#include "platform/Value.h"

namespace orvane {

class OrvaneSECommunication;

// The identity of a protocol.
struct Protocol {
  const char* name;
};

class NSXPCInterface {
 public:
  static NSXPCInterface interfaceWithProtocol(const Protocol& protocol) { return NSXPCInterface(&protocol); }
  const Protocol* protocol() const { return protocol_; }

 private:
  explicit NSXPCInterface(const Protocol* protocol) : protocol_(protocol) {}
  const Protocol* protocol_;
};

// One client. The platform owns it; it delivers messages to the exported object from activate() on, on threads of its
// own, those of one connection in their order, those of several connections at the same time.
//
// A connection's end is reported by the handlers: "invalidated" when the peer closed it or is gone, "interrupted" when
// it broke; a system may report a broken one by both. Whether an end that comes before its handler is set is reported
// later is the platform's affair (on Linux it is, and each end once).
class NSXPCConnection : public NSObject {
 public:
  virtual void setExportedInterface(const NSXPCInterface& exportedInterface) = 0;
  // Retained by the connection.
  virtual void setExportedObject(OrvaneSECommunication* exportedObject) = 0;
  virtual void activate() = 0;
  virtual void setInvalidationHandler(std::function<void()> handler) = 0;
  virtual void setInterruptionHandler(std::function<void()> handler) = 0;
};

class NSXPCListener;

class NSXPCListenerDelegate : public NSObject {
 public:
  // False refuses the connection. Called on a thread of the platform's.
  virtual bool shouldAcceptNewConnection(NSXPCListener& listener, NSXPCConnection& newConnection) = 0;
};

class NSXPCListener : public NSObject {
 public:
  // Never null. `name` should be a string; what comes of another value is the platform's affair: it reports it and
  // listens nowhere.
  static Ref<NSXPCListener> initWithMachServiceName(const Value& name);

  // May be retained. A delegate is asked until the listener has another or goes.
  virtual void setDelegate(NSXPCListenerDelegate* delegate) = 0;
  // Begins to accept connections and returns.
  virtual void resume() = 0;
};

}  // namespace orvane
