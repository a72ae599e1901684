#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "platform/files/Descriptor.h"

namespace orvane {

// Companions edit the list of held names over the control channel. This class passes the edits on to the flow source,
// which then asks the provider again about open flows.
//
// Thread-safe.
class ListEdits {
 public:
  // The edits of this process's list. Never destroyed, because threads of connections may outlive main().
  static ListEdits& shared();

  ListEdits();

  // Reports an edit of one name. Call this after the edit, so that the provider's next answer takes the edit into
  // account.
  void add(std::string name);

  // Reports an edit that may concern every name. Call this after the edit.
  void addAll();

  struct Edits {
    bool all = false;
    std::vector<std::string> names;  // empty if `all` is true

    friend bool operator==(const Edits&, const Edits&) = default;
  };
  // Returns the edits since the last call. If there were too many names to store, `all` is true.
  Edits take();

  // An eventfd(2) that is readable while there are edits to take.
  int descriptor() const { return event_.get(); }

  // Limit on the memory for the stored names, in bytes.
  static constexpr size_t kBytesLimit = size_t{64} << 10;

 private:
  void signal();

  const Descriptor event_;
  std::mutex mutex_;  // guards the members below
  Edits edits_;
  size_t bytes_ = 0;
};

}  // namespace orvane
