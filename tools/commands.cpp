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

// One packet's JSON line, written directly (the hot path of --json).
std::string report_json(const std::string &quoted_file, const FrameReport &r) {
  std::string out = fmt::format(R"({{"type":"packet","file":{},"number":{})", quoted_file, r.number);
  if (!r.description.empty()) {
    out += R"(,"description":)";
    append_json_ascii(out, r.description.c_str());
  }
  if (!r.problem.empty()) {
    out += R"(,"problem":)";
    append_json_ascii(out, r.problem.c_str());
  }
  if (!r.vlan_ids.empty()) out += fmt::format(R"(,"vlan":[{}])", fmt::join(r.vlan_ids, ","));
  if (r.pppoe) out += fmt::format(R"(,"pppoe_session":{})", r.pppoe_session);
  out += R"(,"checksums":{)";
  for (std::size_t i = 0; i < r.checksums.size(); ++i)
    out += fmt::format(R"({}"{}":"{}")", i ? "," : "", r.checksums[i].first, r.checksums[i].second);
  out += "}}\n";
  return out;
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
  std::string last_file, quoted_file;
  CaptureTotals totals = read_captures(captures, json, [&](const std::string &file, const Frame &frame) {
    FrameReport r = describe_frame(frame);
    if (json && file != last_file) last_file = file, quoted_file = json_quote(file);
    if (json) print_line(report_json(quoted_file, r));
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
