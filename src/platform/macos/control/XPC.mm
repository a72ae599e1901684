#include "platform/XPC.h"

#import <Foundation/Foundation.h>

#include "platform/Log.h"
#include "platform/macos/base/Values.h"
#import "platform/macos/control/XPCServiceDelegate.h"

namespace orvane {
namespace {

class Listener final : public NSXPCListener {
 public:
  explicit Listener(const Value& name) {
    attempt(^{
      listener_ = [[::NSXPCListener alloc] initWithMachServiceName:foundation_object(name)];
    });
  }

  void setDelegate(NSXPCListenerDelegate* delegate) override {
    @autoreleasepool {
      ::XPCServiceDelegate* adapter =
          delegate == nullptr ? nil : [[::XPCServiceDelegate alloc] initWithListener:this delegate:delegate];
      [listener_ setDelegate:adapter];
      [adapter_ dismiss];
      [adapter_ release];
      adapter_ = adapter;
    }
  }

  void resume() override {
    attempt(^{
      if (!resumed_) [listener_ resume];
      resumed_ = true;
    });
  }

 private:
  ~Listener() override {
    setDelegate(nullptr);
    resume();  // the system does not accept the release of a listener that was never resumed
    @autoreleasepool {
      [listener_ invalidate];
      [listener_ release];
    }
  }

  // The framework may raise an exception for a value that is not a valid name. Its documentation does not say whether
  // creating or resuming the listener raises the exception, so both calls go through attempt().
  static void attempt(void (^work)()) {
    @autoreleasepool {
      @try {
        work();
      } @catch (::NSException* exception) {
        ORVANE_LOG_ERROR(default_log(), "the control channel is closed: %{public}@", value_of([exception reason]));
      }
    }
  }

  ::NSXPCListener* listener_ = nil;
  ::XPCServiceDelegate* adapter_ = nil;
  bool resumed_ = false;
};

}  // namespace

Ref<NSXPCListener> NSXPCListener::initWithMachServiceName(const Value& name) {
  return Ref<Listener>::adopt(new Listener(name));
}

}  // namespace orvane
