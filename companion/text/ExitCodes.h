#pragma once

namespace orvane {

// orvanectl's exit codes, as orvanectl(1) lists them.
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;      // for example, no extension answers, or a file cannot be read or written
inline constexpr int kUsage = 2;       // the command line or its input is invalid; nothing was sent
inline constexpr int kNotInForce = 3;  // status: the extension lacks the current list; try: the host is not blocked
inline constexpr int kUnknown = 4;     // try: it is not known whether the host is blocked

}  // namespace orvane
