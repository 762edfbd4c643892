/* Packet classifier: rules, value parsers, rule text, matching, rule sets, named tables, optimisation. */
#ifndef NUVCLFY_H
#define NUVCLFY_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"
#include "nuvdhcp.h"

NIKERKIOG_BEGIN_DECLS

/* ---- Value parsers (rule text values) ---- */
NIKERKIOG_API int parse_u8(const char *text, char **end, uint8_t *out8);
NIKERKIOG_API int parse_ulong(const char *text, char **end, uint32_t *out32);



/* ---- Rule record, presence bits, value lists, rule sets, action registry ---- */



/* ---- Ethernet source tables ---- */



/* ---- IP destination tables ---- */



/* ---- Rule text parser ---- */



/* ---- Rule text formatter ---- */



/* ---- Packet descriptor, matching and rule sets ---- */



/* ---- Comparison and cloning ---- */



/* ---- Optimisation ---- */


NIKERKIOG_END_DECLS

#endif
