#import "platform/macos/control/ControlInterface.h"

#import "platform/macos/control/OrvaneSECommunication.h"

namespace orvane {

::NSXPCInterface* control_interface() {
  ::NSXPCInterface* interface = [::NSXPCInterface interfaceWithProtocol:@protocol(OrvaneSECommunication)];
  const id elements = @[
    [::NSArray class], [::NSDictionary class], [::NSString class], [::NSNumber class], [::NSDate class],
    [::NSData class]
  ];
  const auto allow = [&](Class container, SEL message) {
    [interface setClasses:[[::NSSet setWithArray:elements] setByAddingObject:container]
              forSelector:message
            argumentIndex:0
                  ofReply:NO];
  };
  allow([::NSArray class], @selector(setApplicationIdentifiers:));
  allow([::NSSet class], @selector(setHostnames:));
  allow([::NSDictionary class], @selector(setProperties:forHostname:));
  return interface;
}

}  // namespace orvane
