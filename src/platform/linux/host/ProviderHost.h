#pragma once

namespace orvane {

// Blocks the signals that are for the parked main thread in the calling thread and in those that it makes from now on:
// SIGTERM and SIGINT, which end the process, and SIGUSR1, which writes the counters of flows to the log.
void block_main_signals();

// Ends what startSystemExtensionMode and applySettings began: the flow source first, so that a provider that has been
// told to stop is not asked again, then the provider.
void stop_provider_host();

}  // namespace orvane
