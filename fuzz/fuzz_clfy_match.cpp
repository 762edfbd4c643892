// Classifier matching on hostile packets: a fixed rule set covering every
// keyword (DHCP conditions, named tables and IPv6 prefixes included) is
// executed on the input taken as a packet whose ip_len is exactly the
// number of bytes there are.  Every rule's verdict is the same whether
// asked with nuv_clfy_explain or nuv_clfy_matches, and the set's first
// match is the same rule by rule, through the set search, through the
// compiled set and after nuv_clfy_set_optim.
// Input: device, bridge device, mark, VLAN tag, Ethernet addresses, then
// the IP packet.
#include "clfy_fuzz.h"

namespace {

const char *const kRules[] = {
    "dev eth0 ip.proto tcp tcp.dport 80,443,8000-8080",
    "brdev br0 eth.proto 0x0800 ip.tos 0x20/0xe0",
    "eth.source 00:11:22:33:44:55",
    "eth.sourceoui 00:1a:2b eth.destoui 01:00:5e",
    "eth.dest ff:ff:ff:ff:ff:ff vlan.id 1-100 vlan.prio 5",
    "ethport 3 localmark 1,2 ip.version 4",
    "ethsrctab fuzz.known ip.proto udp",
    "ipdsttab fuzz.dst tcp.sport >1023 tcp.flags 2/0x12",
    "ip.saddr 10.0.0.0/8 ip.daddr 192.168.1.0 255.255.255.0 udp.sport 53",
    "ip.saddr 10.0.0.0/16 ip.len <= 576",
    "ip.daddr 2001:db8::/32 ip.proto icmpv6 icmp.type 128",
    "ip.daddr 2001:db8::/29 udp.dport !=53",
    "ip.source fe80::/10 ip.len 40-1500",
    "ip.dest ff02::1:2/128 udp.dest 547",
    "udp.dport 67 dhcpoption 60 MSFT* fuzz.clients",
    "dhcpoption 125/3561/1 abc* fuzz.boxes",
    "dhcpoption 50 192.168.* fuzz.leases",
    "dhcpoption 61 00:11:* fuzz.ids",
    "dhcpheader chaddr 00:11:* fuzz.known",
    "dhcpheader sname *boot* fuzz.names",
    "ip.protocol esp",
    "ip.proto tcp tcp.source 22 tcp.dest <1024 packetmatch *HTTP*",
    "ip.proto udp udp.source >=1024 udp.dport 5060 packetmatch SIP*",
    "ip.proto icmp ip.len >100",
    "ip.version 6 ip.tos 0xb8",
    "any",
};

void fill_tables() {
  const std::uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  nuv_clfy_ethersrctab_add("fuzz.known", mac);
  const std::uint8_t v4[4] = {192, 168, 1, 1};
  std::uint32_t addr;
  std::memcpy(&addr, v4, 4);
  nuv_clfy_ipdsttab_add4("fuzz.dst", addr);
  const std::uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  nuv_clfy_ipdsttab_add6("fuzz.dst", v6);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input in(data, size);
  const fuzz::Packet packet(in);
  {
    fuzz::OwnedSet linear, grouped;
    std::uint16_t result = 0;
    for (const char *line : kRules) {
      nuv_clfy *rule = nullptr;
      FUZZ_CHECK(nuv_clfy_parse(line, &rule) == 0);
      rule->result = ++result;
      if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = 1;
      if (rule->flags & NUV_CLFY_F_BRDEV) rule->brdev_ifindex = 2;
      nuv_clfy_add_tail(&linear.set, rule);
    }
    fill_tables();
    FUZZ_CHECK(nuv_clfy_set_optim(&linear.set, &grouped.set) == 0);
    fuzz::OwnedCompiled compiled_linear(linear.set), compiled_grouped(grouped.set);
    // Each search may learn a DHCP client into a table that an earlier rule
    // tests: every search is compared with the list as it stands just
    // before it.
    FUZZ_CHECK(fuzz::tree_verdict(&linear.set, packet) == fuzz::first_match(linear.set.head, packet));
    FUZZ_CHECK(compiled_linear.verdict(packet) == fuzz::first_match(linear.set.head, packet));
    FUZZ_CHECK(fuzz::tree_verdict(&grouped.set, packet) == fuzz::first_match(linear.set.head, packet));
    FUZZ_CHECK(compiled_grouped.verdict(packet) == fuzz::first_match(linear.set.head, packet));
    for (nuv_clfy *rule = linear.set.head; rule; rule = rule->next) {
      nuv_clfy_explanation why;
      const int explained = nuv_clfy_explain(rule, &packet.desc, packet.mark, &why);
      FUZZ_CHECK(explained == 0 || explained == 1);
      FUZZ_CHECK(explained == why.matched);
      if (!explained) FUZZ_CHECK(std::strlen(why.text) < sizeof why.text);
      FUZZ_CHECK(nuv_clfy_matches(rule, &packet.desc, 0, packet.mark) == explained);
    }
  }
  fuzz::free_tables();
  return 0;
}
