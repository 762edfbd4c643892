/* Named tables of the classifier (Ethernet source tables, IP destination
 * tables): one process-wide list per kind and a growing slot array per table
 * (private). */
#ifndef NUVCLFY_TABLES_PRIV_H
#define NUVCLFY_TABLES_PRIV_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "nuvclfy_priv.h"

namespace dp::clfy {

// The list of one kind of table.  `Table` is a record with `next`,
// `name[16]`, `count`, `capacity` and `entries`; one slot of `entries` is
// `SlotBytes` bytes.  Unused slots are kept zero, so a table's array can be
// printed or compared as a whole.
template <typename Table, std::size_t SlotBytes>
class NamedTables {
 public:
  using Slot = std::remove_pointer_t<decltype(Table::entries)>;

  // Tables grow by this many slots at a time.
  static constexpr std::uint32_t kGrowSlots = 4;

  // The table named exactly `name`, or null (also for a null name).
  Table *find(const char *name) const {
    if (!name) return nullptr;
    for (Table *table = head_; table; table = table->next)
      if (std::strcmp(table->name, name) == 0) return table;
    return nullptr;
  }

  // The table named `name`, created at the end of the list when there is
  // none; null for a null name or when the record cannot be allocated.
  Table *find_or_create(const char *name) {
    if (!name) return nullptr;
    Table **link = &head_;
    for (; *link; link = &(*link)->next)
      if (std::strcmp((*link)->name, name) == 0) return *link;
    *link = create(name);
    return *link;
  }

  // A new unlinked table with kGrowSlots empty slots, or none when that
  // array cannot be had (the first addition allocates one then).  Null when
  // the record cannot be allocated.
  static Table *create(const char *name) {
    auto *table = static_cast<Table *>(CLFY_ZALLOC(sizeof(Table)));
    if (!table) return nullptr;
    std::memcpy(table->name, name, strnlen(name, sizeof table->name - 1));
    table->entries = static_cast<Slot *>(CLFY_ZALLOC(kGrowSlots * SlotBytes));
    if (table->entries) table->capacity = kGrowSlots;
    return table;
  }

  // Slot `index` of the table's array.
  static Slot *slot(const Table *table, std::uint32_t index) { return table->entries + index * kSlotUnits; }

  // Index of the first used slot for which `holds(slot)` is true, or -1.
  template <typename Holds>
  static long find_slot(const Table *table, Holds holds) {
    if (!table->entries) return -1;
    for (std::uint32_t i = 0; i < table->count; ++i)
      if (holds(slot(table, i))) return static_cast<long>(i);
    return -1;
  }

  // Fills the first unused slot with `fill(slot)`, growing the array when it
  // is full.  False when it cannot grow (table unchanged).
  template <typename Fill>
  static bool append(Table *table, Fill fill) {
    if ((!table->entries || table->count >= table->capacity) && !grow(table)) return false;
    fill(slot(table, table->count));
    ++table->count;
    return true;
  }

  // Removes the first used slot for which `holds(slot)` is true; later slots
  // move down by one and the slot that falls free is zeroed.  False when no
  // slot holds.
  template <typename Holds>
  static bool remove_first(Table *table, Holds holds) {
    const long index = find_slot(table, holds);
    if (index < 0) return false;
    const auto first = static_cast<std::uint32_t>(index);
    std::memmove(slot(table, first), slot(table, first + 1), (table->count - 1 - first) * SlotBytes);
    std::memset(slot(table, table->count - 1), 0, SlotBytes);
    --table->count;
    return true;
  }

  // Empties the table named `name`, keeping its array.  False when there is
  // no such table.
  bool reset(const char *name) const {
    Table *table = find(name);
    if (!table) return false;
    if (table->entries) std::memset(table->entries, 0, table->count * SlotBytes);
    table->count = 0;
    return true;
  }

  // Frees a table's array and record (it must be unlinked already, or its
  // list be dropped as a whole).
  static void free_table(Table *table) {
    if (!table) return;
    CLFY_FREE(table->entries);
    CLFY_FREE(table);
  }

  // Unlinks and frees every table of the list.
  void free_all() {
    while (Table *table = head_) {
      head_ = table->next;
      free_table(table);
    }
  }

 private:
  static_assert(SlotBytes % sizeof(Slot) == 0, "a slot is a whole number of array elements");
  static constexpr std::size_t kSlotUnits = SlotBytes / sizeof(Slot);

  // Replaces the array by a zeroed one with kGrowSlots more slots.
  static bool grow(Table *table) {
    const std::uint32_t capacity = table->entries ? table->capacity : 0;
    const std::uint32_t grown_capacity = capacity + kGrowSlots;
    auto *grown = static_cast<Slot *>(CLFY_ZALLOC(grown_capacity * SlotBytes));
    if (!grown) return false;
    if (capacity) std::memcpy(grown, table->entries, capacity * SlotBytes);
    CLFY_FREE(table->entries);
    table->entries = grown;
    table->capacity = grown_capacity;
    return true;
  }

  Table *head_ = nullptr;
};

}  // namespace dp::clfy

#endif
