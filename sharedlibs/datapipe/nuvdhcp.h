/* DHCP options: option store, options-area parsing and construction, vendor options, match expressions. */
#ifndef NUVDHCP_H
#define NUVDHCP_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* ---- Memory operations and option store ---- */

typedef struct dhcp_memops {
  void *context;
  void *(*alloc)(uint32_t size);
  void (*free)(void *block);
} dhcp_memops;

typedef struct dhcp_option {
  uint32_t len;
  uint8_t *data;
} dhcp_option;

typedef dhcp_option dhcp_options[256];

NIKERKIOG_API int dhcp_parse_option_buffer(const dhcp_memops *memops, const uint8_t *buf, int32_t len, dhcp_option *store);
NIKERKIOG_API void dhcp_free_options(const dhcp_memops *memops, dhcp_option *store);



/* ---- Option construction ---- */



/* ---- Vendor options 43, 124 and 125 ---- */



/* ---- Match expressions ---- */


NIKERKIOG_END_DECLS

#endif
