// IP destination tables: named, shared sets of IPv4 and IPv6 destinations
// that rules test with "ipdsttab".  Both families share one array; every
// lookup, addition and removal goes through the same covering test.
#include <cstring>

#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_priv.h"
#include "nuvclfy_tables_priv.h"

namespace {

using dp::wire::kFamilyIpv4;
using dp::wire::kFamilyIpv6;
constexpr std::uint8_t kHostPrefix6 = 128;
constexpr std::uint32_t kHostMask4 = 0xffffffffu;

using Tables = dp::clfy::NamedTables<ipdsttab, sizeof(ipdsttab_entry)>;

// The process-wide list, in order of creation.
Tables tables;

// An address of either family, as handed to the table functions.
struct Address {
  std::uint8_t family;
  std::uint32_t v4;         // network-order bytes
  const std::uint8_t *v6;   // 16 bytes
};

bool covers4(const ipdsttab_entry &entry, std::uint32_t addr) {
  // The entry's own address is taken as stored, not masked again.
  return entry.family == kFamilyIpv4 && (addr & entry.addr.v4.mask) == entry.addr.v4.addr;
}

bool covers6(const ipdsttab_entry &entry, const std::uint8_t *addr) {
  if (entry.family != kFamilyIpv6) return false;
  // Host entries (all that the add functions make) need one fixed-size
  // compare; prefix lengths beyond the address would compare past its end.
  if (entry.prefixlen >= kHostPrefix6) return std::memcmp(entry.addr.v6, addr, sizeof entry.addr.v6) == 0;
  const unsigned prefix = entry.prefixlen;
  const unsigned whole = prefix / 8;
  const unsigned bits = prefix % 8;
  if (bits) {
    const auto top = static_cast<std::uint8_t>(0xff00u >> bits);
    if ((entry.addr.v6[whole] ^ addr[whole]) & top) return false;
  }
  return std::memcmp(entry.addr.v6, addr, whole) == 0;
}

bool covers(const ipdsttab_entry &entry, const Address &address) {
  return address.family == kFamilyIpv4 ? covers4(entry, address.v4) : covers6(entry, address.v6);
}

// Matches the entries covering the address.
auto covering(const Address &address) {
  return [&address](const ipdsttab_entry *entry) { return covers(*entry, address); };
}

// Index of the first used entry covering the address, or -1.
long find_covering(const ipdsttab *table, const Address &address) {
  return Tables::find_slot(table, covering(address));
}

void fill_host_entry(ipdsttab_entry &entry, const Address &address) {
  std::memset(&entry, 0, sizeof entry);
  entry.family = address.family;
  if (address.family == kFamilyIpv4) {
    entry.addr.v4.addr = address.v4;
    entry.addr.v4.mask = kHostMask4;
  } else {
    std::memcpy(entry.addr.v6, address.v6, sizeof entry.addr.v6);
    entry.prefixlen = kHostPrefix6;
  }
}

int add(const char *name, const Address &address) {
  ipdsttab *table = tables.find_or_create(name);
  if (!table) return -1;
  if (find_covering(table, address) >= 0) return 0;
  return Tables::append(table, [&address](ipdsttab_entry *slot) { fill_host_entry(*slot, address); }) ? 0 : -1;
}

int del(const char *name, const Address &address) {
  ipdsttab *table = tables.find(name);
  if (!table) return -1;
  return Tables::remove_first(table, covering(address)) ? 0 : -1;
}

Address ip4(std::uint32_t addr) { return Address{kFamilyIpv4, addr, nullptr}; }
Address ip6(const std::uint8_t *addr) { return Address{kFamilyIpv6, 0, addr}; }

}  // namespace

extern "C" {

ipdsttab *nuv_clfy_ipdsttab_find(const char *name) { return tables.find(name); }

ipdsttab *nuv_clfy_ipdsttab_find_or_create(const char *name) { return tables.find_or_create(name); }

int nuv_clfy_ipdsttab_add4(const char *name, uint32_t addr) { return add(name, ip4(addr)); }

int nuv_clfy_ipdsttab_add6(const char *name, const uint8_t *addr6) {
  return addr6 ? add(name, ip6(addr6)) : -1;
}

int nuv_clfy_ipdsttab_del4(const char *name, uint32_t addr) { return del(name, ip4(addr)); }

int nuv_clfy_ipdsttab_del6(const char *name, const uint8_t *addr6) {
  return addr6 ? del(name, ip6(addr6)) : -1;
}

int nuv_clfy_ipdsttab_reset(const char *name) { return tables.reset(name) ? 0 : -1; }

int nuv_clfy_ipdsttab_is_in(const ipdsttab *table, uint32_t addr) {
  if (!table) return 0;
  return find_covering(table, ip4(addr)) >= 0 ? 1 : 0;
}

int nuv_clfy_ip6dsttab_is_in(const ipdsttab *table, const uint8_t *addr6) {
  if (!table || !addr6) return 0;
  return find_covering(table, ip6(addr6)) >= 0 ? 1 : 0;
}

void nuv_clfy_ipdsttab_freeall(void) { tables.free_all(); }

}  // extern "C"
