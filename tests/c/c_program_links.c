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

int main(void) {
  int failures = 0;
  failures += check_dhcp_store();
  failures += check_dhcp_store();
  failures += check_address_text();
  failures += check_access_rules();
  if (failures) fprintf(stderr, "%d C-linkage checks failed\n", failures);
  return failures ? 1 : 0;
}
