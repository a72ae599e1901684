#pragma once

#include <cstddef>
#include <vector>

#include "platform/Value.h"

namespace orvane {

// A table from strings to values: open addressing with linear probing. A look-up among a million names costs two cache
// misses, the slot and the characters, where a table of nodes costs four, and a name costs no allocation beside its own
// characters. Not thread-safe.
class Table {
 public:
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Room for that many entries without another allocation.
  void reserve(size_t count);
  void clear() { *this = Table(); }

  // Adds an entry unless the key is there. The key must be a string.
  void addIfAbsent(const Value& key, Value value);
  // The value of a key, of any type; null when there is none. Valid until the next change.
  Value* find(const Value& key);
  // Nothing happens when the key is not there.
  void erase(const Value& key);

  // Calls f(key, value) for every entry, in no order.
  template <class Function>
  void forEach(Function f) const {
    for (const Slot& slot : slots_) {
      if (!slot.key.isNil()) f(slot.key, slot.value);
    }
  }

  // A copy as a value. The characters and the values are shared.
  Value dictionary() const;

 private:
  // Empty while its key is nil.
  struct Slot {
    Value key, value;
  };

  // The slot of a key, or the empty one where it would stand. There must be slots, one of them empty.
  size_t slotOf(const Value& key) const;
  void rehash(size_t capacity);

  std::vector<Slot> slots_;  // none, or a power of two
  size_t size_ = 0;
};

}  // namespace orvane
