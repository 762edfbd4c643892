/* Short English texts of result codes, looked up in a table (private). */
#ifndef DP_CODETEXT_H
#define DP_CODETEXT_H

#include <cstddef>

namespace dp {

// One row of a code table: a result code and its text.
struct CodeText {
  int code;
  const char *text;
};

// The text of `code` in `table`, or `unknown` when the table has no row for it.
template <std::size_t N>
const char *code_text(const CodeText (&table)[N], int code, const char *unknown) {
  for (const CodeText &row : table)
    if (row.code == code) return row.text;
  return unknown;
}

// What every family answers for a code it does not know.
inline constexpr const char *kUnknownCodeText = "unknown result code";

}  // namespace dp

#endif
