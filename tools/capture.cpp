#include "capture.h"

#include <pcap/pcap.h>

#include <array>
#include <memory>

namespace tool {
namespace {

constexpr std::uint16_t kVlanTags[] = {0x8100, 0x88A8, 0x9100};
constexpr std::size_t kEthernetHeader = 14;
constexpr std::size_t kCookedHeader = 16;   // Linux cooked capture v1
constexpr std::size_t kCooked2Header = 20;  // Linux cooked capture v2
constexpr std::size_t kLoopbackHeader = 4;  // BSD loopback address family

std::uint16_t be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

bool is_vlan_tag(std::uint16_t type) {
  for (auto t : kVlanTags)
    if (t == type) return true;
  return false;
}

// Walks VLAN tags from the ethertype at `at`; fills the frame's network layer.
void take_ethertype(Frame &f, std::size_t at) {
  auto b = f.bytes;
  std::uint16_t type = be16(&b[at]);
  at += 2;
  while (is_vlan_tag(type)) {
    if (b.size() < at + 4) return;
    f.vlan_tcis.push_back(be16(&b[at]));
    f.vlan_ids.push_back(be16(&b[at]) & 0x0FFF);
    type = be16(&b[at + 2]);
    at += 4;
  }
  f.ethertype = type;
  f.network_offset = at;
  f.link_complete = true;
}

// Link types whose frames start with the IP header; DLT_RAW is numbered 12
// or 14 depending on the system that wrote the file, libpcap maps both.
constexpr int kRawIpLinkTypes[] = {DLT_RAW, DLT_IPV4, DLT_IPV6};

bool is_raw_ip(int link_type) {
  for (int t : kRawIpLinkTypes)
    if (t == link_type) return true;
  return false;
}

// The IP header starts at `at`; its version nibble gives the network type.
void take_raw_ip(Frame &f, std::size_t at) {
  if (f.bytes.size() <= at) return;
  unsigned version = f.bytes[at] >> 4;
  if (version != 4 && version != 6) return;
  f.ethertype = version == 4 ? 0x0800 : 0x86DD;
  f.network_offset = at;
  f.link_complete = true;
}

void dissect_link(Frame &f) {
  auto b = f.bytes;
  switch (f.link_type) {
    case DLT_EN10MB:
      if (b.size() < kEthernetHeader) return;
      f.ethernet = b.data();
      take_ethertype(f, 12);
      return;
    case DLT_LINUX_SLL:
      if (b.size() < kCookedHeader) return;
      take_ethertype(f, 14);
      return;
    case DLT_LINUX_SLL2:
      if (b.size() < kCooked2Header) return;
      f.ethertype = be16(&b[0]);
      f.network_offset = kCooked2Header;
      f.link_complete = true;
      return;
    case DLT_NULL:
    case DLT_LOOP:
      // A 4-byte address family (host order of the capturing machine for
      // DLT_NULL); the family values differ between systems, so the IP
      // version nibble decides.
      take_raw_ip(f, kLoopbackHeader);
      return;
    default:
      if (is_raw_ip(f.link_type)) take_raw_ip(f, 0);
      return;
  }
}

struct PcapCloser {
  void operator()(pcap_t *p) const { pcap_close(p); }
};

}  // namespace

bool link_type_supported(int link_type) {
  return link_type == DLT_EN10MB || link_type == DLT_LINUX_SLL || link_type == DLT_LINUX_SLL2 ||
         link_type == DLT_NULL || link_type == DLT_LOOP || is_raw_ip(link_type);
}

std::string for_each_frame(const std::string &path, const std::function<void(const Frame &)> &visit) {
  std::array<char, PCAP_ERRBUF_SIZE> err{};
  std::unique_ptr<pcap_t, PcapCloser> pcap(pcap_open_offline(path.c_str(), err.data()));
  if (!pcap) return err.data();
  int link = pcap_datalink(pcap.get());
  if (!link_type_supported(link)) {
    const char *name = pcap_datalink_val_to_name(link);
    return "unsupported link type " + std::string(name ? name : std::to_string(link));
  }
  pcap_pkthdr *header;
  const u_char *data;
  std::size_t number = 0;
  int rc;
  while ((rc = pcap_next_ex(pcap.get(), &header, &data)) == 1) {
    Frame f;
    f.number = ++number;
    f.bytes = {data, header->caplen};
    f.wire_length = header->len;
    f.link_type = link;
    dissect_link(f);
    visit(f);
  }
  if (rc == PCAP_ERROR) return pcap_geterr(pcap.get());
  return {};
}

}  // namespace tool
