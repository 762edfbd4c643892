/* DHCP options: option store, options-area parsing and construction, vendor options, match expressions. */
#ifndef NUVDHCP_H
#define NUVDHCP_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* ---- Memory operations and option store ---- */



/* ---- Option construction ---- */



/* ---- Vendor options 43, 124 and 125 ---- */



/* ---- Match expressions ---- */


NIKERKIOG_END_DECLS

#endif
