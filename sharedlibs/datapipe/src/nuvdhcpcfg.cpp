// Configuration schema of DHCP options and of the online-check settings,
// and the release of configured-option records.
#include <cstddef>

#include "nuvdhcpcfg.h"

namespace {

constexpr std::size_t kValueOffset = offsetof(dhcpoptions_record, value);

constexpr config_member header_member(const char *name, int type, std::size_t offset, std::size_t size) {
  return config_member{name, type, nullptr, offset, size, CONFIG_MEMBER_HEADER, 0, nullptr};
}

// A plain option member: all share the value position of the record.
constexpr config_member option_member(const char *name, int type, int optionnr, std::size_t size) {
  return config_member{name, type, nullptr, kValueOffset, size, 0, optionnr, nullptr};
}

// A structured option member: a list of `type_name` elements.
constexpr config_member list_member(const char *name, const char *type_name, int optionnr) {
  return config_member{name,         DHCPCFG_TYPE_STRUCT, type_name, kValueOffset, sizeof(void *),
                       CONFIG_MEMBER_LIST, optionnr, nullptr};
}

constexpr std::size_t kI32 = sizeof(int32_t);
constexpr std::size_t kPtr = sizeof(void *);

constexpr config_member addr(const char *name, int optionnr) {
  return option_member(name, DHCPCFG_TYPE_IPADDR, optionnr, kI32);
}
constexpr config_member addrs(const char *name, int optionnr) {
  return option_member(name, DHCPCFG_TYPE_IPADDR_LIST, optionnr, kPtr);
}
constexpr config_member i32(const char *name, int optionnr) {
  return option_member(name, DHCPCFG_TYPE_INT32, optionnr, kI32);
}
constexpr config_member flag(const char *name, int optionnr) {
  return option_member(name, DHCPCFG_TYPE_BOOL, optionnr, kI32);
}
constexpr config_member u8(const char *name, int optionnr) {
  return option_member(name, DHCPCFG_TYPE_UINT8, optionnr, 1);
}
constexpr config_member u16(const char *name, int optionnr) {
  return option_member(name, DHCPCFG_TYPE_UINT16, optionnr, 2);
}
constexpr config_member text(const char *name, int optionnr) {
  return option_member(name, DHCPCFG_TYPE_STRING, optionnr, kPtr);
}

// Member names are the configuration file's words, misspellings included:
// existing configurations use them.
constexpr config_member kDhcpOptionMembers[] = {
    header_member("next", DHCPCFG_TYPE_NEXT, offsetof(dhcpoptions_record, next), kPtr),
    header_member("optionnr", DHCPCFG_TYPE_OPTIONNR, offsetof(dhcpoptions_record, optionnr), kI32),
    addr("subnetmask", 1),
    i32("timeoffset", 2),
    addrs("routers", 3),
    addrs("timeservers", 4),
    addrs("ien116_name_servers", 5),
    addrs("dns_servers", 6),
    addrs("log_servers", 7),
    addrs("cookie_servers", 8),
    addrs("lpr_servers", 9),
    addrs("impress_servers", 10),
    addrs("res_loc_servers", 11),
    text("host_name", 12),
    u16("boot_file_size", 13),
    text("dump_file", 14),
    text("domain_name", 15),
    addr("swap_server", 16),
    text("root_path", 17),
    text("ext_path", 18),
    flag("ip_forwarding", 19),
    flag("non_local_source_routing", 20),
    list_member("policy_filter", "ipnet", 21),
    u16("max_dgram_reassambly_size", 22),
    u8("default_ttl", 23),
    i32("path_mtu_timeout", 24),
    list_member("path_mtu_table", "w_tab", 25),
    u16("mtu", 26),
    flag("all_subnets_are_local", 27),
    addr("bcast_addr", 28),
    flag("perf_mask_discovery", 29),
    flag("mask_supply", 30),
    flag("perf_router_discovery", 31),
    addr("router_solicit", 32),
    list_member("static_routes", "ipnet", 33),
    flag("trailer_encap", 34),
    i32("arp_cache_timeout", 35),
    flag("ether_encap", 36),
    u8("tcp_default_ttl", 37),
    i32("tcp_keepalive_intervall", 38),
    flag("tcp_keepalive_garbage", 39),
    text("nis_domain_name", 40),
    addrs("network_info_servers", 41),
    addrs("network_time_protocol_servers", 42),
    list_member("vendor_specific_informations", "generic_option", 43),
    addrs("nbns", 44),
    addrs("nbdd", 45),
    u8("netbs_note_type", 46),
    text("netbs_scope", 47),
    addrs("x_windows_font_servers", 48),
    addrs("x_windows_display_servers", 49),
    addr("requested_ip_addr", 50),
    i32("lease_time", 51),
    u8("overloadflag", 52),
    u8("message_type", 53),
    addr("server_id", 54),
    list_member("paramter_req_list", "b_tab", 55),
    text("message", 56),
    u16("max_dhcp_msg_size", 57),
    i32("renewal_time", 58),
    i32("rebinding_time", 59),
    text("vendor_class_id", 60),
    list_member("client_id", "b_tab", 61),
    text("nis_nvt_domain", 64),
    addrs("nis_nvt_servers", 65),
    text("tftp_server_name", 66),
    text("boot_file_name", 67),
    addrs("home_agent_addresses", 68),
    addrs("smtp_servers", 69),
    addrs("pop3_servers", 70),
    addrs("nntp_servers", 71),
    addrs("default_www_servers", 72),
    addrs("default_finger_servers", 73),
    addrs("default_irc_servers", 74),
    addrs("streettalk_servers", 75),
    addrs("stda_servers", 76),
    list_member("relay_agent_information", "generic_option", 82),
    list_member("pcp_servers", "option_pcp_server", 158),
    list_member("classless_static_routes", "classless_iproute", 121),
    list_member("ms_classless_static_routes", "classless_iproute", 249),
    list_member("vendor_class", "vendor_specific", 124),
    list_member("vendor_options", "vendor_specific", 125),
    // A single inline record, not a list.
    config_member{"option_6rd", DHCPCFG_TYPE_STRUCT, "option_6rd", kValueOffset, sizeof(option_6rd), 0, 212, nullptr},
    config_member{nullptr, 0, nullptr, 0, 0, 0, 0, nullptr},
};

constexpr int32_t kDefaultOfflineMode = onlinecheck_offlinemode_never;
constexpr int32_t kDefaultCheckMode = onlinecheck_checkmode_dpd;
constexpr int32_t kDefaultCheckDelay = 5;
constexpr int32_t kDefaultCheckInterval = 60;
constexpr int32_t kDefaultDisconnect = 0;
constexpr int32_t kDefaultTimeoutBase = 5;
constexpr uint32_t kDefaultRetries = 4;
constexpr int32_t kDefaultFallbackLifetime = 3600;

constexpr config_member field(const char *name, int type, const char *type_name, std::size_t offset,
                              const void *defval) {
  return config_member{name, type, type_name, offset, 4, 0, 0, defval};
}

constexpr config_member kOnlineCheckMembers[] = {
    field("offlinemode", DHCPCFG_TYPE_ENUM, "onlinecheck_offlinemode", offsetof(onlinecheckcfg_record, offlinemode),
          &kDefaultOfflineMode),
    field("checkmode", DHCPCFG_TYPE_ENUM, "onlinecheck_checkmode", offsetof(onlinecheckcfg_record, checkmode),
          &kDefaultCheckMode),
    field("check_delay", DHCPCFG_TYPE_INT32, nullptr, offsetof(onlinecheckcfg_record, check_delay),
          &kDefaultCheckDelay),
    field("check_interval", DHCPCFG_TYPE_INT32, nullptr, offsetof(onlinecheckcfg_record, check_interval),
          &kDefaultCheckInterval),
    field("disconnect_when_offline", DHCPCFG_TYPE_BOOL, nullptr,
          offsetof(onlinecheckcfg_record, disconnect_when_offline), &kDefaultDisconnect),
    field("timeoutbase", DHCPCFG_TYPE_INT32, nullptr, offsetof(onlinecheckcfg_record, timeoutbase),
          &kDefaultTimeoutBase),
    field("nretry", DHCPCFG_TYPE_UINT32, nullptr, offsetof(onlinecheckcfg_record, nretry), &kDefaultRetries),
    field("fallback_lifetime", DHCPCFG_TYPE_INT32, nullptr, offsetof(onlinecheckcfg_record, fallback_lifetime),
          &kDefaultFallbackLifetime),
    config_member{nullptr, 0, nullptr, 0, 0, 0, 0, nullptr},
};

// ---- releasing configured values ----

template <typename Element, typename Visit>
void free_list(const dhcp_memops &memops, Element *element, Visit release_owned) {
  while (element) {
    Element *next = element->next;
    release_owned(*element);
    memops.free(element);
    element = next;
  }
}

template <typename Element>
void free_plain_list(const dhcp_memops &memops, Element *element) {
  free_list(memops, element, [](Element &) {});
}

void free_suboptions(const dhcp_memops &memops, generic_option *element) {
  free_list(memops, element, [](generic_option &sub) { memblock_free(&sub.data); });
}

void free_vendors(const dhcp_memops &memops, vendor_specific *element) {
  free_list(memops, element, [&memops](vendor_specific &v) { free_suboptions(memops, v.suboptions); });
}

void free_pcp_servers(const dhcp_memops &memops, option_pcp_server *element) {
  free_list(memops, element, [&memops](option_pcp_server &g) { free_plain_list(memops, g.ipaddrs); });
}

// Releases a list held in the value and empties the pointer to it.
template <typename Element, typename Release>
void take_and_free(Element *&list, Release release) {
  Element *taken = list;
  list = nullptr;
  release(taken);
}

// Structured values, by option code; codes without one own nothing.
void free_structured(const dhcp_memops &memops, dhcpoptions_record &record) {
  dhcpoptions_value &v = record.value;
  auto plain = [&memops](auto *list) { free_plain_list(memops, list); };
  switch (record.optionnr) {
    case 21:
    case 33: take_and_free(v.ipnets, plain); break;
    case 25: take_and_free(v.words, plain); break;
    case 55:
    case 61: take_and_free(v.bytes, plain); break;
    case 43:
    case 82: take_and_free(v.suboptions, [&memops](generic_option *l) { free_suboptions(memops, l); }); break;
    case 121:
    case 249: take_and_free(v.routes, plain); break;
    case 124:
    case 125: take_and_free(v.vendors, [&memops](vendor_specific *l) { free_vendors(memops, l); }); break;
    case 158: take_and_free(v.pcp_servers, [&memops](option_pcp_server *l) { free_pcp_servers(memops, l); }); break;
    case 212: take_and_free(v.sixrd.borderrouter, plain); break;
    default: break;
  }
}

}  // namespace

extern "C" {

const config_type dhcpoptions = {
    "dhcpoptions", DHCPCFG_KIND_SELECTED_RECORD, kDhcpOptionMembers, &kDhcpOptionMembers[1],
    sizeof(dhcpoptions_record), 10};

const config_type onlinecheckcfg = {
    "onlinecheckcfg", DHCPCFG_KIND_RECORD, kOnlineCheckMembers, nullptr, sizeof(onlinecheckcfg_record), 10};

int DHCPOPTIONS_dhcpoptions_memberbymagic(const struct dhcpoptions *record) {
  const config_member *member = config_memberbymagic(&dhcpoptions, record);
  return member ? member->type : 0;
}

void dhcp_free_dhcpoption(const dhcp_memops *memops, struct dhcpoptions *record) {
  switch (DHCPOPTIONS_dhcpoptions_memberbymagic(record)) {
    case DHCPCFG_TYPE_IPADDR_LIST:
      free_plain_list(*memops, record->value.ipaddrs);
      record->value.ipaddrs = nullptr;
      break;
    case DHCPCFG_TYPE_STRING:
      if (record->value.string) memops->free(record->value.string);
      record->value.string = nullptr;
      break;
    case DHCPCFG_TYPE_STRUCT: free_structured(*memops, *record); break;
    default: break;
  }
}

void dhcp_free_dhcpoptions(const dhcp_memops *memops, struct dhcpoptions **head) {
  while (*head) {
    dhcpoptions_record *record = *head;
    *head = record->next;
    dhcp_free_dhcpoption(memops, record);
    memops->free(record);
  }
}

}  // extern "C"
