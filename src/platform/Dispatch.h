#pragma once

namespace orvane {

// Hands the main thread to the platform, which serves until it ends the process. Never returns.
[[noreturn]] void dispatch_main();

}  // namespace orvane
