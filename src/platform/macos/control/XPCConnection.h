#pragma once

#import <Foundation/Foundation.h>

#include "platform/XPC.h"

namespace orvane {

// The framework's connection, as the core knows one. What is told to it is told to the framework in the same order, and
// nothing else.
Ref<NSXPCConnection> connection_of(::NSXPCConnection* connection);

}  // namespace orvane
