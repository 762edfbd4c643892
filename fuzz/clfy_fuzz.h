// Shared by the classifier fuzz targets: packets taken from input bytes and
// owned rule sets.
#ifndef NIKERKIOG_FUZZ_CLFY_H
#define NIKERKIOG_FUZZ_CLFY_H

#include <memory>

#include "fuzz_check.h"
#include "nikerkiog.h"

namespace fuzz {

// A packet descriptor over input bytes: receiving device, Ethernet
// addresses, VLAN tag, then the IP packet, held in an exact-size block so
// that ip_len is exactly what can be read.
struct Packet {
  std::vector<std::uint8_t> eth = std::vector<std::uint8_t>(12);
  std::unique_ptr<Exact> ip;
  nuv_clfy_packet desc{};
  std::uint32_t mark = 0;

  explicit Packet(Input &in) {
    desc.dev_ifindex = 1u + in.byte() % 3u;
    desc.brdev_ifindex = 1u + in.byte() % 3u;
    mark = in.byte() % 8u;
    const std::uint16_t tci = in.u16();
    desc.vlan_tci = static_cast<std::uint16_t>(tci & 0x1000u ? tci : 0);
    const std::vector<std::uint8_t> mac = in.take(12);
    std::copy(mac.begin(), mac.end(), eth.begin());
    desc.eth_header = eth.data();
    ip = std::make_unique<Exact>(in.rest());
    const bool v6 = ip->n && (ip->p[0] >> 4) == 6;
    const std::uint8_t proto[2] = {static_cast<std::uint8_t>(v6 ? 0x86 : 0x08), static_cast<std::uint8_t>(v6 ? 0xdd : 0x00)};
    std::memcpy(&desc.eth_proto, proto, 2);
    desc.ip_header = ip->p;
    desc.ip_len = static_cast<std::uint32_t>(ip->n);
  }
};

// A rule set that frees its rules, and the named tables they made, when it
// goes: every input starts from the same process state.
struct OwnedSet {
  nuv_clfy_set set;
  OwnedSet() { std::memset(&set, 0, sizeof set); }
  ~OwnedSet() { nuv_clfy_del_and_free_all(&set); }
  OwnedSet(const OwnedSet &) = delete;
  OwnedSet &operator=(const OwnedSet &) = delete;
};

inline void free_tables() {
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}

// The result of the first rule of the flat list `head` that holds for the
// packet, 0 for none; decided without learning DHCP clients.  A set search
// knows no traffic class: the mark is 0.
inline int first_match(const nuv_clfy *head, const Packet &p) {
  for (const nuv_clfy *rule = head; rule; rule = rule->next) {
    nuv_clfy_explanation why;
    if (nuv_clfy_explain(rule, &p.desc, 0, &why)) return rule->result;
  }
  return 0;
}

inline int tree_verdict(nuv_clfy_set *set, const Packet &p) {
  const nuv_clfy *rule = nuv_clfy_get_clfy_from_set(set, 0, &p.desc);
  return rule ? rule->result : 0;
}

// A compiled set of `set`, freed at the end of the scope.
struct OwnedCompiled {
  nuv_clfy_compiled *compiled = nullptr;
  explicit OwnedCompiled(const nuv_clfy_set &set) { FUZZ_CHECK(nuv_clfy_set_compile(&set, &compiled) == 0); }
  ~OwnedCompiled() { nuv_clfy_compiled_free(compiled); }
  OwnedCompiled(const OwnedCompiled &) = delete;
  OwnedCompiled &operator=(const OwnedCompiled &) = delete;
  int verdict(const Packet &p) const {
    const nuv_clfy *rule = nuv_clfy_compiled_get_clfy(compiled, 0, &p.desc);
    return rule ? rule->result : 0;
  }
};

}  // namespace fuzz

#endif
