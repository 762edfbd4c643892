// The DHCP option format table: one row per option code.
#include <array>

#include "nuvdhcp_priv.h"

namespace dp::dhcp {
namespace {

// Codes sharing a format, as inclusive ranges.  Codes not listed are opaque.
struct FormatRange {
  std::uint8_t first;
  std::uint8_t last;
  const char *format;
};

constexpr FormatRange kFormatRanges[] = {
    {1, 1, "I"},     {2, 2, "l"},     {3, 11, "IA"},   {12, 12, "t"},   {13, 13, "S"},   {14, 15, "t"},
    {16, 16, "I"},   {17, 18, "t"},   {19, 20, "f"},   {21, 21, "IIA"}, {22, 22, "S"},   {23, 23, "B"},
    {24, 24, "L"},   {25, 25, "SA"},  {26, 26, "S"},   {27, 27, "f"},   {28, 28, "I"},   {29, 31, "f"},
    {32, 32, "I"},   {33, 33, "IIA"}, {34, 34, "f"},   {35, 35, "L"},   {36, 36, "f"},   {37, 37, "B"},
    {38, 38, "L"},   {39, 39, "f"},   {40, 40, "t"},   {41, 42, "IA"},  {43, 43, "X"},   {44, 45, "IA"},
    {46, 46, "B"},   {47, 47, "t"},   {48, 49, "IA"},  {50, 50, "I"},   {51, 51, "L"},   {52, 53, "B"},
    {54, 54, "I"},   {55, 55, "BA"},  {56, 56, "t"},   {57, 57, "S"},   {58, 59, "L"},   {60, 60, "t"},
    {77, 77, "t"},   {85, 85, "IA"},  {255, 255, "e"},
};

constexpr std::array<FormatRow, 256> build_format_table() {
  std::array<FormatRow, 256> rows{};
  for (unsigned code = 0; code < rows.size(); ++code) {
    rows[code] = FormatRow{code == 0 ? "" : "X", static_cast<std::uint8_t>(code)};
  }
  for (const FormatRange &range : kFormatRanges) {
    for (unsigned code = range.first; code <= range.last; ++code) rows[code].format = range.format;
  }
  return rows;
}

constexpr std::array<FormatRow, 256> kFormatTable = build_format_table();

constexpr bool same_text(const char *a, const char *b) {
  while (*a && *a == *b) ++a, ++b;
  return *a == *b;
}

static_assert(same_text(kFormatTable[0].format, ""));
static_assert(same_text(kFormatTable[61].format, "X"));
static_assert(same_text(kFormatTable[77].format, "t"));
static_assert(same_text(kFormatTable[85].format, "IA"));
static_assert(same_text(kFormatTable[254].format, "X"));
static_assert(same_text(kFormatTable[255].format, "e"));
static_assert(kFormatTable[200].code == 200);

}  // namespace

const FormatRow &option_format_row(std::uint8_t code) { return kFormatTable[code]; }

}  // namespace dp::dhcp

extern "C" const char *dhcp_option_format(uint8_t code) { return dp::dhcp::option_format(code); }
