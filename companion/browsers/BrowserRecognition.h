#pragma once

#include <optional>
#include <string>

#include "companion/client/Client.h"

namespace orvane {

// Why the package's extension takes no program for a browser, and so lets everything pass.
struct RecognitionFault {
  std::string text;
  bool isInForce;  // no: the file was changed since the extension's start, which reads it
};

// Looks at the list of browsers in the package's bundle. Nothing where there is no fault, no package, or where another
// extension than the package's is asked.
std::optional<RecognitionFault> recognition_fault(const ClientOptions& client);

}  // namespace orvane
