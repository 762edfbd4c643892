/* DHCP options configuration schema: record types and descriptors for the configuration reader. */
#ifndef NUVDHCPCFG_H
#define NUVDHCPCFG_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"
#include "nuvdhcp.h"
#include "nuvcsock.h"

NIKERKIOG_BEGIN_DECLS

NIKERKIOG_END_DECLS

#endif
