/* Helpers shared by the firewall rule text parsers and printers (private). */
#ifndef NUVRULES_PRIV_H
#define NUVRULES_PRIV_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "dp_scratch.h"
#include "dp_textwriter.h"
#include "nuvrules.h"

namespace nuvrules {

// Rule lines are copied into a scratch block of this size before they are
// split, so a line may hold at most kRuleTextMax characters.
inline constexpr std::size_t kRuleScratchSize = 1024;
inline constexpr std::size_t kRuleTextMax = kRuleScratchSize - 1;

// Whether `text` holds more than kRuleTextMax characters.  Reads at most
// kRuleTextMax + 1 characters, so a huge or unterminated-looking text is
// never walked to its end.
bool rule_text_too_long(const char *text);

// Copies a text that is not too long (see above) into `scratch`, which must
// hold kRuleScratchSize bytes.  Returns the copy.
char *copy_rule_text(const dp::ScratchBuffer &scratch, const char *text);

// Splits `text` in place into words separated by runs of blanks and tabs
// (only those two; other characters belong to the words).  Stores at most
// `max_words` word pointers into `words` and returns how many; whatever
// follows the last stored word is dropped.
std::size_t split_rule_words(char *text, const char **words, std::size_t max_words);

// The words of a split rule line, read front to back.
class WordCursor {
 public:
  WordCursor(const char *const *words, std::size_t count) : words_(words), count_(count), next_(0), last_(nullptr) {}

  bool done() const { return next_ >= count_; }
  // The next word, or null when none is left.
  const char *peek() const { return done() ? nullptr : words_[next_]; }
  // The next word (or null), and moves past it.
  const char *take() {
    const char *word = peek();
    if (word) {
      ++next_;
      last_ = word;
    }
    return word;
  }
  // The word most recently taken, or null before the first.
  const char *last() const { return last_; }
  // Index of the next word in the split line.
  std::size_t position() const { return next_; }

 private:
  const char *const *words_;
  std::size_t count_;
  std::size_t next_;
  const char *last_;
};

// ---- Diagnoses of the _with_diag parsers ----
// Each helper does nothing when `diag` is null (the plain parsers), and
// returns `code` so that a parser can return through it.

// Fills `diag` with `code`, `reason` and the word at `offset` of `length` bytes.
int diagnose(nuvrules_diag *diag, int code, const char *reason, std::size_t offset, std::size_t length);

// A text longer than kRuleTextMax: reported from that limit, with the excess
// as length.
int diagnose_too_long(nuvrules_diag *diag, int code, const char *reason, const char *text);

// The result of a parser that split `text` into words in `copy` and read them
// with `cursor`: success at offset 0; a `word_missing` failure at the end of
// the text with length 0; any other result at the word taken last.
int diagnose_words(nuvrules_diag *diag, int code, const char *reason, const char *text, const char *copy,
                   const WordCursor &cursor, bool word_missing);

// Whether `word` (null when the line has no word left) is exactly `expected`.
inline bool word_is(const char *word, const char *expected) {
  return word && std::strcmp(word, expected) == 0;
}

// A scope word of masquerade and forward-rule lines and the scope code it
// stands for.  Both records use the same codes: 0 none, 1 local, 2 internet.
struct ScopeWord {
  const char *word;
  std::int32_t scope;
};

inline constexpr ScopeWord kScopeWords[] = {
    {"local", 1},
    {"internet", 2},
};

// The scope word spelled exactly `word`, or null (also for a null word).
inline const ScopeWord *find_scope_word(const char *word) {
  for (const ScopeWord &entry : kScopeWords)
    if (word_is(word, entry.word)) return &entry;
  return nullptr;
}

// Appends " local" or " internet" for those scopes; nothing for any other.
inline void append_scope(dp::TextWriter &out, std::int32_t scope) {
  for (const ScopeWord &entry : kScopeWords)
    if (scope == entry.scope) out.printf(" %s", entry.word);
}

// Reads the protocol word of a rule line: "ip" in any case is any protocol
// (255), anything else goes through ipproto_parse.  Returns 0 and stores the
// number, or -1 and leaves `*proto` alone.
int parse_rule_protocol(std::uint8_t *proto, const char *word);

// Appends the protocol's name in lower case as rule lines print it: "ip" for
// 255, otherwise the ipproto2str name with every letter lowered ("TCP" ->
// "tcp", "P200" -> "p200").
void append_protocol_lower(dp::TextWriter &out, std::uint8_t proto);

}  // namespace nuvrules

#endif
