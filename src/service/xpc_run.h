#pragma once

namespace orvane {

// Starts the listener of the control channel and returns. The listener lives as long as the process.
void xpc_run();

}  // namespace orvane
