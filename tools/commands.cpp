// The capture commands that print one report per packet or message:
// describe and dhcp.
#include <fmt/format.h>

#include "capture.h"
#include "commands.h"
#include "describe.h"
#include "dhcp.h"
#include "output.h"

namespace tool {
namespace {

nlohmann::json report_json(const std::string &file, const FrameReport &r) {
  nlohmann::json j{{"type", "packet"}, {"file", file}, {"number", r.number}};
  if (!r.description.empty()) j["description"] = r.description;
  if (!r.problem.empty()) j["problem"] = r.problem;
  if (!r.vlan_ids.empty()) j["vlan"] = r.vlan_ids;
  nlohmann::json sums = nlohmann::json::object();
  for (const auto &[layer, verdict] : r.checksums) sums[layer] = verdict;
  j["checksums"] = sums;
  return j;
}

// Counts shared by the summaries of the capture commands.
struct CaptureTotals {
  std::size_t files = 0;
  std::size_t frames = 0;
  std::vector<std::string> unreadable;

  nlohmann::json json() const {
    return {{"type", "summary"}, {"files", files}, {"frames", frames}, {"unreadable", unreadable}};
  }
};

// Reads every capture with `visit`, reporting unreadable ones; the totals
// count the frames read.
template <typename Visit>
CaptureTotals read_captures(const std::vector<std::string> &captures, bool json, Visit visit) {
  CaptureTotals totals;
  for (const auto &file : captures) {
    if (!json && captures.size() > 1) fmt::print("# {}\n", file);
    ++totals.files;
    std::string error = for_each_frame(file, [&](const Frame &frame) {
      ++totals.frames;
      visit(file, frame);
    });
    if (!error.empty()) {
      print_file_error(file, error);
      totals.unreadable.push_back(file);
    }
  }
  return totals;
}

}  // namespace

int run_describe(const std::vector<std::string> &captures, bool json) {
  CaptureTotals totals = read_captures(captures, json, [&](const std::string &file, const Frame &frame) {
    FrameReport r = describe_frame(frame);
    if (json) print_json_line(report_json(file, r));
    else fmt::print("{}\n", format_report(r));
  });
  if (json) print_json_line(totals.json());
  return totals.unreadable.empty() ? kExitOk : kExitError;
}

int run_dhcp(const std::vector<std::string> &captures, bool json) {
  std::size_t messages = 0;
  CaptureTotals totals = read_captures(captures, json, [&](const std::string &file, const Frame &frame) {
    auto report = decode_dhcp(frame);
    if (!report) return;
    ++messages;
    if (json) print_json_line(dhcp_json(file, *report));
    else fmt::print("{}", format_dhcp(file, *report));
  });
  if (json) {
    nlohmann::json summary = totals.json();
    summary["messages"] = messages;
    print_json_line(summary);
  } else {
    fmt::print("# {} DHCP message{} in {} frame{}\n", messages, messages == 1 ? "" : "s", totals.frames,
               totals.frames == 1 ? "" : "s");
  }
  return totals.unreadable.empty() ? kExitOk : kExitError;
}

}  // namespace tool
