#import "platform/macos/control/XPCConnection.h"

#include "platform/macos/base/Block.h"
#import "platform/macos/control/OrvaneController.h"

// There since macOS 11, and declared by the SDKs of later systems only.
@interface NSXPCConnection (Activation)
- (void)activate;
@end

namespace orvane {
namespace {

class Connection final : public NSXPCConnection {
 public:
  explicit Connection(::NSXPCConnection* connection) : connection_([connection retain]) {}

  void setExportedInterface(const NSXPCInterface& exportedInterface) override {
    if (exportedInterface.protocol() != &OrvaneSECommunication::kProtocol) return;  // no other can be sent
    [connection_ setExportedInterface:[::NSXPCInterface interfaceWithProtocol:@protocol(OrvaneSECommunication)]];
  }

  void setExportedObject(OrvaneSECommunication* exportedObject) override {
    [connection_ setExportedObject:[::OrvaneController shellFor:exportedObject]];
  }

  void activate() override { [connection_ activate]; }

  void setInvalidationHandler(std::function<void()> handler) override {
    [connection_ setInvalidationHandler:block_of(handler).get()];
  }

  void setInterruptionHandler(std::function<void()> handler) override {
    [connection_ setInterruptionHandler:block_of(handler).get()];
  }

 private:
  ~Connection() override { [connection_ release]; }

  // The framework copies it, and calls it on a queue of its own.
  static Block<void()> block_of(const std::function<void()>& handler) {
    if (!handler) return Block<void()>(nil);
    const std::function<void()> kept = handler;
    return Block<void()>(^{
      @autoreleasepool {
        kept();
      }
    });
  }

  ::NSXPCConnection* const connection_;
};

}  // namespace

Ref<NSXPCConnection> connection_of(::NSXPCConnection* connection) {
  return Ref<Connection>::adopt(new Connection(connection));
}

}  // namespace orvane
