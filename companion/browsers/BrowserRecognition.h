#pragma once

#include <optional>
#include <string>

#include "companion/client/Client.h"

namespace orvane {

// Why the package's extension recognises no browser and so lets everything pass.
struct RecognitionFault {
  std::string text;
  bool isInForce;  // false if the file changed after the extension read it, at its start
};

// Checks the browser list in the package's bundle. Returns nothing when it is valid, when the package is not installed,
// and when `client` names a socket, which may be another extension's.
std::optional<RecognitionFault> recognition_fault(const ClientOptions& client);

}  // namespace orvane
