// Default traffic-class names of the portable platform.
#include <strings.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "nuvcsock.h"

namespace {

struct TcClassName {
  const char *name;
  int value;
};

// The classes a router without its own platform table knows by name.
constexpr std::array<TcClassName, 10> kTcClassNames{{
    {"default", 0},
    {"besteffort", 1},
    {"background", 2},
    {"bulk", 3},
    {"video", 4},
    {"voice", 5},
    {"control", 6},
    {"management", 7},
    {"interactive", 8},
    {"realtime", 9},
}};

bool is_decimal(const char *text) {
  if (!*text) return false;
  for (const char *p = text; *p; ++p)
    if (*p < '0' || *p > '9') return false;
  return true;
}

}  // namespace

extern "C" {

int tcclass_name2value(const char *name) {
  if (!name) return -1;
  for (const auto &entry : kTcClassNames)
    if (strcasecmp(entry.name, name) == 0) return entry.value;
  if (is_decimal(name) && std::strlen(name) <= 3) {
    int value = std::atoi(name);
    if (value <= 127) return value;
  }
  return -1;
}

const char *nuvcsock_tcclass_name(int value) {
  for (const auto &entry : kTcClassNames)
    if (entry.value == value) return entry.name;
  return nullptr;
}

char *tcclassset_value2str(const unsigned char *map, char *buf, size_t size) {
  if (!buf || size == 0) return buf;
  buf[0] = '\0';
  if (!map) return buf;
  size_t used = 0;
  for (int value = 0; value < 128; ++value) {
    if (!map[value]) continue;
    const char *name = nuvcsock_tcclass_name(value);
    const char *sep = used ? "," : "";
    int n = name ? std::snprintf(buf + used, size - used, "%s%s", sep, name)
                 : std::snprintf(buf + used, size - used, "%s%d", sep, value);
    if (n < 0 || static_cast<size_t>(n) >= size - used) {
      buf[size - 1] = '\0';
      break;
    }
    used += static_cast<size_t>(n);
  }
  return buf;
}

}
