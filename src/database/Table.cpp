#include "database/Table.h"

namespace orvane {

namespace {

// At most two thirds of the slots are taken, so that a key that is not there is missed within a few steps.
bool crowded(size_t entries, size_t slots) { return entries * 3 > slots * 2; }

}  // namespace

size_t Table::slotOf(const Value& key) const {
  const size_t mask = slots_.size() - 1;
  size_t place = key.hash() & mask;
  while (!slots_[place].key.isNil() && slots_[place].key != key) place = (place + 1) & mask;
  return place;
}

void Table::rehash(size_t capacity) {
  std::vector<Slot> old(capacity);
  old.swap(slots_);
  for (Slot& slot : old) {
    if (!slot.key.isNil()) {
      Slot& place = slots_[slotOf(slot.key)];
      place = std::move(slot);
    }
  }
}

void Table::reserve(size_t count) {
  size_t capacity = slots_.empty() ? 8 : slots_.size();
  while (crowded(count, capacity)) capacity *= 2;
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
  // Entries that stepped over the place move up, so that no look-up stops short at the hole.
  for (size_t place = (hole + 1) & mask; !slots_[place].key.isNil(); place = (place + 1) & mask) {
    const size_t home = slots_[place].key.hash() & mask;
    if (((place - home) & mask) < ((place - hole) & mask)) continue;
    slots_[hole] = std::move(slots_[place]);
    slots_[place] = {};
    hole = place;
  }
}

Value Table::dictionary() const {
  Value::Dictionary entries;
  entries.reserve(size_);
  forEach([&](const Value& key, const Value& value) { entries.emplace(key, value); });
  return Value::dictionary(std::move(entries));
}

}  // namespace orvane
