#pragma once

namespace orvane {

// Blocks the signals that end the process in the calling thread and in those that it makes from now on, so that only
// the parked main thread takes them.
void block_end_signals();

// Ends what startSystemExtensionMode and applySettings began: the flow source first, so that a provider that has been
// told to stop is not asked again, then the provider.
void stop_provider_host();

}  // namespace orvane
