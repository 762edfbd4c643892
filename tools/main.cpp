// nikerkiog: try the library on real captures before rules ship to a router.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "capture.h"
#include "describe.h"

namespace {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitUnreadable = 2;

nlohmann::json report_json(const std::string &file, const tool::FrameReport &r) {
  nlohmann::json j{{"file", file}, {"number", r.number}};
  if (!r.description.empty()) j["description"] = r.description;
  if (!r.problem.empty()) j["problem"] = r.problem;
  if (!r.vlan_ids.empty()) j["vlan"] = r.vlan_ids;
  nlohmann::json sums = nlohmann::json::object();
  for (const auto &[layer, verdict] : r.checksums) sums[layer] = verdict;
  j["checksums"] = sums;
  return j;
}

int run_describe(const std::vector<std::string> &files, bool json) {
  int status = kExitOk;
  nlohmann::json all = nlohmann::json::array();
  for (const auto &file : files) {
    if (!json && files.size() > 1) fmt::print("# {}\n", file);
    std::string error = tool::for_each_frame(file, [&](const tool::Frame &frame) {
      tool::FrameReport r = tool::describe_frame(frame);
      if (json) all.push_back(report_json(file, r));
      else fmt::print("{}\n", tool::format_report(r));
    });
    if (!error.empty()) {
      std::fflush(stdout);
      fmt::print(stderr, "nikerkiog: {}: {}\n", file, error);
      status = kExitUnreadable;
    }
  }
  if (json) fmt::print("{}\n", all.dump(2));
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"nikerkiog: packet and rule utilities, tried on captures"};
  app.require_subcommand(1);

  std::vector<std::string> describe_files;
  bool describe_json = false;
  CLI::App *describe = app.add_subcommand(
      "describe", "Print one line per packet: its description and IP/TCP/UDP/ICMP checksum verdicts");
  describe->add_option("captures", describe_files, "pcap or pcapng files")->required();
  describe->add_flag("--json", describe_json, "Print the reports as a JSON array");

  CLI11_PARSE(app, argc, argv);

  if (describe->parsed()) return run_describe(describe_files, describe_json);
  return kExitOk;
}
