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

// One rule line of a rules file.
struct RuleLine {
  std::size_t line = 0;    // 1-based line number in the file
  std::string text;        // the rule text handed to the parser
  std::uint16_t result = 0;  // the value after "=>", 0 when none
};

// Reads a rules file: one rule per line, blank lines and lines starting
// with "#" skipped, an optional "=> N" at the end giving the rule's result.
// Returns false (with `error` set) when the file cannot be read or a result
// is not a number 0..65535.
bool read_rule_lines(const std::string &path, std::vector<RuleLine> &rules, std::string &error);

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

  // Parses and appends one rule; false when the parser refuses it.
  bool add(const RuleLine &rule);
  // Restructures the set with the classifier's set optimisation.
  bool optimise();

  // The line of the rule that applies to the packet, or 0 when none does.
  std::size_t classify(const nuv_clfy_packet &packet);
  // The result of the rule given by its line.
  std::uint16_t result_of(std::size_t line) const;

  // The set as listing lines (depth prefix, rule text, result).
  std::vector<std::string> listing();

 private:
  void bind(nuv_clfy *rule, const RuleLine &line);
  std::int32_t interface_index(const char *name);

  nuv_clfy_set set_{};
  int action_ = 0;
  std::string device_, bridge_;
  std::map<std::size_t, std::uint16_t> results_;
};

// Fills a packet descriptor for the frame, or returns nothing (with `why`
// set) when its link-layer header or its IP packet is not fully captured.
// A frame that is not IP gets a descriptor without IP header, so only
// link-layer conditions can hold.  The IP packet is copied into `storage`,
// padded with zero bytes, so that no fixed-offset header read can leave it.
std::optional<nuv_clfy_packet> packet_descriptor(const Frame &frame, std::vector<std::uint8_t> &storage,
                                                 std::string &why);

}  // namespace tool
