#pragma once

#import "platform/macos/flow/PLProviderAdapter.h"

// Adapts the C++ class of the same name. If the bundle names that class, the system creates an object of the adapter.
@interface PLSafariFilterDataProvider : PLProviderAdapter

- (BOOL)isSafariBrowser:(NEFilterFlow*)flow;
- (NSArray*)createFilterRules;

@end
