// Access rules: the enumeration words and the rule line parser.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dp_codetext.h"
#include "nuvrules.h"
#include "nuvrules_priv.h"

namespace {

using nuvrules::WordCursor;

// A rule line using every part has 17 words, but only the first 16 are read:
// the level of its trailing "log <level>" is never seen and the rule logs
// "short".  The window belongs to the rule format; it is not a limit to raise.
constexpr std::size_t kMaxRuleWords = 16;

// ---- enumeration words ----

constexpr const char *kPolicyWords[] = {"disabled", "permit", "deny", "reject"};
constexpr const char *kOperatorWords[] = {"none", "eq", "ne", "lt", "le", "gt", "ge", "range"};
constexpr const char *kTcpFlagWords[] = {"none", "connect", "established"};
constexpr const char *kConnectionWords[] = {"normal",   "outgoing",         "outgoing-related",
                                            "incoming", "incoming-related", "exists"};
constexpr const char *kLoggingWords[] = {"none", "short", "long", "alert"};

template <std::size_t N>
int parse_word(const char *const (&table)[N], std::int32_t *value, const char *word) {
  for (std::size_t i = 0; i < N; ++i) {
    if (std::strcmp(table[i], word) == 0) {
      *value = static_cast<std::int32_t>(i);
      return 0;
    }
  }
  return -1;
}

template <std::size_t N>
const char *word_of(const char *const (&table)[N], std::int32_t value, const char *illegal) {
  if (value < 0 || static_cast<std::size_t>(value) >= N) return illegal;
  return table[value];
}

// ---- addresses and ports ----

// Dotted IPv4 text into a host-order integer: up to four decimal parts of
// 0..255.  A text ending right after a dot leaves the missing parts 0
// ("10." is 10.0.0.0); a text ending after a part before the fourth ("10.1")
// is refused; after the fourth part the rest is ignored ("1.2.3.4x").
bool parse_dotted_host_order(const char *word, std::uint32_t *out) {
  std::uint32_t value = 0;
  const char *p = word;
  for (int part = 0; part < 4; ++part) {
    char *end = nullptr;
    long number = std::strtol(p, &end, 10);
    if (end == p || number < 0 || number > 255) return false;
    value = value << 8 | static_cast<std::uint32_t>(number);
    p = end;
    if (part == 3) break;
    if (*p != '.') return false;
    ++p;
    if (*p == '\0') {
      value <<= 8 * (3 - part);
      break;
    }
  }
  *out = value;
  return true;
}

// A port number 1..65535; characters after the digits are ignored.
bool parse_port(const char *word, std::uint16_t *out) {
  long number = std::strtol(word, nullptr, 10);
  if (number < 1 || number > 65535) return false;
  *out = static_cast<std::uint16_t>(number);
  return true;
}

// ---- the parts of a rule line ----

// Error codes of one endpoint (source or destination) of a rule.
struct EndpointCodes {
  int host_address;
  int address;
  int mask;
  int port;
  int upper_port;
};

constexpr EndpointCodes kSourceCodes = {IPACCESS_E_BAD_SRC_HOST, IPACCESS_E_BAD_SRC_ADDR, IPACCESS_E_BAD_SRC_MASK,
                                         IPACCESS_E_BAD_SRC_PORT, IPACCESS_E_BAD_SRC_UPPER_PORT};
constexpr EndpointCodes kDestinationCodes = {IPACCESS_E_BAD_DST_HOST, IPACCESS_E_BAD_DST_ADDR, IPACCESS_E_BAD_DST_MASK,
                                              IPACCESS_E_BAD_DST_PORT, IPACCESS_E_BAD_DST_UPPER_PORT};

// Result codes of ipaccess_parse besides those of the endpoints.
constexpr int kTextTooLong = IPACCESS_E_TOO_LONG;  // also: no scratch memory for the copy
constexpr int kMissingWord = IPACCESS_E_MISSING_WORD;
constexpr int kUnknownPolicy = IPACCESS_E_UNKNOWN_POLICY;
constexpr int kUnknownProtocol = IPACCESS_E_UNKNOWN_PROTOCOL;
constexpr int kConnectionWithoutFlag = IPACCESS_E_CONNECTION_WITHOUT_FLAG;
constexpr int kUnknownConnectionFlag = IPACCESS_E_UNKNOWN_CONNECTION_FLAG;
constexpr int kUnknownTrailingWord = IPACCESS_E_UNKNOWN_TRAILING_WORD;

constexpr dp::CodeText kCodeTexts[] = {
    {IPACCESS_E_OK, "parsed"},
    {IPACCESS_E_TOO_LONG, "rule text longer than 1023 characters (or no scratch memory)"},
    {IPACCESS_E_MISSING_WORD, "a required word is missing"},
    {IPACCESS_E_UNKNOWN_POLICY, "unknown policy"},
    {IPACCESS_E_UNKNOWN_PROTOCOL, "unknown protocol"},
    {IPACCESS_E_BAD_SRC_HOST, "bad source address after \"host\""},
    {IPACCESS_E_BAD_SRC_ADDR, "bad source address"},
    {IPACCESS_E_BAD_SRC_MASK, "bad source mask"},
    {IPACCESS_E_BAD_SRC_PORT, "bad source port"},
    {IPACCESS_E_BAD_SRC_UPPER_PORT, "bad upper bound of the source port range"},
    {IPACCESS_E_BAD_DST_HOST, "bad destination address after \"host\""},
    {IPACCESS_E_BAD_DST_ADDR, "bad destination address"},
    {IPACCESS_E_BAD_DST_MASK, "bad destination mask"},
    {IPACCESS_E_BAD_DST_PORT, "bad destination port"},
    {IPACCESS_E_BAD_DST_UPPER_PORT, "bad upper bound of the destination port range"},
    {IPACCESS_E_CONNECTION_WITHOUT_FLAG, "\"connection\" without a connection flag"},
    {IPACCESS_E_UNKNOWN_CONNECTION_FLAG, "unknown connection flag"},
    {IPACCESS_E_UNKNOWN_TRAILING_WORD, "unknown logging level or trailing word"},
};

// "any" | "host" address | address mask.
int parse_address_part(WordCursor &words, const EndpointCodes &codes, std::uint32_t *addr, std::uint32_t *mask) {
  const char *word = words.take();
  if (!word) return kMissingWord;
  if (std::strcmp(word, "any") == 0) {
    *addr = 0;
    *mask = 0;
    return 0;
  }
  if (std::strcmp(word, "host") == 0) {
    const char *host = words.take();
    if (!host) return kMissingWord;
    if (!parse_dotted_host_order(host, addr)) return codes.host_address;
    *mask = 0xFFFFFFFFu;
    return 0;
  }
  if (!parse_dotted_host_order(word, addr)) return codes.address;
  const char *mask_word = words.take();
  if (!mask_word) return kMissingWord;
  return parse_dotted_host_order(mask_word, mask) ? 0 : codes.mask;
}

// [operator port | "range" port port]; a word that is no operator is left
// for the next part.  The operator is kept even when its port turns out bad.
int parse_port_part(WordCursor &words, const EndpointCodes &codes, std::int32_t *op, std::uint16_t *port,
                    std::uint16_t *port2) {
  const char *word = words.peek();
  if (!word || ipaccessoperator_parse(op, word) != 0) return 0;
  words.take();
  const char *first = words.take();
  if (!first) return kMissingWord;
  if (!parse_port(first, port)) return codes.port;
  if (*op != IPACCESS_OP_RANGE) return 0;
  const char *second = words.take();
  if (!second) return kMissingWord;
  return parse_port(second, port2) ? 0 : codes.upper_port;
}

// One whole endpoint: address part, then an optional port part.
// `word_must_follow` says whether a word must follow the address part (the
// source is always followed by the destination).
int parse_endpoint(WordCursor &words, const EndpointCodes &codes, bool word_must_follow, std::uint32_t *addr,
                   std::uint32_t *mask, std::int32_t *op, std::uint16_t *port, std::uint16_t *port2) {
  int rc = parse_address_part(words, codes, addr, mask);
  if (rc != 0) return rc;
  if (word_must_follow && words.done()) return kMissingWord;
  return parse_port_part(words, codes, op, port, port2);
}

// The optional words after the destination: TCP flag, connection part and
// log part, in that order.  Returns 0 or the code of the faulty word.
int parse_trailer(WordCursor &words, ipaccess_rule *rule) {
  if (words.done()) return 0;
  if (ipaccesstcpflag_parse(&rule->tcpflag, words.peek()) == 0) {
    words.take();
    if (words.done()) return 0;
  }
  if (std::strcmp(words.peek(), "connection") == 0) {
    words.take();
    const char *flag = words.take();
    if (!flag) return kConnectionWithoutFlag;
    if (ipaccessconnectionflag_parse(&rule->connflag, flag) != 0) return kUnknownConnectionFlag;
    if (words.done()) return 0;
  } else if (ipaccessconnectionflag_parse(&rule->connflag, words.peek()) == 0) {
    words.take();
    if (words.done()) return 0;
  }
  const char *word = words.take();
  if (std::strcmp(word, "log") == 0) {
    const char *level = words.take();
    if (!level) {
      rule->logging = IPACCESS_LOG_SHORT;
      return 0;
    }
    word = level;
  }
  // Words after the logging level are ignored.
  return ipaccesslogging_parse(&rule->logging, word) == 0 ? 0 : kUnknownTrailingWord;
}

int parse_words(WordCursor &words, ipaccess_rule *rule) {
  const char *policy = words.take();
  if (!policy) return kMissingWord;
  if (ipaccesspolicy_parse(&rule->policy, policy) != 0) return kUnknownPolicy;
  const char *proto = words.take();
  if (!proto) return kMissingWord;
  if (nuvrules::parse_rule_protocol(&rule->proto, proto) != 0) return kUnknownProtocol;
  int rc = parse_endpoint(words, kSourceCodes, true, &rule->src_addr, &rule->src_mask, &rule->src_op,
                          &rule->src_port, &rule->src_port2);
  if (rc != 0) return rc;
  rc = parse_endpoint(words, kDestinationCodes, false, &rule->dst_addr, &rule->dst_mask, &rule->dst_op,
                      &rule->dst_port, &rule->dst_port2);
  if (rc != 0) return rc;
  return parse_trailer(words, rule);
}

// The one access rule parser; `diag` is null for ipaccess_parse.
int parse_access_rule(ipaccess_rule *rule, const char *text, nuvrules_diag *diag) {
  std::memset(rule, 0, sizeof *rule);
  if (nuvrules::rule_text_too_long(text))
    return nuvrules::diagnose_too_long(diag, kTextTooLong, ipaccess_strerror(kTextTooLong), text);
  dp::ScratchBuffer scratch(nuvrules::kRuleScratchSize);
  if (!scratch) return nuvrules::diagnose(diag, kTextTooLong, ipaccess_strerror(kTextTooLong), 0, 0);
  char *copy = nuvrules::copy_rule_text(scratch, text);
  const char *words[kMaxRuleWords];
  const std::size_t count = nuvrules::split_rule_words(copy, words, kMaxRuleWords);
  WordCursor cursor(words, count);
  const int rc = parse_words(cursor, rule);
  const bool word_missing = rc == kMissingWord || rc == kConnectionWithoutFlag;
  return nuvrules::diagnose_words(diag, rc, ipaccess_strerror(rc), text, copy, cursor, word_missing);
}

}  // namespace

extern "C" {

int ipaccesspolicy_parse(std::int32_t *value, const char *word) { return parse_word(kPolicyWords, value, word); }

const char *ipaccesspolicy_string(std::int32_t value) { return word_of(kPolicyWords, value, "illegal-policy"); }

int ipaccessoperator_parse(std::int32_t *value, const char *word) { return parse_word(kOperatorWords, value, word); }

const char *ipaccessoperator_string(std::int32_t value) { return word_of(kOperatorWords, value, "illegal-operator"); }

int ipaccesstcpflag_parse(std::int32_t *value, const char *word) { return parse_word(kTcpFlagWords, value, word); }

const char *ipaccesstcpflag_string(std::int32_t value) { return word_of(kTcpFlagWords, value, "illegal-tcpflag"); }

int ipaccessconnectionflag_parse(std::int32_t *value, const char *word) {
  // "related" is the short form of outgoing-related; printing always uses
  // the long word.
  if (std::strcmp(word, "related") == 0) {
    *value = IPACCESS_CONN_OUTGOING_RELATED;
    return 0;
  }
  return parse_word(kConnectionWords, value, word);
}

const char *ipaccessconnectionflag_string(std::int32_t value) {
  return word_of(kConnectionWords, value, "illegal-connection-flag");
}

int ipaccesslogging_parse(std::int32_t *value, const char *word) { return parse_word(kLoggingWords, value, word); }

const char *ipaccesslogging_string(std::int32_t value) { return word_of(kLoggingWords, value, "illegal-logging"); }

const char *ipaccessdirection_string(std::int32_t direction) {
  if (direction == 1) return "INPUT";
  if (direction == 2) return "OUTPUT";
  return "NONE";
}

int ipaccess_parse(ipaccess_rule *rule, const char *text) { return parse_access_rule(rule, text, nullptr); }

int ipaccess_parse_with_diag(ipaccess_rule *rule, const char *text, nuvrules_diag *diag) {
  return parse_access_rule(rule, text, diag);
}

const char *ipaccess_strerror(int code) { return dp::code_text(kCodeTexts, code, dp::kUnknownCodeText); }

}  // extern "C"
