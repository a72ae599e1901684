#pragma once

#include <functional>

#include "platform/Object.h"
#include "platform/Value.h"

namespace orvane {

class OrvaneSECommunication;

// A protocol, identified by the address of this object.
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

// A connection to one client, owned by the platform. After activate() the platform delivers messages to the exported
// object, on threads of the platform: messages of one connection one after the other, in order; messages of several
// connections at the same time.
//
// Two handlers report the connection's end: "invalidated" when one side closed the connection or the peer exited,
// "interrupted" when the connection broke. A system may report a broken connection to both handlers. Linux reports the
// end of a connection once, even if the connection ends before the handler is set; other systems may lose that report.
class NSXPCConnection : public NSObject {
 public:
  virtual void setExportedInterface(const NSXPCInterface& exportedInterface) = 0;
  // The connection retains the object.
  virtual void setExportedObject(OrvaneSECommunication* exportedObject) = 0;
  virtual void activate() = 0;
  virtual void setInvalidationHandler(std::function<void()> handler) = 0;
  virtual void setInterruptionHandler(std::function<void()> handler) = 0;
};

class NSXPCListener;

class NSXPCListenerDelegate : public NSObject {
 public:
  // Returns false to refuse the connection. The platform calls this function on one of its own threads.
  virtual bool shouldAcceptNewConnection(NSXPCListener& listener, NSXPCConnection& newConnection) = 0;
};

class NSXPCListener : public NSObject {
 public:
  // Never null. When `name` cannot be used, the platform reports that and the listener accepts no connections.
  static Ref<NSXPCListener> initWithMachServiceName(const Value& name);

  // The listener may retain the delegate, and uses it until another delegate is set or the listener is destroyed.
  virtual void setDelegate(NSXPCListenerDelegate* delegate) = 0;
  // Starts to accept connections, and returns.
  virtual void resume() = 0;
};

}  // namespace orvane
