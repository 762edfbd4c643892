/* Firewall rule texts: access rules, masquerade forward rules, IPv6 forward rules, port ranges, PCP handling. */
#ifndef NUVRULES_H
#define NUVRULES_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* ---- Access rules: record, parser ---- */



/* ---- Access rules: formatter ---- */



/* ---- Access rules: optimisation ---- */



/* ---- Masquerade forward rules ---- */



/* ---- IPv6 forward rules, port ranges, PCP handling ---- */


NIKERKIOG_END_DECLS

#endif
