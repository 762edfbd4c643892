// classify --kernel: the library's and the kernel program's verdicts side by side.
#pragma once

#include <map>
#include <string>

#include "classify.h"
#include "commands.h"

namespace tool {

// Reads and parses the rule file into `set`.  Rejected lines are reported
// as `check` reports them; they make the command fail unless `keep_going`.
// Returns the exit status so far, or -1 (no rejected line) or -2 (some, kept
// going) when classification can go on.
int build_rule_set(const ClassifyOptions &o, RuleSet &set, std::map<std::size_t, std::string> &texts);

// Classifies every frame of the captures with the library and with the
// kernel's tc program (test runs), prints both verdicts and a summary, and
// returns 1 when any differs, 2 when the program cannot be loaded.
int run_classify_kernel(const ClassifyOptions &o);

}  // namespace tool
