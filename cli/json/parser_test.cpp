// JSON::parse: structure, strings, numbers, nesting, error messages and offsets.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <string>

#include "json/json.h"
#include "json/test_json.h"

namespace vorn {
namespace {

std::string str(std::string_view text) {
  JSON v = JSON::parse(text);
  EXPECT_NE(v.string(), std::nullopt) << text;
  return v.string() ? std::string(*v.string()) : std::string();
}

TEST(JSONParse, EmptyAndBlankInput) {
  EXPECT_EQ(parseError(""), "unexpected end at offset 0");
  EXPECT_EQ(parseError("   "), "unexpected end at offset 3");
  EXPECT_EQ(parseError(" \t\r\n"), "unexpected end at offset 4");
}

TEST(JSONParse, ObjectWithSpacesEverywhere) {
  JSON v = JSON::parse(" {\"a\" : [1, 2.5e3, true, null]} ");
  ASSERT_NE(v.members(), nullptr);
  ASSERT_EQ(v.members()->size(), 1u);
  EXPECT_EQ(v.serialized(0), "{\"a\":[1,2500,true,null]}");
  EXPECT_EQ(JSON::parse("\t\r\n[ 1 ,\n2 ]\r\n"), JSON::array({1, 2}));
}

TEST(JSONParse, DuplicateKeysAreKept) {
  JSON v = JSON::parse("{\"a\":1,\"a\":2}");
  ASSERT_NE(v.members(), nullptr);
  EXPECT_EQ(v.members()->size(), 2u);
  EXPECT_EQ(*v.get("a"), JSON(2));
  EXPECT_EQ(v.serialized(0), "{\"a\":1,\"a\":2}");
}

TEST(JSONParse, ScalarsAtTopLevel) {
  EXPECT_EQ(JSON::parse("true"), JSON(true));
  EXPECT_EQ(JSON::parse("false"), JSON(false));
  EXPECT_TRUE(JSON::parse("null").isNull());
  EXPECT_EQ(JSON::parse("12"), JSON(12));
  EXPECT_EQ(JSON::parse("\"s\""), JSON("s"));
  EXPECT_EQ(JSON::parse("[]"), JSON::array());
  EXPECT_EQ(JSON::parse("{}"), JSON::object());
  EXPECT_EQ(JSON::parse("[ ]"), JSON::array());
  EXPECT_EQ(JSON::parse("{ }"), JSON::object());
}

TEST(JSONParse, NestedContainersKeepTheirOwnElements) {
  JSON want = JSON::array({JSON::array({1, 2}), JSON::array({3, JSON::array({4, 5})}),
                           JSON::object({{"a", JSON::array({6})}, {"b", JSON::object({{"c", 7}})}}),
                           8, JSON::array(), JSON::object()});
  EXPECT_EQ(JSON::parse("[[1,2],[3,[4,5]],{\"a\":[6],\"b\":{\"c\":7}},8,[],{}]"), want);

  std::string big = "[";
  JSON::Array elements;
  for (int i = 0; i < 10000; ++i) {
    big += (i ? ",{\"k\":[" : "{\"k\":[") + std::to_string(i) + "]}";
    elements.push_back(JSON::object({{"k", JSON::array({i})}}));
  }
  EXPECT_EQ(JSON::parse(big + "]"), JSON::array(std::move(elements)));
}

TEST(JSONParse, ArrayErrors) {
  EXPECT_EQ(parseError("[1 2]"), "expected , or ] at offset 3");
  EXPECT_EQ(parseError("[1,"), "unexpected end at offset 3");
  EXPECT_EQ(parseError("[1"), "unterminated array at offset 2");
  EXPECT_EQ(parseError("[1 "), "unterminated array at offset 3");
  EXPECT_EQ(parseError("["), "unexpected end at offset 1");
  EXPECT_EQ(parseError("[1,]"), "bad number at offset 3");
  EXPECT_EQ(parseError("[,1]"), "bad number at offset 1");
  EXPECT_EQ(parseError("[1}"), "expected , or ] at offset 2");
  EXPECT_EQ(parseError("[1:2]"), "expected , or ] at offset 2");
}

TEST(JSONParse, ObjectErrors) {
  EXPECT_EQ(parseError("{\"a\" 1}"), "expected : at offset 5");
  EXPECT_EQ(parseError("{1:2}"), "expected a key at offset 1");
  EXPECT_EQ(parseError("{\"a\":1,}"), "expected a key at offset 7");
  EXPECT_EQ(parseError("{"), "unterminated object at offset 1");
  EXPECT_EQ(parseError("{ "), "unterminated object at offset 2");
  EXPECT_EQ(parseError("{\"a\":1,"), "unterminated object at offset 7");
  EXPECT_EQ(parseError("{\"a\":1"), "unterminated object at offset 6");
  EXPECT_EQ(parseError("{\"a\""), "expected : at offset 4");
  EXPECT_EQ(parseError("{\"a\":"), "unexpected end at offset 5");
  EXPECT_EQ(parseError("{\"a\":1]"), "expected , or } at offset 6");
  EXPECT_EQ(parseError("{\"a\":1 \"b\":2}"), "expected , or } at offset 7");
  EXPECT_EQ(parseError("{\"a"), "unterminated string at offset 3");
  EXPECT_EQ(parseError("{'a':1}"), "expected a key at offset 1");
}

TEST(JSONParse, Literals) {
  EXPECT_EQ(parseError("nul"), "bad literal at offset 0");
  EXPECT_EQ(parseError("tru"), "bad literal at offset 0");
  EXPECT_EQ(parseError("[fals]"), "bad literal at offset 1");
  EXPECT_EQ(parseError("True"), "bad number at offset 0");
  EXPECT_EQ(parseError("true false"), "unexpected trailing data at offset 5");
  EXPECT_EQ(parseError("trueX"), "unexpected trailing data at offset 4");
  EXPECT_EQ(parseError("[trueX]"), "expected , or ] at offset 5");
  EXPECT_EQ(parseError("nullnull"), "unexpected trailing data at offset 4");
}

TEST(JSONParse, TrailingData) {
  EXPECT_EQ(parseError("{} x"), "unexpected trailing data at offset 3");
  EXPECT_EQ(parseError("[]]"), "unexpected trailing data at offset 2");
  EXPECT_EQ(parseError("1 2"), "unexpected trailing data at offset 2");
  EXPECT_EQ(parseError(std::string_view("1\0", 2)), "unexpected trailing data at offset 1");
  EXPECT_EQ(parseError("\"a\"\x0c"), "unexpected trailing data at offset 3");
}

TEST(JSONParse, Escapes) {
  EXPECT_EQ(str("\"\\ud83d\\ude00\""), "\xF0\x9F\x98\x80");
  EXPECT_EQ(str("\"\\ud83d\""), kFFFD);
  EXPECT_EQ(str("\"\\u00e9\""), "\xC3\xA9");
  EXPECT_EQ(str("\"\\u00E9\""), "\xC3\xA9");
  EXPECT_EQ(str("\"\\x\""), "x");
  EXPECT_EQ(str("\"\\q\\/\\\\\\\"\""), "q/\\\"");
  EXPECT_EQ(str("\"\\b\\f\\n\\r\\t\""), "\b\f\n\r\t");
  EXPECT_EQ(str("\"\\u0000\""), std::string(1, '\0'));
  EXPECT_EQ(str("\"\\u0041\\u20ac\""), "A\xE2\x82\xAC");
  EXPECT_EQ(str("\"\\uffff\""), "\xEF\xBF\xBF");
  EXPECT_EQ(str("\"\\udbff\\udfff\""), "\xF4\x8F\xBF\xBF");
  EXPECT_EQ(parseError("\"\\u12\""), "bad \\u escape at offset 3");
  EXPECT_EQ(parseError("\"\\u12x4\""), "bad \\u escape at offset 5");
  EXPECT_EQ(parseError("\"\\u"), "bad \\u escape at offset 3");
  EXPECT_EQ(parseError("\"\\ud83d\\u12\""), "bad \\u escape at offset 9");
  EXPECT_EQ(parseError("\"\\"), "unterminated string at offset 2");
  EXPECT_EQ(parseError("\"abc"), "unterminated string at offset 4");
  EXPECT_EQ(parseError("\"abc\\\""), "unterminated string at offset 6");
}

TEST(JSONParse, LoneAndMismatchedSurrogates) {
  EXPECT_EQ(str("\"\\ude00\""), kFFFD);                 // lone low
  EXPECT_EQ(str("\"\\ud83dx\""), kFFFD + "x");          // high, then a plain byte
  EXPECT_EQ(str("\"\\ud83d\\n\""), kFFFD + "\n");       // high, then another escape
  EXPECT_EQ(str("\"\\ude00\\ud83d\""), kFFFD + kFFFD);  // reversed pair
  EXPECT_EQ(str("\"\\ud800\\ud800\""), kFFFD + kFFFD);  // two highs
  EXPECT_EQ(str("\"\\ud800\\u0041\""), kFFFD + "A");    // high, then a plain \u
  // A high surrogate followed by a full pair: the first is lone, the pair still joins.
  EXPECT_EQ(str("\"\\ud800\\ud83d\\ude00\""), kFFFD + "\xF0\x9F\x98\x80");
}

TEST(JSONParse, RawBytesInStrings) {
  EXPECT_EQ(str("\"a\tb\nc\x01\""), "a\tb\nc\x01");
  EXPECT_EQ(str(std::string_view("\"\0\"", 3)), std::string(1, '\0'));
  EXPECT_EQ(str("\"\xC3\xA9\""), "\xC3\xA9");
  EXPECT_EQ(str("\"\xFF\""), kFFFD);
  EXPECT_EQ(str("\"a\xFF\xFE"
                "b\""),
            "a" + kFFFD + kFFFD + "b");
  EXPECT_EQ(str("\"\xE2\x82\""), kFFFD);
  EXPECT_EQ(str("\"\xED\xA0\x80\""), kFFFD + kFFFD + kFFFD);
  EXPECT_EQ(str("\"\xC0\xAF\""), kFFFD + kFFFD);
  // An escaped byte counts as itself when the whole string is decoded.
  EXPECT_EQ(str("\"\xC3\\\xA9\""), "\xC3\xA9");
  EXPECT_EQ(str("\"\\\xF0\x9F\x8C\x80\""), "\xF0\x9F\x8C\x80");
  // Long strings go through the run-copying path.
  std::string longText(1000, 'x');
  longText[500] = '\xFF';
  EXPECT_EQ(str("\"" + longText + "\""), std::string(500, 'x') + kFFFD + std::string(499, 'x'));
}

TEST(JSONParse, KeysAreDecodedLikeStrings) {
  JSON v = JSON::parse("{\"\\u0061\\n\":1,\"\xFF\":2}");
  ASSERT_NE(v.members(), nullptr);
  EXPECT_EQ(v.members()->at(0).first, "a\n");
  EXPECT_EQ(v.members()->at(1).first, kFFFD);
}

TEST(JSONParse, Numbers) {
  EXPECT_EQ(parseError("-"), "bad number at offset 1");
  EXPECT_EQ(JSON::parse("+5"), JSON(5));
  EXPECT_EQ(parseError("+"), "bad number at offset 1");
  EXPECT_EQ(parseError("+-1"), "bad number at offset 3");
  EXPECT_EQ(parseError("++1"), "bad number at offset 3");
  EXPECT_EQ(parseError("-+1"), "bad number at offset 3");
  EXPECT_EQ(parseError("1-2"), "bad number at offset 3");
  EXPECT_EQ(parseError("--1"), "bad number at offset 3");
  EXPECT_EQ(parseError("1e"), "bad number at offset 2");
  EXPECT_EQ(parseError("1e+"), "bad number at offset 3");
  EXPECT_EQ(parseError("e5"), "bad number at offset 2");
  EXPECT_EQ(parseError("."), "bad number at offset 1");
  EXPECT_EQ(parseError("1.2.3"), "bad number at offset 5");
  EXPECT_EQ(parseError("[1.2.3]"), "bad number at offset 6");
  EXPECT_EQ(parseError("x"), "bad number at offset 0");
  EXPECT_EQ(parseError("]"), "bad number at offset 0");
  EXPECT_EQ(parseError("[0x10]"), "expected , or ] at offset 2");
  EXPECT_EQ(parseError("Infinity"), "bad number at offset 0");
  EXPECT_EQ(parseError("-Infinity"), "bad number at offset 1");
  EXPECT_EQ(parseError("NaN"), "bad number at offset 0");
  EXPECT_EQ(JSON::parse(".5"), JSON(0.5));
  EXPECT_EQ(JSON::parse("01"), JSON(1));
  EXPECT_EQ(JSON::parse("1."), JSON(1));
  EXPECT_EQ(JSON::parse("-.5"), JSON(-0.5));
  EXPECT_EQ(JSON::parse("+.5e1"), JSON(5));
  EXPECT_EQ(JSON::parse("1E+2"), JSON(100));
  EXPECT_EQ(JSON::parse("1e-2"), JSON(0.01));
  EXPECT_EQ(JSON::parse("2.5e3"), JSON(2500));
  EXPECT_EQ(JSON::parse("-12"), JSON(-12));
  EXPECT_EQ(JSON::parse("0"), JSON(0));
  EXPECT_EQ(JSON::parse("123456789012345678"), JSON(123456789012345678.0));
  EXPECT_EQ(JSON::parse("12345678901234567890"), JSON(12345678901234567890.0));
  EXPECT_EQ(JSON::parse("0.1"), JSON(0.1));
  double negativeZero = *JSON::parse("-0").number();
  EXPECT_EQ(negativeZero, 0.0);
  EXPECT_TRUE(std::signbit(negativeZero));
}

TEST(JSONParse, NumbersBeyondTheDoubleRange) {
  EXPECT_EQ(JSON::parse("1e400").number(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(JSON::parse("-1e400").number(), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(JSON::parse("+1e400").number(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(JSON::parse("180.0e306").number(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(JSON::parse("0.001e-322").number(), 0.0);
  EXPECT_EQ(JSON::parse("1e-400").number(), 0.0);
  EXPECT_TRUE(std::signbit(*JSON::parse("-1e-400").number()));
  EXPECT_EQ(JSON::parse("5e-324").number(), 5e-324);
  EXPECT_EQ(JSON::parse("1e400").serialized(0), "null");
  EXPECT_EQ(JSON::parse("1e99999999999999999999").number(),
            std::numeric_limits<double>::infinity());
  EXPECT_EQ(JSON::parse("1e-99999999999999999999").number(), 0.0);
}

TEST(JSONParse, IntegerFastPathAgreesWithGeneralConversion) {
  std::mt19937_64 rng(99);
  for (int i = 0; i < 20000; ++i) {
    int digits = static_cast<int>(rng() % 18) + 1;
    std::string text;
    if (rng() & 1) text += '-';
    for (int k = 0; k < digits; ++k)
      text += static_cast<char>('0' + rng() % 10);
    double expected = std::strtod(text.c_str(), nullptr);
    std::optional<double> got = JSON::parse(text).number();
    ASSERT_TRUE(got.has_value());
    ASSERT_EQ(*got, expected) << text;
    ASSERT_EQ(std::signbit(*got), std::signbit(expected)) << text;
  }
}

std::string nested(int depth, std::string_view inner) {
  return std::string(depth, '[') + std::string(inner) + std::string(depth, ']');
}

TEST(JSONParse, NestingLimit) {
  EXPECT_NO_THROW(JSON::parse(nested(511, "1")));
  EXPECT_EQ(parseError(nested(512, "1")), "nesting too deep at offset 512");
  EXPECT_NO_THROW(JSON::parse(nested(512, "")));
  EXPECT_EQ(parseError(nested(513, "")), "nesting too deep at offset 512");

  std::string objects;
  for (int i = 0; i < 511; ++i)
    objects += "{\"a\":";
  EXPECT_NO_THROW(JSON::parse(objects + "1" + std::string(511, '}')));
  EXPECT_EQ(parseError(objects + "{\"a\":1}" + std::string(511, '}')),
            "nesting too deep at offset " + std::to_string(511 * 5 + 5));
}

TEST(JSONParse, HostileNestingFailsCleanly) {
  EXPECT_EQ(parseError(std::string(100000, '[')), "nesting too deep at offset 512");
  EXPECT_EQ(parseError(nested(100000, "")), "nesting too deep at offset 512");
  std::string mixed;
  for (int i = 0; i < 50000; ++i)
    mixed += "[{\"\":";
  EXPECT_EQ(parseError(mixed), "nesting too deep at offset " + std::to_string(256 * 5));
}

TEST(JSONParse, DeepValueSerializesAndCompares) {
  JSON v = JSON::parse(nested(511, "\"x\""));
  EXPECT_EQ(v.serialized(0), nested(511, "\"x\""));
  EXPECT_EQ(JSON::parse(v.serialized(2)), v);
}

TEST(JSONParse, ErrorIsEquatableByMessage) {
  try {
    JSON::parse("[");
    FAIL() << "no error";
  } catch (const JSONParseError& e) {
    EXPECT_EQ(e, JSONParseError{"unexpected end at offset 1"});
    EXPECT_NE(e, JSONParseError{"unexpected end at offset 2"});
  }
}

TEST(JSONParse, RoundTripThroughBothIndents) {
  std::string text =
      "{\"name\":\"vorn \\\"q\\\" \\u001f\xC3\xA9\",\"list\":[1,-2.5,1e-07,1e+300,true,false,"
      "null,[],{},[[]],{\"x\":{}}],\"dup\":1,\"dup\":2,\"\":\"\"}";
  JSON v = JSON::parse(text);
  EXPECT_EQ(v.serialized(0), text);
  EXPECT_EQ(JSON::parse(v.serialized(2)), v);
  EXPECT_EQ(JSON::parse(v.serialized(4)).serialized(0), text);
}

}  // namespace
}  // namespace vorn
