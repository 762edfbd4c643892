// IP destination tables: named, shared sets of IPv4 and IPv6 destinations
// that rules test with "ipdsttab".  Both families share one array; every
// lookup, addition and removal goes through the same covering test.
#include <cstring>

#include "nuvclfy.h"
#include "nuvclfy_priv.h"

namespace {

// Tables grow by this many slots at a time.
constexpr std::uint32_t kGrowSlots = 4;
constexpr std::size_t kNameChars = sizeof(ipdsttab::name) - 1;
constexpr std::uint8_t kFamily4 = 4;
constexpr std::uint8_t kFamily6 = 6;
constexpr std::uint8_t kHostPrefix6 = 128;
constexpr std::uint32_t kHostMask4 = 0xffffffffu;

// Head of the process-wide list, in order of creation.
ipdsttab *table_list = nullptr;

// An address of either family, as handed to the table functions.
struct Address {
  std::uint8_t family;
  std::uint32_t v4;         // network-order bytes
  const std::uint8_t *v6;   // 16 bytes
};

bool covers4(const ipdsttab_entry &entry, std::uint32_t addr) {
  // The entry's own address is taken as stored, not masked again.
  return entry.family == kFamily4 && (addr & entry.addr.v4.mask) == entry.addr.v4.addr;
}

bool covers6(const ipdsttab_entry &entry, const std::uint8_t *addr) {
  if (entry.family != kFamily6) return false;
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

// Index of the first used entry for which `covers(entry)` holds, or -1.
template <typename Covers>
long find_entry(const ipdsttab *table, Covers covers) {
  if (!table->entries) return -1;
  for (std::uint32_t i = 0; i < table->count; ++i) {
    if (covers(table->entries[i])) return static_cast<long>(i);
  }
  return -1;
}

// Index of the first used entry covering the address, or -1.
long find_covering(const ipdsttab *table, const Address &address) {
  if (address.family == kFamily4) {
    return find_entry(table, [v4 = address.v4](const ipdsttab_entry &e) { return covers4(e, v4); });
  }
  return find_entry(table, [v6 = address.v6](const ipdsttab_entry &e) { return covers6(e, v6); });
}

ipdsttab *create(const char *name) {
  auto *table = static_cast<ipdsttab *>(CLFY_ZALLOC(sizeof(ipdsttab)));
  if (!table) return nullptr;
  std::memcpy(table->name, name, strnlen(name, kNameChars));
  // A table without an array is still usable: the first add allocates one.
  table->entries = static_cast<ipdsttab_entry *>(CLFY_ZALLOC(kGrowSlots * sizeof(ipdsttab_entry)));
  if (table->entries) table->capacity = kGrowSlots;
  return table;
}

// Replaces the array by a zeroed one with kGrowSlots more slots.
bool grow(ipdsttab *table) {
  const std::uint32_t capacity = table->entries ? table->capacity : 0;
  const std::uint32_t grown_capacity = capacity + kGrowSlots;
  auto *grown = static_cast<ipdsttab_entry *>(CLFY_ZALLOC(grown_capacity * sizeof(ipdsttab_entry)));
  if (!grown) return false;
  if (capacity) std::memcpy(grown, table->entries, capacity * sizeof(ipdsttab_entry));
  CLFY_FREE(table->entries);
  table->entries = grown;
  table->capacity = grown_capacity;
  return true;
}

void fill_host_entry(ipdsttab_entry &entry, const Address &address) {
  std::memset(&entry, 0, sizeof entry);
  entry.family = address.family;
  if (address.family == kFamily4) {
    entry.addr.v4.addr = address.v4;
    entry.addr.v4.mask = kHostMask4;
  } else {
    std::memcpy(entry.addr.v6, address.v6, sizeof entry.addr.v6);
    entry.prefixlen = kHostPrefix6;
  }
}

int add(const char *name, const Address &address) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create(name);
  if (!table) return -1;
  if (find_covering(table, address) >= 0) return 0;
  if ((!table->entries || table->count >= table->capacity) && !grow(table)) return -1;
  fill_host_entry(table->entries[table->count], address);
  ++table->count;
  return 0;
}

// Removes slot `index`, moving every later slot down and zeroing the slot
// that falls free.
void remove_slot(ipdsttab *table, std::uint32_t index) {
  std::memset(&table->entries[index], 0, sizeof(ipdsttab_entry));
  for (std::uint32_t i = index + 1; i < table->count; ++i) {
    table->entries[i - 1] = table->entries[i];
    std::memset(&table->entries[i], 0, sizeof(ipdsttab_entry));
  }
  --table->count;
}

int del(const char *name, const Address &address) {
  ipdsttab *table = nuv_clfy_ipdsttab_find(name);
  if (!table || table->count == 0) return -1;
  const long index = find_covering(table, address);
  if (index < 0) return -1;
  remove_slot(table, static_cast<std::uint32_t>(index));
  return 0;
}

Address ip4(std::uint32_t addr) { return Address{kFamily4, addr, nullptr}; }
Address ip6(const std::uint8_t *addr) { return Address{kFamily6, 0, addr}; }

}  // namespace

extern "C" {

ipdsttab *nuv_clfy_ipdsttab_find(const char *name) {
  if (!name) return nullptr;
  for (ipdsttab *table = table_list; table; table = table->next) {
    if (std::strcmp(table->name, name) == 0) return table;
  }
  return nullptr;
}

ipdsttab *nuv_clfy_ipdsttab_find_or_create(const char *name) {
  if (!name) return nullptr;
  ipdsttab **link = &table_list;
  for (; *link; link = &(*link)->next) {
    if (std::strcmp((*link)->name, name) == 0) return *link;
  }
  *link = create(name);
  return *link;
}

int nuv_clfy_ipdsttab_add4(const char *name, uint32_t addr) { return add(name, ip4(addr)); }

int nuv_clfy_ipdsttab_add6(const char *name, const uint8_t *addr6) {
  return addr6 ? add(name, ip6(addr6)) : -1;
}

int nuv_clfy_ipdsttab_del4(const char *name, uint32_t addr) { return del(name, ip4(addr)); }

int nuv_clfy_ipdsttab_del6(const char *name, const uint8_t *addr6) {
  return addr6 ? del(name, ip6(addr6)) : -1;
}

int nuv_clfy_ipdsttab_reset(const char *name) {
  ipdsttab *table = nuv_clfy_ipdsttab_find(name);
  if (!table) return -1;
  if (table->entries) std::memset(table->entries, 0, table->count * sizeof(ipdsttab_entry));
  table->count = 0;
  return 0;
}

int nuv_clfy_ipdsttab_is_in(const ipdsttab *table, uint32_t addr) {
  if (!table) return 0;
  return find_covering(table, ip4(addr)) >= 0 ? 1 : 0;
}

int nuv_clfy_ip6dsttab_is_in(const ipdsttab *table, const uint8_t *addr6) {
  if (!table || !addr6) return 0;
  return find_covering(table, ip6(addr6)) >= 0 ? 1 : 0;
}

void nuv_clfy_ipdsttab_freeall(void) {
  while (ipdsttab *table = table_list) {
    table_list = table->next;
    CLFY_FREE(table->entries);
    CLFY_FREE(table);
  }
}

}  // extern "C"
