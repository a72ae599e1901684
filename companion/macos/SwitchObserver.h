#pragma once

// Whoever shows the two switches. Called on the main thread after a text or state of a switch has changed.
@protocol SwitchObserver
- (void)switchChanged;
@end
