/* A router daemon's view: include the installed headers, link the installed library. */
#include <stdio.h>
#include <string.h>

#include <nikerkiog.h>

int main(void) {
  unsigned char addr[16] = {0x20, 0x01, 0x0d, 0xb8};
  const char *text = ip6addr2str(addr);
  if (strcmp(text, "2001:db8::") != 0) {
    fprintf(stderr, "ip6addr2str gave %s\n", text);
    return 1;
  }
  puts(text);
  return 0;
}
