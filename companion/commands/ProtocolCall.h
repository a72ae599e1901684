#pragma once

#include <functional>
#include <string>
#include <vector>

#include "companion/client/Client.h"

namespace orvane {

// One message of the protocol, ready to be sent: gives the reply's text, empty for a method without a reply.
using ProtocolCall = std::function<std::string(Client&)>;

// Prepares the call of a method by its name in the protocol, with arguments as the protocol orders them, strings
// unchanged. Throws InputError for an unknown method and for arguments that it does not take.
ProtocolCall prepare_call(const std::string& method, const std::vector<std::string>& arguments);

// The methods with their arguments, one a line, for a help text.
std::string describe_methods();

}  // namespace orvane
