// Word splitting, scratch copies and protocol words of the rule texts.
#include <cctype>
#include <cstring>
#include <strings.h>

#include "nuvproto.h"
#include "nuvrules_priv.h"

namespace nuvrules {
namespace {

bool is_word_separator(char c) { return c == ' ' || c == '\t'; }

}  // namespace

bool rule_text_too_long(const char *text) { return strnlen(text, kRuleTextMax + 1) > kRuleTextMax; }

char *copy_rule_text(const dp::ScratchBuffer &scratch, const char *text) {
  std::size_t length = strnlen(text, kRuleTextMax);
  std::memcpy(scratch.data(), text, length);
  scratch.data()[length] = '\0';
  return scratch.data();
}

std::size_t split_rule_words(char *text, const char **words, std::size_t max_words) {
  std::size_t count = 0;
  char *p = text;
  while (count < max_words) {
    while (is_word_separator(*p)) ++p;
    if (*p == '\0') break;
    words[count++] = p;
    while (*p != '\0' && !is_word_separator(*p)) ++p;
    if (*p == '\0') break;
    *p++ = '\0';
  }
  return count;
}

int parse_rule_protocol(std::uint8_t *proto, const char *word) {
  if (strcasecmp(word, "ip") == 0) {
    *proto = 255;
    return 0;
  }
  return ipproto_parse(proto, word) == 0 ? 0 : -1;
}

int diagnose(nuvrules_diag *diag, int code, const char *reason, std::size_t offset, std::size_t length) {
  if (diag) {
    diag->offset = static_cast<std::uint32_t>(offset);
    diag->length = static_cast<std::uint32_t>(length);
    diag->code = code;
    diag->reason = reason;
  }
  return code;
}

int diagnose_too_long(nuvrules_diag *diag, int code, const char *reason, const char *text) {
  if (!diag) return code;
  return diagnose(diag, code, reason, kRuleTextMax, std::strlen(text) - kRuleTextMax);
}

int diagnose_words(nuvrules_diag *diag, int code, const char *reason, const char *text, const char *copy,
                   const WordCursor &cursor, bool word_missing) {
  if (!diag) return code;
  if (code == 0) return diagnose(diag, code, reason, 0, 0);
  if (word_missing || !cursor.last()) return diagnose(diag, code, reason, strnlen(text, kRuleTextMax), 0);
  const char *word = cursor.last();
  return diagnose(diag, code, reason, static_cast<std::size_t>(word - copy), std::strlen(word));
}

void append_protocol_lower(dp::TextWriter &out, std::uint8_t proto) {
  if (proto == 255) {
    out.append("ip");
    return;
  }
  // Protocol names are short constants or "P<number>", far below this size.
  char lowered[64];
  const char *name = ipproto2str(proto);
  std::size_t i = 0;
  for (; name[i] != '\0' && i + 1 < sizeof lowered; ++i)
    lowered[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
  lowered[i] = '\0';
  out.append(lowered);
}

}  // namespace nuvrules
