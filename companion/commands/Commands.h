#pragma once

namespace orvane {

// orvanectl's exit codes.
inline constexpr int kDone = 0;
inline constexpr int kCouldNot = 1;  // the extension, a file or the output failed
inline constexpr int kUsage = 2;     // the command line or what it gave was refused; nothing was sent

// Carries out one command line. Results go to standard output, errors to standard error.
int run_orvanectl(int argc, const char* const* argv);

}  // namespace orvane
