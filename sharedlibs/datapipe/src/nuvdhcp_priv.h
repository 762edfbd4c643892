/* DHCP options module, private: the option format table and message layout. */
#ifndef NUVDHCP_PRIV_H
#define NUVDHCP_PRIV_H

#include <cstddef>
#include <cstdint>

#include "nuvdhcp.h"

namespace dp::dhcp {

// Offsets of the BOOTP/DHCP message fields the option code works with.
inline constexpr std::size_t kSnameOffset = 44;
inline constexpr std::size_t kSnameSize = 64;
inline constexpr std::size_t kFileOffset = 108;
inline constexpr std::size_t kFileSize = 128;
inline constexpr std::size_t kCookieOffset = 236;
inline constexpr std::size_t kOptionsOffset = 240;
inline constexpr std::uint8_t kMagicCookie[4] = {0x63, 0x82, 0x53, 0x63};

inline constexpr std::uint8_t kOptionPad = 0;
inline constexpr std::uint8_t kOptionEnd = 255;
inline constexpr std::uint8_t kOptionOverload = 52;
inline constexpr std::uint8_t kOptionMaxMessageSize = 57;
inline constexpr std::uint8_t kOptionParameterRequestList = 55;

// One row of the option format table: how the value of an option code is
// shaped.  Format letters: "I" one IPv4 address, "IA" list of addresses,
// "IIA" list of address pairs, "l" signed 32-bit, "L" unsigned 32-bit,
// "S" unsigned 16-bit, "SA" list of 16-bit values, "B" unsigned 8-bit,
// "BA" list of bytes, "f" flag byte, "t" text, "X" opaque bytes, "e" end.
// `code` always equals the row's index.
struct FormatRow {
  const char *format;
  std::uint8_t code;
};

// The format table row of option `code`; every code 0..255 has one
// (row 0 has the empty format).
const FormatRow &option_format_row(std::uint8_t code);

// The format text of option `code` (never null; "" for code 0).
inline const char *option_format(std::uint8_t code) { return option_format_row(code).format; }

// Whether option `code` carries text (its format begins with 't').
inline bool option_is_text(std::uint8_t code) { return option_format(code)[0] == 't'; }

}  // namespace dp::dhcp

#endif
