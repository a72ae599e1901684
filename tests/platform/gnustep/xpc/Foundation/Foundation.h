#pragma once
#pragma GCC system_header

#include_next <Foundation/Foundation.h>

// Declarations that GNUstep's headers lack. Only some versions of GNUstep have the two constants. Here the constants
// are macros, because a macro does not conflict with an earlier declaration of the same name.
#define NSXPCConnectionInterrupted 4097
#define NSXPCConnectionInvalid 4099

@interface NSXPCConnection (Missing)
- (void)setExportedInterface:(NSXPCInterface*)exportedInterface;
- (void)setExportedObject:(id)exportedObject;
@end
