#pragma once

#import "platform/macos/flow/PLProviderAdapter.h"

// The provider class that a bundle names. Adapts the C++ class of the same name.
@interface FilterDataProvider : PLProviderAdapter

- (BOOL)isFlowFromBrowser:(NEFilterFlow*)flow;
- (NSArray*)createFilterRules;

@end
