#pragma once

namespace orvane {

// Carries out one command line and returns the exit code. Results go to standard output, errors to standard error.
int run_orvanectl(int argc, const char* const* argv);

}  // namespace orvane
