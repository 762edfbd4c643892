// What every fuzz target shares: a property check that stops the run with
// a message (libFuzzer then saves the input), and a reader that splits the
// input into the pieces a target needs.
#ifndef NIKERKIOG_FUZZ_CHECK_H
#define NIKERKIOG_FUZZ_CHECK_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#define FUZZ_CHECK(cond)                                                                       \
  do {                                                                                         \
    if (!(cond)) {                                                                             \
      std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond);         \
      std::abort();                                                                            \
    }                                                                                          \
  } while (0)

namespace fuzz {

// The input, taken apart front to back; reading past the end gives zeros
// and empty pieces.
class Input {
 public:
  Input(const std::uint8_t *data, std::size_t size) : data_(data), size_(data ? size : 0) {}
  std::size_t left() const { return size_ - pos_; }
  std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  std::uint16_t u16() { return static_cast<std::uint16_t>(byte() << 8 | byte()); }
  std::uint32_t u32() { return static_cast<std::uint32_t>(u16()) << 16 | u16(); }
  // Bytes up to (not including) the next `stop` byte, or to the end.
  std::string until(std::uint8_t stop) {
    std::string s;
    while (pos_ < size_ && data_[pos_] != stop) s.push_back(static_cast<char>(data_[pos_++]));
    if (pos_ < size_) ++pos_;
    return s;
  }
  std::vector<std::uint8_t> take(std::size_t n) {
    n = n < left() ? n : left();
    if (n == 0) return {};
    std::vector<std::uint8_t> v(data_ + pos_, data_ + pos_ + n);
    pos_ += n;
    return v;
  }
  std::vector<std::uint8_t> rest() { return take(left()); }

 private:
  const std::uint8_t *data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

// A heap block of exactly `bytes.size()` bytes (at least 1), so that the
// sanitizer sees every read past its end.
struct Exact {
  explicit Exact(const std::vector<std::uint8_t> &bytes, std::size_t size = SIZE_MAX)
      : n(size == SIZE_MAX ? bytes.size() : size), p(static_cast<std::uint8_t *>(std::malloc(n ? n : 1))) {
    std::memset(p, 0, n ? n : 1);
    if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size() < n ? bytes.size() : n);
  }
  ~Exact() { std::free(p); }
  Exact(const Exact &) = delete;
  Exact &operator=(const Exact &) = delete;
  std::size_t n;
  std::uint8_t *p;
};

}  // namespace fuzz

#endif
