// Growable byte blocks held inside configuration records.
#include <cstdlib>
#include <cstring>

#include "faultinject.h"
#include "nuvcsock_test.h"

namespace {
long live_blocks;
}

extern "C" {

int nuvcsock_memblock_append(memblock *block, const void *bytes, size_t len) {
  if (!block || (len && !bytes)) return -1;
  if (block->len + len > block->size) {
    size_t want = block->size ? block->size : 16;
    while (want < block->len + len) want *= 2;
    if (nuvcsock::allocation_must_fail()) return -1;
    auto *grown = static_cast<unsigned char *>(std::realloc(block->data, want));
    if (!grown) return -1;
    if (!block->data) ++live_blocks;
    block->data = grown;
    block->size = want;
  }
  if (len) std::memcpy(block->data + block->len, bytes, len);
  block->len += len;
  return 0;
}

void memblock_free(memblock *block) {
  if (!block) return;
  if (block->data) --live_blocks;
  std::free(block->data);
  block->data = nullptr;
  block->len = 0;
  block->size = 0;
}

long nuvcsock_memblock_live_blocks(void) { return live_blocks; }

}
