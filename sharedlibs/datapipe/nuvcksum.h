/* Internet checksums of IPv4, TCP, UDP, ICMP and their IPv6 forms: set, verify, update incrementally. */
#ifndef NUVCKSUM_H
#define NUVCKSUM_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

NIKERKIOG_END_DECLS

#endif
