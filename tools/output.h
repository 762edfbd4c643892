// What every command shares: exit statuses and JSON Lines output.
#pragma once

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

namespace tool {

// Exit statuses of the tool.
constexpr int kExitOk = 0;        // success
constexpr int kExitFindings = 1;  // rejected rule lines (findings)
constexpr int kExitError = 2;     // usage or input error (unreadable, truncated or missing files)

// Writes `object` as one compact line of JSON (JSON Lines); bytes that are
// not UTF-8 (in file names) are replaced.
inline void print_json_line(const nlohmann::json &object) {
  std::string line = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
}

// `text` as a JSON string, quotes included.  Bytes that are not UTF-8 are
// replaced, as print_json_line does.
inline std::string json_quote(const std::string &text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// A JSON string of plain text (ASCII, as the library's descriptions are):
// only quotes, backslashes and control characters need escaping.  The
// per-packet objects are written with it, without building JSON values, so
// that --json stays close to the plain output's speed.
inline void append_json_ascii(std::string &out, const char *text) {
  out += '"';
  for (const char *p = text; *p; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7f) {
      out += fmt::format("\\u{:04x}", c);
    } else {
      out += static_cast<char>(c);
    }
  }
  out += '"';
}

// Writes one prepared line of JSON (with its newline) to standard output.
inline void print_line(const std::string &line) { std::fwrite(line.data(), 1, line.size(), stdout); }

// Reports an error about `file` on standard error, after what standard
// output holds so far.
inline void print_file_error(const std::string &file, const std::string &error) {
  std::fflush(stdout);
  fmt::print(stderr, "nikerkiog: {}: {}\n", file, error);
}

}  // namespace tool
