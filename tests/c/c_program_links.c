/* A C99 program that includes every public header and calls the library. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "nikerkiog.h"
#include "nuvcsock.h"

static void *c_dhcp_alloc(uint32_t size) { return malloc(size ? size : 1); }
static void c_dhcp_free(void *block) { free(block); }

/* The DHCP option store from C: set, parse, free. */
static int check_dhcp_store(void) {
  int failures = 0;
  dhcp_memops ops = {NULL, c_dhcp_alloc, c_dhcp_free};
  dhcp_options store;
  const unsigned char area[] = {12, 2, 'a', 'b', 12, 1, 'c', 255};
  memset(store, 0, sizeof store);
  if (dhcp_set_option(&ops, store, 15, 3, "lan") != 0) { fprintf(stderr, "dhcp_set_option\n"); ++failures; }
  if (dhcp_parse_option_buffer(&ops, area, 7, store) != 0 || store[12].len != 3 ||
      memcmp(store[12].data, "abc", 4) != 0) {
    fprintf(stderr, "dhcp_parse_option_buffer\n");
    ++failures;
  }
  if (dhcp_free_option(&ops, store, 0) != -1) { fprintf(stderr, "dhcp_free_option\n"); ++failures; }
  dhcp_free_options(&ops, store);
  if (store[15].data != NULL) { fprintf(stderr, "dhcp_free_options\n"); ++failures; }
  return failures;
}

/* Masquerade forward rules, IPv6 forward rules and port ranges, PCP handling. */
static int check_forward_rules(void) {
  int failures = 0;
  ipmasqfwrule masq;
  ipmasqfwruleex masqex;
  ip6_portrange range;
  uint64_t block_words[(48 + 4 * sizeof(ip6_portrange)) / 8 + 1];
  ip6_forwardrule *block;
  int32_t pcp = 0;
  if (ipmasqfwrule_parse(&masq, "tcp 0.0.0.0:80 192.168.1.20:8080 0") != 0 ||
      strcmp(ipmasqfwrule_string(&masq), "tcp 0.0.0.0:80 192.168.1.20:8080 0") != 0) {
    fprintf(stderr, "ipmasqfwrule_parse/_string\n");
    ++failures;
  }
  if (ipmasqfwruleex_parse(&masqex, "# udp :53 10.0.0.1:53 0 local # dns") != 0 || masqex.enabled != 0 ||
      strcmp(ipmasqfwruleex_string(&masqex), "# udp 0.0.0.0:53 10.0.0.1:53 0 local # dns") != 0) {
    fprintf(stderr, "ipmasqfwruleex_parse/_string\n");
    ++failures;
  }
  block = ip6_forwardrule_init(block_words, 48 + 4 * sizeof(ip6_portrange));
  if (!block || ip6_forwardrule_parse(block, "tcp 443,80") != 0 || ip6_forwardrule_parse(block, "gre") != 0 ||
      ip6_forwardrule_finish(block) != 48 + 2 * sizeof(ip6_portrange) ||
      strcmp(ip6_forwardrule2str(block), "TCP 80,443 GRE") != 0) {
    fprintf(stderr, "ip6_forwardrule_*\n");
    ++failures;
  }
  if (ip6_portrange_parse("udp 53 local", &range) != 0 || strcmp(ip6_portrange2str(&range), "UDP 53 local") != 0 ||
      strcmp(ip6_portrange2simplestr(&range), "UDP 53") != 0) {
    fprintf(stderr, "ip6_portrange_*\n");
    ++failures;
  }
  if (pcphandling_parse("internet", &pcp) != 0 || strcmp(pcphandling2str(pcp), "internet") != 0) {
    fprintf(stderr, "pcphandling_*\n");
    ++failures;
  }
  return failures;
}

/* Address texts and rule value parsers from C. */
static int check_address_text(void) {
  int failures = 0;
  struct in6_addr a6;
  uint32_t a4 = 0;
  char text[] = "fe80::1/64";
  char *end = NULL;
  uint8_t addr16[16];
  uint8_t plen = 128;
  uint8_t mac[6];
  if (str2in6_addr("::1", &a6) != 0 || strcmp(ip6addr2str(&a6), "::1") != 0) {
    fprintf(stderr, "str2in6_addr/ip6addr2str\n");
    ++failures;
  }
  if (str2ipaddr("10.1.2.3", &a4) != 0 || strcmp(ipaddr2str(a4), "10.1.2.3") != 0) {
    fprintf(stderr, "str2ipaddr/ipaddr2str\n");
    ++failures;
  }
  if (dphelper_mask2prefixlen(dphelper_prefixlen2mask(20)) != 20) {
    fprintf(stderr, "dphelper masks\n");
    ++failures;
  }
  if (parse_prefix6(text, &end, addr16, &plen) != 0 || plen != 64 || addr16[0] != 0xfe) {
    fprintf(stderr, "parse_prefix6\n");
    ++failures;
  }
  if (parse_mac("00:11:22:33:44:55", &end, mac) != 0 || strcmp(ethaddr2str(mac), "00:11:22:33:44:55") != 0) {
    fprintf(stderr, "parse_mac/ethaddr2str\n");
    ++failures;
  }
  return failures;
}

/* Vendor sub-options and DHCP match expressions from C. */
static int check_dhcp_match(void) {
  int failures = 0;
  dhcp_memops ops = {NULL, c_dhcp_alloc, c_dhcp_free};
  dhcp_options store;
  /* option 125: enterprise 3561, sub-option 1 "abc"; then option 60 "MSFT 5.0" */
  const unsigned char area[] = {125, 10, 0, 0, 0x0d, 0xe9, 5, 1, 3, 'a', 'b', 'c',
                                60, 8, 'M', 'S', 'F', 'T', ' ', '5', '.', '0', 255};
  unsigned char msg[240];
  char rule[] = "xid DEADBEEF";
  char *end = NULL;
  dhcp_match m;
  char *s;
  memset(store, 0, sizeof store);
  memset(msg, 0, sizeof msg);
  msg[4] = 0xde; msg[5] = 0xad; msg[6] = 0xbe; msg[7] = 0xef;
  if (dhcp_parse_option_buffer(&ops, area, (int32_t)sizeof area - 1, store) != 0) {
    fprintf(stderr, "dhcp_parse_option_buffer (match)\n");
    ++failures;
  }
  s = dhcp_extract_125_string(&ops, &store[125], 3561, 1);
  if (!s || strcmp(s, "abc") != 0) { fprintf(stderr, "dhcp_extract_125_string\n"); ++failures; }
  free(s);
  if (parse_dhcpoptionmatch("60 MSFT*", &end, &m) != 5 || m.code != 60) {
    fprintf(stderr, "parse_dhcpoptionmatch\n");
    ++failures;
  }
  m.pattern = "MSFT*";
  if (dhcp_packet_matches(&ops, msg, store, &m) != 1) { fprintf(stderr, "dhcp_packet_matches (option)\n"); ++failures; }
  if (parse_dhcpheadermatch(rule, &end, &m) != 8 || m.sub != DHCP_HFIELD_XID) {
    fprintf(stderr, "parse_dhcpheadermatch\n");
    ++failures;
  }
  m.pattern = "deadbeef";
  if (dhcp_packet_matches(&ops, msg, store, &m) != 1) { fprintf(stderr, "dhcp_packet_matches (header)\n"); ++failures; }
  if (strcmp(dhcp_hfield2str(11), "chaddr") != 0) { fprintf(stderr, "dhcp_hfield2str\n"); ++failures; }
  dhcp_free_options(&ops, store);
  return failures;
}

/* Classifier rules, tables, compare and clone from C. */
static int check_classifier(void) {
  int failures = 0;
  nuv_clfy_set set;
  nuv_clfy *rule = nuv_clfy_alloc();
  nuv_clfy *copy = NULL;
  const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  memset(&set, 0, sizeof set);
  if (!rule || rule->ip_proto != 255 || rule->flags != 0) {
    fprintf(stderr, "nuv_clfy_alloc\n");
    ++failures;
  }
  if (rule) {
    nuv_clfy_add_ip_dport(rule, NUV_CLFY_OP_EQ, 0x5050, 0);
    if (rule->dports.count != 1 || !(rule->flags & NUV_CLFY_F_DPORTS)) {
      fprintf(stderr, "nuv_clfy_add_ip_dport\n");
      ++failures;
    }
    copy = nuv_clfy_clone(rule);
    if (!copy || nuv_clfy_cmp(rule, copy, 0xffffffffu) != 0) {
      fprintf(stderr, "nuv_clfy_clone/nuv_clfy_cmp\n");
      ++failures;
    }
    nuv_clfy_free(copy);
    nuv_clfy_add_tail(&set, rule);
    if (nuv_clfy_del_and_free(&set, rule) != 0 || set.head) {
      fprintf(stderr, "nuv_clfy_del_and_free\n");
      ++failures;
    }
  }
  if (nuv_clfy_ethersrctab_add("c", mac) != 0 || !nuv_clfy_ethersrctab_is_in(nuv_clfy_ethersrctab_find("c"), mac)) {
    fprintf(stderr, "nuv_clfy_ethersrctab\n");
    ++failures;
  }
  nuv_clfy_ethersrctab_freeall();
  if (nuv_clfy_ipdsttab_add4("c", 0x0100007fu) != 0 ||
      nuv_clfy_ipdsttab_is_in(nuv_clfy_ipdsttab_find("c"), 0x0100007fu) != 1) {
    fprintf(stderr, "nuv_clfy_ipdsttab\n");
    ++failures;
  }
  nuv_clfy_ipdsttab_freeall();
  if (nuv_clfy_register_action("c-action", NULL, NULL) < 1 || nuv_clfy_find_action("c-action") < 1) {
    fprintf(stderr, "nuv_clfy_register_action\n");
    ++failures;
  }
  return failures;
}

/* Access rules from C: parse, normalise, print. */
static int check_access_rules(void) {
  int failures = 0;
  ipaccess_rule rule;
  int32_t policy = 0;
  if (ipaccess_parse(&rule, "permit tcp any host 10.0.0.1 range 1024 65535 log") != 0) {
    fprintf(stderr, "ipaccess_parse failed\n");
    ++failures;
  }
  ipaccess_optim_rulestruct(&rule);
  if (strcmp(ipaccess_string_use_flags(&rule), "permit tcp any host 10.0.0.1 ge 1024 log short") != 0) {
    fprintf(stderr, "ipaccess_string_use_flags gave '%s'\n", ipaccess_string_use_flags(&rule));
    ++failures;
  }
  if (ipaccesspolicy_parse(&policy, "reject") != 0 || policy != 3 ||
      strcmp(ipaccesspolicy_string(9), "illegal-policy") != 0) {
    fprintf(stderr, "access rule policy words wrong\n");
    ++failures;
  }
  return failures;
}

/* Configured options and construction from C: a host name record. */
static int check_dhcp_cons(void) {
  int failures = 0;
  dhcp_memops ops = {NULL, c_dhcp_alloc, c_dhcp_free};
  static unsigned char msg[240 + 312];
  dhcpoptions_record *head = (dhcpoptions_record *)c_dhcp_alloc(sizeof *head);
  const unsigned char expected[] = {0x63, 0x82, 0x53, 0x63, 12, 4, 'b', 'o', 'x', 0, 255};
  memset(head, 0, sizeof *head);
  head->optionnr = 12;
  head->value.string = (char *)c_dhcp_alloc(4);
  memcpy(head->value.string, "box", 4);
  if (DHCPOPTIONS_dhcpoptions_memberbymagic(head) != DHCPCFG_TYPE_STRING || dhcpoptions.ten != 10 ||
      onlinecheckcfg.size != sizeof(onlinecheckcfg_record)) {
    fprintf(stderr, "dhcpoptions schema\n");
    ++failures;
  }
  if (dhcp_cons_options(&ops, NULL, msg, &head, 0, 1, 0) != 247 || memcmp(msg + 236, expected, sizeof expected) != 0) {
    fprintf(stderr, "dhcp_cons_options\n");
    ++failures;
  }
  dhcp_free_dhcpoptions(&ops, &head);
  if (head != NULL) { fprintf(stderr, "dhcp_free_dhcpoptions\n"); ++failures; }
  return failures;
}

/* Protocol names, packet walks, descriptions and predicates from C. */
static int check_packet_utilities(void) {
  int failures = 0;
  uint8_t proto = 0;
  uint8_t nexthdr = 0;
  /* IPv6, hop-by-hop options (8 bytes) then UDP, payload 8 + 8. */
  uint8_t ip6[56];
  /* IPv4 UDP 10.0.0.1:1234 -> 10.0.0.2:53 with no payload. */
  const uint8_t ip4[28] = {0x45, 0, 0, 28, 0, 0, 0, 0, 64, 17, 0, 0, 10, 0, 0, 1,
                           10, 0, 0, 2, 0x04, 0xd2, 0, 53, 0, 8, 0, 0};
  nuv_pktbuf buf;
  memset(ip6, 0, sizeof ip6);
  ip6[0] = 0x60;
  ip6[5] = 16;
  ip6[6] = 0;
  ip6[40] = 17;
  if (strcmp(ipproto2str(6), "TCP") != 0 || ipproto_parse(&proto, "udp") != 0 || proto != 17) {
    fprintf(stderr, "ipproto2str/ipproto_parse\n");
    ++failures;
  }
  if (ip6_skip_exthdr_from_ipv6hdr(ip6, &nexthdr) != 48 || nexthdr != 17 || ip6_is_ext_hdr(60) != 1 ||
      ip6_exthdr_order_is_valid_in_ipv6hdr(ip6) != 1) {
    fprintf(stderr, "ip6 extension header walk\n");
    ++failures;
  }
  memset(&buf, 0, sizeof buf);
  buf.len = sizeof ip6;
  buf.data = ip6;
  nexthdr = 0;
  if (ip6_find_fraghdr(&buf, ip6) != NULL || ip6_skip_exthdr(&buf, 40, &nexthdr, (int)sizeof ip6) != 48 ||
      nexthdr != 17) {
    fprintf(stderr, "ip6_find_fraghdr/ip6_skip_exthdr\n");
    ++failures;
  }
  nexthdr = 0;
  if (ip6_skip_exthdr_raw(ip6, (int)sizeof ip6, 40, &nexthdr) != 48 || nexthdr != 17) {
    fprintf(stderr, "ip6_skip_exthdr_raw\n");
    ++failures;
  }
  if (strcmp(iph2str(ip4), "UDP 10.0.0.1:1234 -> 10.0.0.2:53") != 0) {
    fprintf(stderr, "iph2str gave '%s'\n", iph2str(ip4));
    ++failures;
  }
  if (packet_is_valid_dns_query_request(ip4) != 0 || packet_is_valid_dns_query_reply(ip4) != 0 ||
      icmp_rep2req(0) != 8 || icmp6_rep2req(129) != 128 || is_port_protocol(132) != 1) {
    fprintf(stderr, "packet predicates\n");
    ++failures;
  }
  return failures;
}

static int check_classifier_rule_text(void) {
  int failures = 0;
  nuv_clfy *rule = NULL;
  nuv_clfy_set set;
  char text[256];
  nuv_clfy_packet packet;
  unsigned char ip[28] = {0x45, 0, 0, 28, 0, 0, 0, 0, 64, 17, 0, 0, 192, 168, 1, 2, 10, 0, 0, 1,
                          0x13, 0x88, 0x00, 0x35, 0, 8, 0, 0};
  memset(&set, 0, sizeof set);
  memset(&packet, 0, sizeof packet);
  if (nuv_clfy_parse("udp.dport 53 ip.saddr 192.168.1.0/24", &rule) != 0 || rule == NULL) {
    fprintf(stderr, "nuv_clfy_parse\n");
    return 1;
  }
  if (strcmp(nuv_clfy_as_string(-1, rule, text, sizeof text),
             " eth.proto 0x0800 ip.proto 17 ip.saddr 192.168.1.0 255.255.255.0 udp.dport 53") != 0) {
    fprintf(stderr, "nuv_clfy_as_string: %s\n", text);
    ++failures;
  }
  nuv_clfy_add_tail(&set, rule);
  packet.eth_proto = (uint16_t)((0x0800 >> 8) | (0x0800 << 8));
  if (((const unsigned char *)&packet.eth_proto)[0] != 0x08) packet.eth_proto = 0x0800;
  packet.ip_header = ip;
  packet.ip_len = sizeof ip;
  if (nuv_clfy_get_clfy_from_set(&set, 0, &packet) != rule) {
    fprintf(stderr, "nuv_clfy_get_clfy_from_set\n");
    ++failures;
  }
  if (parsetab[0].keyword == NULL || strcmp(parsetab[0].keyword, "dev") != 0) {
    fprintf(stderr, "parsetab\n");
    ++failures;
  }
  nuv_clfy_del_and_free_all(&set);
  return failures;
}

/* Rule files from C: the line reader, warnings, printed rule text,
 * covering, the nearest keyword and the keyword help. */
static int check_rule_files(void) {
  int failures = 0;
  static const char file[] = "# rules\nudp.dport\t53 => 0007\ntcp.dport 99999 => 2\n";
  nuv_clfy_line line;
  nuv_clfy_warning warnings[NUV_CLFY_MAX_WARNINGS];
  nuv_clfy_diag diag;
  nuv_clfy *first = NULL, *second = NULL;
  uint32_t count = 0;
  char printed[128];
  memset(&line, 0, sizeof line);
  if (nuv_clfy_next_line(file, sizeof file - 1, 0, &line) != 1 || line.code != NUV_CLFY_LINE_EMPTY ||
      nuv_clfy_next_line(file, sizeof file - 1, NUV_CLFY_LINE_NEED_RESULT, &line) != 1 ||
      line.code != NUV_CLFY_LINE_RULE || line.result != 7 || strcmp(line.text, "udp.dport 53") != 0) {
    fprintf(stderr, "nuv_clfy_next_line\n");
    ++failures;
  }
  if (nuv_clfy_parse_with_warnings(line.text, &first, &diag, warnings, &count) != 0 || count != 0) {
    fprintf(stderr, "nuv_clfy_parse_with_warnings\n");
    return failures + 1;
  }
  if (nuv_clfy_next_line(file, sizeof file - 1, 0, &line) != 1 ||
      nuv_clfy_parse_with_warnings(line.text, &second, &diag, warnings, &count) != 0 || count != 1 ||
      warnings[0].kind != NUV_CLFY_W_RANGE) {
    fprintf(stderr, "nuv_clfy_parse_with_warnings (range)\n");
    ++failures;
  }
  if (nuv_clfy_print_rule(first, printed, sizeof printed) < 0 || strcmp(printed, "udp.dport 53") != 0) {
    fprintf(stderr, "nuv_clfy_print_rule\n");
    ++failures;
  }
  if (second && (nuv_clfy_covers(first, first) != 1 || nuv_clfy_covers(first, second) != 0)) {
    fprintf(stderr, "nuv_clfy_covers\n");
    ++failures;
  }
  if (!nuv_clfy_nearest_keyword("udp.dprt", 8) || strcmp(nuv_clfy_nearest_keyword("udp.dprt", 8), "udp.dport") != 0 ||
      !nuv_clfy_keyword_help_at(0) || strcmp(nuv_clfy_keyword_help_at(0)->keyword, parsetab[0].keyword) != 0) {
    fprintf(stderr, "nuv_clfy_nearest_keyword / nuv_clfy_keyword_help_at\n");
    ++failures;
  }
  nuv_clfy_free(first);
  nuv_clfy_free(second);
  return failures;
}

int main(void) {
  int failures = 0;
  failures += check_dhcp_store();
  failures += check_dhcp_cons();
  failures += check_forward_rules();
  failures += check_address_text();
  failures += check_dhcp_match();
  failures += check_classifier();
  failures += check_access_rules();
  failures += check_packet_utilities();
  failures += check_classifier_rule_text();
  failures += check_rule_files();
  if (failures) fprintf(stderr, "%d C-linkage checks failed\n", failures);
  return failures ? 1 : 0;
}
