#pragma once
#pragma GCC system_header

#include_next <Foundation/Foundation.h>

// Declarations that GNUstep's headers lack. Some versions of GNUstep declare the two constants. So they are macros
// here, because a macro does not conflict with an earlier declaration of the same name.
#define NSXPCConnectionInterrupted 4097
#define NSXPCConnectionInvalid 4099

@interface NSXPCConnection (Missing)
- (void)setExportedInterface:(NSXPCInterface*)exportedInterface;
- (void)setExportedObject:(id)exportedObject;
@end
