// Construction of the option part of an outgoing DHCP message from the
// configured options and the peer's request.
#include <array>
#include <cstring>

#include "dp_bytes.h"
#include "nuvdhcp.h"
#include "nuvdhcp_priv.h"
#include "nuvdhcpcfg.h"

namespace {

using namespace dp::dhcp;

constexpr int kBufferSize = 4096;
constexpr uint32_t kPriorityListSize = 300;
constexpr uint32_t kRequestListLimit = 296;
constexpr int kFullSpace = 312;
constexpr int kShortSpace = 64;
constexpr int kMaxSpace = 4096;
// A peer's maximum message size counts the fixed header and the IP and
// UDP headers too.
constexpr int kMessageOverhead = 236 + 28;
constexpr uint8_t kMaxFragment = 255;

// ---- the order in which options are written ----

constexpr uint8_t kLeadingCodes[] = {53, 54, 51, 56};
constexpr uint8_t kTrailingCode = 82;

// Used when the peer sent no parameter request list.  Option 77 (user
// class) is left out on purpose: it is only sent when asked for.
constexpr std::array<uint8_t, 250> build_default_order() {
  std::array<uint8_t, 250> order{};
  std::size_t n = 0;
  for (uint8_t code : {50, 52, 57, 58, 59, 60, 61, 1, 2, 3, 4, 5, 6, 12}) order[n++] = code;
  for (unsigned code = 7; code <= 49; ++code) order[n++] = static_cast<uint8_t>(code);
  constexpr uint8_t kLate[] = {55, 90, 121, 249, 124, 125, 212, 158};
  for (uint8_t code : kLate) order[n++] = code;
  for (unsigned code = 62; code <= 254; ++code) {
    bool listed = code == 77;
    for (uint8_t late : kLate) listed = listed || late == code;
    if (!listed) order[n++] = static_cast<uint8_t>(code);
  }
  return order;
}

constexpr std::array<uint8_t, 250> kDefaultOrder = build_default_order();
static_assert(kDefaultOrder[249] == 254 && kDefaultOrder[13] == 12 && kDefaultOrder[14] == 7);

// ---- writing one value ----

// Writes the first `limit` bytes of a value; later bytes are dropped, so
// every fragment of a split value starts with the value's first bytes.
class ValueSink {
 public:
  ValueSink(uint8_t *dst, uint32_t limit) : dst_(dst), limit_(limit) {}
  void byte(uint8_t b) {
    if (pos_ < limit_) dst_[pos_] = b;
    ++pos_;
  }
  void be16(uint16_t v) {
    byte(static_cast<uint8_t>(v >> 8));
    byte(static_cast<uint8_t>(v));
  }
  void be32(uint32_t v) {
    be16(static_cast<uint16_t>(v >> 16));
    be16(static_cast<uint16_t>(v));
  }
  void bytes(const void *p, std::size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    for (std::size_t i = 0; i < n; ++i) byte(b[i]);
  }

 private:
  uint8_t *dst_;
  uint32_t limit_;
  uint32_t pos_ = 0;
};

using Record = dhcpoptions_record;

// How a kind of value is measured and written.  `present` is false for a
// value that is not there (null list or string, or a type without value).
struct ValueCodec {
  bool (*present)(const Record &);
  uint32_t (*length)(const Record &);
  void (*write)(const Record &, ValueSink &);
};

template <typename Element, typename Measure>
uint32_t sum_over(const Element *e, Measure measure) {
  uint32_t total = 0;
  for (; e; e = e->next) total += measure(*e);
  return total;
}

template <typename Element, typename Write>
void each(const Element *e, Write write) {
  for (; e; e = e->next) write(*e);
}

bool always(const Record &) { return true; }
bool never(const Record &) { return false; }
uint32_t no_length(const Record &) { return 0; }
void write_nothing(const Record &, ValueSink &) {}

// Sub-option bytes carried: a value longer than a length byte can say is cut.
uint8_t sub_length(const generic_option &sub) {
  return static_cast<uint8_t>(sub.data.len > kMaxFragment ? kMaxFragment : sub.data.len);
}
uint32_t vendor_data_length(const vendor_specific &v) {
  return sum_over(v.suboptions, [](const generic_option &s) { return 2u + sub_length(s); });
}
// Destination octets a classless route carries for its prefix length.
uint32_t route_octets(uint8_t prefixlen) { return prefixlen == 0 ? 0 : prefixlen > 24 ? 4 : (prefixlen + 7u) / 8u; }
uint32_t prefix_mask(uint8_t prefixlen) { return prefixlen == 0 ? 0 : prefixlen >= 32 ? ~0u : ~0u << (32 - prefixlen); }
uint32_t count_addresses(const ipaddr_tab *a) { return sum_over(a, [](const ipaddr_tab &) { return 1u; }); }

// Scalar member types, by code.
constexpr ValueCodec kBigEndian32 = {
    always, [](const Record &) { return 4u; }, [](const Record &r, ValueSink &s) { s.be32(r.value.u32); }};
constexpr ValueCodec kStored32 = {
    always, [](const Record &) { return 4u; }, [](const Record &r, ValueSink &s) { s.bytes(&r.value.u32, 4); }};
constexpr ValueCodec kLowByte = {
    always, [](const Record &) { return 1u; }, [](const Record &r, ValueSink &s) { s.byte(r.value.u8); }};
constexpr ValueCodec kBigEndian16 = {
    always, [](const Record &) { return 2u; }, [](const Record &r, ValueSink &s) { s.be16(r.value.u16); }};
constexpr ValueCodec kStoredTwoWords = {
    always, [](const Record &) { return 8u; }, [](const Record &r, ValueSink &s) { s.bytes(&r.value, 8); }};
constexpr ValueCodec kStoredWordAndHalf = {
    always, [](const Record &) { return 6u; }, [](const Record &r, ValueSink &s) { s.bytes(&r.value, 6); }};
constexpr ValueCodec kAddressList = {
    [](const Record &r) { return r.value.ipaddrs != nullptr; },
    [](const Record &r) { return 4 * count_addresses(r.value.ipaddrs); },
    [](const Record &r, ValueSink &s) { each(r.value.ipaddrs, [&s](const ipaddr_tab &a) { s.be32(a.ipaddr); }); }};
constexpr ValueCodec kString = {
    [](const Record &r) { return r.value.string != nullptr; },
    [](const Record &r) { return static_cast<uint32_t>(std::strlen(r.value.string)); },
    [](const Record &r, ValueSink &s) { s.bytes(r.value.string, std::strlen(r.value.string)); }};
constexpr ValueCodec kNoValue = {never, no_length, write_nothing};

// Structured values (member type 3), by option code.
constexpr ValueCodec kAddressPairs = {
    [](const Record &r) { return r.value.ipnets != nullptr; },
    [](const Record &r) { return sum_over(r.value.ipnets, [](const ipnet &) { return 8u; }); },
    [](const Record &r, ValueSink &s) {
      each(r.value.ipnets, [&s](const ipnet &n) {
        s.be32(n.ipaddr);
        s.be32(n.mask);
      });
    }};
constexpr ValueCodec kWords = {
    [](const Record &r) { return r.value.words != nullptr; },
    [](const Record &r) { return sum_over(r.value.words, [](const w_tab &) { return 2u; }); },
    [](const Record &r, ValueSink &s) { each(r.value.words, [&s](const w_tab &w) { s.be16(w.val); }); }};
constexpr ValueCodec kBytes = {
    [](const Record &r) { return r.value.bytes != nullptr; },
    [](const Record &r) { return sum_over(r.value.bytes, [](const b_tab &) { return 1u; }); },
    [](const Record &r, ValueSink &s) { each(r.value.bytes, [&s](const b_tab &b) { s.byte(b.val); }); }};
// Sub-options without a data block are left out.
constexpr ValueCodec kSubOptions = {
    [](const Record &r) { return r.value.suboptions != nullptr; },
    [](const Record &r) {
      return sum_over(r.value.suboptions,
                      [](const generic_option &o) { return o.data.data ? 2u + sub_length(o) : 0u; });
    },
    [](const Record &r, ValueSink &s) {
      each(r.value.suboptions, [&s](const generic_option &o) {
        if (!o.data.data) return;
        s.byte(o.suboption);
        s.byte(sub_length(o));
        s.bytes(o.data.data, sub_length(o));
      });
    }};
constexpr ValueCodec kClasslessRoutes = {
    [](const Record &r) { return r.value.routes != nullptr; },
    [](const Record &r) {
      return sum_over(r.value.routes,
                      [](const classless_iproute &rt) { return 1u + route_octets(rt.prefixlen) + 4u; });
    },
    [](const Record &r, ValueSink &s) {
      each(r.value.routes, [&s](const classless_iproute &rt) {
        uint8_t dest[4];
        dp::store_be32(dest, rt.ipaddr & prefix_mask(rt.prefixlen));
        s.byte(rt.prefixlen);
        s.bytes(dest, route_octets(rt.prefixlen));
        s.be32(rt.gateway);
      });
    }};
constexpr ValueCodec kVendorBlocks = {
    [](const Record &r) { return r.value.vendors != nullptr; },
    [](const Record &r) {
      return sum_over(r.value.vendors, [](const vendor_specific &v) { return 5u + vendor_data_length(v); });
    },
    [](const Record &r, ValueSink &s) {
      each(r.value.vendors, [&s](const vendor_specific &v) {
        s.be32(v.enterprise);
        s.byte(static_cast<uint8_t>(vendor_data_length(v)));
        each(v.suboptions, [&s](const generic_option &o) {
          s.byte(o.suboption);
          s.byte(sub_length(o));
          if (o.data.data) s.bytes(o.data.data, sub_length(o));
        });
      });
    }};
constexpr ValueCodec kSixRd = {
    always, [](const Record &r) { return 18u + 4u * count_addresses(r.value.sixrd.borderrouter); },
    [](const Record &r, ValueSink &s) {
      s.byte(r.value.sixrd.ipv4masklen);
      s.byte(r.value.sixrd.prefixlen);
      s.bytes(r.value.sixrd.prefix, sizeof r.value.sixrd.prefix);
      each(r.value.sixrd.borderrouter, [&s](const ipaddr_tab &a) { s.be32(a.ipaddr); });
    }};
// A server group without addresses is counted with its length byte but
// nothing is written for it, so the value ends with bytes the buffer held
// before.  Receivers configured against this form expect it as it is.
constexpr ValueCodec kPcpServers = {
    [](const Record &r) { return r.value.pcp_servers != nullptr; },
    [](const Record &r) {
      return sum_over(r.value.pcp_servers,
                      [](const option_pcp_server &g) { return 1u + 4u * count_addresses(g.ipaddrs); });
    },
    [](const Record &r, ValueSink &s) {
      each(r.value.pcp_servers, [&s](const option_pcp_server &g) {
        if (!g.ipaddrs) return;
        s.byte(static_cast<uint8_t>(4u * count_addresses(g.ipaddrs)));
        each(g.ipaddrs, [&s](const ipaddr_tab &a) { s.be32(a.ipaddr); });
      });
    }};

struct CodecByNumber {
  int number;
  const ValueCodec *codec;
};

constexpr CodecByNumber kCodecsByMemberType[] = {
    {4, &kNoValue},           {5, &kNoValue},         {6, &kBigEndian32},  {7, &kBigEndian32},
    {8, &kBigEndian32},       {9, &kLowByte},         {10, &kBigEndian16}, {11, &kBigEndian32},
    {12, &kBigEndian32},      {13, &kLowByte},        {14, &kBigEndian16}, {15, &kBigEndian32},
    {16, &kBigEndian32},      {17, &kStored32},       {18, &kStoredTwoWords}, {19, &kBigEndian32},
    {20, &kAddressList},      {21, &kStoredWordAndHalf}, {22, &kString},
};

constexpr CodecByNumber kStructuredCodecs[] = {
    {21, &kAddressPairs},   {33, &kAddressPairs},  {25, &kWords},         {55, &kBytes},
    {61, &kBytes},          {43, &kSubOptions},    {82, &kSubOptions},    {121, &kClasslessRoutes},
    {249, &kClasslessRoutes}, {124, &kVendorBlocks}, {125, &kVendorBlocks}, {212, &kSixRd},
    {158, &kPcpServers},
};

template <std::size_t N>
const ValueCodec *find_codec(const CodecByNumber (&table)[N], int number) {
  for (const CodecByNumber &entry : table) {
    if (entry.number == number) return entry.codec;
  }
  return nullptr;
}

// The codec of a record.  Options without a member (or with a member type
// that has no wire form) have no value.
const ValueCodec &codec_of(const Record &record) {
  const int type = DHCPOPTIONS_dhcpoptions_memberbymagic(&record);
  const ValueCodec *codec = type == DHCPCFG_TYPE_STRUCT ? find_codec(kStructuredCodecs, record.optionnr)
                                                        : find_codec(kCodecsByMemberType, type);
  return codec ? *codec : kNoValue;
}

// ---- the option buffer ----

// Working storage and the limits derived from the options field size.
struct Construction {
  const dhcp_option *store;
  const Record *optlist;
  uint8_t *buf;
  int used;
  int space;
  int overload;
  bool textnul;
  std::array<bool, 256> done;

  // Where the buffer may end once it is distributed over the message.
  int capacity() const {
    return space - 7 + (overload & DHCP_OVERLOAD_FILE ? kFileSize : 0) +
           (overload & DHCP_OVERLOAD_SNAME ? kSnameSize : 0);
  }
};

const Record *find_record(const Record *list, int code) {
  for (; list; list = list->next) {
    if (list->optionnr == code) return list;
  }
  return nullptr;
}

int options_space(const dhcp_option *store, int short_area) {
  const dhcp_option *max_size = store ? &store[kOptionMaxMessageSize] : nullptr;
  if (!max_size || !max_size->data) return short_area ? kShortSpace : kFullSpace;
  // A value shorter than two bytes reads on into the NUL the parser leaves.
  auto byte_at = [max_size](uint32_t i) { return i < max_size->len ? max_size->data[i] : 0; };
  const int space = (byte_at(0) << 8 | byte_at(1)) - kMessageOverhead;
  return space < kFullSpace ? kFullSpace : space > kMaxSpace ? kMaxSpace : space;
}

// Fragment length for a fragment at `offset`: at most 255 value bytes, and
// ending exactly at a split point it would otherwise cross.  The split
// points lie 7 bytes beyond where the buffer is later cut for `file` and
// `sname`; receivers of this construction rely on that placement.
int fragment_length(const Construction &c, int offset, uint32_t remaining) {
  int length = remaining > kMaxFragment ? kMaxFragment : static_cast<int>(remaining);
  auto split_at = [&](int point) {
    // A fragment starting one byte before the point cannot end there; it
    // is left whole.
    if (offset < point && offset + 2 + length > point && point - offset - 2 >= 0) length = point - offset - 2;
  };
  split_at(c.space);
  if (c.overload & DHCP_OVERLOAD_FILE) split_at(c.space + kFileSize);
  return length;
}

// Writes one option as fragments of code, length and value.  When a
// fragment does not fit, the whole option is taken back.
// With `nul_ended`, the last byte of the last fragment is a NUL.
void emit_option(Construction &c, uint8_t code, const Record &record, const ValueCodec &codec, uint32_t length,
                 bool has_value, bool nul_ended) {
  const int start = c.used;
  for (uint32_t remaining = length; remaining > 0;) {
    const int offset = c.used;
    const int fragment = fragment_length(c, offset, remaining);
    const int end = offset + 2 + fragment;
    if (end > c.capacity() || end > kBufferSize) {
      c.used = start;
      return;
    }
    c.buf[offset] = code;
    c.buf[offset + 1] = static_cast<uint8_t>(fragment);
    if (has_value) {
      ValueSink sink(c.buf + offset + 2, static_cast<uint32_t>(fragment));
      codec.write(record, sink);
    }
    c.used = end;
    remaining -= static_cast<uint32_t>(fragment);
  }
  if (nul_ended) c.buf[c.used - 1] = 0;
}

void emit_configured(Construction &c, uint8_t code) {
  const Record *record = find_record(c.optlist, code);
  if (!record || c.done[code]) return;
  c.done[code] = true;
  const ValueCodec &codec = codec_of(*record);
  const bool text = c.textnul && option_is_text(code);
  const bool has_value = codec.present(*record);
  // A text option without a value still goes out, as a lone NUL, when text
  // options are to be terminated.
  if (!has_value && !text) return;
  uint32_t length = has_value ? codec.length(*record) : 0;
  if (text) ++length;
  emit_option(c, code, *record, codec, length, has_value, text);
}

// Fills `order` and returns how many codes it holds.
uint32_t priority_order(const dhcp_option *store, uint8_t *order) {
  uint32_t n = 0;
  for (uint8_t code : kLeadingCodes) order[n++] = code;
  const dhcp_option *requested = store ? &store[kOptionParameterRequestList] : nullptr;
  if (requested && requested->data) {
    const uint32_t count = requested->len < kRequestListLimit ? requested->len : kRequestListLimit;
    std::memcpy(order + n, requested->data, count);
    return n + count;
  }
  std::memcpy(order + n, kDefaultOrder.data(), kDefaultOrder.size());
  return n + static_cast<uint32_t>(kDefaultOrder.size());
}

// The peer's options that are not configured go back as they came.
void copy_unconfigured(Construction &c) {
  if (!c.store) return;
  for (int code = 0; code < DHCP_OPTION_SLOTS; ++code) {
    const dhcp_option &slot = c.store[code];
    if (slot.len == 0 || !slot.data || find_record(c.optlist, code)) continue;
    // The buffer is finite; what would not fit in it is left out.
    if (c.used + 2 + static_cast<int64_t>(slot.len) > kBufferSize) continue;
    c.buf[c.used] = static_cast<uint8_t>(code);
    c.buf[c.used + 1] = static_cast<uint8_t>(slot.len);
    std::memcpy(c.buf + c.used + 2, slot.data, slot.len);
    c.used += 2 + static_cast<int>(slot.len);
  }
}

// ---- placing the buffer into the message ----

int place_unoverloaded(const Construction &c, uint8_t *msg) {
  std::memcpy(msg + kOptionsOffset, c.buf, static_cast<std::size_t>(c.used));
  if (c.used + 4 < c.space) {
    msg[kOptionsOffset + c.used] = kOptionEnd;
    return static_cast<int>(kOptionsOffset) + c.used + 1;
  }
  return static_cast<int>(kOptionsOffset) + c.used;
}

// Copies `n` bytes into a field and marks their end inside `end_field`.
// `end_field` is `file` for both fields: that is where receivers of this
// construction look for the end of `sname` as well.
void copy_with_end_mark(uint8_t *field, uint8_t *end_field, std::size_t field_size, const uint8_t *bytes,
                        std::size_t n) {
  std::memcpy(field, bytes, n);
  if (n < field_size) end_field[n] = kOptionEnd;
  if (n + 1 < field_size) std::memset(end_field + n + 1, 0, field_size - n - 1);
}

int place_overloaded(const Construction &c, uint8_t *msg) {
  const int head = c.space - 7;
  const uint8_t flags = c.used > c.space + 122 ? 3 : 1;
  uint8_t *options = msg + kOptionsOffset;
  options[0] = kOptionOverload;
  options[1] = 1;
  options[2] = flags;
  std::memcpy(options + 3, c.buf, static_cast<std::size_t>(head));
  int pos = head;
  if (c.overload & DHCP_OVERLOAD_FILE) {
    const int rest = c.used - pos;
    if (rest <= static_cast<int>(kFileSize)) {
      copy_with_end_mark(msg + kFileOffset, msg + kFileOffset, kFileSize, c.buf + pos, static_cast<std::size_t>(rest));
    } else {
      std::memcpy(msg + kFileOffset, c.buf + pos, kFileSize);
      pos = c.space + 121;
    }
  }
  if (c.overload & DHCP_OVERLOAD_SNAME) {
    const int rest = c.used - pos;
    if (rest <= static_cast<int>(kSnameSize)) {
      copy_with_end_mark(msg + kSnameOffset, msg + kFileOffset, kSnameSize, c.buf + pos, static_cast<std::size_t>(rest));
    }
  }
  return static_cast<int>(kOptionsOffset) + 3;
}

}  // namespace

extern "C" {

int dhcp_cons_options(const dhcp_memops *memops, const dhcp_option *store, unsigned char *msg,
                      struct dhcpoptions *const *optlist, int overload, int textnul, int short_area) {
  auto *buf = static_cast<uint8_t *>(memops->alloc(kBufferSize));
  if (!buf) return 0;
  auto *order = static_cast<uint8_t *>(memops->alloc(kPriorityListSize));
  if (!order) {
    memops->free(buf);
    return 0;
  }
  // Zeroed so that nothing of the heap's earlier contents can reach the wire.
  std::memset(buf, 0, kBufferSize);
  Construction c{store, optlist ? *optlist : nullptr, buf, 0, options_space(store, short_area), overload, textnul != 0, {}};

  const uint32_t count = priority_order(store, order);
  for (uint32_t i = 0; i < count; ++i) emit_configured(c, order[i]);
  emit_configured(c, kTrailingCode);
  copy_unconfigured(c);

  std::memcpy(msg + kCookieOffset, kMagicCookie, sizeof kMagicCookie);
  const int length = c.used <= c.space - 4 ? place_unoverloaded(c, msg) : place_overloaded(c, msg);
  memops->free(order);
  memops->free(buf);
  return length;
}

}  // extern "C"
