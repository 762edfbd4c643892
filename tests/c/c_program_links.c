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

int main(void) {
  /* Filled in as modules arrive: each check prints what failed. */
  int failures = 0;
  failures += check_dhcp_store();
  failures += check_dhcp_store();
  if (failures) fprintf(stderr, "%d C-linkage checks failed\n", failures);
  return failures ? 1 : 0;
}
