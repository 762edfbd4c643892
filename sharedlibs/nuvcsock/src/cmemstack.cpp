// Scratch buffers for short-lived use, with live-block accounting.
#include <cstdlib>

#include "faultinject.h"
#include "nuvcsock_test.h"

namespace {
long live_blocks;
}

extern "C" {

void *cmemstack_alloc(size_t size) {
  if (nuvcsock::allocation_must_fail()) return nullptr;
  void *block = std::malloc(size ? size : 1);
  if (block) ++live_blocks;
  return block;
}

void cmemstack_free(void *block) {
  if (!block) return;
  --live_blocks;
  std::free(block);
}

long nuvcsock_cmemstack_live_blocks(void) { return live_blocks; }

}
