#pragma once

#include <functional>
#include <string>
#include <vector>

#include "companion/client/Client.h"

namespace orvane {

// A prepared message of the protocol. Calling it sends the message and returns the reply as text, empty for a method
// without a reply.
using ProtocolCall = std::function<std::string(Client&)>;

// Prepares a call by the method's name in the protocol. The arguments are in the protocol's order; strings are sent
// unchanged. Throws InputError for an unknown method and for wrong arguments.
ProtocolCall prepare_call(const std::string& method, const std::vector<std::string>& arguments);

// The methods with their arguments, one per line, for the help text.
std::string describe_methods();

}  // namespace orvane
