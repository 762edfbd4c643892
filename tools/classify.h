// Trying classifier rules against captured packets.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "capture.h"
#include "nuvclfy.h"

namespace tool {

// A rejected line: where (1-based column, characters marked) and why.
struct LineError {
  std::size_t line = 0;
  std::string raw;
  std::size_t column = 1;
  std::size_t length = 1;
  std::string keyword;  // the keyword whose value was refused, when known
  std::string reason;
};

// One rule line of a rules file.
struct RuleLine {
  std::size_t line = 0;      // 1-based line number in the file
  std::string raw;           // the whole line as written
  std::string text;          // the rule text handed to the parser
  std::size_t column = 1;    // 1-based column of `text` in `raw`
  bool has_result = false;   // the line ends with "=> N"
  std::uint16_t result = 0;  // the value after "=>", 0 when none
  std::vector<LineError> warnings;  // about the line itself (no result)
};


// Reads a rules file with the classifier's line reader: one rule per line,
// blank lines and lines starting with "#" skipped, an optional "=> N" at the
// end giving the rule's result.  Lines the reader refuses (bytes that are
// not text, a result that is not a number 0..65535) are errors in `errors`
// (the line is not in `rules`); a rule without a result gets a warning.
// Returns false (with `error` set) when the file cannot be read or is not a
// regular file.
bool read_rule_lines(const std::string &path, std::vector<RuleLine> &rules, std::vector<LineError> &errors,
                     std::string &error);

// Parses the rule of a line with the classifier's parser.  Returns the new
// rule (owned by the caller), or null with `why` describing the refusal
// (an unknown keyword names the nearest one).  What the parser changed
// silently is added to `warnings` when given; a table name that cannot
// work refuses the line.
nuv_clfy *parse_rule_line(const RuleLine &line, LineError &why, std::vector<LineError> *warnings = nullptr);

// Rules of a file (in order) that an earlier rule shadows: one warning each,
// naming the first earlier rule that matches every packet it matches.
std::vector<LineError> shadowed_rules(const std::vector<std::pair<const RuleLine *, const nuv_clfy *>> &rules);

// Prints a rejected line as compilers do: "FILE:LINE:COLUMN: error: REASON",
// the line, and a caret under the column (on standard error).
void print_line_error(const std::string &file, const LineError &e, const char *severity = "error");

// A rule set built from rule lines, with every rule bound to an action that
// reports the rule's line.  Interface names in `dev`/`brdev` conditions are
// given indexes: the packets are taken to arrive on `device` (index 1)
// through `bridge` (index 2); any other name gets an index no packet has.
class RuleSet {
 public:
  RuleSet(std::string device, std::string bridge);
  ~RuleSet();
  RuleSet(const RuleSet &) = delete;
  RuleSet &operator=(const RuleSet &) = delete;

  // Appends a parsed rule (taking it over) for its line.
  void add(nuv_clfy *rule, const RuleLine &line);
  // Restructures the set with the classifier's set optimisation.
  bool optimise();

  // The line of the rule that applies to the packet, or 0 when none does.
  // The set is searched through its compiled form, made on the first
  // packet after a change (the plain set search serves if compiling fails).
  std::size_t classify(const nuv_clfy_packet &packet);
  // The set's compiled form (made now if needed), or null when compiling
  // failed.  Owned by the rule set; valid until the set changes.
  const nuv_clfy_compiled *compiled();
  // The result of the rule given by its line.
  std::uint16_t result_of(std::size_t line) const;
  // The line a rule of the set came from.
  static std::size_t line_of(const nuv_clfy *rule);
  // The top-level rule list, for walking the set's tree.
  nuv_clfy *head() const { return set_.head; }

  // One rule of the set as the classifier prints it, with its line and hits.
  struct ListedRule {
    std::size_t line;
    int depth;
    std::string text;  // the classifier's printed form, without depth prefix or result
    std::uint32_t hits;
    std::uint16_t result;
  };
  // The rules of the set in tree order (a rule, then its sub-rules).
  std::vector<ListedRule> rules();

  // The set as listing lines (depth prefix, rule text, result).
  std::vector<std::string> listing();

 private:
  void bind(nuv_clfy *rule, const RuleLine &line);
  std::int32_t interface_index(const char *name);

  // Drops the compiled form after a change to the set.
  void forget_compiled();

  nuv_clfy_set set_{};
  nuv_clfy *last_ = nullptr;               // the last top-level rule added
  nuv_clfy_compiled *compiled_ = nullptr;  // the set's compiled form, or null
  bool compile_failed_ = false;
  int action_ = 0;
  std::string device_, bridge_;
  std::map<std::size_t, std::uint16_t> results_;
};

// A verdict as the tool prints it: "rule at line 3 => 2", or "no rule"
// for line 0.
std::string verdict_text(std::size_t line, std::uint16_t result);

// Fills a packet descriptor for the frame, or returns nothing (with `why`
// set) when its link-layer header is not fully captured.  An IP packet cut
// by the capture is described by the bytes that were captured.  A frame
// that is not IP gets a descriptor without IP header, so only link-layer
// conditions can hold.  The IP packet is copied into `storage`, padded with
// zero bytes, so that no fixed-offset header read can leave it.
std::optional<nuv_clfy_packet> packet_descriptor(const Frame &frame, std::vector<std::uint8_t> &storage,
                                                 std::string &why);

}  // namespace tool
