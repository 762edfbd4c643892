/* Word scanning in rule texts (private). */
#ifndef DP_TEXT_H
#define DP_TEXT_H

namespace dp {

// Rule texts separate words by the space character only; a tab belongs to
// the word it stands in.  These work on `char *` and `const char *` alike.

// The first character at or after p that is not a space.
template <typename Char>
Char *skip_spaces(Char *p) {
  while (*p == ' ') ++p;
  return p;
}

// Skips spaces, an optional "=" or "==", and spaces again.
template <typename Char>
Char *skip_equals(Char *p) {
  p = skip_spaces(p);
  if (*p == '=') {
    ++p;
    if (*p == '=') ++p;
  }
  return skip_spaces(p);
}

// The space or NUL that ends the word starting at p.
template <typename Char>
Char *word_end(Char *p) {
  while (*p != '\0' && *p != ' ') ++p;
  return p;
}

}  // namespace dp

#endif
