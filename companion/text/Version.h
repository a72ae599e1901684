#pragma once

namespace orvane {

const char* program_version();

}  // namespace orvane
