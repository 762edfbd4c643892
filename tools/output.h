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

// Reports an error about `file` on standard error, after what standard
// output holds so far.
inline void print_file_error(const std::string &file, const std::string &error) {
  std::fflush(stdout);
  fmt::print(stderr, "nikerkiog: {}: {}\n", file, error);
}

}  // namespace tool
