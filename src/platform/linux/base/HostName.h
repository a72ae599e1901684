#pragma once

#include <string>

namespace orvane {

// The form in which host names are listed, and in which the provider compares them byte for byte: ASCII letters in
// lower case, without the dot of the DNS root at the end. A page can have a browser ask for "Held.Example." in the
// same way as for "held.example", and both lead to the same server.
std::string listed_form(std::string name);

}  // namespace orvane
