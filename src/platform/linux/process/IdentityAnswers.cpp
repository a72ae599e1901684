#include "platform/linux/process/IdentityAnswers.h"

namespace orvane {

IdentityAnswers*& IdentityAnswers::ofThisThread() {
  thread_local IdentityAnswers* answers = nullptr;
  return answers;
}

}  // namespace orvane
