#include "platform/linux/base/ListEdits.h"

#include <sys/eventfd.h>

#include <utility>

namespace orvane {

ListEdits& ListEdits::shared() {
  static auto* edits = new ListEdits;
  return *edits;
}

ListEdits::ListEdits() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void ListEdits::add(std::string name) {
  std::lock_guard lock(mutex_);
  if (edits_.all) return;
  bytes_ += sizeof(std::string) + name.size();
  if (bytes_ > kBytesLimit) {
    edits_ = {.all = true, .names = {}};
  } else {
    edits_.names.push_back(std::move(name));
  }
  signal();
}

void ListEdits::addAll() {
  std::lock_guard lock(mutex_);
  edits_ = {.all = true, .names = {}};
  signal();
}

ListEdits::Edits ListEdits::take() {
  std::lock_guard lock(mutex_);
  if (!edits_.all && edits_.names.empty()) return {};
  eventfd_t count = 0;
  eventfd_read(event_.get(), &count);
  bytes_ = 0;
  return std::exchange(edits_, {});
}

void ListEdits::signal() { eventfd_write(event_.get(), 1); }

}  // namespace orvane
