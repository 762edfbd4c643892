/* Packet headers: one-line descriptions, IPv6 extension header walk, packet predicates. */
#ifndef NUVPKT_H
#define NUVPKT_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"
#include "nuvaddr.h"
#include "nuvproto.h"

NIKERKIOG_BEGIN_DECLS

NIKERKIOG_END_DECLS

#endif
