#pragma once

namespace orvane {

// While an object of this class exists, strings that this thread makes with Value::string() share blocks of memory. Use
// it for a long list that will be replaced as a whole: making and freeing its strings is faster, and the system gets
// all of their memory back, because no other allocation lies between them. But a block is freed only when no string in
// it is left, so a few strings of a list may keep the memory of all. At most one object for each thread.
class StringBlocks {
 public:
  StringBlocks();
  ~StringBlocks();
  StringBlocks(const StringBlocks&) = delete;
  StringBlocks& operator=(const StringBlocks&) = delete;
};

}  // namespace orvane
