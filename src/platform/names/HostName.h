#pragma once

#include <string>

namespace orvane {

// Whether the bytes that were read so far contain a name.
enum class NameState {
  Open,     // later bytes may contain the name or its end
  Known,    // the name is complete
  Unknown,  // there is no name, and later bytes cannot contain one
};

// The form in which host names are listed, and in which the provider compares them byte for byte: ASCII letters in
// lower case, without the dot of the DNS root at the end. A link to "Held.Example." leads to the same server as a link
// to "held.example", so names from flows must get this form, too.
std::string listed_form(std::string name);

}  // namespace orvane
