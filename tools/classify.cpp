#include "classify.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

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

bool read_rule_lines(const std::string &path, std::vector<RuleLine> &rules, std::vector<LineError> &errors,
                     std::string &error) {
  std::ifstream in(path);
  if (!in) {
    error = std::strerror(errno);
    return false;
  }
  std::size_t number = 0;
  for (std::string raw; std::getline(in, raw);) {
    ++number;
    if (!raw.empty() && raw.back() == '\r') raw.pop_back();
    std::string text = trim(raw);
    if (text.empty() || text[0] == '#') continue;
    RuleLine rule{number, raw, text, raw.find_first_not_of(" \t") + 1, false, 0};
    if (auto arrow = text.rfind("=>"); arrow != std::string::npos) {
      std::string after = text.substr(arrow + 2);
      std::string value = trim(after);
      char *end = nullptr;
      unsigned long result = std::strtoul(value.c_str(), &end, 10);
      if (value.empty() || *end || value[0] == '-' || value[0] == '+' || result > 0xFFFF) {
        std::size_t at = value.empty() ? arrow : arrow + 2 + after.find_first_not_of(" \t");
        errors.push_back({number, raw, rule.column + at, value.empty() ? 2 : value.size(), "",
                          "the result after \"=>\" must be a number 0..65535"});
        continue;
      }
      rule.text = trim(text.substr(0, arrow));
      rule.has_result = true;
      rule.result = static_cast<std::uint16_t>(result);
    }
    rules.push_back(rule);
  }
  if (in.bad()) {
    error = std::strerror(errno ? errno : EIO);
    return false;
  }
  return true;
}

nuv_clfy *parse_rule_line(const RuleLine &line, LineError &why) {
  why = LineError{line.line, line.raw, line.column, line.text.size(), "", ""};
  nuv_clfy *rule = nullptr;
  nuv_clfy_diag diag{};
  if (nuv_clfy_parse_with_diag(line.text.c_str(), &rule, &diag) == 0) return rule;
  why.column = line.column + diag.offset;
  why.length = diag.length ? diag.length : 1;
  why.keyword = diag.keyword;
  why.reason = diag.reason ? diag.reason : nuv_clfy_strerror(diag.code);
  return nullptr;
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

std::size_t RuleSet::classify(const nuv_clfy_packet &packet) {
  if (!compiled_ && !compile_failed_) compile_failed_ = nuv_clfy_set_compile(&set_, &compiled_) != NUV_CLFY_COMPILE_OK;
  if (compiled_) return static_cast<std::size_t>(nuv_clfy_compiled_execute(compiled_, nullptr, &packet));
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
