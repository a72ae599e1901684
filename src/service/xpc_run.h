#pragma once

namespace orvane {

// Starts the listener of the control channel, which lives as long as the process, and returns.
void xpc_run();

}  // namespace orvane
