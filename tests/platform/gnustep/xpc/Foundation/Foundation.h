#pragma once
#pragma GCC system_header

#include_next <Foundation/Foundation.h>

// Declarations that GNUstep's XPC headers lack.
enum { NSXPCConnectionInterrupted = 4097, NSXPCConnectionInvalid = 4099 };

@interface NSXPCConnection (Missing)
- (void)setExportedInterface:(NSXPCInterface*)exportedInterface;
- (void)setExportedObject:(id)exportedObject;
@end
