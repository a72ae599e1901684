#include "database/Table.h"

namespace orvane {

namespace {

// The load factor is at most 2/3, so that the search for an absent key ends within a few slots.
bool exceeds_load(size_t entries, size_t slots) { return entries * 3 > slots * 2; }

}  // namespace

size_t Table::slotOf(const Value& key) const {
  const size_t mask = slots_.size() - 1;
  size_t index = key.hash() & mask;
  while (!slots_[index].key.isNil() && slots_[index].key != key) index = (index + 1) & mask;
  return index;
}

void Table::rehash(size_t capacity) {
  std::vector<Slot> old(capacity);
  old.swap(slots_);
  for (Slot& slot : old) {
    if (!slot.key.isNil()) slots_[slotOf(slot.key)] = std::move(slot);
  }
}

void Table::reserve(size_t count) {
  size_t capacity = slots_.empty() ? 8 : slots_.size();
  while (exceeds_load(count, capacity)) capacity *= 2;
  if (capacity != slots_.size()) rehash(capacity);
}

void Table::addIfAbsent(const Value& key, Value value) {
  reserve(size_ + 1);
  Slot& slot = slots_[slotOf(key)];
  if (!slot.key.isNil()) return;
  slot = {key, std::move(value)};
  ++size_;
}

Value* Table::find(const Value& key) {
  if (empty() || !key.isString()) return nullptr;
  Slot& slot = slots_[slotOf(key)];
  return slot.key.isNil() ? nullptr : &slot.value;
}

void Table::erase(const Value& key) {
  if (find(key) == nullptr) return;
  const size_t mask = slots_.size() - 1;
  size_t hole = slotOf(key);
  slots_[hole] = {};
  --size_;
  // A search begins at the key's home slot and stops at the first empty slot. If an entry lies after the hole, but its
  // home slot is at or before the hole, a search for the entry would stop at the hole. So the loop moves the entry into
  // the hole, and the slot that the entry leaves becomes the hole.
  for (size_t index = (hole + 1) & mask; !slots_[index].key.isNil(); index = (index + 1) & mask) {
    const size_t home = slots_[index].key.hash() & mask;
    if (((index - home) & mask) < ((index - hole) & mask)) continue;
    slots_[hole] = std::move(slots_[index]);
    slots_[index] = {};
    hole = index;
  }
}

Value Table::dictionary() const {
  Value::Dictionary entries;
  entries.reserve(size_);
  forEach([&](const Value& key, const Value& value) { entries.emplace(key, value); });
  return Value::dictionary(std::move(entries));
}

}  // namespace orvane
