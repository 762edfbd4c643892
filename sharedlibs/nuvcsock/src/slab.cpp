// Slab allocator with source tags: every block carries the file and line of
// the call that made it, and live blocks form a list for leak reports.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "faultinject.h"
#include "nuvcsock_test.h"

namespace {

struct SlabHeader {
  SlabHeader *prev;
  SlabHeader *next;
  const char *file;
  int line;
  std::size_t size;
};

// The header is padded so that user memory keeps the strictest alignment.
constexpr std::size_t kHeaderSpace =
    (sizeof(SlabHeader) + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);

SlabHeader *oldest;
SlabHeader *newest;
long live_blocks;

void link(SlabHeader *h) {
  h->prev = newest;
  h->next = nullptr;
  if (newest) newest->next = h; else oldest = h;
  newest = h;
  ++live_blocks;
}

void unlink(SlabHeader *h) {
  if (h->prev) h->prev->next = h->next; else oldest = h->next;
  if (h->next) h->next->prev = h->prev; else newest = h->prev;
  --live_blocks;
}

SlabHeader *header_of(void *user) {
  return reinterpret_cast<SlabHeader *>(static_cast<unsigned char *>(user) - kHeaderSpace);
}

}  // namespace

extern "C" {

void *slab_dmalloc(size_t size, const char *file, int line) {
  if (nuvcsock::allocation_must_fail()) return nullptr;
  auto *raw = static_cast<unsigned char *>(std::calloc(1, kHeaderSpace + size));
  if (!raw) return nullptr;
  auto *h = reinterpret_cast<SlabHeader *>(raw);
  h->file = file;
  h->line = line;
  h->size = size;
  link(h);
  return raw + kHeaderSpace;
}

char *slab_dstrdup(const char *string, const char *file, int line) {
  if (!string) return nullptr;
  std::size_t n = std::strlen(string) + 1;
  auto *copy = static_cast<char *>(slab_dmalloc(n, file, line));
  if (copy) std::memcpy(copy, string, n);
  return copy;
}

void slab_cbcontext_free(void *pointer, const char *, int) {
  if (!pointer) return;
  SlabHeader *h = header_of(pointer);
  unlink(h);
  std::free(h);
}

long nuvcsock_slab_live_blocks(void) { return live_blocks; }

void nuvcsock_slab_foreach_live(void (*visit)(const char *, int, size_t, void *), void *ctx) {
  for (SlabHeader *h = oldest; h; h = h->next) visit(h->file, h->line, h->size, ctx);
}

}
