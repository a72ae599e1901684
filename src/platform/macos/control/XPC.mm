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
      ::XPCServiceDelegate* shell =
          delegate == nullptr ? nil : [[::XPCServiceDelegate alloc] initWithListener:this delegate:delegate];
      [listener_ setDelegate:shell];
      [shell_ dismiss];
      [shell_ release];
      shell_ = shell;
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
    resume();  // the system takes no listener back that was never resumed
    @autoreleasepool {
      [listener_ invalidate];
      [listener_ release];
    }
  }

  // The framework may raise an exception for a name that is none, now or when it first uses it: nothing says when.
  static void attempt(void (^work)()) {
    @autoreleasepool {
      @try {
        work();
      } @catch (::NSException* exception) {
        ORVANE_LOG_ERROR(default_log(), "the control channel is closed: %@", value_of([exception reason]));
      }
    }
  }

  ::NSXPCListener* listener_ = nil;
  ::XPCServiceDelegate* shell_ = nil;
  bool resumed_ = false;
};

}  // namespace

Ref<NSXPCListener> NSXPCListener::initWithMachServiceName(const Value& name) {
  return Ref<Listener>::adopt(new Listener(name));
}

}  // namespace orvane
