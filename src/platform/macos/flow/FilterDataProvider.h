#pragma once

#import "platform/macos/flow/PLProviderAdapter.h"

// Adapts the C++ class of the same name. The system creates an object of this class if the bundle names the class.
@interface FilterDataProvider : PLProviderAdapter

- (BOOL)isFlowFromBrowser:(NEFilterFlow*)flow;
- (NSArray*)createFilterRules;

@end
