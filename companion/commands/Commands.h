#pragma once

namespace orvane {

// Carries out one command line. Results go to standard output, errors to standard error.
int run_orvanectl(int argc, const char* const* argv);

}  // namespace orvane
