/* DHCP options configuration schema: record types and descriptors for the configuration reader. */
#ifndef NUVDHCPCFG_H
#define NUVDHCPCFG_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"
#include "nuvdhcp.h"
#include "nuvcsock.h"

NIKERKIOG_BEGIN_DECLS

/* Member type codes of the configuration records below, as reported by
 * DHCPOPTIONS_dhcpoptions_memberbymagic.  Numbers in host order. */
enum dhcpcfg_member_type {
  DHCPCFG_TYPE_NONE = 0,         /* no member (option cannot be configured) */
  DHCPCFG_TYPE_NEXT = 1,         /* link to the next record */
  DHCPCFG_TYPE_OPTIONNR = 2,     /* the option code selecting the value */
  DHCPCFG_TYPE_STRUCT = 3,       /* structured value, shaped by the option code */
  DHCPCFG_TYPE_ENUM = 6,         /* enumeration held in 32 bits */
  DHCPCFG_TYPE_INT32 = 7,        /* signed 32-bit */
  DHCPCFG_TYPE_BOOL = 8,         /* boolean held in 32 bits */
  DHCPCFG_TYPE_UINT32 = 12,      /* unsigned 32-bit */
  DHCPCFG_TYPE_UINT8 = 13,       /* unsigned 8-bit */
  DHCPCFG_TYPE_UINT16 = 14,      /* unsigned 16-bit */
  DHCPCFG_TYPE_IPADDR = 19,      /* IPv4 address, host order */
  DHCPCFG_TYPE_IPADDR_LIST = 20, /* list of IPv4 addresses (ipaddr_tab) */
  DHCPCFG_TYPE_STRING = 22       /* NUL-terminated string */
};

/* Kinds of configuration record types. */
#define DHCPCFG_KIND_RECORD 0          /* fixed fields */
#define DHCPCFG_KIND_SELECTED_RECORD 1 /* one value chosen by the magic member */

/* All addresses in these records are IPv4 addresses in host order; they go
 * on the wire big-endian. */

/* Element of an address list. */
typedef struct ipaddr_tab {
  struct ipaddr_tab *next;
  uint32_t ipaddr;
} ipaddr_tab;

/* Element of a list of address pairs (policy filters, static routes). */
typedef struct ipnet {
  struct ipnet *next;
  uint32_t ipaddr;
  uint32_t mask;
} ipnet;

/* Element of a list of bytes (parameter request list, client identifier). */
typedef struct b_tab {
  struct b_tab *next;
  uint8_t val;
} b_tab;

/* Element of a list of 16-bit values (path MTU table). */
typedef struct w_tab {
  struct w_tab *next;
  uint16_t val;
} w_tab;

/* A classless static route: destination/prefix length via gateway. */
typedef struct classless_iproute {
  struct classless_iproute *next;
  uint32_t ipaddr;
  uint8_t prefixlen;
  uint32_t gateway;
} classless_iproute;

/* A sub-option: code and value bytes (a growable block; released with
 * memblock_free).  Elements whose `data.data` is null carry no data. */
typedef struct generic_option {
  struct generic_option *next;
  uint8_t suboption;
  memblock data;
} generic_option;

/* A vendor block of options 124/125: enterprise number and sub-options. */
typedef struct vendor_specific {
  struct vendor_specific *next;
  uint32_t enterprise;
  generic_option *suboptions;
} vendor_specific;

/* The IPv6 rapid deployment value (option 212), held inline in the record:
 * 24 bytes on a 32-bit target. */
typedef struct option_6rd {
  uint8_t ipv4masklen;
  uint8_t prefixlen;
  uint8_t prefix[16];        /* IPv6 prefix, network order */
  ipaddr_tab *borderrouter;  /* border relay addresses */
} option_6rd;

/* A PCP server group (option 158): its addresses. */
typedef struct option_pcp_server {
  struct option_pcp_server *next;
  ipaddr_tab *ipaddrs;
} option_pcp_server;

/* The value of a configured option; which member is meant follows from the
 * member type of the record's option code. */
typedef union dhcpoptions_value {
  int32_t i32;                    /* DHCPCFG_TYPE_INT32, DHCPCFG_TYPE_BOOL */
  uint32_t u32;                   /* other 32-bit member types */
  uint8_t u8;                     /* DHCPCFG_TYPE_UINT8 */
  uint16_t u16;                   /* DHCPCFG_TYPE_UINT16 */
  uint32_t ipaddr;                /* DHCPCFG_TYPE_IPADDR, host order */
  ipaddr_tab *ipaddrs;            /* DHCPCFG_TYPE_IPADDR_LIST */
  char *string;                   /* DHCPCFG_TYPE_STRING */
  ipnet *ipnets;                  /* options 21, 33 */
  w_tab *words;                   /* option 25 */
  b_tab *bytes;                   /* options 55, 61 */
  generic_option *suboptions;     /* options 43, 82 */
  classless_iproute *routes;      /* options 121, 249 */
  vendor_specific *vendors;       /* options 124, 125 */
  option_pcp_server *pcp_servers; /* option 158 */
  option_6rd sixrd;               /* option 212 */
} dhcpoptions_value;

/* One configured DHCP option; a list of them is what dhcp_cons_options
 * writes.  The record type's descriptor is `dhcpoptions` below, hence the
 * typedef name with the _record suffix. */
struct dhcpoptions {
  struct dhcpoptions *next;
  int32_t optionnr;
  dhcpoptions_value value;
};
typedef struct dhcpoptions dhcpoptions_record;

/* When the router counts as offline. */
typedef enum onlinecheck_offlinemode {
  onlinecheck_offlinemode_never = 0,
  onlinecheck_offlinemode_always = 1,
  onlinecheck_offlinemode_auto = 2
} onlinecheck_offlinemode;

/* How the line is checked. */
typedef enum onlinecheck_checkmode {
  onlinecheck_checkmode_interval = 0,
  onlinecheck_checkmode_dpd = 1
} onlinecheck_checkmode;

/* Online-check settings; defaults in brackets. */
struct onlinecheckcfg {
  int32_t offlinemode;             /* onlinecheck_offlinemode [never] */
  int32_t checkmode;               /* onlinecheck_checkmode [dpd] */
  int32_t check_delay;             /* [5] */
  int32_t check_interval;          /* [60] */
  int32_t disconnect_when_offline; /* boolean [false] */
  int32_t timeoutbase;             /* [5] */
  uint32_t nretry;                 /* [4] */
  int32_t fallback_lifetime;       /* [3600] */
};
typedef struct onlinecheckcfg onlinecheckcfg_record;

/* Descriptor of the configured-option record: `next` and `optionnr` are
 * its header members, `optionnr` carries the magic, and one member per
 * configurable option code shares the value position. */
NIKERKIOG_API extern const config_type dhcpoptions;

/* Descriptor of the online-check settings record, with defaults. */
NIKERKIOG_API extern const config_type onlinecheckcfg;

/* The member type code (enum dhcpcfg_member_type) of the option carried by
 * `record`, or 0 when its option code has no member. */
NIKERKIOG_API int DHCPOPTIONS_dhcpoptions_memberbymagic(const struct dhcpoptions *record);

/* Releases through `memops->free` everything the value of `record` owns,
 * chosen by its member type: list elements, strings, sub-option elements
 * (their data blocks through memblock_free first), vendor blocks, server
 * groups, routes, border relays.  The value pointer (for option 212 the
 * relay list pointer) is set to null.  The record itself is kept. */
NIKERKIOG_API void dhcp_free_dhcpoption(const dhcp_memops *memops, struct dhcpoptions *record);

/* Releases every record of the list whose head pointer is at `head`, with
 * its values, and leaves the head pointer null. */
NIKERKIOG_API void dhcp_free_dhcpoptions(const dhcp_memops *memops, struct dhcpoptions **head);

NIKERKIOG_END_DECLS

#endif
