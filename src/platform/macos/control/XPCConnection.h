#pragma once

#import <Foundation/Foundation.h>

#include "platform/XPC.h"

namespace orvane {

// Wraps the framework's connection for the core. The wrapper passes each call on, in order.
Ref<NSXPCConnection> connection_of(::NSXPCConnection* connection);

}  // namespace orvane
