// Configuration-schema lookup: the member selected by a record's magic.
#include <cstring>

#include "nuvcsock.h"

extern "C" {

const config_member *config_memberbymagic(const config_type *type, const void *record) {
  if (!type || !record || !type->members || !type->magic_member) return nullptr;
  int32_t magic;
  std::memcpy(&magic, static_cast<const unsigned char *>(record) + type->magic_member->offset, sizeof magic);
  for (const config_member *m = type->members; m->name; ++m) {
    if (m->flags & CONFIG_MEMBER_HEADER) continue;
    if (m->magic == magic) return m;
  }
  return nullptr;
}

}
