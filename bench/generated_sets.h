// What the benchmarks on the generated rule sets (scripts/gen-rulesets.py,
// written at build time) share: the flavours, owners of a set and of its
// compiled form, and reading one set with its trace.
#ifndef NIKERKIOG_BENCH_GENERATED_SETS_H
#define NIKERKIOG_BENCH_GENERATED_SETS_H

#include <string>
#include <vector>

#include "nikerkiog.h"
#include "ruleset_files.h"

namespace benchsupport {

// A family of generated sets: its file name prefix and its name in tables.
struct Flavour {
  const char *file;
  const char *name;
};
inline constexpr Flavour kFlavours[] = {{"acl", "ACL-like"}, {"fw", "firewall-like"}, {"ipc", "IP-chain-like"}};

// A rule set that frees its rules when it goes.
struct OwnedSet {
  nuv_clfy_set set{};
  OwnedSet() = default;
  OwnedSet(const OwnedSet &) = delete;
  OwnedSet &operator=(const OwnedSet &) = delete;
  ~OwnedSet() { nuv_clfy_del_and_free_all(&set); }
};

// A compiled set that is freed when it goes.
struct OwnedCompiled {
  nuv_clfy_compiled *c = nullptr;
  OwnedCompiled() = default;
  OwnedCompiled(const OwnedCompiled &) = delete;
  OwnedCompiled &operator=(const OwnedCompiled &) = delete;
  ~OwnedCompiled() { nuv_clfy_compiled_free(c); }
};

// One generated set: its rule lines, their header fields, its trace.
struct LoadedSet {
  std::vector<std::string> lines;
  std::vector<testsupport::TupleRule> tuples;
  std::vector<testsupport::TracedPacket> packets;
};

// The file stem of a set, e.g. "<dir>/fw-1000".
inline std::string set_stem(const std::string &dir, const Flavour &flavour, int rules) {
  return dir + "/" + flavour.file + "-" + std::to_string(rules);
}

// Reads <stem>.rules, .tuples and .trace.  False (with `error`) when a file
// is missing or unreadable.
inline bool load_generated_set(const std::string &stem, LoadedSet &out, std::string &error) {
  out.lines = testsupport::content_lines(stem + ".rules");
  out.tuples = testsupport::read_tuples(stem + ".tuples");
  out.packets = testsupport::read_trace(stem + ".trace", error);
  if (!error.empty()) return false;
  if (out.lines.empty() || out.lines.size() != out.tuples.size()) {
    error = stem + ": missing rule set, or .rules and .tuples of different lengths (run the bench_rulesets target)";
    return false;
  }
  return true;
}

}  // namespace benchsupport

#endif
