// The process-wide action registry: actions are registered once by name and
// addressed by their 1-based index from then on; entries are never removed.
#include <cstring>

#include "nuvclfy.h"
#include "nuvclfy_priv.h"

namespace dp::clfy {
namespace {

// Significant characters of an action name; the twelfth byte is the NUL.
constexpr std::size_t kNameChars = sizeof(nuv_clfy_action::name) - 1;

struct ActionRegistry {
  std::int32_t count;
  nuv_clfy_action entries[NUV_CLFY_MAX_ACTIONS];
};

ActionRegistry registry;

}  // namespace

const nuv_clfy_action *action_at(std::int32_t index) {
  if (index < 1 || index > registry.count) return nullptr;
  return &registry.entries[index - 1];
}

}  // namespace dp::clfy

using dp::clfy::registry;

extern "C" {

int nuv_clfy_register_action(const char *name, nuv_clfy_execute_fn execute, nuv_clfy_release_fn release) {
  if (!name || registry.count >= NUV_CLFY_MAX_ACTIONS) return -1;
  nuv_clfy_action &entry = registry.entries[registry.count];
  std::memset(entry.name, 0, sizeof entry.name);
  std::memcpy(entry.name, name, strnlen(name, dp::clfy::kNameChars));
  entry.execute = execute;
  entry.release = release;
  return ++registry.count;
}

int nuv_clfy_find_action(const char *name) {
  if (!name) return 0;
  for (std::int32_t i = 0; i < registry.count; ++i) {
    if (std::strncmp(registry.entries[i].name, name, sizeof registry.entries[i].name) == 0) return i + 1;
  }
  return 0;
}

}  // extern "C"
