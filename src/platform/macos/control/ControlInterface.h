#pragma once

@class NSXPCInterface;

namespace orvane {

// The interface of the control channel, for both ends of a connection. Autoreleased. It names the classes that the
// containers in each message may contain: those of property lists. By default, XPC derives these classes from the
// protocol, and its documentation does not say which elements an NSSet or NSDictionary without type arguments may have.
::NSXPCInterface* control_interface();

}  // namespace orvane
