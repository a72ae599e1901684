#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orvane {

// Finds lines by a hash. Several lines may have the same hash. The table uses open addressing with linear probing: a
// node for each of a million lines would take more time and memory than the look-ups themselves. Not thread-safe.
class LineTable {
 public:
  // The position of an entry in the table. Valid until add() or remove().
  using Position = size_t;
  static constexpr Position kNotFound = SIZE_MAX;

  size_t size() const { return size_; }
  // Makes room for this number of lines.
  void reserve(size_t lines);
  void add(uint32_t hash, uint32_t line);
  void remove(Position position);
  uint32_t line(Position position) const { return entries_[position].line; }
  void setLine(Position position, uint32_t line) { entries_[position].line = line; }

  // The first entry with this hash for whose line isWanted(line) returns true, or kNotFound.
  template <class Predicate>
  Position findIf(uint32_t hash, Predicate isWanted) const {
    if (entries_.empty()) return kNotFound;
    for (Position i = home(hash); entries_[i].line != kFree; i = next(i)) {
      if (entries_[i].hash == hash && isWanted(entries_[i].line)) return i;
    }
    return kNotFound;
  }

 private:
  static constexpr uint32_t kFree = UINT32_MAX;
  struct Entry {
    uint32_t hash = 0;
    uint32_t line = kFree;
  };
  Position home(uint32_t hash) const { return hash & (entries_.size() - 1); }
  Position next(Position position) const { return (position + 1) & (entries_.size() - 1); }

  std::vector<Entry> entries_;  // the size is a power of two; at most half of the entries are in use
  size_t size_ = 0;
};

}  // namespace orvane
