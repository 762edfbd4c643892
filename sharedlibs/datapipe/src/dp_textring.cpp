// The two static text rings shared by the library's printers.
#include "dp_textring.h"

namespace dp {
namespace {

// One ring of N static buffers with a single "current" index.  Every take
// moves on by one, so a text survives exactly N-1 further takes.
template <std::size_t N, std::size_t Size>
struct TextRing {
  char buffers[N][Size];
  std::size_t current;

  char *next() {
    current = (current + 1) % N;
    return buffers[current];
  }
};

TextRing<kResultRingLength, kResultBufferSize> result_ring;
TextRing<kAddressRingLength, kAddressBufferSize> address_ring;

}  // namespace

char *result_ring_next() { return result_ring.next(); }
char *address_ring_next() { return address_ring.next(); }

}  // namespace dp
