#include "classify.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "rulefile_load.h"

namespace tool {
namespace {

constexpr std::int32_t kDeviceIndex = 1;
constexpr std::int32_t kBridgeIndex = 2;
constexpr std::int32_t kOtherInterfaceIndex = 1000;  // an interface no captured packet came through
constexpr std::size_t kPadding = 64;                   // zero bytes after a copied IP packet
constexpr char kActionName[] = "tool-report";

std::string trim(const std::string &s) {
  auto first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  auto last = s.find_last_not_of(" \t\r");
  return s.substr(first, last - first + 1);
}

// The execute callback: the rule's line number is kept in its action data.
int report_line(nuv_clfy *rule, void *, const uint8_t *, uint16_t, const uint8_t *) {
  std::int32_t line;
  std::memcpy(&line, rule->action_data, sizeof line);
  return line;
}

int tool_action() {
  int index = nuv_clfy_find_action(kActionName);
  return index ? index : nuv_clfy_register_action(kActionName, report_line, nullptr);
}

std::uint16_t be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

// Bytes of the IP packet as its header states them, or 0 when the header is
// not fully captured or states no length.
std::size_t stated_ip_length(const Frame &frame, std::span<const std::uint8_t> ip) {
  if (frame.is_ipv4()) {
    if (ip.size() < 20 || ip.size() < std::size_t{ip[0] & 0x0Fu} * 4) return 0;
    return be16(&ip[2]);
  }
  if (ip.size() < 40) return 0;
  return 40 + std::size_t{be16(&ip[4])};
}

}  // namespace

namespace {

// The line as it can be shown on a terminal: bytes that are not printable
// ASCII (tabs kept) become "?", one for one, so a caret still lines up.
std::string shown(std::string_view bytes, std::size_t column) {
  // A line of a binary file can be long: it is shown up to a little after the fault.
  constexpr std::size_t kAfterFault = 40;
  const bool cut = bytes.size() > column + kAfterFault;
  std::string out(bytes.substr(0, cut ? column + kAfterFault : bytes.size()));
  if (cut) out += "...";
  for (char &c : out) {
    const auto u = static_cast<unsigned char>(c);
    if ((u < 0x20 && u != '\t') || u >= 0x7F) c = '?';
  }
  return out;
}

}  // namespace

bool read_rule_lines(const std::string &path, std::vector<RuleLine> &rules, std::vector<LineError> &errors,
                     std::string &error) {
  char *data = nullptr;
  std::size_t size = 0;
  char why[256];
  if (rulefile_load(path.c_str(), &data, &size, why, sizeof why) != 0) {
    error = why;
    return false;
  }
  nuv_clfy_line line{};
  while (nuv_clfy_next_line(data, size, 0, &line)) {
    const std::string_view bytes(data + line.start, line.length);
    if (line.code < 0) {
      errors.push_back({line.number, shown(bytes, line.column), line.column, line.span, "", line.reason});
      continue;
    }
    if (line.code != NUV_CLFY_LINE_RULE) continue;
    RuleLine rule{line.number, std::string(bytes), line.text, line.column, line.has_result != 0, line.result, {}};
    if (!rule.has_result)
      rule.warnings.push_back({line.number, rule.raw, line.column + std::strlen(line.text), 1, "",
                               "no \"=> RESULT\": the rule gives result 0 (the daemon refuses such a line)"});
    rules.push_back(std::move(rule));
  }
  std::free(data);
  return true;
}

nuv_clfy *parse_rule_line(const RuleLine &line, LineError &why, std::vector<LineError> *warnings) {
  why = LineError{line.line, line.raw, line.column, line.text.size(), "", ""};
  nuv_clfy *rule = nullptr;
  nuv_clfy_diag diag{};
  nuv_clfy_warning found[NUV_CLFY_MAX_WARNINGS];
  std::uint32_t count = 0;
  if (nuv_clfy_parse_with_warnings(line.text.c_str(), &rule, &diag, found, &count) == 0) {
    for (std::uint32_t i = 0; i < count; ++i) {
      LineError w{line.line, line.raw, line.column + found[i].offset, found[i].length ? found[i].length : 1, "",
                  found[i].text};
      if (found[i].is_error) {
        // A rule that cannot work as written is refused.
        nuv_clfy_free(rule);
        why = w;
        return nullptr;
      }
      if (warnings) warnings->push_back(w);
    }
    return rule;
  }
  why.column = line.column + diag.offset;
  why.length = diag.length ? diag.length : 1;
  why.keyword = diag.keyword;
  why.reason = diag.reason ? diag.reason : nuv_clfy_strerror(diag.code);
  if (diag.code == NUV_CLFY_E_UNKNOWN_KEYWORD) {
    if (const char *near = nuv_clfy_nearest_keyword(line.text.c_str() + diag.offset, diag.length))
      why.reason += fmt::format(" (did you mean `{}`?)", near);
  }
  return nullptr;
}

std::vector<LineError> shadowed_rules(const std::vector<std::pair<const RuleLine *, const nuv_clfy *>> &rules) {
  std::vector<LineError> out;
  for (std::size_t later = 0; later < rules.size(); ++later)
    for (std::size_t earlier = 0; earlier < later; ++earlier)
      if (nuv_clfy_covers(rules[earlier].second, rules[later].second)) {
        const RuleLine &l = *rules[later].first;
        out.push_back({l.line, l.raw, l.column, l.text.size(), "",
                       fmt::format("never reached: the rule at line {} matches every packet this one matches",
                                   rules[earlier].first->line)});
        break;
      }
  return out;
}

// The line with tabs kept and every other character before the column
// turned into a space, so that the caret lines up under the column.
std::string caret_line(const LineError &e) {
  std::string marks;
  for (std::size_t i = 0; i + 1 < e.column && i < e.raw.size(); ++i) marks += e.raw[i] == '\t' ? '\t' : ' ';
  marks += '^';
  std::size_t room = e.raw.size() >= e.column ? e.raw.size() - e.column + 1 : 1;
  std::size_t length = std::min(e.length, room);
  if (length > 1) marks.append(length - 1, '~');
  return marks;
}

void print_line_error(const std::string &file, const LineError &e, const char *severity) {
  std::fflush(stdout);
  std::string reason = e.reason;
  if (!e.keyword.empty() && reason.find(e.keyword) == std::string::npos) reason = e.keyword + ": " + reason;
  fmt::print(stderr, "{}:{}:{}: {}: {}\n{}\n{}\n", file, e.line, e.column, severity, reason, e.raw, caret_line(e));
}

RuleSet::RuleSet(std::string device, std::string bridge)
    : action_(tool_action()), device_(std::move(device)), bridge_(std::move(bridge)) {}

RuleSet::~RuleSet() {
  forget_compiled();
  nuv_clfy_del_and_free_all(&set_);
}

void RuleSet::forget_compiled() {
  nuv_clfy_compiled_free(compiled_);
  compiled_ = nullptr;
  compile_failed_ = false;
}

std::int32_t RuleSet::interface_index(const char *name) {
  if (name == device_) return kDeviceIndex;
  if (name == bridge_) return kBridgeIndex;
  return kOtherInterfaceIndex;
}

void RuleSet::bind(nuv_clfy *rule, const RuleLine &line) {
  rule->action = action_;
  auto number = static_cast<std::int32_t>(line.line);
  std::memcpy(rule->action_data, &number, sizeof number);
  rule->result = line.result;
  rule->dev_ifindex = interface_index(rule->dev);
  rule->brdev_ifindex = interface_index(rule->brdev);
  results_[line.line] = line.result;
}

void RuleSet::add(nuv_clfy *rule, const RuleLine &line) {
  bind(rule, line);
  forget_compiled();
  last_ = nuv_clfy_add_tail_after(&set_, last_, rule);
}

bool RuleSet::optimise() {
  forget_compiled();
  if (nuv_clfy_set_optim_in_place(&set_) != 0) return false;
  last_ = nullptr;
  return true;
}

const nuv_clfy_compiled *RuleSet::compiled() {
  if (!compiled_ && !compile_failed_) compile_failed_ = nuv_clfy_set_compile(&set_, &compiled_) != NUV_CLFY_COMPILE_OK;
  return compiled_;
}

std::size_t RuleSet::classify(const nuv_clfy_packet &packet) {
  if (compiled()) return static_cast<std::size_t>(nuv_clfy_compiled_execute(compiled_, nullptr, &packet));
  return static_cast<std::size_t>(nuv_clfy_set_execute(&set_, nullptr, &packet));
}

std::uint16_t RuleSet::result_of(std::size_t line) const {
  auto it = results_.find(line);
  return it == results_.end() ? 0 : it->second;
}

std::size_t RuleSet::line_of(const nuv_clfy *rule) {
  std::int32_t line;
  std::memcpy(&line, rule->action_data, sizeof line);
  return static_cast<std::size_t>(line);
}

std::vector<RuleSet::ListedRule> RuleSet::rules() {
  std::vector<ListedRule> out;
  nuv_clfy_set_walk(&set_, [](nuv_clfy *rule, int depth, void *arg) {
    char buf[1024];
    auto *out = static_cast<std::vector<ListedRule> *>(arg);
    std::string text = nuv_clfy_as_string(-1, rule, buf, sizeof buf);
    if (auto action = text.rfind(" (" + std::string(kActionName) + ")"); action != std::string::npos) text.erase(action);
    out->push_back({line_of(rule), depth, trim(text), rule->hits, rule->result});
    return 0;
  }, &out);
  return out;
}

std::vector<std::string> RuleSet::listing() {
  std::vector<std::string> lines;
  nuv_clfy_set_walk(&set_, [](nuv_clfy *rule, int depth, void *out) {
    char buf[1024];
    auto *lines = static_cast<std::vector<std::string> *>(out);
    lines->push_back(fmt::format("{}  (line {}, {} hits)", nuv_clfy_as_string(depth, rule, buf, sizeof buf),
                                 line_of(rule), rule->hits));
    return 0;
  }, &lines);
  return lines;
}

// The link-layer part of a descriptor: interfaces, Ethernet header and type, outer VLAN tag.
// A packet of a PPPoE session is given as the router's PPP interface sees
// it: the IP packet alone, without Ethernet header or VLAN tag.
nuv_clfy_packet link_descriptor(const Frame &frame) {
  nuv_clfy_packet p{};
  p.dev_ifindex = kDeviceIndex;
  p.brdev_ifindex = kBridgeIndex;
  if (frame.pppoe && (frame.is_ipv4() || frame.is_ipv6())) {
    std::uint8_t type[2] = {static_cast<std::uint8_t>(frame.ethertype >> 8), static_cast<std::uint8_t>(frame.ethertype)};
    std::memcpy(&p.eth_proto, type, 2);
    return p;
  }
  p.eth_header = frame.ethernet;
  std::uint8_t type[2] = {static_cast<std::uint8_t>(frame.ethertype >> 8), static_cast<std::uint8_t>(frame.ethertype)};
  std::memcpy(&p.eth_proto, type, 2);  // network byte order in memory
  if (!frame.vlan_tcis.empty())
    p.vlan_tci = static_cast<std::uint16_t>((frame.vlan_tcis.front() & 0xEFFF) | NUV_CLFY_VLAN_TAG_PRESENT);
  return p;
}

std::string verdict_text(std::size_t line, std::uint16_t result) {
  return line ? fmt::format("rule at line {} => {}", line, result) : std::string("no rule");
}

std::optional<nuv_clfy_packet> packet_descriptor(const Frame &frame, std::vector<std::uint8_t> &storage,
                                                 std::string &why) {
  if (!frame.link_complete) {
    why = "truncated: link-layer header";
    return std::nullopt;
  }
  nuv_clfy_packet p = link_descriptor(frame);
  if (!frame.is_ipv4() && !frame.is_ipv6()) return p;  // link-layer conditions only
  auto ip = frame.network();
  // The bytes the capture kept, up to the packet's own end (frames may be
  // padded): conditions reading beyond them do not hold, as on a router
  // handed a short packet.
  std::size_t length = std::min(stated_ip_length(frame, ip), ip.size());
  if (length == 0) length = ip.size();
  storage.assign(ip.begin(), ip.begin() + static_cast<std::ptrdiff_t>(length));
  storage.resize(length + kPadding, 0);
  p.ip_header = storage.data();
  p.ip_len = static_cast<std::uint32_t>(length);
  return p;
}

}  // namespace tool
