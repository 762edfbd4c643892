// Rule file reader: splits a file held in memory into lines, judges every
// byte, and separates a rule line's text from its "=> RESULT".
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "nuvaddr_priv.h"
#include "nuvclfy.h"

namespace {

constexpr std::size_t kTextLimit = sizeof(nuv_clfy_line::text) - 1;
constexpr std::uint32_t kResultLimit = 65535;

struct Fault {
  int code;
  const char *reason;
};

constexpr Fault kNul{NUV_CLFY_LINE_E_NUL, "NUL byte (a rule file is text; padding left behind?)"};
constexpr Fault kControl{NUV_CLFY_LINE_E_CONTROL, "control character (only tab is allowed besides printing characters)"};
constexpr Fault kUtf8{NUV_CLFY_LINE_E_UTF8, "bytes that are not UTF-8"};
constexpr Fault kBom{NUV_CLFY_LINE_E_BOM, "byte-order mark at the start of the file (save the file without one)"};
constexpr Fault kResult{NUV_CLFY_LINE_E_RESULT, "the result after \"=>\" must be a number 0..65535"};
constexpr Fault kRange{NUV_CLFY_LINE_E_RANGE, "the result after \"=>\" must be a number 0..65535 (it is beyond 65535)"};
constexpr Fault kNoResult{NUV_CLFY_LINE_E_NO_RESULT, "the rule has no \"=> RESULT\""};
constexpr Fault kTooLong{NUV_CLFY_LINE_E_TOO_LONG, "the rule is longer than 255 characters"};

void refuse(nuv_clfy_line *line, const Fault &fault, std::size_t offset, std::size_t span) {
  line->code = fault.code;
  line->reason = fault.reason;
  line->column = static_cast<std::uint32_t>(offset + 1);
  line->span = static_cast<std::uint32_t>(span ? span : 1);
}

bool is_continuation(unsigned char c) { return (c & 0xC0u) == 0x80u; }

// Bytes of the UTF-8 sequence at p (at most `left` bytes), or 0 when they
// are no sequence: overlong forms, surrogates and code points beyond
// U+10FFFF are refused.  `code` gets the code point.
std::size_t utf8_sequence(const unsigned char *p, std::size_t left, std::uint32_t *code) {
  const unsigned char c = p[0];
  std::size_t length;
  std::uint32_t min;
  if (c < 0x80u) {
    *code = c;
    return 1;
  }
  if ((c & 0xE0u) == 0xC0u) length = 2, min = 0x80, *code = c & 0x1Fu;
  else if ((c & 0xF0u) == 0xE0u) length = 3, min = 0x800, *code = c & 0x0Fu;
  else if ((c & 0xF8u) == 0xF0u) length = 4, min = 0x10000, *code = c & 0x07u;
  else return 0;
  if (left < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if (!is_continuation(p[i])) return 0;
    *code = *code << 6 | (p[i] & 0x3Fu);
  }
  if (*code < min || *code > 0x10FFFFu || (*code >= 0xD800u && *code <= 0xDFFFu)) return 0;
  return length;
}

// Judges the bytes of one line; false after refusing it.
bool judge_bytes(const unsigned char *p, std::size_t length, nuv_clfy_line *line) {
  for (std::size_t i = 0; i < length;) {
    std::uint32_t code = 0;
    const std::size_t n = utf8_sequence(p + i, length - i, &code);
    if (code == 0 && n == 1) return refuse(line, kNul, i, 1), false;
    if (n == 0) return refuse(line, kUtf8, i, 1), false;
    if ((code < 0x20u && code != '\t') || (code >= 0x7Fu && code < 0xA0u)) return refuse(line, kControl, i, n), false;
    i += n;
  }
  return true;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// The result digits [first, last): false after refusing the line.
bool read_result(const char *p, std::size_t first, std::size_t last, nuv_clfy_line *line) {
  if (first == last) return refuse(line, kResult, first, 1), false;
  std::uint32_t value = 0;
  for (std::size_t i = first; i < last; ++i) {
    if (!dp::is_decimal_digit(p[i])) return refuse(line, kResult, first, last - first), false;
    value = value * 10 + static_cast<std::uint32_t>(p[i] - '0');
    if (value > kResultLimit) return refuse(line, kRange, first, last - first), false;
  }
  line->result = static_cast<std::uint16_t>(value);
  line->has_result = 1;
  return true;
}

// Splits the judged line `p` of `length` bytes into rule text and result.
void read_rule(const char *p, std::size_t length, std::uint32_t flags, nuv_clfy_line *line) {
  std::size_t first = 0, last = length;
  while (first < last && is_blank(p[first])) ++first;
  if (first == last || p[first] == '#') return;
  while (last > first && is_blank(p[last - 1])) --last;
  std::size_t arrow = last;
  for (std::size_t i = first; i + 1 < last; ++i)
    if (p[i] == '=' && p[i + 1] == '>') arrow = i;
  if (arrow < last) {
    std::size_t value = arrow + 2;
    while (value < last && is_blank(p[value])) ++value;
    if (!read_result(p, value, last, line)) return;
    last = arrow;
    while (last > first && is_blank(p[last - 1])) --last;
  } else if (flags & NUV_CLFY_LINE_NEED_RESULT) {
    return refuse(line, kNoResult, last, 1);
  }
  if (last - first > kTextLimit) return refuse(line, kTooLong, first + kTextLimit, last - first - kTextLimit);
  for (std::size_t i = first; i < last; ++i) line->text[i - first] = p[i] == '\t' ? ' ' : p[i];
  line->text[last - first] = '\0';
  line->column = static_cast<std::uint32_t>(first + 1);
  line->code = NUV_CLFY_LINE_RULE;
}

}  // namespace

extern "C" int nuv_clfy_next_line(const char *data, size_t size, uint32_t flags, nuv_clfy_line *line) {
  const std::size_t start = line->next;
  if (start >= size) return 0;
  const char *newline = static_cast<const char *>(std::memchr(data + start, '\n', size - start));
  std::size_t end = newline ? static_cast<std::size_t>(newline - data) : size;
  line->next = newline ? end + 1 : size;
  if (end > start && data[end - 1] == '\r') --end;
  line->number++;
  line->start = start;
  line->length = static_cast<std::uint32_t>(end - start);
  line->code = NUV_CLFY_LINE_EMPTY;
  line->column = 0;
  line->span = 0;
  line->reason = "";
  line->has_result = 0;
  line->result = 0;
  line->text[0] = '\0';
  const char *p = data + start;
  const auto *bytes = reinterpret_cast<const unsigned char *>(p);
  if (start == 0 && end >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
    refuse(line, kBom, 0, 3);
    return 1;
  }
  if (!judge_bytes(bytes, end - start, line)) return 1;
  if (flags & NUV_CLFY_LINE_BYTES_ONLY) {
    line->code = NUV_CLFY_LINE_RULE;
    return 1;
  }
  read_rule(p, end - start, flags, line);
  return 1;
}
