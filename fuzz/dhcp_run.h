// The DHCP operations of the DHCP fuzz targets on one input: the option
// store parser on whole messages, every lookup, the vendor lookups for
// options 43, 124 and 125, match expressions parsed from input text and
// evaluated on the input message, and construction from a configuration
// derived from the input, parsed back and compared.
// Input: a 2-byte length n, n bytes of match text, then the message; the
// configuration is read from the message bytes again.
#ifndef NIKERKIOG_FUZZ_DHCP_RUN_H
#define NIKERKIOG_FUZZ_DHCP_RUN_H

#include "dhcp_fuzz.h"


namespace fuzz_dhcp {

// Off while allocations fail on purpose: then lookups may come back empty
// and built messages may be cut, and only the absence of leaks and memory
// errors is checked.
inline bool &strict() {
  static bool on = true;
  return on;
}

inline const dhcp_memops *ops() { return fuzz::DhcpMemory::ops(); }

inline void check_store(const dhcp_option *store) {
  for (int code = 0; code < DHCP_OPTION_SLOTS; ++code) {
    if (!store[code].data) continue;
    // Pad and end are never stored; parsed values carry a NUL behind them.
    FUZZ_CHECK(code != 0 && code != 255);
    FUZZ_CHECK(store[code].data[store[code].len] == 0);
  }
}

inline void check_vendor(const dhcp_option *store) {
  if (store[43].data) {
    for (int sub = 1; sub < 255; sub += 37) {
      unsigned char *val = store[43].data;
      const std::uint32_t n = dhcp_find_43_option(ops(), &val, store[43].len, static_cast<std::uint8_t>(sub));
      if (n) {
        FUZZ_CHECK(val != store[43].data && val[n] == 0);
        ops()->free(val);
      } else {
        FUZZ_CHECK(val == store[43].data);
      }
    }
  }
  for (int code : {124, 125}) {
    if (!store[code].data || store[code].len < 5) continue;
    const unsigned char *v = store[code].data;
    const std::uint32_t enterprise = static_cast<std::uint32_t>(v[0]) << 24 | v[1] << 16 | v[2] << 8 | v[3];
    for (int sub = 1; sub < 255; sub += 53) {
      unsigned char *val = store[code].data;
      const std::uint32_t n = dhcp_find_125_option(ops(), &val, store[code].len, enterprise, static_cast<std::uint8_t>(sub));
      if (n) {
        FUZZ_CHECK(val[n] == 0);
        ops()->free(val);
      }
      char *s = dhcp_extract_125_string(ops(), &store[code], enterprise, static_cast<std::uint8_t>(sub));
      if (s) ops()->free(s);
    }
  }
}

inline void check_matches(const std::string &text, const std::vector<std::uint8_t> &msg, const dhcp_option *store) {
  if (msg.size() < 236) return;
  fuzz::Exact m(msg);
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  char *end = nullptr;
  dhcp_match match;
  int n = parse_dhcpoptionmatch(buf.data(), &end, &match);
  if (n >= 0) {
    FUZZ_CHECK(end >= buf.data() && end <= buf.data() + text.size());
    const std::string pattern(match.pattern, static_cast<std::size_t>(n));
    match.pattern = pattern.c_str();
    const int r = dhcp_packet_matches(ops(), m.p, store, &match);
    FUZZ_CHECK(r == 0 || r == 1);
  }
  std::vector<char> buf2(text.begin(), text.end());
  buf2.push_back('\0');
  n = parse_dhcpheadermatch(buf2.data(), &end, &match);
  if (n >= 0) {
    FUZZ_CHECK(match.code == 0 && match.sub < DHCP_HFIELD_COUNT);
    const std::string pattern(match.pattern, static_cast<std::size_t>(n));
    match.pattern = pattern.c_str();
    const int r = dhcp_packet_matches(ops(), m.p, store, &match);
    FUZZ_CHECK(r == 0 || r == 1);
    FUZZ_CHECK(std::strcmp(dhcp_hfield2str(match.sub), "unknown") != 0);
  }
}

// Construction: an options area built from a configuration read from the
// input; the message it makes parses, and its configured single values come
// back as they were configured.  The message buffer is zeroed, so the
// options field is followed by pad bytes.
inline void check_construction(fuzz::Input &in, const dhcp_option *peer) {
  fuzz::Config config(ops());
  for (int n = in.byte() % 8; n > 0; --n)
    if (!config.add_from(in)) return;
  const std::uint8_t flags = in.byte();
  std::vector<std::uint8_t> msg(240 + 4096 + 1, 0);
  const int len = dhcp_cons_options(ops(), (flags & 8) ? peer : nullptr, msg.data(), config.head(), flags & 3,
                                    (flags >> 2) & 1, (flags >> 4) & 1);
  FUZZ_CHECK(len == 0 || (len >= 240 && len <= 240 + 4096));
  if (len == 0) return;
  dhcp_options back;
  std::memset(back, 0, sizeof back);
  fuzz::Exact built(msg, 240 + 4096 + 1);
  const int parsed = dhcp_parse_options(ops(), built.p, 240 + 4096, back);
  // An overloaded message (243) is laid out as documented, end marks and
  // repeated fragment heads included, and need not parse; one that fits
  // its options field always does.
  if (len == 243) {
    FUZZ_CHECK(parsed == 0 || parsed == -1);
    dhcp_free_options(ops(), back);
    return;
  }
  if (strict()) FUZZ_CHECK(parsed == 0);
  for (dhcpoptions_record *r = *config.head(); r; r = r->next) {
    if (r->optionnr < 1 || r->optionnr > 254 || !back[r->optionnr].data) continue;
    const int type = DHCPOPTIONS_dhcpoptions_memberbymagic(r);
    if (type == DHCPCFG_TYPE_IPADDR || type == DHCPCFG_TYPE_UINT32) {
      const std::uint8_t be[4] = {static_cast<std::uint8_t>(r->value.u32 >> 24), static_cast<std::uint8_t>(r->value.u32 >> 16),
                                  static_cast<std::uint8_t>(r->value.u32 >> 8), static_cast<std::uint8_t>(r->value.u32)};
      // A repeated code joins its values; a single one reads back whole.
      bool repeated = false;
      for (dhcpoptions_record *o = *config.head(); o; o = o->next) repeated |= o != r && o->optionnr == r->optionnr;
      if (!repeated && !(flags & 8) && strict()) FUZZ_CHECK(fuzz::slot_holds(back, r->optionnr, be, 4));
    }
  }
  dhcp_free_options(ops(), back);
}


// Parses, looks up, matches and builds; every block taken is given back.
inline void run(const std::uint8_t *data, std::size_t size) {
  const long live_before = fuzz::DhcpMemory::live();
  fuzz::Input in(data, size);
  const std::uint16_t text_len = in.u16();
  const std::vector<std::uint8_t> text_bytes = in.take(text_len);
  const std::string text(text_bytes.begin(), text_bytes.end());
  const std::vector<std::uint8_t> msg = in.rest();
  {
    // msglen + 1 readable bytes.
    fuzz::Exact m(msg, msg.size() + 1);
    dhcp_options store;
    std::memset(store, 0, sizeof store);
    const int rc = dhcp_parse_options(ops(), m.p, static_cast<std::int32_t>(msg.size()), store);
    FUZZ_CHECK(rc == 0 || rc == -1);
    if (msg.size() < 240 && strict()) {
      FUZZ_CHECK(rc == -1);
      for (int code = 0; code < DHCP_OPTION_SLOTS; ++code) FUZZ_CHECK(!store[code].data);
    }
    check_store(store);
    check_vendor(store);
    check_matches(text, msg, store);
    fuzz::Input config_in(data, size);
    config_in.take(2 + text_len + 236);
    check_construction(config_in, store);
    dhcp_free_options(ops(), store);
  }
  FUZZ_CHECK(fuzz::DhcpMemory::live() == live_before);
}

}  // namespace fuzz_dhcp

#endif

