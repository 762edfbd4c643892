#include "dp_textwriter.h"

#include <cstdio>

namespace dp {

TextWriter &TextWriter::vprintf(const char *format, va_list args) {
  if (size_ == 0) return *this;
  std::size_t left = size_ - used_;
  int n = std::vsnprintf(buf_ + used_, left, format, args);
  if (n > 0) used_ += static_cast<std::size_t>(n) < left ? static_cast<std::size_t>(n) : left - 1;
  return *this;
}

TextWriter &TextWriter::printf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  return *this;
}

TextWriter &TextWriter::append(const char *text) { return printf("%s", text); }

}  // namespace dp
