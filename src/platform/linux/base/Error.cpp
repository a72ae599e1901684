#include "platform/linux/base/Error.h"

#include <utility>

namespace orvane {
namespace {

class LinuxError final : public NSError {
 public:
  explicit LinuxError(std::string description) : description_(std::move(description)) {}
  std::string description() const override { return description_; }
  std::string localizedDescription() const override { return description_; }

 private:
  std::string description_;
};

}  // namespace

Ref<NSError> error_create(std::string description) {
  return Ref<NSError>::adopt(new LinuxError(std::move(description)));
}

}  // namespace orvane
