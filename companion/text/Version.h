#pragma once

namespace orvane {

// The version of this program.
const char* program_version();

}  // namespace orvane
