#pragma once

// Ours first: the framework's headers make "Nil", a kind of value, a macro.
// clang-format off
#include "platform/XPC.h"

#import <Foundation/Foundation.h>
// clang-format on

namespace orvane {

// The framework's connection, as the core knows one. What is told to it is told to the framework in the same order, and
// nothing else.
Ref<NSXPCConnection> connection_of(::NSXPCConnection* connection);

}  // namespace orvane
