#pragma once

namespace orvane {

// The signals that the main thread waits for:
//
//   SIGTERM, SIGINT  end the process
//   SIGUSR1          writes the flow counters to the log

// Blocks these signals in the calling thread and in the threads that it starts later. Call this before any thread
// starts, so that no other thread receives the signals.
void block_main_signals();

// Waits for SIGTERM or SIGINT. After the return, a second SIGTERM or SIGINT ends the process at once, without an
// orderly stop.
void wait_for_end_signal();

}  // namespace orvane
