#include "companion/list/LineTable.h"

#include <utility>

namespace orvane {

void LineTable::reserve(size_t lines) {
  size_t wanted = 16;
  while (wanted < 2 * lines) wanted *= 2;
  if (wanted <= entries_.size()) return;
  const std::vector<Entry> before = std::exchange(entries_, std::vector<Entry>(wanted));
  size_ = 0;
  for (const Entry& entry : before) {
    if (entry.line != kFree) add(entry.hash, entry.line);
  }
}

void LineTable::add(uint32_t hash, uint32_t line) {
  reserve(size_ + 1);
  Position free = home(hash);
  while (entries_[free].line != kFree) free = next(free);
  entries_[free] = {hash, line};
  ++size_;
}

void LineTable::remove(Position position) {
  // A free entry ends each search. So move later entries into the gap that the search for them would cross.
  for (Position i = next(position); entries_[i].line != kFree; i = next(i)) {
    const size_t mask = entries_.size() - 1;
    const size_t fromHome = (i - home(entries_[i].hash)) & mask, fromGap = (i - position) & mask;
    if (fromHome < fromGap) continue;
    entries_[position] = entries_[i];
    position = i;
  }
  entries_[position] = {};
  --size_;
}

}  // namespace orvane
