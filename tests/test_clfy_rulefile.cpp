// The rule-file line reader: lines split, every byte judged, rule text and
// result separated, faults placed at their column.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nikerkiog.h"

namespace {

std::vector<nuv_clfy_line> read_all(const std::string &file, std::uint32_t flags = 0) {
  std::vector<nuv_clfy_line> lines;
  nuv_clfy_line line{};
  while (nuv_clfy_next_line(file.data(), file.size(), flags, &line)) lines.push_back(line);
  return lines;
}

nuv_clfy_line only_line(const std::string &file, std::uint32_t flags = 0) {
  auto lines = read_all(file, flags);
  EXPECT_EQ(lines.size(), 1u) << file;
  return lines.empty() ? nuv_clfy_line{} : lines.front();
}

}  // namespace

TEST(ClfyRuleFile, RuleLineGivesTextResultAndColumn) {
  auto line = only_line("  udp.dport 53   =>  30  \n");
  EXPECT_EQ(line.code, NUV_CLFY_LINE_RULE);
  EXPECT_STREQ(line.text, "udp.dport 53");
  EXPECT_EQ(line.column, 3u);
  EXPECT_EQ(line.has_result, 1);
  EXPECT_EQ(line.result, 30);
  EXPECT_EQ(line.number, 1u);
}

TEST(ClfyRuleFile, BlankAndCommentLinesAreEmpty) {
  auto lines = read_all("\n   \t\n# comment => 3\n  # indented\nany => 1");
  ASSERT_EQ(lines.size(), 5u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(lines[i].code, NUV_CLFY_LINE_EMPTY) << i;
  EXPECT_EQ(lines[4].code, NUV_CLFY_LINE_RULE);
  EXPECT_EQ(lines[4].number, 5u);
  EXPECT_STREQ(lines[4].text, "any");
}

TEST(ClfyRuleFile, CarriageReturnBeforeTheLineEndIsTheLineEnd) {
  auto lines = read_all("tcp.dport 80 => 2\r\nudp.dport 53 => 3\r\n");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].code, NUV_CLFY_LINE_RULE);
  EXPECT_EQ(lines[0].length, 17u);
  EXPECT_EQ(lines[1].result, 3);
}

TEST(ClfyRuleFile, CarriageReturnInsideALineIsAControlCharacter) {
  auto line = only_line("tcp.dport\r80 => 2\n");
  EXPECT_EQ(line.code, NUV_CLFY_LINE_E_CONTROL);
  EXPECT_EQ(line.column, 10u);
}

TEST(ClfyRuleFile, NulPaddingAfterTheRulesIsRefused) {
  std::string file = "udp.dport 53 => 5\n" + std::string(512, '\0');
  auto lines = read_all(file);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].code, NUV_CLFY_LINE_RULE);
  EXPECT_EQ(lines[1].code, NUV_CLFY_LINE_E_NUL);
  EXPECT_EQ(lines[1].column, 1u);
  EXPECT_STRNE(lines[1].reason, "");
}

TEST(ClfyRuleFile, NulInsideALineIsRefusedAtItsColumn) {
  auto line = only_line(std::string("udp.dport 53\0garbage => 1\n", 26));
  EXPECT_EQ(line.code, NUV_CLFY_LINE_E_NUL);
  EXPECT_EQ(line.column, 13u);
}

TEST(ClfyRuleFile, CommentLinesAreJudgedToo) {
  EXPECT_EQ(only_line("# \x1b[31m colour\n").code, NUV_CLFY_LINE_E_CONTROL);
  EXPECT_EQ(only_line("# \xc3\x28\n").code, NUV_CLFY_LINE_E_UTF8);
}

TEST(ClfyRuleFile, DeleteAndC1ControlCharactersAreRefused) {
  EXPECT_EQ(only_line("any \x7f => 1\n").code, NUV_CLFY_LINE_E_CONTROL);
  auto c1 = only_line("any \xc2\x85 => 1\n");
  EXPECT_EQ(c1.code, NUV_CLFY_LINE_E_CONTROL);
  EXPECT_EQ(c1.column, 5u);
  EXPECT_EQ(c1.span, 2u);
}

TEST(ClfyRuleFile, Utf8TextIsAcceptedAndBrokenUtf8Refused) {
  EXPECT_EQ(only_line("# caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\n").code, NUV_CLFY_LINE_EMPTY);
  const char *const broken[] = {
      "\xff",             // never a UTF-8 byte
      "\x80",             // continuation without a lead
      "\xc3",             // sequence cut by the line end
      "\xc0\xaf",         // overlong "/"
      "\xe0\x80\xaf",     // overlong, three bytes
      "\xed\xa0\x80",     // surrogate
      "\xf4\x90\x80\x80"  // beyond U+10FFFF
  };
  for (const char *bytes : broken) {
    auto line = only_line(std::string("any ") + bytes + "\n");
    EXPECT_EQ(line.code, NUV_CLFY_LINE_E_UTF8) << bytes;
    EXPECT_EQ(line.column, 5u) << bytes;
  }
}

TEST(ClfyRuleFile, ByteOrderMarkAtTheStartIsRefused) {
  auto lines = read_all("\xef\xbb\xbfudp.dport 53 => 1\nany => 2\n");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].code, NUV_CLFY_LINE_E_BOM);
  EXPECT_EQ(lines[0].column, 1u);
  EXPECT_EQ(lines[0].span, 3u);
  EXPECT_EQ(lines[1].code, NUV_CLFY_LINE_RULE);
}

TEST(ClfyRuleFile, TabsBetweenWordsBecomeSpaces) {
  auto line = only_line("\tudp.dport\t53\t=>\t4\n");
  EXPECT_EQ(line.code, NUV_CLFY_LINE_RULE);
  EXPECT_STREQ(line.text, "udp.dport 53");
  EXPECT_EQ(line.column, 2u);
  nuv_clfy *rule = nullptr;
  ASSERT_EQ(nuv_clfy_parse(line.text, &rule), 0);
  EXPECT_EQ(rule->dports.count, 1u);
  nuv_clfy_free(rule);
}

TEST(ClfyRuleFile, ResultOfAnyLengthIsReadWhole) {
  auto line = only_line("udp.dport 53 => " + std::string(31, '0') + "7\n");
  EXPECT_EQ(line.code, NUV_CLFY_LINE_RULE);
  EXPECT_EQ(line.result, 7);
}

TEST(ClfyRuleFile, ResultBeyond65535IsRefused) {
  auto line = only_line("udp.dport 53 => 65536\n");
  EXPECT_EQ(line.code, NUV_CLFY_LINE_E_RANGE);
  EXPECT_EQ(line.column, 17u);
  EXPECT_EQ(line.span, 5u);
  EXPECT_EQ(only_line("any => 65535").result, 65535);
  EXPECT_EQ(only_line("any => 99999999999999999999").code, NUV_CLFY_LINE_E_RANGE);
}

TEST(ClfyRuleFile, ResultThatIsNoNumberIsRefused) {
  const char *const bad[] = {"any => x", "any => -1", "any => +1", "any => 0x10", "any => 1 2", "any =>"};
  for (const char *text : bad) EXPECT_EQ(only_line(text).code, NUV_CLFY_LINE_E_RESULT) << text;
  EXPECT_EQ(only_line("any => x").column, 8u);
  EXPECT_EQ(only_line("any =>").column, 7u);
}

TEST(ClfyRuleFile, TheLastArrowSplitsTheResult) {
  auto line = only_line("packetmatch a=>b => 9\n");
  EXPECT_STREQ(line.text, "packetmatch a=>b");
  EXPECT_EQ(line.result, 9);
}

TEST(ClfyRuleFile, MissingResultIsZeroOrRefusedWhenNeeded) {
  auto line = only_line("udp.dport 53\n");
  EXPECT_EQ(line.code, NUV_CLFY_LINE_RULE);
  EXPECT_EQ(line.has_result, 0);
  EXPECT_EQ(line.result, 0);
  auto needed = only_line("udp.dport 53\n", NUV_CLFY_LINE_NEED_RESULT);
  EXPECT_EQ(needed.code, NUV_CLFY_LINE_E_NO_RESULT);
  EXPECT_EQ(needed.column, 13u);
}

TEST(ClfyRuleFile, RuleTextBeyond255CharactersIsRefused) {
  auto line = only_line("packetmatch " + std::string(250, 'a') + " => 1\n");
  EXPECT_EQ(line.code, NUV_CLFY_LINE_E_TOO_LONG);
  EXPECT_EQ(line.column, 256u);
  EXPECT_EQ(line.span, 7u);
  EXPECT_EQ(only_line("packetmatch " + std::string(243, 'a')).code, NUV_CLFY_LINE_RULE);
}

TEST(ClfyRuleFile, BytesOnlyJudgesWithoutReadingRules) {
  auto lines = read_all("permit tcp any any => x\n# c\n\x01\n", NUV_CLFY_LINE_BYTES_ONLY);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].code, NUV_CLFY_LINE_RULE);
  EXPECT_STREQ(lines[0].text, "");
  EXPECT_EQ(lines[1].code, NUV_CLFY_LINE_RULE);
  EXPECT_EQ(lines[2].code, NUV_CLFY_LINE_E_CONTROL);
}

TEST(ClfyRuleFile, EmptyFileHasNoLinesAndLastLineNeedsNoLineEnd) {
  EXPECT_TRUE(read_all("").empty());
  auto lines = read_all("any => 1\nany => 2");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].result, 2);
}
