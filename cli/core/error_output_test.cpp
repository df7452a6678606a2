#include "core/error_output.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

TEST(ErrorOutput, EmptyMessagePrintsNothing) {
  CliError error{"", 1};
  error.instances = std::vector<std::string>{"a"};
  error.preface = "table";
  EXPECT_EQ(errorOutput(error, false), "");
  EXPECT_EQ(errorOutput(error, true), "");
}

TEST(ErrorOutput, TextIsPrefixedUnlessItBeginsWithVorn) {
  EXPECT_EQ(errorOutput(usageError("unknown command 'x' (vorn help)"), false),
            "vorn: unknown command 'x' (vorn help)");
  EXPECT_EQ(errorOutput(usageError("vorn instance: missing verb (...)"), false),
            "vorn instance: missing verb (...)");
  EXPECT_EQ(errorOutput(usageError("vornish trouble"), false), "vornish trouble");
  EXPECT_EQ(errorOutput(usageError("Vorn upper"), false), "vorn: Vorn upper");
}

TEST(ErrorOutput, PrefaceComesFirstInTextOnly) {
  CliError error = usageError("vorn x: missing verb (a, b)");
  error.preface = "vorn x \u2014 help";
  EXPECT_EQ(errorOutput(error, false), "vorn x \u2014 help\nvorn x: missing verb (a, b)");
  EXPECT_EQ(errorOutput(error, true), "{\"error\":\"vorn x: missing verb (a, b)\",\"code\":2}");
}

TEST(ErrorOutput, JsonKeysInOrder) {
  EXPECT_EQ(errorOutput(usageError("unknown command 'x' (vorn help)"), true),
            "{\"error\":\"unknown command 'x' (vorn help)\",\"code\":2}");
  CliError error{"boom", 1};
  error.instance = "abc";
  error.instances = std::vector<std::string>{"abc", "abd"};
  EXPECT_EQ(errorOutput(error, true),
            "{\"error\":\"boom\",\"instance\":\"abc\",\"instances\":[\"abc\",\"abd\"],\"code\":1}");
  EXPECT_EQ(errorOutput(error, false), "vorn: boom");
}

TEST(ErrorOutput, EmptyInstanceIsLeftOutButEmptyInstancesIsKept) {
  CliError error{"x", 3};
  error.instance = "";
  error.instances = std::vector<std::string>{};
  EXPECT_EQ(errorOutput(error, true), "{\"error\":\"x\",\"instances\":[],\"code\":3}");
}

TEST(ErrorOutput, JsonEscapesTheMessage) {
  EXPECT_EQ(errorOutput(CliError{"a \"q\"\n\u2014", -1}, true),
            "{\"error\":\"a \\\"q\\\"\\n\u2014\",\"code\":-1}");
}

TEST(ErrorOutput, DefaultCodeIsOne) {
  EXPECT_EQ(CliError{"x"}.code, 1);
}

TEST(FormatTable, PadsEveryCellIncludingTheLast) {
  EXPECT_EQ(formatTable({{"a", "bb"}, {"ccc"}}), "a    bb  \nccc  ");
  EXPECT_EQ(formatTable({}), "");
  EXPECT_EQ(formatTable({{}}), "");
}

TEST(FormatTable, CountsCharactersNotBytes) {
  EXPECT_EQ(formatTable({{"\u2318", "x"}, {"ab", "y"}}), "\u2318   x  \nab  y  ");
  EXPECT_EQ(formatTable({{"\u00e9\u00e9"}, {"abc"}}), "\u00e9\u00e9   \nabc  ");
}

TEST(ErrorOutput, ControlCharactersInTextAreWrittenOut) {
  CliError error{"vorn instance focus [w\x1b[2J]: \x1b]0;t\x07\rOpened /safe/place", 1};
  error.preface = "ID\nw\u009b1A";
  EXPECT_EQ(errorOutput(error, false),
            "ID\nw\\u009b1A\nvorn instance focus [w\\x1b[2J]: \\x1b]0;t\\x07\\x0dOpened /safe/place");
  // JSON carries the text as it came, escaped the JSON way.
  EXPECT_EQ(errorOutput(CliError{"a\x1b", 1}, true), "{\"error\":\"a\\u001b\",\"code\":1}");
}

TEST(FormatTable, ControlCharactersAreWrittenOutBeforeTheWidthsAreCounted) {
  EXPECT_EQ(formatTable({{"ID", "PID"}, {"w\x1b[2J", "1"}}), "ID        PID  \nw\\x1b[2J  1    ");
}

}  // namespace
}  // namespace vorn
