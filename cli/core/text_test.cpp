#include "core/text.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

TEST(CharCount, CountsCodePoints) {
  EXPECT_EQ(charCount(""), 0u);
  EXPECT_EQ(charCount("abc"), 3u);
  EXPECT_EQ(charCount("\u2318x"), 2u);
  EXPECT_EQ(charCount("\xF0\x9F\x98\x80"), 1u);
}

TEST(AppendPadded, PadsToCharacters) {
  std::string out;
  appendPadded(out, "\u00e9", 3);
  EXPECT_EQ(out, "\u00e9  ");
  appendPadded(out, "long", 2);
  EXPECT_EQ(out, "\u00e9  long");
}

TEST(ParseSignedInteger, Accepts) {
  EXPECT_EQ(parseSignedInteger("0"), 0);
  EXPECT_EQ(parseSignedInteger("9"), 9);
  EXPECT_EQ(parseSignedInteger("+3"), 3);
  EXPECT_EQ(parseSignedInteger("-1"), -1);
  EXPECT_EQ(parseSignedInteger("-0"), 0);
  EXPECT_EQ(parseSignedInteger("007"), 7);
  EXPECT_EQ(parseSignedInteger("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(parseSignedInteger("+9223372036854775807"), INT64_MAX);
  EXPECT_EQ(parseSignedInteger("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(parseSignedInteger("00000000000000000000009223372036854775807"), INT64_MAX);
}

TEST(ParseSignedInteger, Rejects) {
  for (const char* text : {"",
                           "+",
                           "-",
                           "3.0",
                           " 3",
                           "3 ",
                           "\t3",
                           "+-3",
                           "-+3",
                           "++3",
                           "--3",
                           "0x10",
                           "1e3",
                           "3a",
                           "a3",
                           "\xD9\xA3",
                           "9223372036854775808",
                           "-9223372036854775809",
                           "+9223372036854775808",
                           "99999999999999999999",
                           "18446744073709551616"}) {
    EXPECT_EQ(parseSignedInteger(text), std::nullopt) << '"' << text << '"';
  }
  EXPECT_EQ(parseSignedInteger(std::string_view("1\0", 2)), std::nullopt);
}

TEST(TrimBlanks, BlanksAroundGoInsideStay) {
  EXPECT_EQ(trimBlanks("  /a b/c \t\r\n"), "/a b/c");
  EXPECT_EQ(trimBlanks("x"), "x");
  EXPECT_EQ(trimBlanks(" \n\t "), "");
  EXPECT_EQ(trimBlanks(""), "");
}

TEST(VisibleControls, PlainTextIsUnchanged) {
  EXPECT_EQ(visibleControls(""), "");
  EXPECT_EQ(visibleControls("Opened /a b/c.go:12 on instance w1\n"),
            "Opened /a b/c.go:12 on instance w1\n");
  // Tab and line feed keep their meaning; other text, accents and CJK too.
  EXPECT_EQ(visibleControls("a\tb\nc \u00e9\u00a0\u4e2d \\x1b"), "a\tb\nc \u00e9\u00a0\u4e2d \\x1b");
}

TEST(VisibleControls, C0AndDelAreWrittenOut) {
  EXPECT_EQ(visibleControls("\x1b[2J\x1b]0;title\x07"), "\\x1b[2J\\x1b]0;title\\x07");
  EXPECT_EQ(visibleControls("fake\rOpened /safe/place"), "fake\\x0dOpened /safe/place");
  EXPECT_EQ(visibleControls(std::string("a\0b", 3)), "a\\x00b");
  EXPECT_EQ(visibleControls("\x01\x08\x0b\x0c\x1f\x7f"), "\\x01\\x08\\x0b\\x0c\\x1f\\x7f");
}

TEST(VisibleControls, C1IsWrittenOut) {
  // U+009B is the one-character CSI; U+0080 and U+009F the ends of the range.
  EXPECT_EQ(visibleControls("x\u009b2Jy"), "x\\u009b2Jy");
  EXPECT_EQ(visibleControls("\u0080\u009f\u00a0"), "\\u0080\\u009f\u00a0");
  // Invalid UTF-8 is left for the terminal to show as it will: only whole C1 characters change.
  EXPECT_EQ(visibleControls("\xc2"), "\xc2");
  EXPECT_EQ(visibleControls("\x9b"), "\x9b");
}

TEST(VisibleControls, WrittenTwiceIsWrittenOnce) {
  std::string once = visibleControls("\x1b[31m\u009bred");
  EXPECT_EQ(visibleControls(once), once);
}

}  // namespace
}  // namespace vorn
