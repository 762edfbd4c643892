// nikerkiog: try the library on real captures before rules ship to a router.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "capture.h"
#include "classify.h"
#include "describe.h"

namespace {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitRules = 1;
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

struct ClassifyOptions {
  std::string rules;
  std::vector<std::string> captures;
  std::string device = "eth0";
  std::string bridge = "br0";
  bool optimise = false;
  bool json = false;
};

// Builds the rule set; false (after printing why) when a rule is refused.
bool build_rule_set(const ClassifyOptions &o, tool::RuleSet &set) {
  std::vector<tool::RuleLine> lines;
  std::string error;
  if (!tool::read_rule_lines(o.rules, lines, error)) {
    fmt::print(stderr, "nikerkiog: {}: {}\n", o.rules, error);
    return false;
  }
  bool ok = true;
  for (const auto &line : lines) {
    if (!set.add(line)) {
      fmt::print(stderr, "nikerkiog: {}:{}: the classifier refuses this rule: {}\n", o.rules, line.line, line.text);
      ok = false;
    }
  }
  if (ok && o.optimise && !set.optimise()) {
    fmt::print(stderr, "nikerkiog: out of memory while optimising the rule set\n");
    ok = false;
  }
  return ok;
}

std::string verdict_text(std::size_t line, std::uint16_t result) {
  return line ? fmt::format("rule at line {} => {}", line, result) : std::string("no rule");
}

int run_classify(const ClassifyOptions &o) {
  tool::RuleSet set(o.device, o.bridge);
  if (!build_rule_set(o, set)) return kExitRules;
  int status = kExitOk;
  nlohmann::json all = nlohmann::json::array();
  std::vector<std::uint8_t> storage;
  for (const auto &file : o.captures) {
    if (!o.json && o.captures.size() > 1) fmt::print("# {}\n", file);
    std::string error = tool::for_each_frame(file, [&](const tool::Frame &frame) {
      std::string why;
      auto packet = tool::packet_descriptor(frame, storage, why);
      std::size_t line = packet ? set.classify(*packet) : 0;
      if (o.json) {
        nlohmann::json j{{"file", file}, {"number", frame.number}};
        if (!packet) j["problem"] = why;
        else if (line) j["rule_line"] = line, j["result"] = set.result_of(line);
        else j["rule_line"] = nullptr;
        all.push_back(j);
      } else {
        fmt::print("{:>5}  {}\n", frame.number, packet ? verdict_text(line, set.result_of(line)) : why);
      }
    });
    if (!error.empty()) {
      std::fflush(stdout);
      fmt::print(stderr, "nikerkiog: {}: {}\n", file, error);
      status = kExitUnreadable;
    }
  }
  if (o.json) {
    fmt::print("{}\n", nlohmann::json{{"packets", all}, {"rules", set.listing()}}.dump(2));
  } else {
    fmt::print("# rule set{}, with hits\n", o.optimise ? " (optimised)" : "");
    for (const auto &l : set.listing()) fmt::print("{}\n", l);
  }
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

  ClassifyOptions classify_options;
  CLI::App *classify = app.add_subcommand(
      "classify", "Try classifier rules on captured packets: the first rule that applies to each packet");
  classify->add_option("rules", classify_options.rules, "rules file: one rule per line, \"=> N\" gives a result")
      ->required();
  classify->add_option("captures", classify_options.captures, "pcap or pcapng files")->required();
  classify->add_option("--dev", classify_options.device, "interface the packets arrive on (dev conditions)")
      ->capture_default_str();
  classify->add_option("--brdev", classify_options.bridge, "bridge the packets pass (brdev conditions)")
      ->capture_default_str();
  classify->add_flag("--optimise", classify_options.optimise, "restructure the rule set into a tree first");
  classify->add_flag("--json", classify_options.json, "Print the verdicts and the rule set as JSON");

  CLI11_PARSE(app, argc, argv);

  if (describe->parsed()) return run_describe(describe_files, describe_json);
  if (classify->parsed()) return run_classify(classify_options);
  return kExitOk;
}
