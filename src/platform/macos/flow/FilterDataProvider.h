#pragma once

#import "platform/macos/flow/PLProviderShell.h"

// The class that a bundle names for the C++ class of the same name.
@interface FilterDataProvider : PLProviderShell

- (BOOL)isFlowFromBrowser:(NEFilterFlow*)flow;
- (NSArray*)createFilterRules;

@end
