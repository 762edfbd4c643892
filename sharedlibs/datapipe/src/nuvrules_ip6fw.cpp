// IPv6 forward rules (blocks of protocol and port entries), IPv6 port ranges
// and PCP handling values.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dp_codetext.h"
#include "dp_number.h"
#include "dp_scratch.h"
#include "dp_text.h"
#include "dp_textring.h"
#include "dp_textwriter.h"
#include "nuvclfy.h"
#include "nuvpkt.h"
#include "nuvproto.h"
#include "nuvrules.h"
#include "nuvrules_priv.h"

namespace {

constexpr std::size_t kEntrySize = sizeof(ip6_portrange);
constexpr std::size_t kHeaderSize = IP6_FORWARDRULE_HEADER_SIZE;
static_assert(sizeof(ip6_forwardrule) == kHeaderSize, "forward rule header is 48 bytes");
static_assert(offsetof(ip6_forwardrule, count) == 44 && offsetof(ip6_forwardrule, capacity) == 46,
              "count and capacity sit at 44 and 46");
static_assert(offsetof(ip6_forwardrule, proto_bits) == 12, "protocol bitmap sits at 12");

// Counts and capacities are 16-bit fields.
constexpr std::size_t kMaxEntries = 0xffff;

// Words of an IPv6 port range line are at most this long, NUL included.
constexpr std::size_t kWordSize = 32;

constexpr std::uint16_t kAllPorts = 0xffff;

// One port of a forward rule list: the number's low 16 bits, which must not
// be 0 ("65536" is refused, "70000" is port 4464).
bool read_list_port(const char *text, const char **end, std::uint16_t *port) {
  std::uint16_t cut = static_cast<std::uint16_t>(dp::strtoul32(text, end, 10));
  if (*end == text || cut == 0) return false;
  *port = cut;
  return true;
}

int add_entry(ip6_forwardrule *block, std::uint8_t proto, std::uint16_t lo, std::uint16_t hi) {
  if (block->count >= block->capacity) return IP6_FORWARDRULE_E_FULL;
  ip6_portrange *entry = &block->entries[block->count];
  std::memset(entry, 0, sizeof *entry);
  entry->proto = proto;
  entry->port_lo = lo;
  entry->port_hi = hi;
  ++block->count;
  return 0;
}

void mark_portless_protocol(ip6_forwardrule *block, std::uint8_t proto) {
  block->proto_bits[proto / 32] |= std::uint32_t{1} << (proto % 32);
}

bool portless_protocol_marked(const ip6_forwardrule *block, unsigned proto) {
  return (block->proto_bits[proto / 32] >> (proto % 32)) & 1u;
}

// The part of a line a forward rule result is about.
struct Span {
  const char *at = nullptr;
  std::size_t length = 0;
};

// Notes `span` (when wanted) and returns `code`.
int refuse(Span *where, const char *at, std::size_t length, int code) {
  if (where) *where = Span{at, length};
  return code;
}

// The number at `text` as written, for a refused port: blanks skipped, up
// to the next blank, ",", "-" or the end.
int refuse_number(Span *where, const char *text) {
  const char *at = dp::skip_spaces(text);
  std::size_t length = 0;
  while (at[length] != '\0' && std::strchr(" ,-", at[length]) == nullptr) ++length;
  return refuse(where, at, length, IP6_FORWARDRULE_E_BAD_PORT);
}

// Items "p" or "p-q" separated by ",", one entry each.  `where` (may be
// null) receives the part of the list a failure is about.
int parse_port_list(ip6_forwardrule *block, std::uint8_t proto, const char *list, Span *where) {
  const char *p = list;
  for (;;) {
    const char *item = p;
    std::uint16_t lo = 0;
    std::uint16_t hi = 0;
    if (!read_list_port(p, &p, &lo)) return refuse_number(where, item);
    hi = lo;
    p = dp::skip_spaces(p);
    if (*p == '-') {
      const char *upper = p + 1;
      if (!read_list_port(upper, &p, &hi)) return refuse_number(where, upper);
      p = dp::skip_spaces(p);
      if (lo > hi) {
        std::uint16_t swap = lo;
        lo = hi;
        hi = swap;
      }
    }
    const int rc = add_entry(block, proto, lo, hi);
    if (rc != 0) {
      item = dp::skip_spaces(item);
      return refuse(where, item, static_cast<std::size_t>(p - item), rc);
    }
    if (*p == '\0') return IP6_FORWARDRULE_E_OK;
    if (*p != ',') return refuse(where, p, 1, IP6_FORWARDRULE_E_BAD_SEPARATOR);
    ++p;
  }
}

int compare_entries(const void *a, const void *b) {
  const ip6_portrange *x = static_cast<const ip6_portrange *>(a);
  const ip6_portrange *y = static_cast<const ip6_portrange *>(b);
  if (x->proto != y->proto) return x->proto < y->proto ? -1 : 1;
  if (x->port_lo != y->port_lo) return x->port_lo < y->port_lo ? -1 : 1;
  if (x->port_hi != y->port_hi) return x->port_hi < y->port_hi ? -1 : 1;
  return 0;
}

void append_ports(dp::TextWriter &out, std::uint16_t lo, std::uint16_t hi) {
  if (lo == hi)
    out.printf("%hu", lo);
  else
    out.printf("%hu-%hu", lo, hi);
}

void append_entries(dp::TextWriter &out, const ip6_forwardrule &block) {
  for (std::size_t i = 0; i < block.count; ++i) {
    const ip6_portrange &entry = block.entries[i];
    if (i == 0)
      out.printf("%s ", ipproto2str(entry.proto));
    else if (entry.proto != block.entries[i - 1].proto)
      out.printf(" %s ", ipproto2str(entry.proto));
    else
      out.append(",");
    append_ports(out, entry.port_lo, entry.port_hi);
  }
}

void append_portless_protocols(dp::TextWriter &out, const ip6_forwardrule &block) {
  // 255 stands for any protocol; it is marked by an "ip" line but never named.
  for (unsigned proto = 0; proto < 255; ++proto) {
    std::uint8_t number = static_cast<std::uint8_t>(proto);
    if (!is_port_protocol(number) && portless_protocol_marked(&block, proto)) out.printf(" %s", ipproto2str(number));
  }
}

// Texts are composed on the stack and copied into the result ring at the
// end: numeric protocol names ("P200") take ring buffers of their own, and a
// long list of them would otherwise come round to the buffer being written.
const char *to_result_ring(const char *text) {
  char *ring = dp::result_ring_next();
  std::size_t length = strnlen(text, dp::kResultBufferSize - 1);
  std::memcpy(ring, text, length);
  ring[length] = '\0';
  return ring;
}

void append_range_ports(dp::TextWriter &out, const ip6_portrange &range) {
  if (!is_port_protocol(range.proto)) return;
  out.append(" ");
  append_ports(out, range.port_lo, range.port_hi);
}

// Fields of a port range after the protocol word: ports, then up to two
// words before a "#" (scope and "mark").
void parse_range_ports(const char **cursor, ip6_portrange *range) {
  const char *p = dp::skip_spaces(*cursor);
  char *end = nullptr;
  std::uint16_t port = 0;
  if (parse_ushort(p, &end, &port) != 0) {
    range->port_lo = 0;
    range->port_hi = is_port_protocol(range->proto) ? kAllPorts : 0;
  } else {
    range->port_lo = port;
    range->port_hi = port;
    p = dp::skip_spaces(end);
    if (*p == '-') {
      p = dp::skip_spaces(p + 1);
      // A bad upper bound is passed over; the range keeps its single port.
      if (parse_ushort(p, &end, &port) == 0) {
        range->port_hi = port;
        p = end;
      }
    } else {
      p = end;
    }
  }
  if (!is_port_protocol(range->proto)) {
    range->port_lo = 0;
    range->port_hi = 0;
  }
  *cursor = p;
}

// Reads the next word unless the line ends or a comment starts; `word` is
// then the empty text.  -2 when the word is too long.
int next_range_word(const char **cursor, char (&word)[kWordSize]) {
  const char *p = dp::skip_spaces(*cursor);
  word[0] = '\0';
  *cursor = p;
  if (*p == '#' || *p == '\0') return 0;
  char *end = nullptr;
  if (parse_nonblank(p, &end, word, sizeof word) != 0) return IP6_PORTRANGE_E_MALFORMED;
  *cursor = end;
  return 0;
}

using nuvrules::word_is;

static_assert(IP6_PORTRANGE_SCOPE_LOCAL == 1 && IP6_PORTRANGE_SCOPE_INTERNET == 2, "scope codes of the scope words");

// Up to two words before the comment: the first may be a scope word, either
// may be "mark" with its value.  Other words are passed over.
int parse_range_words(const char **cursor, ip6_portrange *range) {
  char word[kWordSize];
  if (next_range_word(cursor, word) != 0) return IP6_PORTRANGE_E_MALFORMED;
  if (const nuvrules::ScopeWord *scope = nuvrules::find_scope_word(word)) range->scope = scope->scope;
  bool mark = word_is(word, "mark");
  if (!mark) {
    if (next_range_word(cursor, word) != 0) return IP6_PORTRANGE_E_MALFORMED;
    mark = word_is(word, "mark");
  }
  if (!mark) return 0;
  char *end = nullptr;
  if (parse_ulong(*cursor, &end, &range->mark) != 0) return IP6_PORTRANGE_E_MALFORMED;
  *cursor = end;
  return 0;
}

void find_range_comment(const char *from, ip6_portrange *range) {
  range->comment = nullptr;
  const char *hash = std::strchr(from, '#');
  if (hash) range->comment = dp::skip_spaces(hash + 1);
}

constexpr dp::CodeText kForwardRuleTexts[] = {
    {IP6_FORWARDRULE_E_OK, "parsed"},
    {IP6_FORWARDRULE_E_BAD_PORT, "missing or bad port number (or no scratch memory)"},
    {IP6_FORWARDRULE_E_BAD_SEPARATOR, "port list item not followed by \",\" or the end"},
    {IP6_FORWARDRULE_E_FULL, "forward rule block is full"},
    {IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL, "unknown protocol"},
};

constexpr dp::CodeText kPortRangeTexts[] = {
    {IP6_PORTRANGE_E_OK, "parsed"},
    {IP6_PORTRANGE_E_MALFORMED, "unknown protocol, word too long, or \"mark\" without a value"},
};

// A forward rule line after its leading blanks, in a writable copy:
// "protocol [port list]".  `where` (may be null) receives the part of the
// copy a failure is about.
int parse_forward_words(ip6_forwardrule *block, char *copy, Span *where) {
  char *rest = std::strchr(copy, ' ');
  if (rest) *rest++ = '\0';
  std::uint8_t proto = 0;
  if (ipproto_parse(&proto, copy) != 0)
    return refuse(where, copy, std::strlen(copy), IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL);
  if (!is_port_protocol(proto)) {
    mark_portless_protocol(block, proto);
    return IP6_FORWARDRULE_E_OK;
  }
  if (rest && *rest != '\0') return parse_port_list(block, proto, rest, where);
  const int rc = add_entry(block, proto, 0, kAllPorts);
  return rc == 0 ? rc : refuse(where, copy, std::strlen(copy), rc);
}

// The one forward rule line parser; `diag` is null for ip6_forwardrule_parse.
int parse_forward_line(ip6_forwardrule *block, const char *line, nuvrules_diag *diag) {
  const char *start = dp::skip_spaces(line);
  if (*start == '#') return nuvrules::diagnose(diag, IP6_FORWARDRULE_E_OK, ip6_forwardrule_strerror(0), 0, 0);
  dp::ScratchBuffer scratch(nuvrules::kRuleScratchSize);
  if (!scratch) {
    constexpr int kNoScratch = IP6_FORWARDRULE_E_BAD_PORT;
    return nuvrules::diagnose(diag, kNoScratch, ip6_forwardrule_strerror(kNoScratch), 0, 0);
  }
  // Longer lines are cut to what the scratch copy holds.
  char *copy = nuvrules::copy_rule_text(scratch, start);
  Span where;
  const int rc = parse_forward_words(block, copy, diag ? &where : nullptr);
  if (rc == 0 || !diag) return nuvrules::diagnose(diag, rc, ip6_forwardrule_strerror(rc), 0, 0);
  // The copy starts at `start` in the line.
  const std::size_t offset = static_cast<std::size_t>(start - line) + static_cast<std::size_t>(where.at - copy);
  return nuvrules::diagnose(diag, rc, ip6_forwardrule_strerror(rc), offset, where.length);
}

// PCP handling words, indexed by value.
constexpr const char *kPcpWords[] = {"ignore", "local", "internet"};

}  // namespace

extern "C" {

ip6_forwardrule *ip6_forwardrule_init(void *block, size_t size) {
  if (!block || size < kHeaderSize) return nullptr;
  std::memset(block, 0, size);
  ip6_forwardrule *rule = static_cast<ip6_forwardrule *>(block);
  rule->size = size > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(size);
  std::size_t capacity = (size - kHeaderSize) / kEntrySize;
  rule->capacity = static_cast<std::uint16_t>(capacity > kMaxEntries ? kMaxEntries : capacity);
  return rule;
}

int ip6_forwardrule_parse(ip6_forwardrule *block, const char *line) { return parse_forward_line(block, line, nullptr); }

int ip6_forwardrule_parse_with_diag(ip6_forwardrule *block, const char *line, nuvrules_diag *diag) {
  return parse_forward_line(block, line, diag);
}

const char *ip6_forwardrule_strerror(int code) {
  return dp::code_text(kForwardRuleTexts, code, dp::kUnknownCodeText);
}

uint32_t ip6_forwardrule_finish(ip6_forwardrule *block) {
  std::qsort(block->entries, block->count, kEntrySize, compare_entries);
  block->size = static_cast<std::uint32_t>(kHeaderSize + kEntrySize * block->count);
  return block->size;
}

const char *ip6_forwardrule2str(const ip6_forwardrule *block) {
  if (block->all_protocols) return "ip";
  char text[dp::kResultBufferSize];
  dp::TextWriter out(text, sizeof text);
  if (block->ping) out.append("ping ");
  append_entries(out, *block);
  append_portless_protocols(out, *block);
  return to_result_ring(text);
}

int ip6_portrange_parse(const char *text, ip6_portrange *range) {
  range->scope = IP6_PORTRANGE_SCOPE_NONE;
  range->mark = 0;
  const char *p = dp::skip_spaces(text);
  range->enabled = 1;
  if (*p == '#') {
    range->enabled = 0;
    p = dp::skip_spaces(p + 1);
  }
  char word[kWordSize];
  char *end = nullptr;
  if (parse_nonblank(p, &end, word, sizeof word) != 0) return IP6_PORTRANGE_E_MALFORMED;
  if (ipproto_parse(&range->proto, word) != 0) return IP6_PORTRANGE_E_MALFORMED;
  p = end;
  parse_range_ports(&p, range);
  if (parse_range_words(&p, range) != 0) return IP6_PORTRANGE_E_MALFORMED;
  find_range_comment(p, range);
  return IP6_PORTRANGE_E_OK;
}

const char *ip6_portrange_strerror(int code) { return dp::code_text(kPortRangeTexts, code, dp::kUnknownCodeText); }

const char *ip6_portrange2str(const ip6_portrange *range) {
  char text[dp::kResultBufferSize];
  dp::TextWriter out(text, sizeof text);
  if (range->enabled == 0) out.append("# ");
  out.append(ipproto2str(range->proto));
  append_range_ports(out, *range);
  nuvrules::append_scope(out, range->scope);
  if (range->mark != 0) out.printf(" mark %lu", static_cast<unsigned long>(range->mark));
  if (range->comment) out.printf(" # %s", range->comment);
  return to_result_ring(text);
}

const char *ip6_portrange2simplestr(const ip6_portrange *range) {
  char text[dp::kResultBufferSize];
  dp::TextWriter out(text, sizeof text);
  out.append(ipproto2str(range->proto));
  append_range_ports(out, *range);
  return to_result_ring(text);
}

int pcphandling_parse(const char *word, int32_t *value) {
  if (!word) return -1;
  for (std::size_t i = 0; i < sizeof kPcpWords / sizeof kPcpWords[0]; ++i) {
    if (std::strcmp(word, kPcpWords[i]) == 0) {
      *value = static_cast<std::int32_t>(i);
      return 0;
    }
  }
  return -1;
}

const char *pcphandling2str(int32_t value) {
  if (value < 0 || static_cast<std::size_t>(value) >= sizeof kPcpWords / sizeof kPcpWords[0])
    return "<ill. pcphandling>";
  return kPcpWords[value];
}

}  // extern "C"
