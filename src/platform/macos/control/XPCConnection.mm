#import "platform/macos/control/XPCConnection.h"

#include "platform/macos/base/Block.h"
#import "platform/macos/control/ControlInterface.h"
#import "platform/macos/control/OrvaneController.h"

// macOS has this method since version 11, but only later SDKs declare it.
@interface NSXPCConnection (Activation)
- (void)activate;
@end

namespace orvane {
namespace {

class Connection final : public NSXPCConnection {
 public:
  explicit Connection(::NSXPCConnection* connection) : connection_([connection retain]) {}

  void setExportedInterface(const NSXPCInterface& exportedInterface) override {
    if (exportedInterface.protocol() != &OrvaneSECommunication::kProtocol) return;  // the channel has no other protocol
    [connection_ setExportedInterface:control_interface()];
  }

  void setExportedObject(OrvaneSECommunication* exportedObject) override {
    [connection_ setExportedObject:[::OrvaneController adapterFor:exportedObject]];
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

  // The framework copies the block and calls it on its own queue.
  static Block<void()> block_of(const std::function<void()>& handler) {
    if (!handler) return Block<void()>(nil);
    const std::function<void()> callback = handler;
    return Block<void()>(^{
      @autoreleasepool {
        callback();
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
