// The check commands: every line of rule files parsed by the library's
// parsers, rejected lines reported as compilers report errors, and with
// --print the normalised form of the accepted lines.
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "classify.h"
#include "commands.h"
#include "nuvclfy.h"
#include "nuvrules.h"
#include "output.h"

namespace tool {
namespace {

// The longest line the firewall rule parsers read whole.
constexpr std::size_t kFirewallLineMax = 1023;
// Entries of the forward rule block of an IPv6 forward rule file.
constexpr std::size_t kForwardRuleEntries = 1024;

// What was found on one line.
struct CheckedLine {
  std::size_t line = 0;
  bool accepted = false;
  LineError error;          // when rejected
  std::string printed;      // --print: the normalised form
  std::string warning;      // --print: why the printed form does not read back
};

struct Totals {
  std::size_t lines = 0, accepted = 0, rejected = 0, warnings = 0;
};

class Checker {
 public:
  explicit Checker(const CheckOptions &o) : o_(o) {}

  int run() {
    int status = kExitOk;
    for (const auto &file : o_.files) {
      Totals before = totals_;
      if (!check_file(file)) {
        status = kExitError;
        unreadable_.push_back(file);
        continue;
      }
      summary(file, before);
    }
    if (o_.json)
      print_json_line({{"type", "summary"}, {"files", o_.files.size()}, {"lines", totals_.lines},
                       {"accepted", totals_.accepted}, {"rejected", totals_.rejected},
                       {"warnings", totals_.warnings}, {"unreadable", unreadable_}});
    if (status == kExitOk && totals_.rejected) status = kExitFindings;
    return status;
  }

 private:
  bool check_file(const std::string &file) {
    switch (o_.language) {
      case RuleLanguage::kClassifier: return check_classifier(file);
      case RuleLanguage::kAccess: return check_lines(file, &Checker::access_line);
      case RuleLanguage::kMasquerade: return check_lines(file, &Checker::masquerade_line);
      case RuleLanguage::kIp6Forward: return check_forward_rule(file);
    }
    return false;
  }

  void summary(const std::string &file, const Totals &before) {
    if (o_.json) return;
    std::size_t lines = totals_.lines - before.lines, rejected = totals_.rejected - before.rejected;
    std::size_t warnings = totals_.warnings - before.warnings;
    std::fflush(stdout);
    fmt::print(stderr, "{}: {} rule line{}, {} rejected, {} warning{}\n", file, lines, lines == 1 ? "" : "s",
               rejected, warnings, warnings == 1 ? "" : "s");
  }

  // Reports one checked line: errors and warnings on standard error, the
  // printed form on standard output, or one JSON object.
  void report(const std::string &file, const CheckedLine &c) {
    ++totals_.lines;
    if (c.accepted) ++totals_.accepted;
    else ++totals_.rejected;
    if (!c.warning.empty()) ++totals_.warnings;
    if (o_.json) {
      nlohmann::json j{{"type", "line"}, {"file", file}, {"line", c.line}, {"accepted", c.accepted}};
      if (!c.accepted) {
        j["column"] = c.error.column;
        j["length"] = c.error.length;
        j["reason"] = c.error.reason;
        if (!c.error.keyword.empty()) j["keyword"] = c.error.keyword;
      }
      if (o_.print && c.accepted && o_.language != RuleLanguage::kIp6Forward) j["printed"] = c.printed;
      if (!c.warning.empty()) j["warning"] = c.warning;
      print_json_line(j);
      return;
    }
    if (!c.accepted) print_line_error(file, c.error);
    if (o_.print && c.accepted && o_.language != RuleLanguage::kIp6Forward) fmt::print("{}\n", c.printed);
    if (!c.warning.empty()) {
      std::fflush(stdout);
      fmt::print(stderr, "{}:{}: warning: {}\n", file, c.line, c.warning);
    }
  }

  // --- classifier rules --------------------------------------------------

  bool check_classifier(const std::string &file) {
    std::vector<RuleLine> lines;
    std::vector<LineError> errors;
    std::string error;
    if (!read_rule_lines(file, lines, errors, error)) {
      print_file_error(file, error);
      return false;
    }
    std::vector<CheckedLine> checked;
    for (const auto &e : errors) checked.push_back({e.line, false, e, "", ""});
    for (const auto &line : lines) checked.push_back(classifier_line(line));
    std::sort(checked.begin(), checked.end(), [](const CheckedLine &a, const CheckedLine &b) { return a.line < b.line; });
    for (const auto &c : checked) report(file, c);
    return true;
  }

  CheckedLine classifier_line(const RuleLine &line) {
    CheckedLine c;
    c.line = line.line;
    nuv_clfy *rule = parse_rule_line(line, c.error);
    if (!rule) return c;
    c.accepted = true;
    if (o_.print) {
      char buf[1024];
      std::string printed = nuv_clfy_as_string(-1, rule, buf, sizeof buf);
      printed.erase(0, printed.find_first_not_of(' '));
      c.printed = printed + (line.has_result ? fmt::format(" => {}", line.result) : std::string());
      c.warning = classifier_readback(rule, printed);
    }
    nuv_clfy_free(rule);
    return c;
  }

  // Why the printed form of `rule` does not read back as the same rule, or
  // the empty text when it does.
  static std::string classifier_readback(const nuv_clfy *rule, const std::string &printed) {
    nuv_clfy *again = nullptr;
    nuv_clfy_diag diag{};
    if (nuv_clfy_parse_with_diag(printed.c_str(), &again, &diag) != 0) {
      std::string reason = diag.reason ? diag.reason : nuv_clfy_strerror(diag.code);
      return fmt::format("the printed form \"{}\" does not read back: column {}: {}", printed, diag.offset + 1, reason);
    }
    bool same = again->flags == rule->flags && nuv_clfy_cmp(rule, again, rule->flags) == 0;
    nuv_clfy_free(again);
    if (same) return {};
    return fmt::format("the printed form \"{}\" reads back as a different rule", printed);
  }

  // --- firewall rule texts, one rule a line --------------------------------

  using LineCheck = CheckedLine (Checker::*)(std::size_t, const std::string &, std::size_t);

  // Calls `check` for every line that is not blank (and not a comment, which
  // the line check decides), with the 0-based position of its first word.
  bool check_lines(const std::string &file, LineCheck check) {
    std::ifstream in(file);
    if (!in) {
      print_file_error(file, std::strerror(errno));
      return false;
    }
    std::size_t number = 0;
    for (std::string raw; std::getline(in, raw);) {
      ++number;
      if (!raw.empty() && raw.back() == '\r') raw.pop_back();
      std::size_t first = raw.find_first_not_of(" \t");
      if (first == std::string::npos) continue;
      CheckedLine c = (this->*check)(number, raw, first);
      if (c.line) report(file, c);
    }
    return true;
  }

  static LineError too_long(std::size_t number, const std::string &raw) {
    return {number, raw, kFirewallLineMax + 1, raw.size() - kFirewallLineMax, "",
            fmt::format("the line has more than {} characters", kFirewallLineMax)};
  }

  static LineError firewall_error(std::size_t number, const std::string &raw, const nuvrules_diag &d,
                                  const char *(*strerror)(int)) {
    std::string reason = d.reason ? d.reason : strerror(d.code);
    return {number, raw, d.offset + 1, d.length ? d.length : 1, "", reason};
  }

  // Access rules: lines starting with "#" are comments.
  CheckedLine access_line(std::size_t number, const std::string &raw, std::size_t first) {
    if (raw[first] == '#') return {};
    CheckedLine c;
    c.line = number;
    if (raw.size() > kFirewallLineMax) {
      c.error = too_long(number, raw);
      return c;
    }
    ipaccess_rule rule{};
    nuvrules_diag diag{};
    if (ipaccess_parse_with_diag(&rule, raw.c_str(), &diag) != 0) {
      c.error = firewall_error(number, raw, diag, ipaccess_strerror);
      return c;
    }
    c.accepted = true;
    if (o_.print) {
      ipaccess_optim_rulestruct(&rule);
      c.printed = ipaccess_string_use_flags(&rule);
      ipaccess_rule again{};
      if (ipaccess_parse(&again, c.printed.c_str()) != 0)
        c.warning = fmt::format("the printed form \"{}\" does not read back", c.printed);
      else if (ipaccess_optim_rulestruct(&again), std::string(ipaccess_string_use_flags(&again)) != c.printed)
        c.warning = fmt::format("the printed form \"{}\" reads back as a different rule", c.printed);
    }
    return c;
  }

  // Masquerade forward rules: a line whose first word is "#" is a disabled
  // rule when the rest reads as a rule, and a comment otherwise.
  CheckedLine masquerade_line(std::size_t number, const std::string &raw, std::size_t first) {
    ipmasqfwruleex rule{};
    nuvrules_diag diag{};
    bool commented = raw[first] == '#';
    if (commented && (raw.size() > kFirewallLineMax || ipmasqfwruleex_parse(&rule, raw.c_str()) != 0)) return {};
    CheckedLine c;
    c.line = number;
    if (raw.size() > kFirewallLineMax) {
      c.error = too_long(number, raw);
      return c;
    }
    if (ipmasqfwruleex_parse_with_diag(&rule, raw.c_str(), &diag) != 0) {
      c.error = firewall_error(number, raw, diag, ipmasqfwrule_strerror);
      return c;
    }
    c.accepted = true;
    if (o_.print) {
      c.printed = ipmasqfwruleex_string(&rule);
      ipmasqfwruleex again{};
      if (ipmasqfwruleex_parse(&again, c.printed.c_str()) != 0)
        c.warning = fmt::format("the printed form \"{}\" does not read back", c.printed);
      else if (std::string(ipmasqfwruleex_string(&again)) != c.printed)
        c.warning = fmt::format("the printed form \"{}\" reads back as a different rule", c.printed);
    }
    return c;
  }

  // --- IPv6 forward rules: every line of a file adds to one rule ---------

  bool check_forward_rule(const std::string &file) {
    auto storage = std::make_unique<ip6_portrange[]>(forward_size_ / sizeof(ip6_portrange) + 1);
    line_storage_ = std::make_unique<ip6_portrange[]>(forward_size_ / sizeof(ip6_portrange) + 1);
    ip6_forwardrule *block = ip6_forwardrule_init(storage.get(), forward_size_);
    forward_block_ = block;
    bool ok = check_lines(file, &Checker::forward_line);
    forward_block_ = nullptr;
    if (!ok) return false;
    ip6_forwardrule_finish(block);
    std::string printed = ip6_forwardrule2str(block);
    if (o_.json) {
      if (o_.print) print_json_line({{"type", "rule"}, {"file", file}, {"printed", printed}});
    } else if (o_.print) {
      fmt::print("{}\n", printed);
    }
    return true;
  }

  // Lines starting with "#" are ignored by the forward rule parser itself.
  CheckedLine forward_line(std::size_t number, const std::string &raw, std::size_t first) {
    if (raw[first] == '#') return {};
    CheckedLine c;
    c.line = number;
    if (raw.size() - first > kFirewallLineMax) {
      c.error = too_long(number, raw);
      return c;
    }
    // A rejected line may have added entries before its fault; it is tried
    // on a block of its own first, so that only accepted lines make the rule.
    nuvrules_diag diag{};
    ip6_forwardrule *line_block = ip6_forwardrule_init(line_storage_.get(), forward_size_);
    if (ip6_forwardrule_parse_with_diag(line_block, raw.c_str(), &diag) != 0 ||
        ip6_forwardrule_parse_with_diag(forward_block_, raw.c_str(), &diag) != 0) {
      c.error = firewall_error(number, raw, diag, ip6_forwardrule_strerror);
      return c;
    }
    c.accepted = true;
    return c;
  }

  const CheckOptions &o_;
  Totals totals_;
  std::vector<std::string> unreadable_;
  ip6_forwardrule *forward_block_ = nullptr;
  std::unique_ptr<ip6_portrange[]> line_storage_;  // the block a line is tried on first
  const std::size_t forward_size_ = IP6_FORWARDRULE_HEADER_SIZE + kForwardRuleEntries * sizeof(ip6_portrange);
};

}  // namespace

int run_check(const CheckOptions &options) { return Checker(options).run(); }

}  // namespace tool
