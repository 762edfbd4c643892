// Classifier rule text on hostile input.  Each rule line is parsed; a
// parsed rule is printed, and where the printed form reads back, the two
// rules compare equal under the rule's own presence bits.  A clone compares
// equal to its original; normalising again changes nothing.  The rules then
// form a small set whose first-match verdict on a packet taken from the
// input must be the same before and after nuv_clfy_set_optim.
// Input: rule lines separated by newlines, a NUL byte, then the packet
// (device, bridge device, mark, VLAN tag, Ethernet addresses, IP packet).
#include "clfy_fuzz.h"

namespace {

constexpr std::size_t kMaxRules = 8;

// Conditions the comparison cannot see as equal in two equal rules: the
// pattern comparison answers 1 for equal patterns, and a DHCP condition is
// rebuilt in every copy, which appends its own destination-port entry and
// sets the protocol to UDP again (over a "tcp.dport" written after it).
// A table name of 15 characters may have been cut from a longer one: the
// longer name never equals the stored one, so each reference to it makes a
// new table, and the printed rule names another table than the original.
std::uint32_t comparable_bits(const nuv_clfy *rule) {
  std::uint32_t bits = rule->flags & ~NUV_CLFY_F_PACKETMATCH;
  if (rule->flags & NUV_CLFY_F_DHCP) bits &= ~(NUV_CLFY_F_DHCP | NUV_CLFY_F_DPORTS | NUV_CLFY_F_IP_PROTO);
  if (rule->ethsrctab && std::strlen(rule->ethsrctab->name) == 15) bits &= ~NUV_CLFY_F_ETHSRCTAB;
  if (rule->ipdsttab && std::strlen(rule->ipdsttab->name) == 15) bits &= ~NUV_CLFY_F_IPDSTTAB;
  return bits;
}

std::string text_of(const nuv_clfy *rule) {
  char buf[2048];
  return nuv_clfy_as_string(-1, rule, buf, sizeof buf);
}

bool v4_mapped(const nuv_clfy_ipaddr &a, std::uint8_t family) {
  static const std::uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return family == 6 && std::memcmp(a.v6, prefix, 12) == 0;
}

// Printed forms that read back as another rule, as documented: an
// IPv4-mapped IPv6 address prints as a bare IPv4 address, and a device name
// starting with "=" loses it, as the optional "=" before a name.
bool reads_back_as_itself(const nuv_clfy *rule) {
  return !v4_mapped(rule->ip_saddr, rule->ip_saddr_family) && !v4_mapped(rule->ip_daddr, rule->ip_daddr_family) &&
         rule->dev[0] != '=' && rule->brdev[0] != '=';
}

// Some printed forms read back as another rule (a device name starting with
// "=", a cut table name, an IPv4-mapped address); printing that rule gives
// another text.  Where the text comes back unchanged, the rules must be
// equal; and printing is a fixpoint from the second round on.  A pattern
// takes the rest of its line, conditions after it included, so rules with
// one never read back.
void check_reads_back(const nuv_clfy *rule, const std::string &printed) {
  if (rule->flags & NUV_CLFY_F_PACKETMATCH) return;
  nuv_clfy *again = nullptr;
  if (nuv_clfy_parse(printed.c_str(), &again) != 0) return;
  const std::string second = text_of(again);
  if (std::getenv("FUZZ_VERBOSE")) std::fprintf(stderr, "[%s] -> [%s]\n", printed.c_str(), second.c_str());
  if (second == printed && reads_back_as_itself(rule)) {
    FUZZ_CHECK(nuv_clfy_cmp(rule, again, comparable_bits(rule)) == 0);
    FUZZ_CHECK(nuv_clfy_cmp(again, rule, comparable_bits(rule)) == 0);
  }
  if (reads_back_as_itself(again)) {
    nuv_clfy *third = nullptr;
    FUZZ_CHECK(nuv_clfy_parse(second.c_str(), &third) == 0);
    FUZZ_CHECK(text_of(third) == second);
    nuv_clfy_free(third);
  }
  nuv_clfy_free(again);
}

void check_rule(nuv_clfy *rule, const fuzz::Packet &p) {
  const std::string printed = text_of(rule);
  check_reads_back(rule, printed);
  nuv_clfy *copy = nuv_clfy_clone(rule);
  if (!copy) return;
  FUZZ_CHECK(nuv_clfy_cmp(rule, copy, comparable_bits(rule)) == 0);
  FUZZ_CHECK(copy->next == nullptr && copy->children == nullptr && copy->id != rule->id);
  if (!(rule->flags & NUV_CLFY_F_DHCP)) FUZZ_CHECK(text_of(copy) == printed);
  // A parsed rule is already normalised.
  nuv_clfy_optim(copy);
  if (!(rule->flags & NUV_CLFY_F_DHCP)) FUZZ_CHECK(text_of(copy) == printed);
  // A copied DHCP condition may have changed the protocol (see above).
  nuv_clfy_explanation a, b;
  if (!(rule->flags & NUV_CLFY_F_DHCP)) FUZZ_CHECK(nuv_clfy_explain(rule, &p.desc, p.mark, &a) == nuv_clfy_explain(copy, &p.desc, p.mark, &b));
  nuv_clfy_free(copy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input in(data, size);
  std::vector<std::string> lines;
  {
    std::string text = in.until(0);
    std::size_t start = 0;
    while (start <= text.size() && lines.size() < kMaxRules) {
      std::size_t nl = text.find('\n', start);
      if (nl == std::string::npos) nl = text.size();
      lines.push_back(text.substr(start, nl - start));
      start = nl + 1;
    }
  }
  const fuzz::Packet packet(in);
  {
    fuzz::OwnedSet linear, grouped;
    std::uint16_t result = 0;
    for (const std::string &line : lines) {
      nuv_clfy *rule = nullptr;
      ++result;
      if (nuv_clfy_parse(line.c_str(), &rule) != 0) continue;
      rule->result = result;
      if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = 1 + static_cast<std::int32_t>(result % 3);
      if (rule->flags & NUV_CLFY_F_BRDEV) rule->brdev_ifindex = 1;
      check_rule(rule, packet);
      nuv_clfy_add_tail(&linear.set, rule);
    }
    // The tree is built from copies, and a copied DHCP condition sets the
    // protocol to UDP again: a DHCP rule over another protocol changes its
    // verdict in the tree (left to be decided; see the corpus input
    // dhcp-condition-over-tcp-changes-the-grouped-verdict).
    bool dhcp_over_other_protocol = false;
    for (const nuv_clfy *r = linear.set.head; r; r = r->next)
      dhcp_over_other_protocol |= (r->flags & NUV_CLFY_F_DHCP) && r->ip_proto != 17;
    if (!dhcp_over_other_protocol && nuv_clfy_set_optim(&linear.set, &grouped.set) == 0) {
      // The flat list is asked first: the tree's matches may learn clients.
      const int want = fuzz::first_match(linear.set.head, packet);
      FUZZ_CHECK(fuzz::tree_verdict(&grouped.set, packet) == want);
    }
  }
  fuzz::free_tables();
  return 0;
}
