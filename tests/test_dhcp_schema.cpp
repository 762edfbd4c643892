// The configuration schema of DHCP options and online-check settings, and
// releasing configured-option records.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "dhcp_cfgbuild.h"
#include "dhcp_testmemops.h"
#include "nuvcsock_test.h"
#include "nuvdhcpcfg.h"
#include "testsupport.h"

namespace {

using testsupport::DhcpConfigBuilder;
using testsupport::DhcpTestMemops;

struct ExpectedMember {
  int option;
  const char *name;
  int type;
  const char *type_name;  // structured members only
};

// The configurable options in descriptor order, as configuration files name them.
const std::vector<ExpectedMember> kExpectedMembers = {
    {1, "subnetmask", 19, nullptr},
    {2, "timeoffset", 7, nullptr},
    {3, "routers", 20, nullptr},
    {4, "timeservers", 20, nullptr},
    {5, "ien116_name_servers", 20, nullptr},
    {6, "dns_servers", 20, nullptr},
    {7, "log_servers", 20, nullptr},
    {8, "cookie_servers", 20, nullptr},
    {9, "lpr_servers", 20, nullptr},
    {10, "impress_servers", 20, nullptr},
    {11, "res_loc_servers", 20, nullptr},
    {12, "host_name", 22, nullptr},
    {13, "boot_file_size", 14, nullptr},
    {14, "dump_file", 22, nullptr},
    {15, "domain_name", 22, nullptr},
    {16, "swap_server", 19, nullptr},
    {17, "root_path", 22, nullptr},
    {18, "ext_path", 22, nullptr},
    {19, "ip_forwarding", 8, nullptr},
    {20, "non_local_source_routing", 8, nullptr},
    {21, "policy_filter", 3, "ipnet"},
    {22, "max_dgram_reassambly_size", 14, nullptr},
    {23, "default_ttl", 13, nullptr},
    {24, "path_mtu_timeout", 7, nullptr},
    {25, "path_mtu_table", 3, "w_tab"},
    {26, "mtu", 14, nullptr},
    {27, "all_subnets_are_local", 8, nullptr},
    {28, "bcast_addr", 19, nullptr},
    {29, "perf_mask_discovery", 8, nullptr},
    {30, "mask_supply", 8, nullptr},
    {31, "perf_router_discovery", 8, nullptr},
    {32, "router_solicit", 19, nullptr},
    {33, "static_routes", 3, "ipnet"},
    {34, "trailer_encap", 8, nullptr},
    {35, "arp_cache_timeout", 7, nullptr},
    {36, "ether_encap", 8, nullptr},
    {37, "tcp_default_ttl", 13, nullptr},
    {38, "tcp_keepalive_intervall", 7, nullptr},
    {39, "tcp_keepalive_garbage", 8, nullptr},
    {40, "nis_domain_name", 22, nullptr},
    {41, "network_info_servers", 20, nullptr},
    {42, "network_time_protocol_servers", 20, nullptr},
    {43, "vendor_specific_informations", 3, "generic_option"},
    {44, "nbns", 20, nullptr},
    {45, "nbdd", 20, nullptr},
    {46, "netbs_note_type", 13, nullptr},
    {47, "netbs_scope", 22, nullptr},
    {48, "x_windows_font_servers", 20, nullptr},
    {49, "x_windows_display_servers", 20, nullptr},
    {50, "requested_ip_addr", 19, nullptr},
    {51, "lease_time", 7, nullptr},
    {52, "overloadflag", 13, nullptr},
    {53, "message_type", 13, nullptr},
    {54, "server_id", 19, nullptr},
    {55, "paramter_req_list", 3, "b_tab"},
    {56, "message", 22, nullptr},
    {57, "max_dhcp_msg_size", 14, nullptr},
    {58, "renewal_time", 7, nullptr},
    {59, "rebinding_time", 7, nullptr},
    {60, "vendor_class_id", 22, nullptr},
    {61, "client_id", 3, "b_tab"},
    {64, "nis_nvt_domain", 22, nullptr},
    {65, "nis_nvt_servers", 20, nullptr},
    {66, "tftp_server_name", 22, nullptr},
    {67, "boot_file_name", 22, nullptr},
    {68, "home_agent_addresses", 20, nullptr},
    {69, "smtp_servers", 20, nullptr},
    {70, "pop3_servers", 20, nullptr},
    {71, "nntp_servers", 20, nullptr},
    {72, "default_www_servers", 20, nullptr},
    {73, "default_finger_servers", 20, nullptr},
    {74, "default_irc_servers", 20, nullptr},
    {75, "streettalk_servers", 20, nullptr},
    {76, "stda_servers", 20, nullptr},
    {82, "relay_agent_information", 3, "generic_option"},
    {158, "pcp_servers", 3, "option_pcp_server"},
    {121, "classless_static_routes", 3, "classless_iproute"},
    {249, "ms_classless_static_routes", 3, "classless_iproute"},
    {124, "vendor_class", 3, "vendor_specific"},
    {125, "vendor_options", 3, "vendor_specific"},
    {212, "option_6rd", 3, "option_6rd"},
};

int member_type_of(int optionnr) {
  dhcpoptions_record r;
  std::memset(&r, 0, sizeof r);
  r.optionnr = optionnr;
  return DHCPOPTIONS_dhcpoptions_memberbymagic(&r);
}

std::vector<const config_member *> members_of(const config_type &type) {
  std::vector<const config_member *> out;
  for (const config_member *m = type.members; m->name; ++m) out.push_back(m);
  return out;
}

}  // namespace

// ---- the dhcpoptions descriptor ----

TEST(DhcpOptionsSchema, DescriptorNamesTheRecordTypeAndItsSize) {
  EXPECT_STREQ(dhcpoptions.name, "dhcpoptions");
  EXPECT_EQ(dhcpoptions.size, sizeof(dhcpoptions_record));
  EXPECT_EQ(dhcpoptions.ten, 10);
  ASSERT_NE(dhcpoptions.magic_member, nullptr);
  EXPECT_STREQ(dhcpoptions.magic_member->name, "optionnr");
}

TEST(DhcpOptionsSchema, HeaderMembersAreNextAndOptionnr) {
  auto members = members_of(dhcpoptions);
  ASSERT_GE(members.size(), 2u);
  EXPECT_STREQ(members[0]->name, "next");
  EXPECT_EQ(members[0]->type, 1);
  EXPECT_EQ(members[0]->flags, 2u);
  EXPECT_EQ(members[0]->offset, offsetof(dhcpoptions_record, next));
  EXPECT_STREQ(members[1]->name, "optionnr");
  EXPECT_EQ(members[1]->type, 2);
  EXPECT_EQ(members[1]->flags, 2u);
  EXPECT_EQ(members[1]->offset, offsetof(dhcpoptions_record, optionnr));
  EXPECT_EQ(members[1]->size, 4u);
}

TEST(DhcpOptionsSchema, OptionMembersStandInTheConfigurationOrder) {
  auto members = members_of(dhcpoptions);
  ASSERT_EQ(members.size(), kExpectedMembers.size() + 2);
  for (std::size_t i = 0; i < kExpectedMembers.size(); ++i) {
    const ExpectedMember &e = kExpectedMembers[i];
    const config_member *m = members[i + 2];
    SCOPED_TRACE(e.name);
    EXPECT_STREQ(m->name, e.name);
    EXPECT_EQ(m->magic, e.option);
    EXPECT_EQ(m->type, e.type);
    if (e.type_name) {
      EXPECT_STREQ(m->typename_, e.type_name);
    } else {
      EXPECT_EQ(m->typename_, nullptr);
    }
  }
}

TEST(DhcpOptionsSchema, AllOptionMembersShareTheValuePosition) {
  for (const config_member *m : members_of(dhcpoptions)) {
    if (m->flags & CONFIG_MEMBER_HEADER) continue;
    EXPECT_EQ(m->offset, offsetof(dhcpoptions_record, value)) << m->name;
    EXPECT_LE(m->offset + m->size, sizeof(dhcpoptions_record)) << m->name;
  }
}

TEST(DhcpOptionsSchema, StructuredListsAreFlaggedAsListsExceptThe6rdValue) {
  for (const config_member *m : members_of(dhcpoptions)) {
    if (m->type != 3) {
      if (!(m->flags & CONFIG_MEMBER_HEADER)) {
        EXPECT_EQ(m->flags, 0u) << m->name;
      }
      continue;
    }
    EXPECT_EQ(m->flags, m->magic == 212 ? 0u : 1u) << m->name;
  }
}

TEST(DhcpOptionsSchema, SixRdValueIsTwentyFourBytesOnTheTarget) {
  const config_member *m = config_memberbymagic(&dhcpoptions, [] {
    static dhcpoptions_record r;
    r.optionnr = 212;
    return &r;
  }());
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->size, sizeof(option_6rd));
  if (sizeof(void *) == 4) {
    EXPECT_EQ(m->size, 24u);
  }
}

TEST(DhcpOptionsSchema, MemberTypeByOptionNumber) {
  for (const ExpectedMember &e : kExpectedMembers) EXPECT_EQ(member_type_of(e.option), e.type) << e.option;
}

TEST(DhcpOptionsSchema, OptionWithoutMemberGivesTypeZero) {
  EXPECT_EQ(member_type_of(62), 0);
  EXPECT_EQ(member_type_of(63), 0);
  EXPECT_EQ(member_type_of(77), 0);
  EXPECT_EQ(member_type_of(0), 0);
  EXPECT_EQ(member_type_of(255), 0);
  EXPECT_EQ(member_type_of(-1), 0);
  EXPECT_EQ(member_type_of(4096), 0);
}

TEST(DhcpOptionsSchema, Option22IsTheSixteenBitReassemblySize) {
  dhcpoptions_record r;
  std::memset(&r, 0, sizeof r);
  r.optionnr = 22;
  EXPECT_EQ(DHCPOPTIONS_dhcpoptions_memberbymagic(&r), 14);
  const config_member *m = config_memberbymagic(&dhcpoptions, &r);
  ASSERT_NE(m, nullptr);
  EXPECT_STREQ(m->name, "max_dgram_reassambly_size");
  EXPECT_EQ(m->size, 2u);
}

TEST(DhcpOptionsSchema, Exactly81OptionsAreConfigurable) {
  int configurable = 0;
  for (int code = 0; code < 256; ++code) configurable += member_type_of(code) != 0;
  EXPECT_EQ(configurable, 81);
  EXPECT_EQ(kExpectedMembers.size(), 81u);
}

// ---- the onlinecheckcfg descriptor ----

TEST(OnlineCheckSchema, DescriptorNamesTheRecordTypeAndItsSize) {
  EXPECT_STREQ(onlinecheckcfg.name, "onlinecheckcfg");
  EXPECT_EQ(onlinecheckcfg.size, 32u);
  EXPECT_EQ(onlinecheckcfg.ten, 10);
  EXPECT_EQ(onlinecheckcfg.magic_member, nullptr);
}

TEST(OnlineCheckSchema, FieldsAre32BitInOrderWithTheirDefaults) {
  struct Expected {
    const char *name;
    std::int64_t def;
  };
  const Expected expected[] = {{"offlinemode", 0},   {"checkmode", 1},       {"check_delay", 5},
                               {"check_interval", 60}, {"disconnect_when_offline", 0}, {"timeoutbase", 5},
                               {"nretry", 4},        {"fallback_lifetime", 3600}};
  auto members = members_of(onlinecheckcfg);
  ASSERT_EQ(members.size(), 8u);
  for (std::size_t i = 0; i < 8; ++i) {
    SCOPED_TRACE(expected[i].name);
    EXPECT_STREQ(members[i]->name, expected[i].name);
    EXPECT_EQ(members[i]->offset, 4 * i);
    EXPECT_EQ(members[i]->size, 4u);
    ASSERT_NE(members[i]->defval, nullptr);
    std::int32_t def;
    std::memcpy(&def, members[i]->defval, 4);
    EXPECT_EQ(def, expected[i].def);
  }
}

TEST(OnlineCheckSchema, ModesAreEnumerationsWithTheirValueNames) {
  auto members = members_of(onlinecheckcfg);
  EXPECT_STREQ(members[0]->typename_, "onlinecheck_offlinemode");
  EXPECT_STREQ(members[1]->typename_, "onlinecheck_checkmode");
  EXPECT_EQ(members[0]->type, members[1]->type);
  EXPECT_EQ(onlinecheck_offlinemode_never, 0);
  EXPECT_EQ(onlinecheck_offlinemode_always, 1);
  EXPECT_EQ(onlinecheck_offlinemode_auto, 2);
  EXPECT_EQ(onlinecheck_checkmode_interval, 0);
  EXPECT_EQ(onlinecheck_checkmode_dpd, 1);
}

TEST(OnlineCheckSchema, FieldTypesAreSignedBooleanAndUnsigned) {
  auto members = members_of(onlinecheckcfg);
  EXPECT_EQ(members[2]->type, 7);
  EXPECT_EQ(members[3]->type, 7);
  EXPECT_EQ(members[4]->type, 8);
  EXPECT_EQ(members[5]->type, 7);
  EXPECT_EQ(members[6]->type, DHCPCFG_TYPE_UINT32);
  EXPECT_EQ(members[7]->type, 7);
}

// ---- releasing configured values ----

TEST(DhcpFreeDhcpOption, StringIsReleasedAndCleared) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, "box");
  dhcp_free_dhcpoption(mem.ops(), cfg.first());
  EXPECT_EQ(cfg.first()->value.string, nullptr);
  EXPECT_EQ(mem.live(), 1);  // the record itself stays
}

TEST(DhcpFreeDhcpOption, NullStringIsLeftAlone) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(15);
  dhcp_free_dhcpoption(mem.ops(), cfg.first());
  EXPECT_EQ(cfg.first()->value.string, nullptr);
}

TEST(DhcpFreeDhcpOption, AddressListElementsAreReleased) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_addrs(6, {0x01020304, 0x05060708, 0x090a0b0c});
  EXPECT_EQ(mem.live(), 4);
  dhcp_free_dhcpoption(mem.ops(), cfg.first());
  EXPECT_EQ(cfg.first()->value.ipaddrs, nullptr);
  EXPECT_EQ(mem.live(), 1);
}

TEST(DhcpFreeDhcpOption, ScalarValuesOwnNothing) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_i32(51, 3600);
  cfg.first()->next = nullptr;
  dhcp_free_dhcpoption(mem.ops(), cfg.first());
  EXPECT_EQ(cfg.first()->value.i32, 3600);
  EXPECT_EQ(mem.live(), 1);
}

TEST(DhcpFreeDhcpOption, OptionWithoutMemberOwnsNothing) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(62)->value.u32 = 0xdeadbeef;
  dhcp_free_dhcpoption(mem.ops(), cfg.first());
  EXPECT_EQ(cfg.first()->value.u32, 0xdeadbeefu);
}

TEST(DhcpFreeDhcpOption, EveryStructuredOptionReleasesItsElements) {
  testsupport::NoLeakGuard platform;
  for (int code : {21, 33, 25, 55, 61, 43, 82, 121, 249, 124, 125, 158, 212}) {
    SCOPED_TRACE(code);
    DhcpTestMemops mem;
    DhcpConfigBuilder cfg(mem.ops());
    dhcpoptions_record *r = cfg.add(code);
    switch (code) {
      case 21:
      case 33: r->value.ipnets = cfg.net_list({{1, 2}, {3, 4}}); break;
      case 25: r->value.words = cfg.word_list({576, 1500}); break;
      case 55:
      case 61: r->value.bytes = cfg.byte_list({1, 3, 6}); break;
      case 43:
      case 82: r->value.suboptions = cfg.sub_list({{1, "ab"}, {2, "", false}, {3, "xyz"}}); break;
      case 121:
      case 249: r->value.routes = cfg.route_list({{0x0a000000, 8, 0x0a000001}}); break;
      case 124:
      case 125: r->value.vendors = cfg.vendor_list({{3561, {{1, "a"}, {2, "bc"}}}, {4491, {}}}); break;
      case 158: r->value.pcp_servers = cfg.pcp_list({{0x01020304, 0x05060708}, {}}); break;
      case 212:
        r->value.sixrd.ipv4masklen = 8;
        r->value.sixrd.borderrouter = cfg.addr_list({0xc0000201, 0xc0000202});
        break;
    }
    EXPECT_GT(mem.live(), 1);
    dhcp_free_dhcpoption(mem.ops(), r);
    EXPECT_EQ(mem.live(), 1);
    EXPECT_EQ(testsupport::live_blocks().memblock, 0);
    if (code == 212) {
      EXPECT_EQ(r->value.sixrd.borderrouter, nullptr);
      EXPECT_EQ(r->value.sixrd.ipv4masklen, 8);
    } else {
      EXPECT_EQ(r->value.ipnets, nullptr);
    }
  }
}

TEST(DhcpFreeDhcpOptions, ReleasesEveryRecordAndEmptiesTheHead) {
  testsupport::NoLeakGuard platform;
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, "box");
  cfg.add_addrs(3, {0xc0a80101});
  cfg.add(43)->value.suboptions = cfg.sub_list({{1, "ab"}});
  cfg.add_u8(53, 5);
  dhcp_free_dhcpoptions(mem.ops(), cfg.head());
  EXPECT_EQ(cfg.first(), nullptr);
  EXPECT_EQ(mem.live(), 0);
}

TEST(DhcpFreeDhcpOptions, EmptyListIsNothingToDo) {
  DhcpTestMemops mem;
  dhcpoptions_record *head = nullptr;
  dhcp_free_dhcpoptions(mem.ops(), &head);
  EXPECT_EQ(head, nullptr);
  EXPECT_EQ(mem.attempts(), 0);
}
