#pragma once

#import "platform/macos/flow/PLProviderAdapter.h"

// The provider class that a bundle names. Adapts the C++ class of the same name.
@interface PLSafariFilterDataProvider : PLProviderAdapter

- (BOOL)isSafariBrowser:(NEFilterFlow*)flow;
- (NSArray*)createFilterRules;

@end
