#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// A sorted set of names. The names are in one text, which takes a third of the memory that a vector of strings takes.
// A name must not contain a line end.
class PackedNames {
 public:
  PackedNames() = default;
  // The names may be in any order, and may repeat.
  explicit PackedNames(std::vector<std::string_view> names);
  explicit PackedNames(const std::vector<std::string>& names)
      : PackedNames(std::vector<std::string_view>(names.begin(), names.end())) {}

  // Iterates over the names in their order. Valid until the object is changed or moved.
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using pointer = const std::string_view*;
    using reference = std::string_view;

    explicit Iterator(std::string_view rest) : rest_(rest) {}
    std::string_view operator*() const { return rest_.substr(0, rest_.find('\n')); }
    Iterator& operator++() {
      rest_.remove_prefix(rest_.find('\n') + 1);
      return *this;
    }
    bool operator==(const Iterator& other) const { return rest_.size() == other.rest_.size(); }

   private:
    std::string_view rest_;
  };
  Iterator begin() const { return Iterator(text_); }
  Iterator end() const { return Iterator({}); }

  size_t size() const { return count_; }
  bool contains(std::string_view name) const;
  bool operator==(const PackedNames&) const = default;

 private:
  std::string text_;  // each name is followed by a line end
  size_t count_ = 0;
};

}  // namespace orvane
