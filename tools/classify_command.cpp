// The classify command: rules from a file tried on captured or live packets,
// with per-packet verdicts, explanations of chosen packets and hit tables.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <set>

#include "classify.h"
#include "classify_kernel.h"
#include "commands.h"
#include "output.h"

namespace tool {

// Reads and parses the rule file into `set`.  Rejected lines are reported
// as `check` reports them; they make the command fail unless `keep_going`.
// Returns the exit status so far, or -1 when classification can go on.
int build_rule_set(const ClassifyOptions &o, RuleSet &set, std::map<std::size_t, std::string> &texts) {
  std::vector<RuleLine> lines;
  std::vector<LineError> errors;
  std::string error;
  if (!read_rule_lines(o.rules, lines, errors, error)) {
    print_file_error(o.rules, error);
    return kExitError;
  }
  std::vector<LineError> warnings;
  std::vector<std::pair<const RuleLine *, const nuv_clfy *>> accepted;
  for (const auto &line : lines) {
    LineError why;
    std::vector<LineError> found = line.warnings;
    if (nuv_clfy *rule = parse_rule_line(line, why, &found)) {
      set.add(rule, line);
      texts[line.line] = line.text;
      accepted.emplace_back(&line, rule);
      warnings.insert(warnings.end(), found.begin(), found.end());
    } else {
      errors.push_back(why);
    }
  }
  for (auto &w : shadowed_rules(accepted)) warnings.push_back(std::move(w));
  std::stable_sort(warnings.begin(), warnings.end(), [](const LineError &a, const LineError &b) { return a.line < b.line; });
  for (const auto &w : warnings) print_line_error(o.rules, w, "warning");
  std::sort(errors.begin(), errors.end(), [](const LineError &a, const LineError &b) { return a.line < b.line; });
  for (const auto &e : errors) print_line_error(o.rules, e);
  if (!errors.empty() && !o.keep_going) {
    fmt::print(stderr, "nikerkiog: {}: {} rejected line{}; nothing classified (--keep-going uses the others)\n",
               o.rules, errors.size(), errors.size() == 1 ? "" : "s");
    return kExitFindings;
  }
  if (o.optimise && !set.optimise()) {
    fmt::print(stderr, "nikerkiog: out of memory while optimising the rule set\n");
    return kExitError;
  }
  return errors.empty() ? -1 : -2;
}

namespace {

// One step of an explanation: a rule tried, and what its test said.
struct ExplainStep {
  std::size_t line;
  int depth;
  bool matched;
  std::string keyword;
  std::string why;
  std::string group;  // for a rule with sub-rules (an optimised set's group): its conditions
};

// The conditions of a group rule as the classifier prints them.
std::string group_text(const nuv_clfy *rule) {
  char buf[1024];
  std::string text = nuv_clfy_as_string(-1, rule, buf, sizeof buf);
  if (auto action = text.find(" ("); action != std::string::npos) text.erase(action);
  text.erase(0, text.find_first_not_of(' '));
  return text;
}

// Tries the rules of one level of the set's tree in order, as the set's
// search does: the first matching rule without sub-rules is the verdict; a
// matching rule with sub-rules has them tried next.  The rules' own tests
// come from the classifier's explanation (which counts no hits).
const nuv_clfy *explain_level(const nuv_clfy *rule, int depth, const nuv_clfy_packet &packet,
                              std::vector<ExplainStep> &steps) {
  for (; rule; rule = rule->next) {
    nuv_clfy_explanation e{};
    nuv_clfy_explain(rule, &packet, 0, &e);
    steps.push_back({RuleSet::line_of(rule), depth, e.matched != 0, e.keyword, e.text,
                     rule->children ? group_text(rule) : std::string()});
    if (!e.matched) continue;
    if (!rule->children) return rule;
    if (const nuv_clfy *found = explain_level(rule->children, depth + 1, packet, steps)) return found;
  }
  return nullptr;
}

// The library's reasons for a condition that needed bytes the packet does
// not have; for a packet cut by the capture's snap length they mean the
// verdict might have been another with the whole packet.
bool needs_more_bytes(const ExplainStep &s) {
  static const char *const kShortReasons[] = {"packet ends before the bytes this condition reads",
                                              "packet too short for its IP header",
                                              "packet too short for a DHCP message"};
  if (s.matched) return false;
  for (const char *reason : kShortReasons)
    if (s.why.find(reason) != std::string::npos) return true;
  return false;
}

// The first rule tried for a snapped packet whose condition needed bytes
// beyond the snap length, or null when the verdict stands on captured bytes.
const ExplainStep *beyond_snap(const std::vector<ExplainStep> &steps) {
  for (const auto &s : steps)
    if (needs_more_bytes(s)) return &s;
  return nullptr;
}

std::string step_text(const ExplainStep &s) {
  if (s.matched) return "matched";
  if (s.keyword.empty() || s.why.find(s.keyword) == 0) return s.why;
  return s.keyword + ": " + s.why;
}

class ClassifyRun {
 public:
  explicit ClassifyRun(const ClassifyOptions &o)
      : o_(o), set_(o.device, o.bridge) {}

  int run() {
    if (!inputs_usable()) return kExitError;
    int built = build_rule_set(o_, set_, texts_);
    if (built >= 0) return built;
    int status = built == -2 ? kExitFindings : kExitOk;
    int read = o_.live.empty() ? read_files() : read_live();
    if (live_unopened_) return read;
    finish();
    if (undecided_ > 0) status = std::max(status, kExitFindings);
    return std::max(status, read);
  }

 private:
  // Refuses, before anything is printed, a rule file that is a capture (the
  // arguments swapped) and capture files that are not captures.
  bool inputs_usable() {
    if (looks_like_capture(o_.rules)) {
      print_file_error(o_.rules, "a capture, not a rule file (the rule file comes first: classify RULES CAPTURE...)");
      return false;
    }
    bool usable = true;
    for (const auto &file : o_.captures) {
      if (std::string problem = capture_problem(file); !problem.empty()) {
        print_file_error(file, problem);
        usable = false;
      }
    }
    return usable;
  }

  int read_files() {
    int status = kExitOk;
    for (const auto &file : o_.captures) {
      if (!o_.json && o_.captures.size() > 1) fmt::print("# {}\n", file);
      std::size_t frames = 0;
      std::string error = for_each_frame(file, [&](const Frame &frame) {
        frames = frame.number;
        packet(file, frame, true);
      });
      if (!error.empty()) {
        print_file_error(file, error);
        unreadable_.push_back(file);
        status = kExitError;
      } else if (o_.explain.highest() > frames) {
        std::fflush(stdout);
        fmt::print(stderr, "nikerkiog: {}: warning: --explain {}: the capture has only {} packet{}\n", file,
                   o_.explain.highest(), frames, frames == 1 ? "" : "s");
      }
    }
    return status;
  }

  int read_live() {
    bool terminal = isatty(STDOUT_FILENO) == 1 && !o_.json;
    auto started = std::chrono::steady_clock::now();
    bool opened = false;
    std::string error = for_each_live_frame(
        o_.live, LiveLimits{o_.count, o_.seconds}, [&](const Frame &frame) { packet(o_.live, frame, o_.json); },
        [&] {
          if (!terminal) return;
          fmt::print("\033[H\033[J");
          hit_table(std::chrono::steady_clock::now() - started);
          std::fflush(stdout);
        },
        opened);
    seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    live_unopened_ = !opened;
    if (!error.empty()) {
      print_file_error(o_.live, opened ? error : "cannot capture: " + error);
      return kExitError;
    }
    return kExitOk;
  }

  void packet(const std::string &source, const Frame &frame, bool print) {
    ++packets_;
    std::string why;
    auto descriptor = packet_descriptor(frame, storage_, why);
    std::vector<ExplainStep> steps;
    bool explained = descriptor && o_.explain.contains(frame.number);
    bool cut = descriptor && snapped(frame);
    // The explanation comes first: classifying may learn DHCP clients.
    if (explained || cut) explain_level(set_.head(), 0, *descriptor, steps);
    const ExplainStep *unsure = cut ? beyond_snap(steps) : nullptr;
    std::size_t line = descriptor ? set_.classify(*descriptor) : 0;
    if (descriptor && !line) ++no_rule_;
    if (unsure) ++undecided_;
    if (!print) return;
    if (o_.json) {
      print_line(packet_json(source, frame, descriptor ? nullptr : why.c_str(), line, explained ? &steps : nullptr,
                             unsure));
      return;
    }
    std::string note = unsure ? snap_note(frame, *unsure) : std::string();
    if (!descriptor) fmt::print("{:>5}  {}\n", frame.number, why);
    else if (line) fmt::print("{:>5}  rule at line {} => {}{}\n", frame.number, line, set_.result_of(line), note);
    else fmt::print("{:>5}  no rule{}\n", frame.number, note);
    if (explained) print_steps(steps, line, note);
  }

  // What a verdict of a snapped packet leaves open: the rule whose
  // condition needed bytes that were not captured.
  static std::string snap_note(const Frame &frame, const ExplainStep &unsure) {
    std::string rule = unsure.group.empty() ? fmt::format("line {}", unsure.line) : "a group";
    return fmt::format("  (snapped at {} of {} bytes: {} {} needs bytes beyond them)", frame.bytes.size(),
                       frame.wire_length, rule, unsure.keyword);
  }

  // One packet's JSON line, written directly (the hot path of --json).
  std::string packet_json(const std::string &source, const Frame &frame, const char *problem, std::size_t line,
                          const std::vector<ExplainStep> *steps, const ExplainStep *unsure) {
    if (source != source_) source_ = source, quoted_source_ = json_quote(source);
    std::string out = fmt::format(R"({{"type":"packet","file":{},"number":{})", quoted_source_, frame.number);
    if (problem) {
      out += R"(,"problem":)";
      append_json_ascii(out, problem);
    } else if (line) {
      out += fmt::format(R"(,"rule_line":{},"result":{})", line, set_.result_of(line));
    } else {
      out += R"(,"rule_line":null)";
    }
    if (unsure) {
      nlohmann::json beyond{{"captured", frame.bytes.size()}, {"wire_length", frame.wire_length}, {"keyword", unsure->keyword}};
      if (unsure->group.empty()) beyond["line"] = unsure->line;
      out += R"(,"beyond_snap":)" + beyond.dump();
    }
    if (steps) out += R"(,"explanation":)" + steps_json(*steps).dump();
    out += "}\n";
    return out;
  }

  void print_steps(const std::vector<ExplainStep> &steps, std::size_t line, const std::string &note) {
    for (const auto &s : steps) {
      if (!s.group.empty())
        fmt::print("       {:{}}group      {:<40} {}\n", "", 2 * s.depth, s.group, step_text(s));
      else
        fmt::print("       {:{}}line {:<5} {:<40} {}\n", "", 2 * s.depth, s.line, texts_[s.line], step_text(s));
    }
    fmt::print("       verdict: {}{}\n", verdict_text(line, set_.result_of(line)), note);
  }

  nlohmann::json steps_json(const std::vector<ExplainStep> &steps) {
    nlohmann::json out = nlohmann::json::array();
    for (const auto &s : steps) {
      nlohmann::json j{{"depth", s.depth}, {"matched", s.matched}};
      if (s.group.empty()) j["line"] = s.line;
      else j["group"] = s.group;
      if (!s.matched) j["keyword"] = s.keyword, j["reason"] = s.why;
      out.push_back(j);
    }
    return out;
  }

  void hit_table(std::chrono::steady_clock::duration elapsed) {
    fmt::print("# {} packets on {} in {:.0f} s, rule set with hits\n", packets_, o_.live,
               std::chrono::duration<double>(elapsed).count());
    for (const auto &l : set_.listing()) fmt::print("{}\n", l);
    print_no_rule_line();
  }

  // Packets no rule applied to, below the rules' hits.
  void print_no_rule_line() { fmt::print("  no rule  ({} packet{})\n", no_rule_, no_rule_ == 1 ? "" : "s"); }

  void finish() {
    if (o_.json) {
      nlohmann::json rules = nlohmann::json::array();
      for (const auto &r : set_.rules()) rules.push_back({{"line", r.line}, {"depth", r.depth}, {"text", r.text},
                                                          {"hits", r.hits}, {"result", r.result}});
      nlohmann::json summary{{"type", "summary"}, {"packets", packets_}, {"optimised", o_.optimise}, {"rules", rules},
                             {"no_rule", no_rule_}, {"beyond_snap", undecided_}};
      if (o_.live.empty()) summary["unreadable"] = unreadable_;
      print_json_line(summary);
    } else if (!o_.live.empty()) {
      hit_table(std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds_)));
    } else {
      fmt::print("# rule set{}, with hits\n", o_.optimise ? " (optimised)" : "");
      for (const auto &l : set_.listing()) fmt::print("{}\n", l);
      print_no_rule_line();
    }
  }

  const ClassifyOptions &o_;
  RuleSet set_;
  std::map<std::size_t, std::string> texts_;
  std::vector<std::uint8_t> storage_;
  std::vector<std::string> unreadable_;
  std::string source_, quoted_source_;  // the capture of the last packet, and as a JSON string
  std::size_t packets_ = 0;
  std::size_t no_rule_ = 0;     // classified packets no rule applied to
  std::size_t undecided_ = 0;   // snapped packets whose verdict needed bytes beyond the snap length
  bool live_unopened_ = false;  // the live interface could not be captured on
  double seconds_ = 0;
};

}  // namespace

int run_classify(const ClassifyOptions &options) {
  if (options.kernel) return run_classify_kernel(options);
  return ClassifyRun(options).run();
}

}  // namespace tool
