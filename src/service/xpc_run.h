#pragma once

namespace orvane {

// Starts the control channel's listener and returns. The listener lives as long as the process.
void xpc_run();

}  // namespace orvane
