// Builds configured-option lists (the records of nuvdhcpcfg.h) for tests,
// allocating every record and element through a dhcp_memops record so that
// dhcp_free_dhcpoptions can release them.
#ifndef NIKERKIOG_DHCP_CFGBUILD_H
#define NIKERKIOG_DHCP_CFGBUILD_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "nuvdhcpcfg.h"

namespace testsupport {

class DhcpConfigBuilder {
 public:
  explicit DhcpConfigBuilder(const dhcp_memops *ops) : ops_(ops) {}
  ~DhcpConfigBuilder() { dhcp_free_dhcpoptions(ops_, &head_); }
  DhcpConfigBuilder(const DhcpConfigBuilder &) = delete;
  DhcpConfigBuilder &operator=(const DhcpConfigBuilder &) = delete;

  dhcpoptions_record **head() { return &head_; }
  dhcpoptions_record *first() { return head_; }

  // Appends a record for `code` with a zeroed value and returns it.
  dhcpoptions_record *add(int code) {
    auto *r = zeroed<dhcpoptions_record>();
    r->optionnr = code;
    dhcpoptions_record **tail = &head_;
    while (*tail) tail = &(*tail)->next;
    *tail = r;
    return r;
  }
  void add_u8(int code, std::uint8_t v) { add(code)->value.u8 = v; }
  void add_u16(int code, std::uint16_t v) { add(code)->value.u16 = v; }
  void add_i32(int code, std::int32_t v) { add(code)->value.i32 = v; }
  void add_u32(int code, std::uint32_t v) { add(code)->value.u32 = v; }
  void add_addr(int code, std::uint32_t host_order) { add(code)->value.ipaddr = host_order; }
  void add_addrs(int code, std::initializer_list<std::uint32_t> host_order) {
    add(code)->value.ipaddrs = addr_list(host_order);
  }
  void add_string(int code, const std::string &s) { add(code)->value.string = string(s); }

  // ---- elements ----
  template <typename T>
  T *zeroed() {
    void *p = ops_->alloc(sizeof(T));
    EXPECT_NE(p, nullptr);
    std::memset(p, 0, sizeof(T));
    return static_cast<T *>(p);
  }
  char *string(const std::string &s) {
    auto *p = static_cast<char *>(ops_->alloc(static_cast<std::uint32_t>(s.size() + 1)));
    std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
  }
  ipaddr_tab *addr_list(std::initializer_list<std::uint32_t> host_order) {
    return chain<ipaddr_tab>(host_order, [](ipaddr_tab &e, std::uint32_t a) { e.ipaddr = a; });
  }
  b_tab *byte_list(std::initializer_list<std::uint8_t> values) {
    return chain<b_tab>(values, [](b_tab &e, std::uint8_t v) { e.val = v; });
  }
  w_tab *word_list(std::initializer_list<std::uint16_t> values) {
    return chain<w_tab>(values, [](w_tab &e, std::uint16_t v) { e.val = v; });
  }
  ipnet *net_list(std::initializer_list<std::pair<std::uint32_t, std::uint32_t>> pairs) {
    return chain<ipnet>(pairs, [](ipnet &e, std::pair<std::uint32_t, std::uint32_t> p) {
      e.ipaddr = p.first;
      e.mask = p.second;
    });
  }
  struct Route {
    std::uint32_t dest;
    std::uint8_t prefixlen;
    std::uint32_t gateway;
  };
  classless_iproute *route_list(std::initializer_list<Route> routes) {
    return chain<classless_iproute>(routes, [](classless_iproute &e, Route r) {
      e.ipaddr = r.dest;
      e.prefixlen = r.prefixlen;
      e.gateway = r.gateway;
    });
  }
  // Sub-options; a value of nullptr-like `absent` (set has_data false) has no data block.
  struct Sub {
    std::uint8_t code;
    std::string bytes;
    bool has_data = true;
  };
  generic_option *sub_list(std::initializer_list<Sub> subs) {
    return chain<generic_option>(subs, [](generic_option &e, const Sub &s) {
      e.suboption = s.code;
      if (s.has_data) {
        // An empty value still gets a data block: one byte appended and cut.
        EXPECT_EQ(nuvcsock_memblock_append(&e.data, s.bytes.empty() ? "" : s.bytes.data(),
                                           s.bytes.empty() ? 1 : s.bytes.size()),
                  0);
        e.data.len = s.bytes.size();
      }
    });
  }
  struct Vendor {
    std::uint32_t enterprise;
    std::initializer_list<Sub> subs;
  };
  vendor_specific *vendor_list(std::initializer_list<Vendor> vendors) {
    return chain<vendor_specific>(vendors, [this](vendor_specific &e, const Vendor &v) {
      e.enterprise = v.enterprise;
      e.suboptions = sub_list(v.subs);
    });
  }
  option_pcp_server *pcp_list(std::initializer_list<std::initializer_list<std::uint32_t>> groups) {
    return chain<option_pcp_server>(groups, [this](option_pcp_server &e, std::initializer_list<std::uint32_t> g) {
      e.ipaddrs = g.size() ? addr_list(g) : nullptr;
    });
  }

 private:
  template <typename Element, typename Values, typename Fill>
  Element *chain(const Values &values, Fill fill) {
    Element *head = nullptr;
    Element **tail = &head;
    for (const auto &v : values) {
      Element *e = zeroed<Element>();
      fill(*e, v);
      *tail = e;
      tail = &e->next;
    }
    return head;
  }

  const dhcp_memops *ops_;
  dhcpoptions_record *head_ = nullptr;
};

}  // namespace testsupport

#endif
