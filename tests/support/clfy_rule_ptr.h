// The one owning handle of a classifier rule in tests: nuv_clfy_free runs
// when the handle goes, also when an assertion ends the test early.  Like
// nuv_clfy_free it frees the one rule, not its sub-rules or the rules linked
// behind it.
#ifndef NIKERKIOG_CLFY_RULE_PTR_H
#define NIKERKIOG_CLFY_RULE_PTR_H

#include <memory>

#include "nikerkiog.h"

namespace testsupport {

struct ClfyRuleDeleter {
  void operator()(nuv_clfy *rule) const { nuv_clfy_free(rule); }
};

// Owns a rule from nuv_clfy_alloc, nuv_clfy_parse or nuv_clfy_clone; null
// when the call gave none.  release() hands the rule over (to a rule set).
using ClfyRulePtr = std::unique_ptr<nuv_clfy, ClfyRuleDeleter>;

// The rule parsed from `text`, or null when the parser refuses it.
inline ClfyRulePtr parse_clfy_rule(const char *text) {
  nuv_clfy *rule = nullptr;
  if (nuv_clfy_parse(text, &rule) != 0) return ClfyRulePtr();
  return ClfyRulePtr(rule);
}

// An owned copy of `rule` (null when the copy cannot be made).
inline ClfyRulePtr clone_clfy_rule(const nuv_clfy *rule) { return ClfyRulePtr(nuv_clfy_clone(rule)); }

}  // namespace testsupport

#endif
