// nikerkiog: try the library on real captures and rule files before they
// ship to a router.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"

namespace {

// --explain: one value per option, so that the positional arguments after
// it stay positional.
CLI::Validator explain_value() {
  return CLI::Validator(
      [](std::string &text) {
        tool::PacketNumbers numbers;
        std::string error;
        return numbers.parse(text, error) ? std::string() : error;
      },
      "N[,N|N-M...]|all", "packet numbers");
}

// --count and --seconds: a limit of 0 or less would never stop the capture.
CLI::Validator positive(const char *unit) {
  return CLI::Validator(
      [unit](std::string &text) {
        char *end = nullptr;
        double value = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || !(value > 0))
          return "must be " + std::string(unit) + " above 0, not \"" + text + "\"";
        return std::string();
      },
      unit, "positive");
}

// Every command answers --version, not only the tool itself.
void add_version_flags(CLI::App &app) {
  for (CLI::App *sub : app.get_subcommands({})) {
    sub->set_version_flag("--version", "nikerkiog " NIKERKIOG_VERSION, "Print the library's version and exit");
    add_version_flags(*sub);
  }
}

CLI::App *add_check_command(CLI::App &parent, const char *name, const char *what, tool::CheckOptions &o,
                            const char *files_help) {
  CLI::App *cmd = parent.add_subcommand(name, what);
  cmd->add_option("files", o.files, files_help)->required();
  cmd->add_flag("--print", o.print, "Print the normalised form of every accepted line");
  cmd->add_flag("--json", o.json, "Write JSON Lines: one object per rule line, then a summary");
  cmd->add_flag("--Werror", o.werror, "Treat warnings as errors");
  return cmd;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"nikerkiog: classifier rules, firewall rule texts and DHCP messages, tried on captures"};
  app.set_version_flag("--version", "nikerkiog " NIKERKIOG_VERSION, "Print the library's version and exit");
  app.require_subcommand(0, 1);

  std::vector<std::string> describe_files;
  bool describe_json = false;
  CLI::App *describe = app.add_subcommand(
      "describe", "Print one line per packet: its description and IP/TCP/UDP/ICMP checksum verdicts");
  describe->add_option("captures", describe_files, "pcap or pcapng files")->required();
  describe->add_flag("--json", describe_json, "Write JSON Lines: one object per packet, then a summary");

  tool::ClassifyOptions co;
  std::vector<std::string> explain_items;
  CLI::App *classify = app.add_subcommand(
      "classify", "Try classifier rules on captured or live packets: the first rule that applies to each packet");
  classify->add_option("rules", co.rules, "rules file: one rule per line, \"=> N\" gives a result")->required();
  classify->add_option("captures", co.captures, "pcap or pcapng files");
  classify->add_option("--dev", co.device, "interface the packets arrive on (dev conditions)")->capture_default_str();
  classify->add_option("--brdev", co.bridge, "bridge the packets pass (brdev conditions)")->capture_default_str();
  classify->add_flag("--optimise", co.optimise, "Restructure the rule set into a tree first");
  classify->add_flag("--json", co.json, "Write JSON Lines: one object per packet, then a summary with the rule set");
  classify->add_flag("--keep-going", co.keep_going, "Report rejected rule lines and use the others");
  classify->add_flag("--kernel", co.kernel,
                     "Also run every frame through the kernel's tc classifier (needs root and BPF); "
                     "print both verdicts and exit 1 on any difference");
  classify->add_option("--explain", explain_items, "Explain the verdicts of these packets (3,5-9 or all)")
      ->expected(1)
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(explain_value());
  CLI::Option *live = classify->add_option("--live", co.live, "Classify live traffic of this interface instead of files");
  classify->add_option("--count", co.count, "With --live: stop after N packets")->needs(live)->check(positive("a whole number"));
  classify->add_option("--seconds", co.seconds, "With --live: stop after S seconds")->needs(live)->check(positive("a number of seconds"));

  std::vector<std::string> dhcp_files;
  bool dhcp_json = false;
  CLI::App *dhcp = app.add_subcommand(
      "dhcp", "Decode the DHCP messages of captures: header fields and options as the option store reads them");
  dhcp->add_option("captures", dhcp_files, "pcap or pcapng files")->required();
  dhcp->add_flag("--json", dhcp_json, "Write JSON Lines: one object per message, then a summary");

  tool::CheckOptions check_options;
  CLI::App *check = add_check_command(app, "check", "Check classifier rule files line by line, as a compiler does",
                                      check_options, "classifier rule files");

  tool::CheckOptions acl_options, masq_options, ip6fw_options;
  acl_options.language = tool::RuleLanguage::kAccess;
  masq_options.language = tool::RuleLanguage::kMasquerade;
  ip6fw_options.language = tool::RuleLanguage::kIp6Forward;
  CLI::App *acl = app.add_subcommand("acl", "Access rules (IPv4 packet filter lines)");
  acl->require_subcommand(0, 1);
  CLI::App *acl_check = add_check_command(*acl, "check", "Check access rule files line by line", acl_options,
                                          "access rule files");
  CLI::App *masq = app.add_subcommand("masq", "Masquerade forward rules (port forwardings)");
  masq->require_subcommand(0, 1);
  CLI::App *masq_check = add_check_command(*masq, "check", "Check masquerade forward rule files line by line",
                                           masq_options, "masquerade forward rule files");
  CLI::App *ip6fw = app.add_subcommand("ip6fw", "IPv6 forward rules (protocols and ports a host may receive)");
  ip6fw->require_subcommand(0, 1);
  CLI::App *ip6fw_check = add_check_command(*ip6fw, "check", "Check IPv6 forward rule files line by line",
                                            ip6fw_options, "IPv6 forward rule files, one rule each");

  bool keywords_json = false;
  CLI::App *keywords = app.add_subcommand("keywords", "List the classifier rule keywords with their values and examples");
  keywords->add_flag("--json", keywords_json, "Write JSON Lines: one object per keyword");
  add_version_flags(app);

  try {
    app.parse(argc, argv);
    for (const auto &item : explain_items) {
      std::string error;
      if (!co.explain.parse(item, error)) throw CLI::ValidationError("--explain", error);
    }
  } catch (const CLI::ParseError &e) {
    int status = app.exit(e);
    return status == 0 ? tool::kExitOk : tool::kExitError;
  }

  if (describe->parsed()) return tool::run_describe(describe_files, describe_json);
  if (classify->parsed()) {
    if (co.live.empty() == co.captures.empty()) {
      fmt::print(stderr, "nikerkiog classify: give capture files or --live INTERFACE (one of the two)\n");
      return tool::kExitError;
    }
    return tool::run_classify(co);
  }
  if (dhcp->parsed()) return tool::run_dhcp(dhcp_files, dhcp_json);
  if (check->parsed()) return tool::run_check(check_options);
  if (keywords->parsed()) return tool::run_keywords(keywords_json);
  if (acl_check->parsed()) return tool::run_check(acl_options);
  if (masq_check->parsed()) return tool::run_check(masq_options);
  if (ip6fw_check->parsed()) return tool::run_check(ip6fw_options);
  for (CLI::App *group : {acl, masq, ip6fw}) {
    if (group->parsed()) {
      fmt::print(stderr, "{}", group->help());
      return tool::kExitError;
    }
  }
  fmt::print(stderr, "{}", app.help());
  return tool::kExitError;
}
