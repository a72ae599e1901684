#pragma once
#pragma GCC system_header

#include_next <Foundation/Foundation.h>

// Declarations that GNUstep's headers lack. Newer versions of GNUstep declare the two constants: macros take precedence
// over these declarations, so they do not conflict with them.
#define NSXPCConnectionInterrupted 4097
#define NSXPCConnectionInvalid 4099

@interface NSXPCConnection (Missing)
- (void)setExportedInterface:(NSXPCInterface*)exportedInterface;
- (void)setExportedObject:(id)exportedObject;
@end
