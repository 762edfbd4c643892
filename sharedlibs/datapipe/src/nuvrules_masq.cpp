// Masquerade forward rules: the plain and the extended text form.
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dp_bytes.h"
#include "dp_codetext.h"
#include "dp_number.h"
#include "dp_scratch.h"
#include "dp_text.h"
#include "dp_textwriter.h"
#include "nuvaddr.h"
#include "nuvrules.h"
#include "nuvrules_priv.h"

namespace {

using nuvrules::find_scope_word;
using nuvrules::ScopeWord;
using nuvrules::word_is;
using nuvrules::WordCursor;

// Words after the 17th are dropped without notice.
constexpr std::size_t kMaxMasqWords = 17;

// Printed rules of both forms share this one buffer.
char g_masq_text[1024];

const char kEmptyComment[] = "";

constexpr dp::CodeText kCodeTexts[] = {
    {IPMASQFWRULE_E_OK, "parsed"},
    {IPMASQFWRULE_E_COMMENTED_OUT, "rule is commented out"},
    {IPMASQFWRULE_E_TOO_LONG, "rule text longer than 1023 characters (or no scratch memory)"},
    {IPMASQFWRULE_E_MISSING_WORD, "protocol or endpoint missing"},
    {IPMASQFWRULE_E_UNKNOWN_PROTOCOL, "unknown protocol"},
    {IPMASQFWRULE_E_BAD_ENDPOINT, "malformed endpoint (address, port or count)"},
    {IPMASQFWRULE_E_MARK_WITHOUT_VALUE, "\"mark\" without a value"},
};

// One endpoint as it stands in the record.
struct Endpoint {
  std::uint32_t addr = 0;   // network byte order
  std::uint16_t port = 0;   // network byte order
  std::uint16_t count = 0;  // host order
};

// A decimal number as strtol reads it; false when no digit was read.  Out of
// range values are judged by the callers, so errno is left as it was.
bool read_long(const char *text, const char **end, long *value) {
  char *stop = nullptr;
  const int saved_errno = errno;
  *value = std::strtol(text, &stop, 10);
  errno = saved_errno;
  *end = stop;
  return stop != text;
}

// A port or a port count: 0..65535.
bool read_port_value(const char *text, const char **end, std::uint16_t *value) {
  long v = 0;
  if (!read_long(text, end, &v) || v < 0 || v > 0xffff) return false;
  *value = static_cast<std::uint16_t>(v);
  return true;
}

// The dotted address at the start of an endpoint word.  Up to four decimal
// parts 0..255 separated by "."; a "." that ends the word ends the address
// with the missing parts 0.  `*p` is left after the last part read.
bool read_masq_address(const char **p, std::uint32_t *addr) {
  std::uint8_t parts[4] = {0, 0, 0, 0};
  const char *cursor = *p;
  for (int i = 0; i < 4; ++i) {
    long v = 0;
    if (!read_long(cursor, &cursor, &v) || v < 0 || v > 255) return false;
    parts[i] = static_cast<std::uint8_t>(v);
    if (i == 3) break;
    if (*cursor != '.') return false;
    ++cursor;
    if (*cursor == '\0') break;
  }
  *p = cursor;
  std::uint8_t bytes[4] = {parts[0], parts[1], parts[2], parts[3]};
  *addr = dp::load_net32(bytes);
  return true;
}

// address[:port[+count]] (the count only when `with_count`).  An empty
// address before the colon stands for 0.0.0.0.  Anything after a complete
// address other than ":" is ignored, as is anything after the port or count.
bool parse_endpoint(const char *word, bool with_count, Endpoint *out) {
  Endpoint ep;
  const char *p = word;
  if (*p != ':' && !read_masq_address(&p, &ep.addr)) return false;
  if (*p == ':') {
    std::uint16_t port = 0;
    if (!read_port_value(p + 1, &p, &port)) return false;
    ep.port = dp::host_to_net16(port);
    if (with_count && *p == '+' && !read_port_value(p + 1, &p, &ep.count)) return false;
  }
  *out = ep;
  return true;
}

// The router's long is 32 bits wide: a number beyond that range reads as the
// nearest 32-bit value on every host, as it does there.
std::int32_t clamp_to_int32(long value) {
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<std::int32_t>(value);
}

// The mark as the router's strtoul reads it in base 10 (0 without digits).
unsigned long read_mark(const char *text) {
  const char *end;
  return dp::strtoul32(text, &end, 10);
}

static_assert(IPMASQFWRULE_SCOPE_LOCAL == 1 && IPMASQFWRULE_SCOPE_INTERNET == 2, "scope codes of the scope words");

// The two endpoints: a word missing or malformed.
int parse_endpoints(WordCursor &cursor, ipmasqfwrule *rule) {
  Endpoint first;
  Endpoint second;
  const char *word = cursor.take();
  if (!word) return IPMASQFWRULE_E_MISSING_WORD;
  if (!parse_endpoint(word, true, &first)) return IPMASQFWRULE_E_BAD_ENDPOINT;
  rule->addr1 = first.addr;
  rule->port1 = first.port;
  rule->count = first.count;
  word = cursor.take();
  if (!word) return IPMASQFWRULE_E_MISSING_WORD;
  if (!parse_endpoint(word, false, &second)) return IPMASQFWRULE_E_BAD_ENDPOINT;
  rule->addr2 = second.addr;
  rule->port2 = second.port;
  return 0;
}

// Optional words after the endpoints; stops with 0 as soon as the words run
// out.  `ext` is null for the plain form, which reads the extended words over
// without keeping them.
int parse_optional_words(WordCursor &cursor, ipmasqfwrule *rule, ipmasqfwruleex *ext) {
  long number = 0;
  const char *end = nullptr;
  if (read_long(cursor.peek(), &end, &number)) {
    rule->number = clamp_to_int32(number);
    cursor.take();
    if (cursor.done()) return 0;
  }
  if (word_is(cursor.peek(), "out")) {
    rule->flags |= IPMASQFWRULE_FLAG_OUT;
    cursor.take();
    if (cursor.done()) return 0;
  }
  if (const ScopeWord *scope = find_scope_word(cursor.peek())) {
    if (ext) ext->scope = scope->scope;
    cursor.take();
    if (cursor.done()) return 0;
  }
  if (word_is(cursor.peek(), "mark")) {
    cursor.take();
    const char *value = cursor.take();
    if (!value) return IPMASQFWRULE_E_MARK_WITHOUT_VALUE;
    if (ext) ext->mark = read_mark(value);
  }
  return 0;
}

int parse_masq_words(WordCursor &cursor, ipmasqfwrule *rule, ipmasqfwruleex *ext) {
  const char *word = cursor.take();
  if (!word) return IPMASQFWRULE_E_MISSING_WORD;
  if (word_is(word, "#")) {
    if (!ext) return IPMASQFWRULE_E_COMMENTED_OUT;
    ext->enabled = 0;
    word = cursor.take();
    if (!word) return IPMASQFWRULE_E_MISSING_WORD;
  }
  if (nuvrules::parse_rule_protocol(&rule->proto, word) != 0) return IPMASQFWRULE_E_UNKNOWN_PROTOCOL;
  int rc = parse_endpoints(cursor, rule);
  if (rc != 0 || cursor.done()) return rc;
  return parse_optional_words(cursor, rule, ext);
}

// The comment is whatever follows the first "#" from `from` on, past blanks
// (tabs are kept); it points into the caller's text.
void find_comment(ipmasqfwruleex *ext, const char *from) {
  const char *hash = std::strchr(from, '#');
  if (!hash) return;
  ext->comment = dp::skip_spaces(hash + 1);
}

// The parser behind both forms; `ext` is null for the plain one, `diag`
// null but for the diagnostic calls.
int parse_masq(ipmasqfwrule *rule, ipmasqfwruleex *ext, const char *text, nuvrules_diag *diag) {
  std::memset(rule, 0, sizeof *rule);
  if (ext) {
    ext->enabled = 1;
    ext->comment = kEmptyComment;
    ext->scope = IPMASQFWRULE_SCOPE_NONE;
    ext->mark = 0;
  }
  constexpr int kTooLong = IPMASQFWRULE_E_TOO_LONG;
  if (nuvrules::rule_text_too_long(text))
    return nuvrules::diagnose_too_long(diag, kTooLong, ipmasqfwrule_strerror(kTooLong), text);
  dp::ScratchBuffer scratch(nuvrules::kRuleScratchSize);
  if (!scratch) return nuvrules::diagnose(diag, kTooLong, ipmasqfwrule_strerror(kTooLong), 0, 0);
  char *copy = nuvrules::copy_rule_text(scratch, text);
  const char *words[kMaxMasqWords];
  std::size_t count = nuvrules::split_rule_words(copy, words, kMaxMasqWords);
  WordCursor cursor(words, count);
  int rc = parse_masq_words(cursor, rule, ext);
  // Words are split in a copy of the whole text, so a word's offset in the
  // copy is its offset in the caller's text.
  if (rc == 0 && ext && !cursor.done()) find_comment(ext, text + (cursor.peek() - copy));
  const bool word_missing = rc == IPMASQFWRULE_E_MISSING_WORD || rc == IPMASQFWRULE_E_MARK_WITHOUT_VALUE;
  return nuvrules::diagnose_words(diag, rc, ipmasqfwrule_strerror(rc), text, copy, cursor, word_missing);
}

void append_endpoint(dp::TextWriter &out, std::uint32_t addr, std::uint16_t port_net) {
  out.append(ipaddr2str(addr));
  std::uint16_t port = dp::net_to_host16(port_net);
  if (port != 0) out.printf(":%d", port);
}

void append_plain_rule(dp::TextWriter &out, const ipmasqfwrule &rule) {
  nuvrules::append_protocol_lower(out, rule.proto);
  out.append(" ");
  append_endpoint(out, rule.addr1, rule.port1);
  if (rule.port1 != 0 && rule.count > 1) out.printf("+%u", static_cast<unsigned>(rule.count));
  out.append(" ");
  append_endpoint(out, rule.addr2, rule.port2);
  out.printf(" %d", static_cast<int>(rule.number));
  if (rule.flags & IPMASQFWRULE_FLAG_OUT) out.append(" out");
}

void append_extension(dp::TextWriter &out, const ipmasqfwruleex &rule) {
  nuvrules::append_scope(out, rule.scope);
  if (rule.mark != 0) out.printf(" mark %lu", rule.mark);
  if (rule.comment && rule.comment[0] != '\0') out.printf(" # %s", rule.comment);
}

}  // namespace

extern "C" {

int ipmasqfwrule_parse(ipmasqfwrule *rule, const char *text) { return parse_masq(rule, nullptr, text, nullptr); }

int ipmasqfwruleex_parse(ipmasqfwruleex *rule, const char *text) {
  return parse_masq(&rule->rule, rule, text, nullptr);
}

int ipmasqfwrule_parse_with_diag(ipmasqfwrule *rule, const char *text, nuvrules_diag *diag) {
  return parse_masq(rule, nullptr, text, diag);
}

int ipmasqfwruleex_parse_with_diag(ipmasqfwruleex *rule, const char *text, nuvrules_diag *diag) {
  return parse_masq(&rule->rule, rule, text, diag);
}

const char *ipmasqfwrule_strerror(int code) { return dp::code_text(kCodeTexts, code, dp::kUnknownCodeText); }

const char *ipmasqfwrule_string(const ipmasqfwrule *rule) {
  dp::TextWriter out(g_masq_text, sizeof g_masq_text);
  append_plain_rule(out, *rule);
  return g_masq_text;
}

const char *ipmasqfwruleex_string(const ipmasqfwruleex *rule) {
  dp::TextWriter out(g_masq_text, sizeof g_masq_text);
  if (rule->enabled == 0) out.append("# ");
  append_plain_rule(out, rule->rule);
  append_extension(out, *rule);
  return g_masq_text;
}

}  // extern "C"
