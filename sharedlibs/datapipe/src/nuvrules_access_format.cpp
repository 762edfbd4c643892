// Access rules: printing a rule record back as a rule line.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "dp_textring.h"
#include "dp_textwriter.h"
#include "nuvrules.h"
#include "nuvrules_priv.h"

namespace {

constexpr std::size_t kRuleTextSize = 1024;
// Dotted addresses are printed into a ring buffer, limited to this length.
constexpr std::size_t kAddressTextSize = 32;

char rule_text[kRuleTextSize];

// Which `used` bits the printer honours; with none, every field is printed
// by its own value.
struct PrintMode {
  bool use_flags;
  std::uint32_t used;

  bool shows(std::uint32_t bit) const { return !use_flags || (used & bit) != 0; }
};

const char *address_text(std::uint32_t host_order) {
  char *buf = dp::result_ring_next();
  std::snprintf(buf, kAddressTextSize, "%u.%u.%u.%u", static_cast<unsigned>(host_order >> 24),
                static_cast<unsigned>(host_order >> 16 & 0xFF), static_cast<unsigned>(host_order >> 8 & 0xFF),
                static_cast<unsigned>(host_order & 0xFF));
  return buf;
}

const char *port_text(std::uint16_t port) {
  char *buf = dp::result_ring_next();
  std::snprintf(buf, dp::kResultBufferSize, "%u", static_cast<unsigned>(port));
  return buf;
}

void append_address(dp::TextWriter &out, const PrintMode &mode, std::uint32_t bit, std::uint32_t addr,
                    std::uint32_t mask) {
  if (mask == 0 || !mode.shows(bit)) {
    out.append("any ");
  } else if (mask == 0xFFFFFFFFu) {
    out.printf("host %s ", address_text(addr));
  } else {
    const char *addr_text = address_text(addr);
    out.printf("%s %s ", addr_text, address_text(mask));
  }
}

// Operator "none" is printed only when the `used` bit asks for the condition.
void append_ports(dp::TextWriter &out, const PrintMode &mode, std::uint32_t bit, std::int32_t op,
                  std::uint16_t port, std::uint16_t port2) {
  bool wanted = op != IPACCESS_OP_NONE || (mode.use_flags && (mode.used & bit) != 0);
  if (!wanted) return;
  if (op == IPACCESS_OP_RANGE) {
    const char *first = port_text(port);
    out.printf("%s %s %s ", ipaccessoperator_string(op), first, port_text(port2));
  } else {
    out.printf("%s %s ", ipaccessoperator_string(op), port_text(port));
  }
}

void append_trailer(dp::TextWriter &out, const ipaccess_rule &rule) {
  if (rule.tcpflag != IPACCESS_TCPFLAG_NONE) out.printf("%s ", ipaccesstcpflag_string(rule.tcpflag));
  if (rule.connflag != IPACCESS_CONN_NORMAL)
    out.printf("connection %s ", ipaccessconnectionflag_string(rule.connflag));
  if (rule.logging != IPACCESS_LOG_NONE) out.printf("log %s ", ipaccesslogging_string(rule.logging));
}

void strip_trailing_blanks(char *text) {
  std::size_t length = std::strlen(text);
  while (length > 0 && text[length - 1] == ' ') text[--length] = '\0';
}

const char *format_rule(const ipaccess_rule &rule, const PrintMode &mode) {
  dp::TextWriter out(rule_text, sizeof rule_text);
  out.printf("%s ", ipaccesspolicy_string(rule.policy));
  nuvrules::append_protocol_lower(out, mode.shows(IPACCESS_USED_PROTO) ? rule.proto : 255);
  out.append(" ");
  append_address(out, mode, IPACCESS_USED_SRC_ADDR, rule.src_addr, rule.src_mask);
  append_ports(out, mode, IPACCESS_USED_SRC_PORT, rule.src_op, rule.src_port, rule.src_port2);
  append_address(out, mode, IPACCESS_USED_DST_ADDR, rule.dst_addr, rule.dst_mask);
  append_ports(out, mode, IPACCESS_USED_DST_PORT, rule.dst_op, rule.dst_port, rule.dst_port2);
  append_trailer(out, rule);
  strip_trailing_blanks(rule_text);
  return rule_text;
}

}  // namespace

extern "C" {

const char *ipaccess_string(const ipaccess_rule *rule) { return format_rule(*rule, PrintMode{false, 0}); }

const char *ipaccess_string_use_flags(const ipaccess_rule *rule) {
  return format_rule(*rule, PrintMode{true, rule->used});
}

}  // extern "C"
