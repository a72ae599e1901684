#pragma once

#include <optional>
#include <string>

#include "companion/client/Client.h"

namespace orvane {

// Why the package's extension recognises no browser and so lets everything pass.
struct RecognitionFault {
  std::string text;
  bool isInForce;  // false if the browser list changed after the running extension read it
};

// Checks the browser list in the package's bundle. Returns nothing if the list is valid, if the package is not
// installed, or if `client` names a socket, because an extension with another list may listen on that socket.
std::optional<RecognitionFault> recognition_fault(const ClientOptions& client);

}  // namespace orvane
