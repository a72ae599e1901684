#pragma once

#include <Block.h>

namespace orvane {

template <class Signature>
class Block;

// Keeps a block alive after the call that passed it: copies the block from the stack, and releases it when the last
// copy of this object is destroyed. Needs a compiler with blocks, but no Objective-C.
template <class Result, class... Arguments>
class Block<Result(Arguments...)> {
 public:
  using Type = Result (^)(Arguments...);

  explicit Block(Type block) : block_(Block_copy(block)) {}
  Block(const Block& other) : Block(other.block_) {}
  ~Block() { Block_release(block_); }
  Block& operator=(const Block&) = delete;

  // Null if this object was made from null.
  Type get() const { return block_; }
  Result operator()(Arguments... arguments) const { return block_(arguments...); }

 private:
  Type block_;
};

}  // namespace orvane
