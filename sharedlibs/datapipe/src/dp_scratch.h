/* Scratch buffers from the platform's cmemstack, released on every path (private). */
#ifndef DP_SCRATCH_H
#define DP_SCRATCH_H

#include <cstddef>

#include "nuvcsock.h"

namespace dp {

// Owns one cmemstack block for the lifetime of a scope.
// Check it with `if (!scratch)` before use: the allocation may fail.
class ScratchBuffer {
 public:
  explicit ScratchBuffer(std::size_t size)
      : data_(static_cast<char *>(cmemstack_alloc(size))), size_(data_ ? size : 0) {}
  ~ScratchBuffer() { cmemstack_free(data_); }
  ScratchBuffer(const ScratchBuffer &) = delete;
  ScratchBuffer &operator=(const ScratchBuffer &) = delete;

  explicit operator bool() const { return data_ != nullptr; }
  char *data() const { return data_; }
  unsigned char *bytes() const { return reinterpret_cast<unsigned char *>(data_); }
  std::size_t size() const { return size_; }

 private:
  char *data_;
  std::size_t size_;
};

}  // namespace dp

#endif
