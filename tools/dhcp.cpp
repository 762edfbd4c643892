#include "dhcp.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "nuvcsock.h"
#include "nuvdhcp.h"
#include "nuvdhcpcfg.h"
#include "nuvpkt.h"

namespace tool {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kIpv4MinHeader = 20;
constexpr std::size_t kUdpHeader = 8;
constexpr std::uint8_t kProtoUdp = 17;
constexpr std::uint16_t kServerPort = 67;
constexpr std::uint16_t kClientPort = 68;
constexpr std::size_t kFixedPart = 236;   // header fields before the magic cookie
constexpr std::size_t kOptionsStart = 240;
constexpr std::uint8_t kMagicCookie[4] = {0x63, 0x82, 0x53, 0x63};
constexpr unsigned kOptionOverload = 52;
constexpr unsigned kOptionMessageType = 53;
constexpr unsigned kOptionVendorSpecific = 43;
constexpr unsigned kOptionVendorClass = 124;
constexpr unsigned kOptionVendorOptions = 125;
constexpr std::size_t kVendorBlockHeader = 5;  // enterprise number and data length

std::uint16_t be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
std::uint32_t be32(const std::uint8_t *p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

// The fixed header fields, in the order and with the names the library's
// header matches use (dhcp_hfield2str), each with its place in the message
// and the text form a `dhcpheader` condition compares.
enum class FieldText { kHex, kAddress, kHardware, kString };
struct HeaderField {
  std::size_t offset;
  std::size_t size;
  FieldText text;
};
constexpr HeaderField kHeaderFields[DHCP_HFIELD_COUNT] = {
    {0, 1, FieldText::kHex},      {1, 1, FieldText::kHex},       {2, 1, FieldText::kHex},
    {3, 1, FieldText::kHex},      {4, 4, FieldText::kHex},       {8, 2, FieldText::kHex},
    {10, 2, FieldText::kHex},     {12, 4, FieldText::kAddress},  {16, 4, FieldText::kAddress},
    {20, 4, FieldText::kAddress}, {24, 4, FieldText::kAddress},  {28, 16, FieldText::kHardware},
    {44, 64, FieldText::kString}, {108, 128, FieldText::kString},
};

const char *const kMessageTypes[] = {nullptr,   "DISCOVER", "OFFER",   "REQUEST", "DECLINE",
                                     "ACK",     "NAK",      "RELEASE", "INFORM"};

// Allocation for the option store and the vendor lookups.
void *store_alloc(std::uint32_t size) { return std::malloc(size ? size : 1); }
void store_free(void *block) { std::free(block); }
const dhcp_memops kMemops{nullptr, store_alloc, store_free};

// Text in double quotes: printable ASCII as it is, quotes and backslashes
// escaped, any other byte as \xHH.
std::string quoted(const std::uint8_t *p, std::size_t n) {
  std::string out = "\"";
  for (std::size_t i = 0; i < n; ++i) {
    unsigned char c = p[i];
    if (c == '"' || c == '\\') out += fmt::format("\\{}", static_cast<char>(c));
    else if (c >= 0x20 && c < 0x7f) out += static_cast<char>(c);
    else out += fmt::format("\\x{:02x}", c);
  }
  return out + "\"";
}

std::string hex(const std::uint8_t *p, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    if (i) out += ' ';
    out += fmt::format("{:02x}", p[i]);
  }
  return out;
}

bool printable(const Bytes &v) {
  if (v.empty()) return false;
  for (auto c : v)
    if (c < 0x20 || c >= 0x7f) return false;
  return true;
}

std::string dotted(const std::uint8_t *p) { return fmt::format("{}.{}.{}.{}", p[0], p[1], p[2], p[3]); }

std::string header_text(const Bytes &msg, const HeaderField &field) {
  const std::uint8_t *p = &msg[field.offset];
  switch (field.text) {
    case FieldText::kHex: {
      std::string out;
      for (std::size_t i = 0; i < field.size; ++i) out += fmt::format("{:02X}", p[i]);
      return out;
    }
    case FieldText::kAddress:
      return dotted(p);
    case FieldText::kHardware:
      return fmt::format("{:02X}:{:02X}:{:02X}:{:02X}:{:02X}:{:02X}", p[0], p[1], p[2], p[3], p[4], p[5]);
    case FieldText::kString:
      break;
  }
  return quoted(p, strnlen(reinterpret_cast<const char *>(p), field.size));
}

// How the option format table lays out a value: elements of a fixed size,
// one or a list of them, or text of any length.
enum class Element { kAddress, kAddressPair, kSigned32, kUnsigned32, kUnsigned16, kByte, kText };
struct FormatShape {
  const char *format;
  Element element;
  std::size_t size;  // bytes per element (0 for text)
  bool list;         // one or more elements, else exactly one
};
constexpr FormatShape kFormatShapes[] = {
    {"I", Element::kAddress, 4, false},     {"IA", Element::kAddress, 4, true},
    {"IIA", Element::kAddressPair, 8, true}, {"l", Element::kSigned32, 4, false},
    {"L", Element::kUnsigned32, 4, false},  {"S", Element::kUnsigned16, 2, false},
    {"SA", Element::kUnsigned16, 2, true},  {"B", Element::kByte, 1, false},
    {"f", Element::kByte, 1, false},        {"BA", Element::kByte, 1, true},
    {"t", Element::kText, 0, false},
};

const FormatShape *shape_of(const std::string &format) {
  for (const auto &shape : kFormatShapes)
    if (format == shape.format) return &shape;
  return nullptr;  // opaque bytes
}

bool fits(const FormatShape &shape, std::size_t length) {
  if (shape.element == Element::kText) return true;
  if (shape.list) return length > 0 && length % shape.size == 0;
  return length == shape.size;
}

// One element as text and as a JSON value (numbers as numbers).
nlohmann::json element_json(Element element, const std::uint8_t *p) {
  switch (element) {
    case Element::kAddress: return dotted(p);
    case Element::kAddressPair: return nlohmann::json::array({dotted(p), dotted(p + 4)});
    case Element::kSigned32: return static_cast<std::int32_t>(be32(p));
    case Element::kUnsigned32: return be32(p);
    case Element::kUnsigned16: return be16(p);
    case Element::kByte: return *p;
    case Element::kText: break;
  }
  return nullptr;
}

std::string element_text(Element element, const std::uint8_t *p) {
  nlohmann::json value = element_json(element, p);
  if (value.is_string()) return value.get<std::string>();
  if (value.is_array()) return value[0].get<std::string>() + " " + value[1].get<std::string>();
  return value.dump();
}

// Why a value's length does not fit its format, or "" when it does.
std::string length_misfit(const std::string &format, std::size_t length) {
  const FormatShape *shape = shape_of(format);
  if (!shape || fits(*shape, length)) return {};
  return fmt::format("length {} does not fit format {}: {}{} bytes", length, format,
                     shape->list ? "a multiple of " : "", shape->size);
}

// The value as JSON by its format: a number, a text, an array of them;
// null for opaque bytes and values whose length does not fit their format.
nlohmann::json typed_value(const std::string &format, const Bytes &v) {
  const FormatShape *shape = shape_of(format);
  if (!shape || !fits(*shape, v.size())) return nullptr;
  if (shape->element == Element::kText) return std::string(v.begin(), v.end());
  if (!shape->list) return element_json(shape->element, v.data());
  nlohmann::json list = nlohmann::json::array();
  for (std::size_t at = 0; at < v.size(); at += shape->size) list.push_back(element_json(shape->element, &v[at]));
  return list;
}

// The value rendered by the option's format; opaque bytes (and values whose
// length does not fit their format) in hexadecimal.
std::string render_value(unsigned code, const std::string &format, const Bytes &v) {
  const FormatShape *shape = shape_of(format);
  if (!shape || !fits(*shape, v.size())) {
    if (v.empty()) return "(empty)";
    // Opaque bytes that happen to be text are shown as text too.
    return printable(v) ? hex(v.data(), v.size()) + "  " + quoted(v.data(), v.size()) : hex(v.data(), v.size());
  }
  std::string out;
  if (shape->element == Element::kText) {
    out = quoted(v.data(), v.size());
  } else {
    for (std::size_t at = 0; at < v.size(); at += shape->size) {
      if (at) out += ", ";
      out += element_text(shape->element, &v[at]);
    }
  }
  if (code == kOptionMessageType && v[0] < std::size(kMessageTypes) && kMessageTypes[v[0]])
    out += fmt::format(" {}", kMessageTypes[v[0]]);
  return out;
}

// The member name of option `code` in the configuration schema, found the
// way the configuration reader finds it: by the record's option number.
std::string schema_name(unsigned code) {
  dhcpoptions_record record{};
  record.optionnr = static_cast<std::int32_t>(code);
  const config_member *member = config_memberbymagic(&dhcpoptions, &record);
  return member && member->name ? member->name : "";
}

// Takes over a value block handed out by a vendor lookup.
Bytes take_block(unsigned char *block, std::uint32_t len) {
  Bytes v(block, block + len);
  kMemops.free(block);
  return v;
}

// Sub-options of option 43, each looked up by the library's vendor lookup.
void add_43_suboptions(const dhcp_option &slot, DhcpOptionReport &r) {
  for (unsigned sub = 1; sub < 255; ++sub) {
    unsigned char *value = slot.data;
    std::uint32_t len = dhcp_find_43_option(&kMemops, &value, slot.len, static_cast<std::uint8_t>(sub));
    if (len) r.suboptions.push_back({false, 0, sub, take_block(value, len)});
  }
}

// The enterprise numbers of the vendor blocks of a 124/125 value, each once,
// in order of appearance; the walk ends where a block runs past the value.
std::vector<std::uint32_t> vendor_enterprises(const dhcp_option &slot) {
  std::vector<std::uint32_t> found;
  for (std::size_t at = 0; at + kVendorBlockHeader <= slot.len;) {
    std::size_t block = kVendorBlockHeader + slot.data[at + 4];
    if (at + block > slot.len) break;
    std::uint32_t enterprise = be32(&slot.data[at]);
    if (std::find(found.begin(), found.end(), enterprise) == found.end()) found.push_back(enterprise);
    at += block;
  }
  return found;
}

// Sub-options of options 124 and 125 per enterprise, each looked up by the
// library's vendor lookup (the first block of the enterprise holding it wins).
void add_125_suboptions(const dhcp_option &slot, DhcpOptionReport &r) {
  for (std::uint32_t enterprise : vendor_enterprises(slot)) {
    for (unsigned sub = 1; sub < 255; ++sub) {
      unsigned char *value = slot.data;
      std::uint32_t len = dhcp_find_125_option(&kMemops, &value, slot.len, enterprise, static_cast<std::uint8_t>(sub));
      if (len) r.suboptions.push_back({true, enterprise, sub, take_block(value, len)});
    }
  }
}

DhcpOptionReport option_report(unsigned code, const dhcp_option &slot) {
  DhcpOptionReport r;
  r.code = code;
  r.name = schema_name(code);
  r.format = dhcp_option_format(static_cast<std::uint8_t>(code));
  r.value.assign(slot.data, slot.data + slot.len);
  r.text = render_value(code, r.format, r.value);
  r.typed = typed_value(r.format, r.value);
  r.misfit = length_misfit(r.format, r.value.size());
  if (code == kOptionVendorSpecific) add_43_suboptions(slot, r);
  if (code == kOptionVendorClass || code == kOptionVendorOptions) add_125_suboptions(slot, r);
  return r;
}

// Fills header fields and options of the message held in `msg` (one zero
// byte follows its `len` bytes, as the option parser may look there).
void read_message(const Bytes &msg, std::size_t len, DhcpReport &r) {
  for (unsigned i = 0; i < DHCP_HFIELD_COUNT; ++i) {
    const HeaderField &field = kHeaderFields[i];
    r.header.emplace_back(dhcp_hfield2str(static_cast<std::uint8_t>(i)), header_text(msg, field));
    const char *text = reinterpret_cast<const char *>(&msg[field.offset]);
    r.header_values.push_back(field.text == FieldText::kString ? nlohmann::json(std::string(text, strnlen(text, field.size)))
                                                               : nlohmann::json(r.header.back().second));
  }
  if (len < kOptionsStart) {
    r.problem = fmt::format("no options: the message ends after {} bytes", len);
    return;
  }
  if (std::memcmp(&msg[kFixedPart], kMagicCookie, sizeof kMagicCookie) != 0) {
    r.problem = "no options: the magic cookie 99.130.83.99 is missing (a plain BOOTP message)";
    return;
  }
  dhcp_options store;
  if (dhcp_parse_options(&kMemops, msg.data(), static_cast<std::int32_t>(len), store) != 0)
    r.problem = "the options area ends inside an option; the options before it are listed";
  if (const dhcp_option &o = store[kOptionOverload]; o.data && o.len >= 1) {
    if (o.data[0] & DHCP_OVERLOAD_FILE) r.overloaded.push_back("file");
    if (o.data[0] & DHCP_OVERLOAD_SNAME) r.overloaded.push_back("sname");
  }
  for (unsigned code = 1; code < 255; ++code)
    if (store[code].data) r.options.push_back(option_report(code, store[code]));
  dhcp_free_options(&kMemops, store);
}

}  // namespace

std::optional<DhcpReport> decode_dhcp(const Frame &frame) {
  if (!frame.is_ipv4()) return std::nullopt;
  auto ip = frame.network();
  if (ip.size() < kIpv4MinHeader) return std::nullopt;
  std::size_t header = std::size_t{ip[0] & 0x0Fu} * 4;
  bool first_fragment = (be16(&ip[6]) & 0x1FFF) == 0;
  if (header < kIpv4MinHeader || ip[9] != kProtoUdp || !first_fragment || ip.size() < header + kUdpHeader)
    return std::nullopt;
  const std::uint8_t *udp = &ip[header];
  std::uint16_t sport = be16(udp), dport = be16(udp + 2);
  auto dhcp_port = [](std::uint16_t p) { return p == kServerPort || p == kClientPort; };
  if (!dhcp_port(sport) && !dhcp_port(dport)) return std::nullopt;

  DhcpReport r;
  r.frame = frame.number;
  r.description = iph2str(ip.data());
  std::size_t udp_length = be16(udp + 4);
  std::size_t total = be16(&ip[2]);
  if (udp_length < kUdpHeader || header + udp_length > total || header + udp_length > ip.size()) {
    r.problem = fmt::format("truncated: the UDP datagram is not fully captured ({} of {} bytes)",
                            ip.size() > header ? ip.size() - header : 0, udp_length);
    return r;
  }
  std::size_t len = udp_length - kUdpHeader;
  if (len < kFixedPart) {
    r.problem = fmt::format("not a DHCP message: {} bytes, fewer than the {} of the fixed header", len, kFixedPart);
    return r;
  }
  Bytes msg(udp + kUdpHeader, udp + kUdpHeader + len);
  msg.push_back(0);
  read_message(msg, len, r);
  return r;
}

std::string format_dhcp(const std::string &file, const DhcpReport &r) {
  std::string out = fmt::format("{} frame {}: {}\n", file, r.frame, r.description);
  auto field = [&](std::size_t i) {
    const auto &[name, text] = r.header[i];
    bool holds_options = std::find(r.overloaded.begin(), r.overloaded.end(), name) != r.overloaded.end();
    return fmt::format("{} {}", name, holds_options ? std::string("(holds options)") : text);
  };
  if (r.header.size() == DHCP_HFIELD_COUNT) {
    auto line = [&](std::size_t from, std::size_t to) {
      out += " ";
      for (std::size_t i = from; i < to; ++i) out += " " + field(i);
      out += "\n";
    };
    line(DHCP_HFIELD_OP, DHCP_HFIELD_CIADDR);
    line(DHCP_HFIELD_CIADDR, DHCP_HFIELD_CHADDR);
    line(DHCP_HFIELD_CHADDR, DHCP_HFIELD_COUNT);
  }
  if (!r.overloaded.empty()) out += fmt::format("  overload: options also in {}\n", fmt::join(r.overloaded, " and "));
  for (const auto &o : r.options) {
    out += fmt::format("  {:>3} {:<30} {:<3} {:>3}  {}{}\n", o.code, o.name.empty() ? "-" : o.name, o.format,
                       o.value.size(), o.text, o.misfit.empty() ? "" : "  (" + o.misfit + ")");
    for (const auto &s : o.suboptions) {
      std::string where = s.has_enterprise ? fmt::format("enterprise {} sub {}", s.enterprise, s.code)
                                           : fmt::format("sub {}", s.code);
      std::string value = printable(s.value) ? quoted(s.value.data(), s.value.size()) : hex(s.value.data(), s.value.size());
      out += fmt::format("        {:<27} {:>3}  {}\n", where, s.value.size(), value);
    }
  }
  if (!r.problem.empty()) out += fmt::format("  {}\n", r.problem);
  return out;
}

nlohmann::json dhcp_json(const std::string &file, const DhcpReport &r) {
  nlohmann::json j{{"type", "message"}, {"file", file}, {"frame", r.frame}, {"description", r.description}};
  if (!r.header.empty()) {
    nlohmann::json header = nlohmann::json::object();
    for (std::size_t i = 0; i < r.header.size(); ++i) header[r.header[i].first] = r.header_values[i];
    j["header"] = header;
  }
  j["overload"] = r.overloaded;
  nlohmann::json options = nlohmann::json::array();
  for (const auto &o : r.options) {
    nlohmann::json jo{{"code", o.code},    {"format", o.format}, {"length", o.value.size()},
                      {"value", o.typed}, {"hex", hex(o.value.data(), o.value.size())}};
    jo["name"] = o.name.empty() ? nlohmann::json(nullptr) : nlohmann::json(o.name);
    if (o.code == kOptionMessageType && o.value.size() == 1 && o.value[0] < std::size(kMessageTypes) &&
        kMessageTypes[o.value[0]])
      jo["meaning"] = kMessageTypes[o.value[0]];
    if (!o.misfit.empty()) jo["problem"] = o.misfit;
    if (!o.suboptions.empty()) {
      nlohmann::json subs = nlohmann::json::array();
      for (const auto &s : o.suboptions) {
        nlohmann::json js{{"code", s.code}, {"length", s.value.size()}, {"hex", hex(s.value.data(), s.value.size())}};
        if (s.has_enterprise) js["enterprise"] = s.enterprise;
        subs.push_back(js);
      }
      jo["suboptions"] = subs;
    }
    options.push_back(jo);
  }
  j["options"] = options;
  if (!r.problem.empty()) j["problem"] = r.problem;
  return j;
}

}  // namespace tool
