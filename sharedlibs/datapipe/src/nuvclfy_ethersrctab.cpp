// Ethernet source tables: named, shared sets of source MAC addresses that
// rules test with "ethsrctab" and that DHCP rules fill with learned clients.
#include <cstring>

#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_priv.h"
#include "nuvclfy_tables_priv.h"

namespace {

constexpr std::size_t kMacSize = dp::wire::kEthernetAddressLength;

using Tables = dp::clfy::NamedTables<ethersrctab, kMacSize>;

// The process-wide list, in order of creation.
Tables tables;

// Matches the slot holding `mac`.
auto holds_mac(const std::uint8_t *mac) {
  return [mac](const std::uint8_t *slot) { return std::memcmp(slot, mac, kMacSize) == 0; };
}

}  // namespace

bool dp::clfy::ethersrctab_forget(ethersrctab *table, const std::uint8_t *mac) {
  return table && mac && Tables::remove_first(table, holds_mac(mac));
}

extern "C" {

ethersrctab *nuv_clfy_ethersrctab_find(const char *name) { return tables.find(name); }

ethersrctab *_nuv_clfy_ethersrctab_create(const char *name) { return name ? Tables::create(name) : nullptr; }

ethersrctab *nuv_clfy_ethersrctab_find_or_create(const char *name) { return tables.find_or_create(name); }

int _nuv_clfy_ethersrctab_add(ethersrctab *table, const uint8_t *mac) {
  if (!table || !mac) return -1;
  if (Tables::find_slot(table, holds_mac(mac)) >= 0) return 0;
  return Tables::append(table, [mac](std::uint8_t *slot) { std::memcpy(slot, mac, kMacSize); }) ? 0 : -1;
}

int nuv_clfy_ethersrctab_add(const char *name, const uint8_t *mac) {
  return _nuv_clfy_ethersrctab_add(nuv_clfy_ethersrctab_find_or_create(name), mac);
}

int nuv_clfy_ethersrctab_del(const char *name, const uint8_t *mac) {
  return dp::clfy::ethersrctab_forget(tables.find(name), mac) ? 0 : -1;
}

int nuv_clfy_ethersrctab_reset(const char *name) { return tables.reset(name) ? 0 : -1; }

int nuv_clfy_ethersrctab_is_in(const ethersrctab *table, const uint8_t *mac) {
  if (!table || !mac) return 0;
  return Tables::find_slot(table, holds_mac(mac)) >= 0 ? 1 : 0;
}

void _nuv_clfy_ethersrctab_free(ethersrctab *table) { Tables::free_table(table); }

void nuv_clfy_ethersrctab_freeall(void) { tables.free_all(); }

}  // extern "C"
