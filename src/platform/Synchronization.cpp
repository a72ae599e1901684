#include "platform/Synchronization.h"

namespace orvane {

int RecursiveMutex::initialise() {
  if (initialised_) return 0;
  pthread_mutexattr_t attributes;
  int status = pthread_mutexattr_init(&attributes);
  if (status != 0) return status;
  status = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  if (status == 0) status = pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
  initialised_ = status == 0;
  return status;
}

int RecursiveMutex::lock() { return initialised_ ? pthread_mutex_lock(&mutex_) : 0; }

int RecursiveMutex::unlock() { return initialised_ ? pthread_mutex_unlock(&mutex_) : 0; }

}  // namespace orvane
