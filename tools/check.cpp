// The check commands: every line of rule files parsed by the library's
// parsers, rejected lines reported as compilers report errors, and with
// --print the normalised form of the accepted lines.
#include <fmt/format.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "classify.h"
#include "commands.h"
#include "nuvclfy.h"
#include "nuvproto.h"
#include "nuvrules.h"
#include "output.h"
#include "rulefile_load.h"

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
  LineError error;                  // when rejected
  std::string printed;              // --print: the normalised form
  std::vector<LineError> warnings;  // what the rule does that its text does not say
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
    if (status == kExitOk && (totals_.rejected || (o_.werror && totals_.warnings))) status = kExitFindings;
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
    totals_.warnings += c.warnings.size();
    if (o_.json) {
      nlohmann::json j{{"type", "line"}, {"file", file}, {"line", c.line}, {"accepted", c.accepted}};
      if (!c.accepted) {
        j["column"] = c.error.column;
        j["length"] = c.error.length;
        j["reason"] = c.error.reason;
        if (!c.error.keyword.empty()) j["keyword"] = c.error.keyword;
      }
      if (o_.print && c.accepted && o_.language != RuleLanguage::kIp6Forward) j["printed"] = c.printed;
      if (!c.warnings.empty()) {
        nlohmann::json warnings = nlohmann::json::array();
        for (const auto &w : c.warnings) warnings.push_back({{"column", w.column}, {"reason", w.reason}});
        j["warnings"] = warnings;
      }
      print_json_line(j);
      return;
    }
    if (!c.accepted) print_line_error(file, c.error);
    if (o_.print && c.accepted && o_.language != RuleLanguage::kIp6Forward) fmt::print("{}\n", c.printed);
    for (const auto &w : c.warnings) print_line_error(file, w, o_.werror ? "error" : "warning");
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
    for (const auto &e : errors) checked.push_back({e.line, false, e, "", {}});
    // The accepted rules stay until every line is checked: shadowing needs them all.
    std::vector<std::unique_ptr<nuv_clfy, void (*)(nuv_clfy *)>> rules;
    std::vector<std::pair<const RuleLine *, const nuv_clfy *>> accepted;
    std::vector<std::size_t> accepted_at;  // index in `checked`
    for (const auto &line : lines) {
      nuv_clfy *rule = nullptr;
      checked.push_back(classifier_line(line, &rule));
      if (!rule) continue;
      rules.emplace_back(rule, nuv_clfy_free);
      accepted.emplace_back(&line, rule);
      accepted_at.push_back(checked.size() - 1);
    }
    for (const auto &w : shadowed_rules(accepted))
      for (std::size_t i = 0; i < accepted.size(); ++i)
        if (accepted[i].first->line == w.line) checked[accepted_at[i]].warnings.push_back(w);
    std::sort(checked.begin(), checked.end(), [](const CheckedLine &a, const CheckedLine &b) { return a.line < b.line; });
    for (const auto &c : checked) report(file, c);
    return true;
  }

  // Checks one line; an accepted rule is handed to the caller in *kept.
  CheckedLine classifier_line(const RuleLine &line, nuv_clfy **kept) {
    CheckedLine c;
    c.line = line.line;
    c.warnings = line.warnings;
    nuv_clfy *rule = parse_rule_line(line, c.error, &c.warnings);
    if (!rule) {
      c.warnings.clear();
      return c;
    }
    c.accepted = true;
    if (o_.print) {
      char buf[1024];
      std::string printed;
      if (nuv_clfy_print_rule(rule, buf, sizeof buf) >= 0) {
        printed = buf;
      } else {
        printed = nuv_clfy_as_string(-1, rule, buf, sizeof buf);
        printed.erase(0, printed.find_first_not_of(' '));
      }
      c.printed = printed + (line.has_result ? fmt::format(" => {}", line.result) : std::string());
      std::string why = classifier_readback(rule, printed);
      if (!why.empty()) c.warnings.push_back({line.line, line.raw, line.column, line.text.size(), "", why});
    }
    *kept = rule;
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
    // The packetmatch step of the comparison answers 1 for equal patterns;
    // patterns are compared as texts instead.
    const char *pattern = rule->packetmatch ? rule->packetmatch : "";
    const char *reread = again->packetmatch ? again->packetmatch : "";
    bool same = again->flags == rule->flags && nuv_clfy_cmp(rule, again, rule->flags & ~NUV_CLFY_F_PACKETMATCH) == 0 &&
                std::strcmp(pattern, reread) == 0;
    nuv_clfy_free(again);
    if (same) return {};
    return fmt::format("the printed form \"{}\" reads back as a different rule", printed);
  }

  // --- firewall rule texts, one rule a line --------------------------------

  using LineCheck = CheckedLine (Checker::*)(std::size_t, const std::string &, std::size_t);

  // Calls `check` for every line that is not blank (and not a comment, which
  // the line check decides), with the 0-based position of its first word.
  bool check_lines(const std::string &file, LineCheck check) {
    char *data = nullptr;
    std::size_t size = 0;
    char why[256];
    if (rulefile_load(file.c_str(), &data, &size, why, sizeof why) != 0) {
      print_file_error(file, why);
      return false;
    }
    std::unique_ptr<char, void (*)(void *)> owned(data, std::free);
    nuv_clfy_line line{};
    while (nuv_clfy_next_line(data, size, NUV_CLFY_LINE_BYTES_ONLY, &line)) {
      std::string raw(data + line.start, line.length);
      if (line.code < 0) {
        CheckedLine c;
        c.line = line.number;
        for (char &ch : raw)
          if (static_cast<unsigned char>(ch) < 0x20 && ch != '\t') ch = '?';
        c.error = {line.number, raw, line.column, line.span, "", line.reason};
        report(file, c);
        continue;
      }
      std::size_t first = raw.find_first_not_of(" \t");
      if (first == std::string::npos) continue;
      CheckedLine c = (this->*check)(line.number, raw, first);
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

  // `text` with its protocol name, which starts the word numbered `index`
  // from 0, written as "P<number>", which every rule language reads as that
  // protocol.  Names may hold blanks ("isis over ipv4"); the printers write
  // the protocol's name in either case, or "ip" / "any".
  static std::string with_protocol_number(const std::string &text, std::uint8_t proto, std::size_t index) {
    std::size_t at = text.find_first_not_of(' ');
    for (std::size_t word = 0; word < index && at != std::string::npos; ++word)
      at = text.find_first_not_of(' ', text.find(' ', at));
    if (at == std::string::npos) return text;
    const std::string rest = text.substr(at);
    auto starts_with = [&rest](const std::string &name) {
      if (rest.size() < name.size() || (rest.size() > name.size() && rest[name.size()] != ' ')) return false;
      for (std::size_t i = 0; i < name.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(rest[i])) != std::tolower(static_cast<unsigned char>(name[i])))
          return false;
      return true;
    };
    std::size_t length = 0;
    for (const std::string &name : {std::string(ipproto2str(proto)), std::string("ip"), std::string("any")})
      if (starts_with(name)) {
        length = name.size();
        break;
      }
    if (length == 0) length = std::min(rest.find(' '), rest.size());
    return text.substr(0, at) + fmt::format("P{}", proto) + rest.substr(length);
  }

  static bool same_access(const ipaccess_rule &a, const ipaccess_rule &b) {
    return a.policy == b.policy && a.proto == b.proto && a.src_addr == b.src_addr && a.src_mask == b.src_mask &&
           a.src_op == b.src_op && a.src_port == b.src_port && a.src_port2 == b.src_port2 && a.dst_addr == b.dst_addr &&
           a.dst_mask == b.dst_mask && a.dst_op == b.dst_op && a.dst_port == b.dst_port &&
           a.dst_port2 == b.dst_port2 && a.tcpflag == b.tcpflag && a.connflag == b.connflag &&
           a.logging == b.logging && a.used == b.used;
  }

  // Whether `text` reads back as `rule` (both in their optimised form).
  static bool access_reads_back(const ipaccess_rule &rule, const std::string &text) {
    ipaccess_rule again{};
    nuvrules_diag diag{};
    if (ipaccess_parse_with_diag(&again, text.c_str(), &diag) != 0) return false;
    ipaccess_optim_rulestruct(&again);
    return same_access(rule, again);
  }

  static bool masquerade_reads_back(const ipmasqfwruleex &rule, const std::string &text) {
    ipmasqfwruleex again{};
    nuvrules_diag diag{};
    if (ipmasqfwruleex_parse_with_diag(&again, text.c_str(), &diag) != 0) return false;
    const ipmasqfwrule &a = rule.rule, &b = again.rule;
    return a.proto == b.proto && a.addr1 == b.addr1 && a.addr2 == b.addr2 && a.port1 == b.port1 &&
           a.port2 == b.port2 && a.number == b.number && a.flags == b.flags && a.count == b.count &&
           rule.enabled == again.enabled && rule.scope == again.scope && rule.mark == again.mark &&
           std::string(rule.comment ? rule.comment : "") == std::string(again.comment ? again.comment : "");
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
    ipaccess_optim_rulestruct(&rule);
    const std::string printed = ipaccess_string_use_flags(&rule);
    c.printed = printed;
    if (!access_reads_back(rule, printed)) {
      // The protocol word is what the printer loses: written as a number,
      // the rule reads back.
      std::string numbered = with_protocol_number(printed, rule.proto, 1);
      if (rule.proto != IPACCESS_PROTO_ANY && access_reads_back(rule, numbered)) c.printed = numbered;
      c.warnings.push_back({number, raw, first + 1, raw.size() - first, "",
                            fmt::format("the printed form \"{}\" reads back as a different rule{}", printed,
                                        c.printed != printed ? fmt::format(" (write \"{}\")", c.printed) : "")});
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
    const std::string printed = ipmasqfwruleex_string(&rule);
    c.printed = printed;
    if (!masquerade_reads_back(rule, printed)) {
      std::string numbered = with_protocol_number(printed, rule.rule.proto, rule.enabled ? 0 : 1);
      if (rule.rule.proto != IPACCESS_PROTO_ANY && masquerade_reads_back(rule, numbered)) c.printed = numbered;
      c.warnings.push_back({number, raw, first + 1, raw.size() - first, "",
                            fmt::format("the printed form \"{}\" reads back as a different rule{}", printed,
                                        c.printed != printed ? fmt::format(" (write \"{}\")", c.printed) : "")});
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
    if (!forward_reads_back(*block, printed)) {
      const std::string numbered = forward_numbered(*block);
      std::fflush(stdout);
      fmt::print(stderr, "{}: warning: the printed rule \"{}\" reads back as a different rule (write \"{}\")\n", file,
                 printed, numbered);
      ++totals_.warnings;
      if (forward_reads_back(*block, numbered)) printed = numbered;
    }
    if (o_.json) {
      if (o_.print) print_json_line({{"type", "rule"}, {"file", file}, {"printed", printed}});
    } else if (o_.print) {
      fmt::print("{}\n", printed);
    }
    return true;
  }

  // The printed rule read back: every protocol word starts a line of its own.
  bool forward_reads_back(const ip6_forwardrule &block, const std::string &printed) {
    auto storage = std::make_unique<ip6_portrange[]>(forward_size_ / sizeof(ip6_portrange) + 1);
    ip6_forwardrule *again = ip6_forwardrule_init(storage.get(), forward_size_);
    std::string line;
    auto flush = [&]() {
      bool ok = line.empty() || ip6_forwardrule_parse(again, line.c_str()) == 0;
      line.clear();
      return ok;
    };
    std::size_t at = 0;
    while ((at = printed.find_first_not_of(' ', at)) != std::string::npos) {
      std::size_t end = printed.find(' ', at);
      std::string word = printed.substr(at, end == std::string::npos ? std::string::npos : end - at);
      std::uint8_t proto = 0;
      if (ipproto_parse(&proto, word.c_str()) == 0 && !flush()) return false;
      line += (line.empty() ? "" : " ") + word;
      at = end;
    }
    if (!flush()) return false;
    ip6_forwardrule_finish(again);
    if (again->count != block.count || std::memcmp(again->proto_bits, block.proto_bits, sizeof block.proto_bits) != 0)
      return false;
    for (std::size_t i = 0; i < block.count; ++i)
      if (again->entries[i].proto != block.entries[i].proto || again->entries[i].port_lo != block.entries[i].port_lo ||
          again->entries[i].port_hi != block.entries[i].port_hi)
        return false;
    return true;
  }

  // The rule with every protocol written as a number.
  static std::string forward_numbered(const ip6_forwardrule &block) {
    std::string out;
    for (std::size_t i = 0; i < block.count; ++i) {
      const ip6_portrange &e = block.entries[i];
      const bool same = i > 0 && block.entries[i - 1].proto == e.proto;
      out += same ? "," : fmt::format("{}P{} ", out.empty() ? "" : " ", e.proto);
      out += e.port_lo == e.port_hi ? fmt::format("{}", e.port_lo) : fmt::format("{}-{}", e.port_lo, e.port_hi);
    }
    for (unsigned proto = 0; proto < 255; ++proto)
      if (block.proto_bits[proto / 32] & (1u << (proto % 32))) out += fmt::format("{}P{}", out.empty() ? "" : " ", proto);
    return out;
  }

  // Port numbers beyond 65535 on a forward rule line: the parser cuts them
  // to 16 bits.
  static void forward_port_ranges(std::size_t number, const std::string &raw, std::size_t first,
                                  std::vector<LineError> &warnings) {
    std::size_t at = raw.find(' ', first);
    const std::size_t stop = raw.find('#', first);
    while (at != std::string::npos && at < stop) {
      at = raw.find_first_of("0123456789", at);
      if (at == std::string::npos || at >= stop) break;
      std::size_t end = raw.find_first_not_of("0123456789", at);
      std::string digits = raw.substr(at, end == std::string::npos ? std::string::npos : end - at);
      unsigned long long value = digits.size() > 18 ? ~0ull : std::stoull(digits);
      if (value > 65535) {
        const unsigned long used = value > 0xFFFFFFFFull ? 0xFFFFul : static_cast<unsigned long>(value & 0xFFFFu);
        warnings.push_back({number, raw, at + 1, digits.size(), "",
                            fmt::format("port {} is beyond 65535: {} is used", digits, used)});
      }
      at = end;
    }
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
    forward_port_ranges(number, raw, first, c.warnings);
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
