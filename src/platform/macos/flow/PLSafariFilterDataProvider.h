#pragma once

#import "platform/macos/flow/PLProviderShell.h"

// The class that a bundle names for the C++ class of the same name.
@interface PLSafariFilterDataProvider : PLProviderShell

- (BOOL)isSafariBrowser:(NEFilterFlow*)flow;
- (NSArray*)createFilterRules;

@end
