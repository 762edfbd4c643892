// Rule files as the tool reads them: bytes that are not text refused at
// their column, tabs read as spaces, results judged; every warning about
// what a rule does that its text does not say; --Werror and --print; the
// keyword list.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "tool_support.h"

using tooltest::build_path;
using tooltest::expect_output;
using tooltest::run_tool;

namespace {

// Writes `bytes` to a file of the build folder and returns its path.
std::string write_bytes(const std::string &name, const std::string &bytes) {
  std::string path = build_path(name);
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// The summary line of a check's standard error, without the file name.
std::string summary_of(const std::string &err) {
  auto lines = tooltest::lines_of(err);
  if (lines.empty()) return "";
  return lines.back().substr(lines.back().find(": ") + 2);
}

}  // namespace

TEST(ToolRuleFile, NulPaddingAfterTheRulesIsRefused) {
  std::string path = write_bytes("padded.rules", "udp.dport 53 => 5\n" + std::string(512, '\0'));
  auto r = run_tool("check " + path);
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(has(r.err, path + ":2:1: error: NUL byte")) << r.err;
  EXPECT_TRUE(has(r.err, "2 rule lines, 1 rejected")) << r.err;
  auto c = run_tool("classify " + path + " captures/dns_udp.pcap");
  EXPECT_EQ(c.status, 1) << c.err;
  EXPECT_FALSE(has(c.out, "rule at line 2")) << c.out;
}

TEST(ToolRuleFile, NulInsideALineIsRefusedAtItsColumn) {
  std::string path = write_bytes("nul-inside.rules", std::string("udp.dport 53\0garbage => 1\n", 26));
  auto r = run_tool("check " + path);
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(has(r.err, path + ":1:13: error: NUL byte")) << r.err;
  // The shown line has the NUL as "?", so the caret stands under it.
  EXPECT_TRUE(has(r.err, "udp.dport 53?garbage => 1\n            ^\n")) << r.err;
}

TEST(ToolRuleFile, ByteOrderMarkControlCharactersAndBrokenUtf8AreRefused) {
  std::string path = write_bytes("not-text.rules", "\xef\xbb\xbfudp.dport 53 => 1\nany \x1b => 2\n# caf\xe9\n");
  auto r = run_tool("check " + path);
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(has(r.err, path + ":1:1: error: byte-order mark")) << r.err;
  EXPECT_TRUE(has(r.err, path + ":2:5: error: control character")) << r.err;
  EXPECT_TRUE(has(r.err, path + ":3:6: error: bytes that are not UTF-8")) << r.err;
}

TEST(ToolRuleFile, BinaryFileIsRefusedLineByLine) {
  auto r = run_tool("check /bin/ls");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(has(r.err, "/bin/ls:1:")) << r.err.substr(0, 200);
  EXPECT_TRUE(has(r.err, ", 0 warnings")) << r.err.substr(r.err.size() > 200 ? r.err.size() - 200 : 0);
  EXPECT_FALSE(has(r.err, " 0 rejected"));
}

TEST(ToolRuleFile, DirectoryIsRefusedByEveryReader) {
  for (const char *command : {"check", "acl check", "masq check", "ip6fw check"}) {
    auto r = run_tool(std::string(command) + " tool");
    EXPECT_EQ(r.status, 2) << command;
    EXPECT_EQ(r.err, "nikerkiog: tool: is a directory\n") << command;
  }
  auto c = run_tool("classify tool captures/dns_udp.pcap");
  EXPECT_EQ(c.status, 2);
  EXPECT_EQ(c.err, "nikerkiog: tool: is a directory\n");
}

TEST(ToolRuleFile, DeviceAndHugeFileAreRefused) {
  auto device = run_tool("check /dev/null");
  EXPECT_EQ(device.status, 2);
  EXPECT_EQ(device.err, "nikerkiog: /dev/null: is not a regular file\n");
  // A sparse file: no disk space is used.
  std::string path = build_path("huge.rules");
  { std::ofstream(path) << "any => 1\n"; }
  ASSERT_EQ(::truncate(path.c_str(), 17 * 1024 * 1024), 0);
  auto huge = run_tool("check " + path);
  EXPECT_EQ(huge.status, 2);
  EXPECT_TRUE(has(huge.err, "is larger than 16 MiB")) << huge.err;
  std::remove(path.c_str());
}

TEST(ToolRuleFile, TabsBetweenWordsReadAsSpaces) {
  expect_output("check-rules-tabs", run_tool("check --print tool/rules-tabs.rules"), 0);
}

TEST(ToolRuleFile, ResultsOfAnyLengthUpTo65535AndNoneWarned) {
  expect_output("check-rules-results", run_tool("check --print tool/rules-results.rules"), 1);
}

TEST(ToolRuleFile, ResultWith32DigitsClassifiesAsItsValue) {
  auto r = run_tool("classify --keep-going tool/rules-results.rules captures/dns_udp.pcap");
  EXPECT_TRUE(has(r.out, "rule at line 2 => 7")) << r.out;
}

TEST(ToolRuleFile, EveryKeptSurpriseIsWarnedAbout) {
  expect_output("check-rules-warnings", run_tool("check --print tool/rules-warnings.rules"), 0);
}

TEST(ToolRuleFile, WerrorMakesWarningsErrors) {
  auto r = run_tool("check --Werror tool/rules-warnings.rules");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(has(r.err, "tool/rules-warnings.rules:2:11: error: tcp.dport: 99999 is beyond 65535")) << r.err;
  EXPECT_FALSE(has(r.err, ": warning: ")) << r.err;
  auto clean = run_tool("check --Werror ../../examples/rules.txt");
  EXPECT_EQ(clean.status, 0) << clean.err;
  auto acl = run_tool("acl check --Werror tool/acl-readback.txt");
  EXPECT_EQ(acl.status, 1);
}

TEST(ToolRuleFile, ShadowedRulesNameTheEarlierLine) {
  expect_output("check-rules-shadowed", run_tool("check --print tool/rules-shadowed.rules"), 0);
}

TEST(ToolRuleFile, LongTableNameIsAnError) {
  expect_output("check-rules-table-name", run_tool("check --print tool/rules-table-name.rules"), 1);
}

TEST(ToolRuleFile, ClassifyPrintsTheWarningsToo) {
  auto r = run_tool("classify tool/rules-shadowed.rules captures/dns_udp.pcap");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.err, "tool/rules-shadowed.rules:3:1: warning: never reached: the rule at line 2")) << r.err;
}

TEST(ToolRuleFile, PrintedRulesReadBackWithoutWarnings) {
  // What --print writes is a rule file of the same rules.
  auto printed = run_tool("check --print tool/rules-shadowed.rules");
  std::string path = write_bytes("reprinted.rules", printed.out);
  auto again = run_tool("check --print " + path);
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.out, printed.out);
  EXPECT_TRUE(has(again.err, "6 rule lines, 0 rejected, 2 warnings")) << again.err;
  auto example = run_tool("check --print ../../examples/rules.txt");
  EXPECT_TRUE(has(example.err, "10 rule lines, 0 rejected, 0 warnings")) << example.err;
}

TEST(ToolRuleFile, UnknownKeywordSuggestsTheNearest) {
  std::string path = write_bytes("typo.rules", "ip.sadr 10.0.0.1 => 1\n");
  auto r = run_tool("check " + path);
  EXPECT_TRUE(has(r.err, ":1:1: error: ip.sadr: unknown keyword (did you mean `ip.saddr`?)")) << r.err;
}

TEST(ToolRuleFile, JsonWarningsCarryTheirColumns) {
  auto r = run_tool("check --json tool/rules-shadowed.rules");
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 7u);
  auto shadowed = nlohmann::json::parse(lines[1]);
  EXPECT_EQ(shadowed["line"], 3);
  EXPECT_EQ(shadowed["warnings"][0]["column"], 1);
  EXPECT_EQ(shadowed["warnings"][0]["reason"],
            "never reached: the rule at line 2 matches every packet this one matches");
}

// ---- Firewall rule texts ----

TEST(ToolRuleFile, AccessRulesWhosePrintoutReadsBackDifferently) {
  expect_output("acl-check-readback", run_tool("acl check --print tool/acl-readback.txt"), 0);
}

TEST(ToolRuleFile, MasqueradeRulesWhosePrintoutReadsBackDifferently) {
  expect_output("masq-check-readback", run_tool("masq check --print tool/masq-readback.txt"), 0);
}

TEST(ToolRuleFile, ForwardRulePortsBeyond16BitsAndItsPrintout) {
  expect_output("ip6fw-check-ports", run_tool("ip6fw check --print tool/ip6fw-ports.txt"), 0);
}

namespace {

// Round trip over every protocol number: what `command --print` writes for
// one rule per protocol is checked again and must give the same output and
// the same findings.  Returns the first run.
tooltest::Run expect_printout_reads_back(const std::string &command, const std::string &name,
                                         const std::string &before, const std::string &after) {
  std::string rules;
  for (int proto = 0; proto < 255; ++proto) rules += before + std::to_string(proto) + after + "\n";
  auto first = run_tool(command + " --print " + write_bytes(name, rules));
  EXPECT_EQ(first.status, 0);
  auto again = run_tool(command + " --print " + write_bytes("printed-" + name, first.out));
  EXPECT_EQ(again.out, first.out);
  // The library's own printout of the same protocols is warned about again.
  EXPECT_TRUE(has(again.err, "255 rule lines, 0 rejected")) << again.err;
  EXPECT_EQ(summary_of(again.err), summary_of(first.err));
  return first;
}

}  // namespace

TEST(ToolRuleFile, AccessRulePrintoutReadsBackForEveryProtocol) {
  auto first = expect_printout_reads_back("acl check", "all-protocols.acl", "deny P", " any host 192.168.1.1");
  // The library's own printout loses these protocols, and check says so.
  for (const char *line : {":5:1: warning", ":64:1: warning", ":69:1: warning", ":100:1: warning", ":115:1: warning"})
    EXPECT_TRUE(has(first.err, line)) << line;
  // Names with blanks, and numbers written in lower case, do not read back.
  EXPECT_TRUE(has(first.err, "\"deny isis over ipv4 any host 192.168.1.1\" reads back as a different rule "
                             "(write \"deny P124 any host 192.168.1.1\")"));
  EXPECT_TRUE(has(first.err, "\"deny p200 any host 192.168.1.1\" reads back as a different rule"));
  EXPECT_TRUE(has(first.out, "deny P124 any host 192.168.1.1\ndeny fire any host"));
}

TEST(ToolRuleFile, MasqueradePrintoutReadsBackForEveryProtocol) {
  auto first = expect_printout_reads_back("masq check", "all-protocols.masq", "P", " 0.0.0.0:80 192.168.1.2:80 0");
  EXPECT_TRUE(has(first.err, ":64:1: warning: the printed form \"any 0.0.0.0:80 192.168.1.2:80 0\"")) << first.err;
}

// ---- Keywords ----

TEST(ToolRuleFile, KeywordsListsEveryKeywordWithValueAndExample) {
  expect_output("keywords", run_tool("keywords"), 0);
}

TEST(ToolRuleFile, ManualPageHasTheKeywordTableAndTheWarnings) {
  std::string page = testsupport::read_text_file(std::string(NIKERKIOG_SOURCE_DIR) + "/tools/nikerkiog.1.scd");
  auto unescape = [](std::string text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\\' && i + 1 < text.size()) ++i;
      out += text[i];
    }
    return out;
  };
  page = unescape(page);
  auto r = run_tool("keywords --json");
  for (const auto &line : tooltest::lines_of(r.out)) {
    auto row = nlohmann::json::parse(line);
    const std::string keyword = row["keyword"], value = row["value"], example = row["example"];
    EXPECT_TRUE(has(page, "|  " + keyword + "\n:  " + value + "\n:  " + example + "\n")) << keyword;
  }
  for (const char *warning : {"# WARNINGS", "34463", "/33", "icmp.type", "tcp.dport 53,80", "never reached",
                              "packetmatch", "15 characters", "--Werror", "reads back as a different rule"})
    EXPECT_TRUE(has(page, warning)) << warning;
}
