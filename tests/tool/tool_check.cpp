// The check commands: every line of a rule file parsed by the library,
// rejected lines reported with line, column, reason and a caret, the
// normalised forms with --print.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

#include "tool_support.h"

using tooltest::expect_output;
using tooltest::run_tool;

TEST(ToolCheck, ClassifierErrorsOnSeveralLinesWithColumnsAndCarets) {
  expect_output("check-errors", run_tool("check tool/check-errors.rules"), 1);
}

TEST(ToolCheck, PrintedFormsAreRuleTextThatReadsBack) {
  expect_output("check-print", run_tool("check --print tool/check-print.rules"), 0);
}

TEST(ToolCheck, ExampleRuleFileIsClean) {
  auto r = run_tool("check ../../examples/rules.txt");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "../../examples/rules.txt: 10 rule lines, 0 rejected, 0 warnings\n");
}

TEST(ToolCheck, AccessRulesWithErrorsAndTheirOptimisedRecords) {
  expect_output("acl-check-print", run_tool("acl check --print tool/acl-errors.txt"), 1);
}

TEST(ToolCheck, MasqueradeRulesWithErrorsAndADisabledRule) {
  expect_output("masq-check-print", run_tool("masq check --print tool/masq-errors.txt"), 1);
}

TEST(ToolCheck, ForwardRuleIsMadeOfTheAcceptedLinesOnly) {
  // "tcp 80;443" adds port 80 before its fault; the printed rule has no 80.
  expect_output("ip6fw-check-print", run_tool("ip6fw check --print tool/ip6fw-errors.txt"), 1);
}

TEST(ToolCheck, KeepGoingClassifiesWithTheAcceptedLines) {
  expect_output("classify-keep-going",
                run_tool("classify --keep-going tool/check-errors.rules captures/dns_udp.pcap "
                         "captures/802.1ad_QinQ.pcap"),
                1);
}

TEST(ToolCheck, BundledAccessRulesAreAllAcceptedAndPrintAsTheirListedForms) {
  auto r = run_tool("acl check --print access-rules.txt");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, testsupport::read_text_file(testsupport::data_path("access-rules.canonical.txt")));
}

TEST(ToolCheck, JsonHoldsOneObjectPerRuleLineThenTheSummary) {
  auto r = run_tool("check --json --print tool/check-errors.rules");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "");
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(nlohmann::json::parse(lines[0]),
            nlohmann::json::parse(R"({"type":"line","file":"tool/check-errors.rules","line":3,"accepted":true,)"
                                  R"("printed":"udp.dport 53 => 30"})"));
  EXPECT_EQ(nlohmann::json::parse(lines[1]),
            nlohmann::json::parse(R"({"type":"line","file":"tool/check-errors.rules","line":4,"accepted":false,)"
                                  R"("column":1,"length":8,"keyword":"tcp.dprt",)"
                                  R"x("reason":"unknown keyword (did you mean `tcp.dport`?)"})x"));
  EXPECT_EQ(nlohmann::json::parse(lines[7]),
            nlohmann::json::parse(R"({"type":"summary","files":1,"lines":7,"accepted":2,"rejected":5,)"
                                  R"("warnings":0,"unreadable":[]})"));
}

TEST(ToolCheck, OverlongClassifierLineIsRejectedAtItsEnd) {
  std::string path = tooltest::build_path("long.rules");
  std::ofstream(path) << "udp.dport 53 packetmatch " << std::string(240, 'a') << "\n";
  auto r = run_tool("check " + path);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find(path + ":1:"), std::string::npos) << r.err;
}
