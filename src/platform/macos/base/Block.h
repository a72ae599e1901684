#pragma once

#include <Block.h>

namespace orvane {

template <class Signature>
class Block;

// A block that outlives the call which brought it: copied from the stack where it still stands there, and let go with
// the last copy of this value. Needs blocks to compile, but no Objective-C.
template <class Result, class... Arguments>
class Block<Result(Arguments...)> {
 public:
  using Type = Result (^)(Arguments...);

  explicit Block(Type block) : block_(Block_copy(block)) {}
  Block(const Block& other) : Block(other.block_) {}
  ~Block() { Block_release(block_); }
  Block& operator=(const Block&) = delete;

  // Null when it was made of none.
  Type get() const { return block_; }
  Result operator()(Arguments... arguments) const { return block_(arguments...); }

 private:
  Type block_;
};

}  // namespace orvane
