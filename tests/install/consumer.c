/* A router daemon's view: include the installed headers, link the installed library. */
#define _POSIX_C_SOURCE 200112L
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include <nikerkiog.h>
/* The module headers are reachable as <nikerkiog/...> too. */
#include <nikerkiog/nuvclfy.h>

int main(void) {
  struct in6_addr addr;
  const char *text;
  memset(&addr, 0, sizeof addr);
  addr.s6_addr[0] = 0x20;
  addr.s6_addr[1] = 0x01;
  addr.s6_addr[2] = 0x0d;
  addr.s6_addr[3] = 0xb8;
  text = ip6addr2str(&addr);
  if (strcmp(text, "2001:db8::") != 0) {
    fprintf(stderr, "ip6addr2str gave %s\n", text);
    return 1;
  }
  {
    struct nuv_clfy *rule = NULL;
    if (nuv_clfy_parse("ip.proto tcp tcp.dport 80", &rule) != 0 || rule == NULL) {
      fprintf(stderr, "nuv_clfy_parse refused a plain rule\n");
      return 1;
    }
    nuv_clfy_free(rule);
  }
  puts(text);
  return 0;
}
