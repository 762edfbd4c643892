// The platform layer's DNS message readers and wildcard matcher on hostile
// input.
// Input: one byte selecting the start of a name, then the message (for the
// readers); the same bytes split at the first NUL into a text and a pattern
// (for the matcher).
#include "fuzz_check.h"
#include "nuvcsock.h"

namespace {

void check_name_reader(const std::uint8_t *data, std::size_t size) {
  fuzz::Input in(data, size);
  const std::uint8_t start = in.byte();
  const std::vector<std::uint8_t> bytes = in.rest();
  fuzz::Exact msg(bytes);
  const unsigned char *end = msg.p + bytes.size();
  const unsigned char *pos = msg.p + (bytes.empty() ? 0 : start % bytes.size());
  const unsigned char *after = dnsutil_skipdnsname(msg.p, pos, end);
  // A name is at least one byte and never runs past the message.
  if (after) FUZZ_CHECK(after > pos && after <= end);
  if (after && after + 4 <= end) {
    std::uint16_t v16 = 0;
    std::uint32_t v32 = 0;
    FUZZ_CHECK(dnsutil_getuint16(&v16, after) == after + 2);
    FUZZ_CHECK(v16 == (after[0] << 8 | after[1]));
    FUZZ_CHECK(dnsutil_getuint32(&v32, after) == after + 4);
    FUZZ_CHECK(v32 >> 16 == v16);
  }
}

// `text` with every character the matcher treats specially escaped.
std::string escaped(const std::string &text) {
  std::string p;
  for (char c : text) {
    if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') p.push_back('\\');
    p.push_back(c);
  }
  return p;
}

void check_matcher(const std::uint8_t *data, std::size_t size) {
  fuzz::Input in(data, size);
  const std::string text = in.until(0);
  const std::string pattern = in.until(0);
  const char *t = text.c_str();
  const char *p = pattern.c_str();
  const int exact = shmatch(t, p);
  const int nocase = shcasematch(t, p);
  // Ignoring case can only add matches; a length-limited match over the
  // whole text is the plain one.
  if (exact) FUZZ_CHECK(nocase);
  FUZZ_CHECK((shcasenmatch(t, text.size(), p) != 0) == (nocase != 0));
  // Every text matches "*" and itself with its special characters escaped.
  FUZZ_CHECK(shmatch(t, "*"));
  FUZZ_CHECK(shmatch(t, escaped(text).c_str()));
  FUZZ_CHECK(shcasematch(t, escaped(text).c_str()));
  // A prefix of the text followed by "*" matches.
  const std::string head = escaped(text.substr(0, text.size() / 2)) + "*";
  FUZZ_CHECK(shmatch(t, head.c_str()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  check_name_reader(data, size);
  check_matcher(data, size);
  return 0;
}
