/* A C99 program that includes every public header and calls the library. */
#include <stdio.h>
#include <string.h>

#include "nikerkiog.h"
#include "nuvcsock.h"

int main(void) {
  int failures = 0;
  /* Filled in as modules arrive: each check prints what failed. */
  /* Address texts and value parsers. */
  {
    struct in6_addr a6;
    uint32_t a4 = 0;
    char text[] = "fe80::1/64";
    char *end = NULL;
    uint8_t addr16[16];
    uint8_t plen = 128;
    uint8_t mac[6];
    if (str2in6_addr("::1", &a6) != 0 || strcmp(ip6addr2str(&a6), "::1") != 0) {
      fprintf(stderr, "str2in6_addr/ip6addr2str\n");
      failures++;
    }
    if (str2ipaddr("10.1.2.3", &a4) != 0 || strcmp(ipaddr2str(a4), "10.1.2.3") != 0) {
      fprintf(stderr, "str2ipaddr/ipaddr2str\n");
      failures++;
    }
    if (dphelper_mask2prefixlen(dphelper_prefixlen2mask(20)) != 20) {
      fprintf(stderr, "dphelper masks\n");
      failures++;
    }
    if (parse_prefix6(text, &end, addr16, &plen) != 0 || plen != 64 || addr16[0] != 0xfe) {
      fprintf(stderr, "parse_prefix6\n");
      failures++;
    }
    if (parse_mac("00:11:22:33:44:55", &end, mac) != 0 || strcmp(ethaddr2str(mac), "00:11:22:33:44:55") != 0) {
      fprintf(stderr, "parse_mac/ethaddr2str\n");
      failures++;
    }
  }
  if (failures) fprintf(stderr, "%d C-linkage checks failed\n", failures);
  return failures ? 1 : 0;
}
