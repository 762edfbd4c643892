// Record sizes that router code relies on.  The sizes are stated for the
// 32-bit target; on wider targets a record follows its pointer fields.
#include <gtest/gtest.h>

#include <cstddef>

#include "nikerkiog.h"

namespace {

constexpr bool kIs32BitTarget = sizeof(void *) == 4;

}  // namespace

// Each module adds the records whose size is part of its contract, in the form
//   TEST(RecordSizes, Name) { if (kIs32BitTarget) { EXPECT_EQ(sizeof(rec), N); } ... }
TEST(RecordSizes, TargetWidthIsKnown) {
  EXPECT_TRUE(sizeof(void *) == 4 || sizeof(void *) == 8);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(long), 4u);
  }
}

TEST(RecordSizes, DhcpOptionStore) {
  EXPECT_EQ(sizeof(dhcp_options) / sizeof(dhcp_option), 256u);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(dhcp_option), 8u);
    EXPECT_EQ(sizeof(dhcp_options), 2048u);
    EXPECT_EQ(sizeof(dhcp_memops), 12u);
  }
}

TEST(RecordSizes, Ip6PortRange) {
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(ip6_portrange), 20u);
  }
  EXPECT_EQ(offsetof(ip6_portrange, port_lo), 2u);
  EXPECT_EQ(offsetof(ip6_portrange, port_hi), 4u);
}

TEST(RecordSizes, Ip6ForwardRuleBlockHeader) {
  EXPECT_EQ(sizeof(ip6_forwardrule), 48u);
  EXPECT_EQ(offsetof(ip6_forwardrule, all_protocols), 4u);
  EXPECT_EQ(offsetof(ip6_forwardrule, ping), 8u);
  EXPECT_EQ(offsetof(ip6_forwardrule, proto_bits), 12u);
  EXPECT_EQ(offsetof(ip6_forwardrule, count), 44u);
  EXPECT_EQ(offsetof(ip6_forwardrule, capacity), 46u);
  EXPECT_EQ(offsetof(ip6_forwardrule, entries), 48u);
}

// ---- Classifier: tables, value lists, rule sets, actions ----

TEST(RecordSizes, EtherSrcTabIs36Bytes) {
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(ethersrctab), 36u);
    EXPECT_EQ(offsetof(ethersrctab, name), 8u);
    EXPECT_EQ(offsetof(ethersrctab, count), 24u);
    EXPECT_EQ(offsetof(ethersrctab, capacity), 28u);
    EXPECT_EQ(offsetof(ethersrctab, entries), 32u);
  }
  EXPECT_EQ(sizeof(ethersrctab::name), 16u);
}

TEST(RecordSizes, IpDstTabIs36Bytes) {
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(ipdsttab), 36u);
    EXPECT_EQ(offsetof(ipdsttab, name), 8u);
    EXPECT_EQ(offsetof(ipdsttab, count), 24u);
    EXPECT_EQ(offsetof(ipdsttab, capacity), 28u);
    EXPECT_EQ(offsetof(ipdsttab, entries), 32u);
  }
}

TEST(RecordSizes, IpDstTabEntryIs24Bytes) {
  // Four entries take 96 bytes on every target.
  EXPECT_EQ(sizeof(ipdsttab_entry), 24u);
  EXPECT_EQ(offsetof(ipdsttab_entry, prefixlen), 16u);
  EXPECT_EQ(offsetof(ipdsttab_entry, family), 17u);
}

TEST(RecordSizes, ClassifierValueListEntryIs8Bytes) {
  EXPECT_EQ(sizeof(nuv_clfy_value), 8u);
  EXPECT_EQ(sizeof(nuv_clfy_ipaddr), 16u);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(nuv_clfy_valuelist), 8u);
  }
}

TEST(RecordSizes, ClassifierRuleSetHeadFollowsFourCallerWords) {
  EXPECT_EQ(offsetof(nuv_clfy_set, head), 16u);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(nuv_clfy_set), 20u);
  }
}

TEST(RecordSizes, ClassifierActionEntryHasATwelveCharacterName) {
  EXPECT_EQ(sizeof(nuv_clfy_action::name), 12u);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(nuv_clfy_action), 20u);
  }
}

TEST(RecordSizes, ClassifierRuleFieldWidths) {
  EXPECT_EQ(sizeof(nuv_clfy::dev), 20u);
  EXPECT_EQ(sizeof(nuv_clfy::brdev), 20u);
  EXPECT_EQ(sizeof(nuv_clfy::eth_source), 6u);
  EXPECT_EQ(sizeof(nuv_clfy::eth_dest), 6u);
  EXPECT_EQ(sizeof(nuv_clfy::ip_saddr), 16u);
  EXPECT_EQ(sizeof(nuv_clfy::action_data), 16u);
  EXPECT_EQ(offsetof(nuv_clfy, next), 0u);
  if (kIs32BitTarget) {
    EXPECT_EQ(offsetof(nuv_clfy, children), 4u);
    EXPECT_EQ(offsetof(nuv_clfy, owner), 8u);
    EXPECT_EQ(offsetof(nuv_clfy, id), 12u);
    EXPECT_EQ(offsetof(nuv_clfy, flags), 16u);
    EXPECT_EQ(offsetof(nuv_clfy, dev_ifindex), 20u);
    EXPECT_EQ(offsetof(nuv_clfy, dev), 24u);
  }
}

TEST(RecordSizes, DhcpConfigurationRecords) {
  EXPECT_EQ(sizeof(onlinecheckcfg_record), 32u);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(option_6rd), 24u);
    EXPECT_EQ(sizeof(dhcpoptions_value), 24u);
    EXPECT_EQ(sizeof(dhcpoptions_record), 32u);
  }
}

TEST(RecordSizes, PacketBufferDescriptor) {
  EXPECT_EQ(offsetof(nuv_pktbuf, len), 4u);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(nuv_pktbuf), 16u);
    EXPECT_EQ(offsetof(nuv_pktbuf, data), 12u);
  }
}
