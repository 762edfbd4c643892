// The option format table, checked row by row against a plain listing of
// the option value formats.  The table is internal to the library, so this
// white-box test reads it through the private header.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "nuvdhcp_priv.h"

namespace {

// Formats by option code; every code not listed is opaque ("X").
std::map<int, std::string> listed_formats() {
  std::map<int, std::string> f;
  auto set = [&f](std::initializer_list<int> codes, const char *format) {
    for (int c : codes) f[c] = format;
  };
  set({0}, "");
  set({1, 16, 28, 32, 50, 54}, "I");
  set({2}, "l");
  set({3, 4, 5, 6, 7, 8, 9, 10, 11, 41, 42, 44, 45, 48, 49, 85}, "IA");
  set({12, 14, 15, 17, 18, 40, 47, 56, 60, 77}, "t");
  set({13, 22, 26, 57}, "S");
  set({19, 20, 27, 29, 30, 31, 34, 36, 39}, "f");
  set({21, 33}, "IIA");
  set({23, 37, 46, 52, 53}, "B");
  set({24, 35, 38, 51, 58, 59}, "L");
  set({25}, "SA");
  set({55}, "BA");
  set({255}, "e");
  return f;
}

}  // namespace

TEST(DhcpOptionFormats, EveryRowHasItsListedFormat) {
  const auto listed = listed_formats();
  for (int code = 0; code < 256; ++code) {
    auto it = listed.find(code);
    const std::string expected = it == listed.end() ? "X" : it->second;
    EXPECT_STREQ(dp::dhcp::option_format(static_cast<std::uint8_t>(code)), expected.c_str()) << code;
  }
}

TEST(DhcpOptionFormats, SecondColumnIsTheRowIndex) {
  for (int code = 0; code < 256; ++code) {
    EXPECT_EQ(dp::dhcp::option_format_row(static_cast<std::uint8_t>(code)).code, code);
  }
}

TEST(DhcpOptionFormats, TextOptionsAreThoseStartingWithT) {
  int text = 0;
  for (int code = 0; code < 256; ++code) text += dp::dhcp::option_is_text(static_cast<std::uint8_t>(code));
  EXPECT_EQ(text, 10);
  EXPECT_TRUE(dp::dhcp::option_is_text(77));
  EXPECT_FALSE(dp::dhcp::option_is_text(67));
}

TEST(DhcpOptionFormats, OpaqueRangesAre43And61To76And78To84And86To254) {
  for (int code : {43, 61, 62, 76, 78, 84, 86, 121, 254}) {
    EXPECT_STREQ(dp::dhcp::option_format(static_cast<std::uint8_t>(code)), "X") << code;
  }
}
