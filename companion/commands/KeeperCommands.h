#pragma once

#include "companion/commands/CommandSet.h"

namespace orvane {

// The commands about the list in force: keep, status, try.
void declare_keeper_commands(CommandSet& commands);

// Exit codes of status and try besides those of every command.
inline constexpr int kNotInForce = 3;  // the list; the block of a host
inline constexpr int kUnknown = 4;     // whether a host is blocked

}  // namespace orvane
