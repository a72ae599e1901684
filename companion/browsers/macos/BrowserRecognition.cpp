#include "companion/browsers/BrowserRecognition.h"

namespace orvane {

// On macOS the signature of the extension covers its browser list, so nobody can edit this list.
std::optional<RecognitionFault> recognition_fault(const ClientOptions&) { return std::nullopt; }

}  // namespace orvane
