// Helpers of the tool's end-to-end tests: run the built tool as a person
// would (from the test data folder, so file names in its output are the
// relative ones of the expected files), compare complete outputs with the
// expected files in tests/data/tool/, and write small captures.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "pcap_writer.h"
#include "testsupport.h"

namespace tooltest {

// What one run of the tool printed, and its exit status.
struct Run {
  std::string out;
  std::string err;
  int status = -1;
};

inline std::string build_path(const std::string &name) { return std::string(NIKERKIOG_BINARY_DIR) + "/" + name; }

// Runs `nikerkiog ARGS` in tests/data with standard input from /dev/null.
inline Run run_tool(const std::string &args) {
  static int serial = 0;
  std::string err_file = build_path("tool-stderr-" + std::to_string(::getpid()) + "-" + std::to_string(++serial));
  std::string command = "cd '" + std::string(NIKERKIOG_DATA_DIR) + "' && '" + NIKERKIOG_TOOL_PATH + "' " + args +
                        " </dev/null 2>'" + err_file + "'";
  Run r;
  r.out = testsupport::run_command(command, &r.status);
  std::ifstream in(err_file);
  std::stringstream err;
  err << in.rdbuf();
  r.err = err.str();
  std::remove(err_file.c_str());
  return r;
}

inline std::string expected(const std::string &name) {
  return testsupport::read_text_file(testsupport::data_path("tool/" + name));
}

// The run printed exactly tests/data/tool/NAME.out on standard output (and
// NAME.err on standard error, or nothing when there is no such file) and
// exited with `status`.
inline void expect_output(const std::string &name, const Run &r, int status) {
  EXPECT_EQ(r.status, status) << r.err;
  EXPECT_EQ(r.out, expected(name + ".out"));
  std::string err_path = std::string(NIKERKIOG_DATA_DIR) + "/tool/" + name + ".err";
  std::ifstream err_file(err_path);
  EXPECT_EQ(r.err, err_file ? expected(name + ".err") : std::string()) << "standard error of " << name;
}

inline std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// A pcap file of the build folder named `name`, to be filled frame by frame.
class PcapWriter : public testsupport::PcapWriter {
 public:
  explicit PcapWriter(const std::string &name, std::uint32_t link = testsupport::kLinkEthernet)
      : testsupport::PcapWriter(build_path(name), link) {}
};

}  // namespace tooltest
