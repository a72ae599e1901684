#pragma once

namespace orvane {

// Gives the main thread to the platform until the process ends.
[[noreturn]] void dispatch_main();

}  // namespace orvane
