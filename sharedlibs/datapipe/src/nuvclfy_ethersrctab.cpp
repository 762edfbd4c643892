// Ethernet source tables: named, shared sets of source MAC addresses that
// rules test with "ethsrctab" and that DHCP rules fill with learned clients.
#include <cstring>

#include "nuvclfy.h"
#include "nuvclfy_priv.h"

namespace {

constexpr std::size_t kMacSize = 6;
// Tables grow by this many slots at a time.
constexpr std::uint32_t kGrowSlots = 4;
constexpr std::size_t kNameChars = sizeof(ethersrctab::name) - 1;

// Head of the process-wide list, in order of creation.
ethersrctab *table_list = nullptr;

std::uint8_t *slot(const ethersrctab *table, std::uint32_t index) { return table->entries + index * kMacSize; }

// Index of `mac` among the used slots, or -1.
long find_entry(const ethersrctab *table, const std::uint8_t *mac) {
  if (!table->entries) return -1;
  for (std::uint32_t i = 0; i < table->count; ++i) {
    if (std::memcmp(slot(table, i), mac, kMacSize) == 0) return static_cast<long>(i);
  }
  return -1;
}

// Replaces the array by a zeroed one with kGrowSlots more slots.
bool grow(ethersrctab *table) {
  const std::uint32_t capacity = table->entries ? table->capacity : 0;
  const std::uint32_t grown_capacity = capacity + kGrowSlots;
  auto *grown = static_cast<std::uint8_t *>(CLFY_ZALLOC(grown_capacity * kMacSize));
  if (!grown) return false;
  if (capacity) std::memcpy(grown, table->entries, capacity * kMacSize);
  CLFY_FREE(table->entries);
  table->entries = grown;
  table->capacity = grown_capacity;
  return true;
}

// Removes slot `index`, moving every later slot down and zeroing the slot
// that falls free.
void remove_slot(ethersrctab *table, std::uint32_t index) {
  std::memset(slot(table, index), 0, kMacSize);
  for (std::uint32_t i = index + 1; i < table->count; ++i) {
    std::memcpy(slot(table, i - 1), slot(table, i), kMacSize);
    std::memset(slot(table, i), 0, kMacSize);
  }
  --table->count;
}

}  // namespace

extern "C" {

ethersrctab *nuv_clfy_ethersrctab_find(const char *name) {
  if (!name) return nullptr;
  for (ethersrctab *table = table_list; table; table = table->next) {
    if (std::strcmp(table->name, name) == 0) return table;
  }
  return nullptr;
}

ethersrctab *_nuv_clfy_ethersrctab_create(const char *name) {
  if (!name) return nullptr;
  auto *table = static_cast<ethersrctab *>(CLFY_ZALLOC(sizeof(ethersrctab)));
  if (!table) return nullptr;
  std::memcpy(table->name, name, strnlen(name, kNameChars));
  // A table without an array is still usable: the first add allocates one.
  table->entries = static_cast<std::uint8_t *>(CLFY_ZALLOC(kGrowSlots * kMacSize));
  if (table->entries) table->capacity = kGrowSlots;
  return table;
}

ethersrctab *nuv_clfy_ethersrctab_find_or_create(const char *name) {
  if (!name) return nullptr;
  ethersrctab **link = &table_list;
  for (; *link; link = &(*link)->next) {
    if (std::strcmp((*link)->name, name) == 0) return *link;
  }
  *link = _nuv_clfy_ethersrctab_create(name);
  return *link;
}

int _nuv_clfy_ethersrctab_add(ethersrctab *table, const uint8_t *mac) {
  if (!table || !mac) return -1;
  if (find_entry(table, mac) >= 0) return 0;
  if ((!table->entries || table->count >= table->capacity) && !grow(table)) return -1;
  std::memcpy(slot(table, table->count), mac, kMacSize);
  ++table->count;
  return 0;
}

int nuv_clfy_ethersrctab_add(const char *name, const uint8_t *mac) {
  return _nuv_clfy_ethersrctab_add(nuv_clfy_ethersrctab_find_or_create(name), mac);
}

int nuv_clfy_ethersrctab_del(const char *name, const uint8_t *mac) {
  ethersrctab *table = nuv_clfy_ethersrctab_find(name);
  if (!table || table->count == 0 || !mac) return -1;
  const long index = find_entry(table, mac);
  if (index < 0) return -1;
  remove_slot(table, static_cast<std::uint32_t>(index));
  return 0;
}

int nuv_clfy_ethersrctab_reset(const char *name) {
  ethersrctab *table = nuv_clfy_ethersrctab_find(name);
  if (!table) return -1;
  if (table->entries) std::memset(table->entries, 0, table->count * kMacSize);
  table->count = 0;
  return 0;
}

int nuv_clfy_ethersrctab_is_in(const ethersrctab *table, const uint8_t *mac) {
  if (!table || !mac) return 0;
  return find_entry(table, mac) >= 0 ? 1 : 0;
}

void _nuv_clfy_ethersrctab_free(ethersrctab *table) {
  if (!table) return;
  CLFY_FREE(table->entries);
  CLFY_FREE(table);
}

void nuv_clfy_ethersrctab_freeall(void) {
  while (ethersrctab *table = table_list) {
    table_list = table->next;
    _nuv_clfy_ethersrctab_free(table);
  }
}

}  // extern "C"
