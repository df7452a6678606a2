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

}  // namespace
}  // namespace vorn
