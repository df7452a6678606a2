// Serializing JSON values: layout at each indent, quoting and the repair of ill-formed UTF-8.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <string>

#include "json/json.h"
#include "json/test_json.h"

namespace vorn {
namespace {

TEST(JSONSerialize, Scalars) {
  EXPECT_EQ(JSON().serialized(0), "null");
  EXPECT_EQ(JSON(true).serialized(2), "true");
  EXPECT_EQ(JSON(false).serialized(0), "false");
  EXPECT_EQ(JSON(42).serialized(2), "42");
  EXPECT_EQ(JSON("a\"b").serialized(2), "\"a\\\"b\"");
}

TEST(JSONSerialize, EmptyContainersAtEveryIndent) {
  for (int indent : {-1, 0, 1, 2, 4}) {
    EXPECT_EQ(JSON::array().serialized(indent), "[]");
    EXPECT_EQ(JSON::object().serialized(indent), "{}");
  }
  EXPECT_EQ(arr({JSON::object()}).serialized(2), "[\n  {}\n]");
  EXPECT_EQ(arr({JSON::object()}).serialized(0), "[{}]");
  EXPECT_EQ(obj({{"a", JSON::array()}}).serialized(2), "{\n  \"a\": []\n}");
}

TEST(JSONSerialize, IndentTwoAndZero) {
  JSON v = obj({{"a", 1}, {"b", arr({true})}});
  EXPECT_EQ(v.serialized(2), "{\n  \"a\": 1,\n  \"b\": [\n    true\n  ]\n}");
  EXPECT_EQ(v.serialized(0), "{\"a\":1,\"b\":[true]}");
  EXPECT_EQ(v.serialized(-3), "{\"a\":1,\"b\":[true]}");
  EXPECT_EQ(v.serialized(1), "{\n \"a\": 1,\n \"b\": [\n  true\n ]\n}");
}

TEST(JSONSerialize, NestedIndentThree) {
  JSON v = arr({1, obj({{"k", arr({JSON(), "s"})}}), 2.5});
  EXPECT_EQ(v.serialized(3),
            "[\n   1,\n   {\n      \"k\": [\n         null,\n         \"s\"\n      ]\n   },\n"
            "   2.5\n]");
}

TEST(JSONSerialize, WriteAppendsAtAGivenDepth) {
  std::string out = "x=";
  arr({1}).write(out, 2, 1);
  EXPECT_EQ(out, "x=[\n    1\n  ]");
}

TEST(JSONSerialize, NonFiniteNumbersBecomeNull) {
  JSON v = arr({std::nan(""), std::numeric_limits<double>::infinity(),
                -std::numeric_limits<double>::infinity()});
  EXPECT_EQ(v.serialized(0), "[null,null,null]");
}

TEST(JSONSerialize, KeysAreQuoted) {
  EXPECT_EQ(obj({{"a\nb", 1}}).serialized(0), "{\"a\\nb\":1}");
}

TEST(JSONQuote, EscapeTable) {
  EXPECT_EQ(JSON::quote(""), "\"\"");
  EXPECT_EQ(JSON::quote("\""), "\"\\\"\"");
  EXPECT_EQ(JSON::quote("\\"), "\"\\\\\"");
  EXPECT_EQ(JSON::quote("\b\t\n\f\r"), "\"\\b\\t\\n\\f\\r\"");
  EXPECT_EQ(JSON::quote("\x1b"), "\"\\u001b\"");
  EXPECT_EQ(JSON::quote("\x1f"), "\"\\u001f\"");
  EXPECT_EQ(JSON::quote("\x01"), "\"\\u0001\"");
  EXPECT_EQ(JSON::quote(std::string_view("\0", 1)), "\"\\u0000\"");
  EXPECT_EQ(JSON::quote("\x0b"), "\"\\u000b\"");
  EXPECT_EQ(JSON::quote("a/b"), "\"a/b\"");
  EXPECT_EQ(JSON::quote("\x7f"), "\"\x7f\"");
  EXPECT_EQ(JSON::quote("\xC3\xA9"), "\"\xC3\xA9\"");
  EXPECT_EQ(JSON::quote("\xF0\x9F\x98\x80"), "\"\xF0\x9F\x98\x80\"");
  EXPECT_EQ(JSON::quote(" ~"), "\" ~\"");
}

TEST(JSONQuote, EveryControlByte) {
  for (int c = 0; c < 0x20; ++c) {
    std::string expected;
    switch (c) {
      case 8:
        expected = "\\b";
        break;
      case 9:
        expected = "\\t";
        break;
      case 10:
        expected = "\\n";
        break;
      case 12:
        expected = "\\f";
        break;
      case 13:
        expected = "\\r";
        break;
      default: {
        char buf[8];
        std::snprintf(buf, sizeof buf, "\\u%04x", c);
        expected = buf;
      }
    }
    EXPECT_EQ(JSON::quote(std::string(1, static_cast<char>(c))),
              std::string(1, '"').append(expected).append(1, '"'))
        << c;
  }
  for (int c = 0x20; c < 0x80; ++c) {
    if (c == '"' || c == '\\') continue;
    const char expected[] = {'"', static_cast<char>(c), '"', '\0'};
    EXPECT_EQ(JSON::quote(std::string(1, static_cast<char>(c))), expected) << c;
  }
}

TEST(JSONQuote, IllFormedUTF8IsReplaced) {
  EXPECT_EQ(JSON::quote("a\xFF"
                        "b"),
            "\"a\xEF\xBF\xBD"
            "b\"");
  EXPECT_EQ(JSON::quote("\xE2\x82"), "\"\xEF\xBF\xBD\"");
}

// A byte-at-a-time quote to check the run-copying one against.
std::string referenceQuote(std::string_view s) {
  std::string v = toValidUTF8(s);
  std::string out = "\"";
  for (unsigned char c : v) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

TEST(JSONQuote, MatchesByteWiseReferenceOnRandomStrings) {
  std::mt19937 rng(7);
  const std::string pieces[] = {"a",
                                "bcdefghij",
                                "\"",
                                "\\",
                                "\n",
                                "\x01",
                                "\x7f",
                                "/",
                                "\xC3\xA9",
                                "\xE2\x82\xAC",
                                "\xF0\x9F\x98\x80",
                                "\xFF",
                                "\xC3",
                                "\xED\xA0\x80",
                                " "};
  for (int i = 0; i < 3000; ++i) {
    std::string s;
    int n = static_cast<int>(rng() % 40);
    for (int k = 0; k < n; ++k)
      s += pieces[rng() % std::size(pieces)];
    ASSERT_EQ(JSON::quote(s), referenceQuote(s)) << i;
  }
}

TEST(JSONUTF8, ValidTextIsUnchanged) {
  for (std::string s : {"", "abc", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xEF\xBF\xBF",
                        "\xF4\x8F\xBF\xBF", "\xED\x9F\xBF", "\x7f"}) {
    EXPECT_TRUE(isValidUTF8(s)) << s;
    EXPECT_EQ(toValidUTF8(s), s);
  }
}

TEST(JSONUTF8, EachMaximalIllFormedSubpartBecomesOneReplacement) {
  const std::string r = "\xEF\xBF\xBD";
  struct Case {
    std::string in, out;
  } cases[] = {
      {"\x80", r},
      {"\xBF", r},
      {"\xC0\xAF", r + r},  // overlong lead bytes are never valid
      {"\xC1\xBF", r + r},
      {"\xE0\x80\x80", r + r + r},          // overlong three-byte form
      {"\xED\xA0\x80", r + r + r},          // a surrogate
      {"\xF4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
      {"\xF5\x80", r + r},
      {"\xFF", r},
      {"\xE2\x82", r},      // truncated: one replacement
      {"\xF0\x9F\x98", r},  // truncated four-byte form
      {"\xE2\x82"
       "a",
       r + "a"},
      {"a\xC3", "a" + r},
      {"\xF0\x9F\x98\x80\xF0\x9F", "\xF0\x9F\x98\x80" + r},
      {"\xC3\xC3\xA9", r + "\xC3\xA9"},
      {"12345678\xFF"
       "12345678",
       "12345678" + r + "12345678"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(isValidUTF8(c.in)) << c.in;
    EXPECT_EQ(toValidUTF8(c.in), c.out) << c.in;
  }
}

}  // namespace
}  // namespace vorn
