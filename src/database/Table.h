#pragma once

#include <cstddef>
#include <vector>

#include "platform/Value.h"

namespace orvane {

// A hash table from strings to values: open addressing with linear probing. A look-up among a million names costs two
// cache misses (slot, characters); std::unordered_map costs four. Not thread-safe.
class Table {
 public:
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Makes room for `count` entries in total, so that adding them does not allocate slots.
  void reserve(size_t count);
  void clear() { *this = Table(); }

  // Adds an entry unless the key exists. The key must be a string.
  void addIfAbsent(const Value& key, Value value);
  // The value of a key; null when the key is absent or is not a string. The pointer is valid until the next change of
  // the table.
  Value* find(const Value& key);
  // Removes a key, if it exists.
  void erase(const Value& key);

  // Calls f(key, value) for every entry, in no particular order.
  template <class Function>
  void forEach(Function f) const {
    for (const Slot& slot : slots_) {
      if (!slot.key.isNil()) f(slot.key, slot.value);
    }
  }

  // A copy of the table as a dictionary. The copy shares the keys' characters and the values with the table.
  Value dictionary() const;

 private:
  // A slot is empty when its key is nil.
  struct Slot {
    Value key, value;
  };

  // The index of a key's slot, or of the empty slot where the key belongs. The table must have at least one empty slot.
  size_t slotOf(const Value& key) const;
  void rehash(size_t capacity);

  std::vector<Slot> slots_;  // the size is 0 or a power of two
  size_t size_ = 0;
};

}  // namespace orvane
