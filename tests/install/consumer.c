/* A router daemon's view: include the installed headers, link the installed library. */
#define _POSIX_C_SOURCE 200112L
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include <nikerkiog.h>

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
  puts(text);
  return 0;
}
