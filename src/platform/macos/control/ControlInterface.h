#pragma once

@class NSXPCInterface;

namespace orvane {

// The interface of the control channel, for both ends of a connection. Autoreleased. It names the classes that the
// containers in each message may contain: those of property lists. XPC allows these by default, too. They are named so
// that both ends state the same set, and because the documentation of the default does not mention NSSet.
::NSXPCInterface* control_interface();

}  // namespace orvane
