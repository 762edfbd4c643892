// Classifier rule files on hostile input: the whole input is a rule file.
// Every line the reader hands out lies inside the input, a refused line
// names a column inside its line, and a rule line's text holds only what
// the parser may see (no control characters, no tabs, at most 255
// characters).  Each rule is parsed with warnings, which stay inside the
// line; a rule's printed rule text reads back as a rule that prints the
// same; a rule without stateful conditions covers itself.
#include "clfy_fuzz.h"

namespace {

constexpr std::uint32_t kStateful =
    NUV_CLFY_F_LOCALMARK | NUV_CLFY_F_ETHSRCTAB | NUV_CLFY_F_IPDSTTAB | NUV_CLFY_F_DHCP | NUV_CLFY_F_PACKETMATCH;

void check_line(const nuv_clfy_line &line, std::size_t size) {
  FUZZ_CHECK(line.start + line.length <= size);
  FUZZ_CHECK(line.next <= size && line.next >= line.start + line.length);
  if (line.code < 0) {
    FUZZ_CHECK(line.column >= 1 && line.column <= line.length + 1);
    FUZZ_CHECK(line.span >= 1 && line.reason && line.reason[0]);
    return;
  }
  const std::size_t length = std::strlen(line.text);
  FUZZ_CHECK(length <= 255);
  for (std::size_t i = 0; i < length; ++i)
    FUZZ_CHECK(static_cast<unsigned char>(line.text[i]) >= 0x20 && line.text[i] != 0x7f);
}

void check_rule(const nuv_clfy_line &line) {
  nuv_clfy *rule = nullptr;
  nuv_clfy_diag diag;
  nuv_clfy_warning warnings[NUV_CLFY_MAX_WARNINGS];
  std::uint32_t count = 0;
  const std::size_t length = std::strlen(line.text);
  if (nuv_clfy_parse_with_warnings(line.text, &rule, &diag, warnings, &count) != 0) {
    FUZZ_CHECK(count == 0);
    return;
  }
  FUZZ_CHECK(count <= NUV_CLFY_MAX_WARNINGS);
  for (std::uint32_t i = 0; i < count; ++i) FUZZ_CHECK(warnings[i].offset + warnings[i].length <= length);
  char printed[1024];
  if (nuv_clfy_print_rule(rule, printed, sizeof printed) >= 0) {
    nuv_clfy *again = nullptr;
    FUZZ_CHECK(nuv_clfy_parse(printed, &again) == 0);
    char second[1024];
    FUZZ_CHECK(nuv_clfy_print_rule(again, second, sizeof second) >= 0);
    FUZZ_CHECK(std::strcmp(printed, second) == 0);
    nuv_clfy_free(again);
  }
  if (!(rule->flags & kStateful)) FUZZ_CHECK(nuv_clfy_covers(rule, rule) == 1);
  nuv_clfy_free(rule);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  // An exact copy, so a read past the end is seen.
  fuzz::Exact file(std::vector<std::uint8_t>(data, data + size));
  const char *text = reinterpret_cast<const char *>(file.p);
  for (std::uint32_t flags : {0u, static_cast<std::uint32_t>(NUV_CLFY_LINE_NEED_RESULT),
                              static_cast<std::uint32_t>(NUV_CLFY_LINE_BYTES_ONLY)}) {
    nuv_clfy_line line{};
    std::uint32_t lines = 0;
    while (nuv_clfy_next_line(text, size, flags, &line)) {
      FUZZ_CHECK(line.number == ++lines);
      check_line(line, size);
      if (line.code == NUV_CLFY_LINE_RULE && flags != NUV_CLFY_LINE_BYTES_ONLY && lines <= 64) check_rule(line);
    }
  }
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
  return 0;
}
