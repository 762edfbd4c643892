/* Bounded text assembly into a caller buffer (private). */
#ifndef DP_TEXTWRITER_H
#define DP_TEXTWRITER_H

#include <cstdarg>
#include <cstddef>

namespace dp {

// Appends formatted pieces at the end of a text in a fixed buffer.  Each
// append is limited by the room left; the position advances by what was
// actually written, so once the buffer is full later pieces are cut off.  The
// text is always NUL-terminated (for a buffer of at least one character).
class TextWriter {
 public:
  TextWriter(char *buf, std::size_t size) : buf_(buf), size_(size), used_(0) {
    if (size_) buf_[0] = '\0';
  }

  // printf-style append; returns *this.
  TextWriter &printf(const char *format, ...) __attribute__((format(printf, 2, 3)));
  TextWriter &vprintf(const char *format, va_list args);
  // Appends a plain text.
  TextWriter &append(const char *text);

  const char *text() const { return buf_; }
  std::size_t length() const { return used_; }
  std::size_t room() const { return size_ ? size_ - 1 - used_ : 0; }
  bool full() const { return room() == 0; }

 private:
  char *buf_;
  std::size_t size_;
  std::size_t used_;
};

}  // namespace dp

#endif
