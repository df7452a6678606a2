// The JSON value: accessors, equality, merging, serialization, quoting and number text.
#include "json/json.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

namespace vorn {
namespace {

JSON obj(JSON::Object o) {
  return JSON::object(std::move(o));
}
JSON arr(JSON::Array a) {
  return JSON::array(std::move(a));
}

TEST(JSONValue, KindsOfEachCase) {
  EXPECT_EQ(JSON().kind(), JSON::Kind::null);
  EXPECT_EQ(JSON(nullptr).kind(), JSON::Kind::null);
  EXPECT_EQ(JSON(true).kind(), JSON::Kind::boolean);
  EXPECT_EQ(JSON(1.5).kind(), JSON::Kind::number);
  EXPECT_EQ(JSON(7).kind(), JSON::Kind::number);
  EXPECT_EQ(JSON(int64_t{-7}).kind(), JSON::Kind::number);
  EXPECT_EQ(JSON("x").kind(), JSON::Kind::string);
  EXPECT_EQ(JSON(std::string("x")).kind(), JSON::Kind::string);
  EXPECT_EQ(JSON(std::string_view("x")).kind(), JSON::Kind::string);
  EXPECT_EQ(JSON::array().kind(), JSON::Kind::array);
  EXPECT_EQ(JSON::object().kind(), JSON::Kind::object);
  EXPECT_TRUE(JSON().isNull());
  EXPECT_FALSE(JSON(false).isNull());
}

TEST(JSONValue, SubscriptTakesLastDuplicateAndSerializationKeepsBoth) {
  JSON v = obj({{"a", 1}, {"b", 2}, {"a", 3}});
  ASSERT_NE(v.get("a"), nullptr);
  EXPECT_EQ(*v.get("a"), JSON(3));
  EXPECT_EQ(*v.get("b"), JSON(2));
  EXPECT_EQ(v.get("c"), nullptr);
  EXPECT_EQ(v.serialized(0), "{\"a\":1,\"b\":2,\"a\":3}");
}

TEST(JSONValue, SubscriptOnOtherCasesIsAbsent) {
  EXPECT_EQ(JSON().get("a"), nullptr);
  EXPECT_EQ(JSON("a").get("a"), nullptr);
  EXPECT_EQ(arr({"a"}).get("a"), nullptr);
  EXPECT_EQ(JSON(1).get("a"), nullptr);
}

TEST(JSONValue, KeysCompareByBytes) {
  JSON v = obj({{"\xC3\xA9", 1}, {"e\xCC\x81", 2}});
  EXPECT_EQ(*v.get("\xC3\xA9"), JSON(1));
  EXPECT_EQ(*v.get("e\xCC\x81"), JSON(2));
  EXPECT_EQ(v.get("e"), nullptr);
  EXPECT_EQ(v.get(""), nullptr);
  EXPECT_EQ(*obj({{"", 5}}).get(""), JSON(5));
}

TEST(JSONValue, ErrorLooksAtTheLastErrorPairOnly) {
  EXPECT_EQ(obj({{"error", 5}}).error(), std::nullopt);
  EXPECT_EQ(obj({{"error", "x"}, {"error", 5}}).error(), std::nullopt);
  EXPECT_EQ(obj({{"error", 5}, {"error", "x"}}).error(), "x");
  EXPECT_EQ(obj({{"error", "boom"}, {"other", 1}}).error(), "boom");
  EXPECT_EQ(obj({}).error(), std::nullopt);
  EXPECT_EQ(JSON("error").error(), std::nullopt);
  EXPECT_EQ(arr({obj({{"error", "x"}})}).error(), std::nullopt);
}

TEST(JSONValue, IntegerAccessor) {
  EXPECT_EQ(JSON(2.0).integer(), 2);
  EXPECT_EQ(JSON(2.5).integer(), std::nullopt);
  EXPECT_EQ(JSON(9e15).integer(), std::nullopt);
  EXPECT_EQ(JSON(-9e15).integer(), std::nullopt);
  EXPECT_EQ(JSON(8e15).integer(), int64_t{8000000000000000});
  EXPECT_EQ(JSON(-8e15).integer(), int64_t{-8000000000000000});
  EXPECT_EQ(JSON(8999999999999999.0).integer(), int64_t{8999999999999999});
  EXPECT_EQ(JSON(-0.0).integer(), 0);
  EXPECT_EQ(JSON(1e300).integer(), std::nullopt);
  EXPECT_EQ(JSON(std::nan("")).integer(), std::nullopt);
  EXPECT_EQ(JSON(std::numeric_limits<double>::infinity()).integer(), std::nullopt);
  EXPECT_EQ(JSON(-std::numeric_limits<double>::infinity()).integer(), std::nullopt);
  EXPECT_EQ(JSON(1e-300).integer(), std::nullopt);
  EXPECT_EQ(JSON("2").integer(), std::nullopt);
  EXPECT_EQ(JSON(true).integer(), std::nullopt);
  EXPECT_EQ(JSON().integer(), std::nullopt);
}

TEST(JSONValue, OtherAccessorsAnswerAbsentForTheWrongCase) {
  EXPECT_TRUE(obj({{"a", 1}}).list().empty());
  EXPECT_TRUE(JSON("x").list().empty());
  EXPECT_EQ(arr({1, 2}).list().size(), 2u);
  EXPECT_FALSE(JSON(1).isTrue());
  EXPECT_FALSE(JSON("true").isTrue());
  EXPECT_FALSE(JSON().isTrue());
  EXPECT_FALSE(JSON(false).isTrue());
  EXPECT_TRUE(JSON(true).isTrue());
  EXPECT_EQ(JSON("5").number(), std::nullopt);
  EXPECT_EQ(JSON(true).number(), std::nullopt);
  EXPECT_EQ(JSON(2.5).number(), 2.5);
  EXPECT_EQ(JSON(5).string(), nullptr);
  EXPECT_EQ(JSON().string(), nullptr);
  ASSERT_NE(JSON("hi").string(), nullptr);
  EXPECT_EQ(*JSON("hi").string(), "hi");
  EXPECT_EQ(arr({}).members(), nullptr);
  ASSERT_NE(obj({{"k", 1}}).members(), nullptr);
  EXPECT_EQ(obj({{"k", 1}}).members()->at(0).first, "k");
}

TEST(JSONValue, MutableAccessBuildsInPlace) {
  JSON a = JSON::array();
  ASSERT_NE(a.mutableArray(), nullptr);
  a.mutableArray()->push_back(1);
  a.mutableArray()->push_back("two");
  EXPECT_EQ(a.serialized(0), "[1,\"two\"]");
  EXPECT_EQ(a.mutableObject(), nullptr);

  JSON o = JSON::object();
  ASSERT_NE(o.mutableObject(), nullptr);
  o.mutableObject()->emplace_back("k", a);
  EXPECT_EQ(o.serialized(0), "{\"k\":[1,\"two\"]}");
  EXPECT_EQ(o.mutableArray(), nullptr);
  EXPECT_EQ(JSON().mutableArray(), nullptr);
}

TEST(JSONValue, CopiesAreIndependent) {
  JSON a = arr({1});
  JSON b = a;
  b.mutableArray()->emplace_back(2);
  EXPECT_EQ(a.list().size(), 1u);
  EXPECT_EQ(b.list().size(), 2u);
}

TEST(JSONEquality, NumbersUseFloatingPointEquality) {
  double nan = std::nan("");
  JSON n(nan);
  EXPECT_FALSE(n == n);
  EXPECT_TRUE(n != n);
  EXPECT_FALSE(arr({nan}) == arr({nan}));
  EXPECT_EQ(JSON(0.0), JSON(-0.0));
  EXPECT_EQ(JSON(1), JSON(1.0));
  EXPECT_NE(JSON(1), JSON(1.5));
}

TEST(JSONEquality, CasesMustMatch) {
  EXPECT_NE(JSON(1), JSON(true));
  EXPECT_NE(JSON(0), JSON(false));
  EXPECT_NE(JSON("1"), JSON(1));
  EXPECT_NE(JSON(), JSON(false));
  EXPECT_NE(JSON::array(), JSON::object());
  EXPECT_EQ(JSON(), JSON(nullptr));
  EXPECT_EQ(JSON(true), JSON(true));
  EXPECT_NE(JSON(true), JSON(false));
  EXPECT_EQ(JSON("a"), JSON("a"));
  EXPECT_NE(JSON("a"), JSON("b"));
}

TEST(JSONEquality, ContainersCompareInOrder) {
  EXPECT_EQ(arr({1, "a", JSON()}), arr({1, "a", JSON()}));
  EXPECT_NE(arr({1, 2}), arr({2, 1}));
  EXPECT_NE(arr({1}), arr({1, 1}));
  EXPECT_EQ(obj({{"a", 1}, {"b", 2}}), obj({{"a", 1}, {"b", 2}}));
  EXPECT_NE(obj({{"a", 1}, {"b", 2}}), obj({{"b", 2}, {"a", 1}}));
  EXPECT_NE(obj({{"a", 1}}), obj({{"a", 1}, {"a", 1}}));
  EXPECT_NE(obj({{"a", 1}}), obj({{"a", 2}}));
  EXPECT_NE(obj({{"a", 1}}), obj({{"b", 1}}));
}

TEST(JSONMerging, PrependKeepsExistingValueAndMovesItFirst) {
  JSON x("X"), y("Y");
  EXPECT_EQ(obj({{"a", 1}, {"instance", y}}).merging({{"instance", x}}, true),
            obj({{"instance", y}, {"a", 1}}));
  EXPECT_EQ(obj({{"a", 1}}).merging({{"instance", x}}, true), obj({{"instance", x}, {"a", 1}}));
}

TEST(JSONMerging, AppendReplacesValueInPlace) {
  JSON x("X"), y("Y");
  EXPECT_EQ(obj({{"a", 1}, {"instance", y}}).merging({{"instance", x}}, false),
            obj({{"a", 1}, {"instance", x}}));
  EXPECT_EQ(obj({{"instance", y}, {"a", 1}}).merging({{"instance", x}}, false),
            obj({{"instance", x}, {"a", 1}}));
  EXPECT_EQ(obj({{"a", 1}}).merging({{"b", 2}, {"c", 3}}, false),
            obj({{"a", 1}, {"b", 2}, {"c", 3}}));
}

TEST(JSONMerging, DuplicatesInEachDirection) {
  JSON v = obj({{"k", 1}, {"a", 0}, {"k", 2}});
  // Without prepend the first "k" is replaced and the later one is left alone.
  EXPECT_EQ(v.merging({{"k", 9}}, false), obj({{"k", 9}, {"a", 0}, {"k", 2}}));
  // With prepend the last "k" wins and every "k" leaves the tail.
  EXPECT_EQ(v.merging({{"k", 9}}, true), obj({{"k", 2}, {"a", 0}}));
  // Several given pairs keep their given order in front.
  EXPECT_EQ(v.merging({{"z", 5}, {"k", 9}}, true), obj({{"z", 5}, {"k", 2}, {"a", 0}}));
  // Given pairs apply one after the other.
  EXPECT_EQ(obj({}).merging({{"x", 1}, {"x", 2}}, false), obj({{"x", 2}}));
}

TEST(JSONMerging, NonObjectsComeBackUnchanged) {
  JSON a = arr({1, 2});
  EXPECT_EQ(a.merging({{"k", 1}}, false), a);
  EXPECT_EQ(a.merging({{"k", 1}}, true), a);
  EXPECT_EQ(JSON("s").merging({{"k", 1}}, true), JSON("s"));
  EXPECT_EQ(JSON("s").merging({{"k", 1}}, false), JSON("s"));
  EXPECT_TRUE(JSON().merging({{"k", 1}}, false).isNull());
  EXPECT_EQ(JSON(3).merging({{"k", 1}}, true), JSON(3));
}

TEST(JSONMerging, ReceiverIsNotModified) {
  JSON v = obj({{"a", 1}});
  JSON merged = v.merging({{"a", 2}}, false);
  EXPECT_EQ(v, obj({{"a", 1}}));
  EXPECT_EQ(merged, obj({{"a", 2}}));
}

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

TEST(JSONNumber, Examples) {
  EXPECT_EQ(JSON::formatNumber(1.0), "1");
  EXPECT_EQ(JSON::formatNumber(-0.0), "0");
  EXPECT_EQ(JSON::formatNumber(0.0), "0");
  EXPECT_EQ(JSON::formatNumber(0.1), "0.1");
  EXPECT_EQ(JSON::formatNumber(1e21), "1e+21");
  EXPECT_EQ(JSON::formatNumber(std::nan("")), "null");
  EXPECT_EQ(JSON::formatNumber(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(JSON::formatNumber(-std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(JSON::formatNumber(3), "3");
  EXPECT_EQ(JSON::formatNumber(-42), "-42");
  EXPECT_EQ(JSON::formatNumber(0.5), "0.5");
  EXPECT_EQ(JSON::formatNumber(-2.25), "-2.25");
  EXPECT_EQ(JSON::formatNumber(0.0001), "0.0001");
  EXPECT_EQ(JSON::formatNumber(1e-5), "1e-05");
  EXPECT_EQ(JSON::formatNumber(1.5e-7), "1.5e-07");
  EXPECT_EQ(JSON::formatNumber(1.2345e22), "1.2345e+22");
  EXPECT_EQ(JSON::formatNumber(1e20), "100000000000000000000");
  EXPECT_EQ(JSON::formatNumber(123456.789), "123456.789");
  EXPECT_EQ(JSON::formatNumber(1.0 / 3), "0.3333333333333333");
  EXPECT_EQ(JSON::formatNumber(-1e21), "-1e+21");
  EXPECT_EQ(JSON::formatNumber(1e300), "1e+300");
  EXPECT_EQ(JSON::formatNumber(5e-324), "5e-324");
  EXPECT_EQ(JSON::formatNumber(-1.7976931348623157e308), "-1.7976931348623157e+308");
  EXPECT_EQ(JSON::formatNumber(2.2250738585072014e-308), "2.2250738585072014e-308");
  EXPECT_EQ(JSON::formatNumber(1234567.125), "1234567.125");
  EXPECT_EQ(JSON::formatNumber(-0.00012), "-0.00012");
}

TEST(JSONNumber, LayoutBoundaries) {
  // 1e-4 is the smallest magnitude in plain notation.
  EXPECT_EQ(JSON::formatNumber(1e-4), "0.0001");
  EXPECT_EQ(JSON::formatNumber(-1e-4), "-0.0001");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(1e-4, 0.0)), "9.999999999999999e-05");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(1e-4, 1.0)), "0.00010000000000000002");
  // Integral values below 9.2e18 print as 64-bit integers, 2^53 and beyond included.
  EXPECT_EQ(JSON::formatNumber(9007199254740992.0), "9007199254740992");
  EXPECT_EQ(JSON::formatNumber(9007199254740994.0), "9007199254740994");
  EXPECT_EQ(JSON::formatNumber(-9007199254740992.0), "-9007199254740992");
  EXPECT_EQ(JSON::formatNumber(4503599627370495.5), "4503599627370495.5");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(9.2e18, 0.0)), "9199999999999998976");
  EXPECT_EQ(JSON::formatNumber(-std::nextafter(9.2e18, 0.0)), "-9199999999999998976");
  // From 9.2e18 up to 1e21 every digit is printed.
  EXPECT_EQ(JSON::formatNumber(9.2e18), "9200000000000000000");
  EXPECT_EQ(JSON::formatNumber(-9.2e18), "-9200000000000000000");
  EXPECT_EQ(JSON::formatNumber(9223372036854775807.0), "9223372036854775808");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(1e21, 0.0)), "999999999999999868928");
  // From 1e21 on, exponent notation.
  EXPECT_EQ(JSON::formatNumber(1e21), "1e+21");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(1e21, 1e22)), "1.0000000000000001e+21");
  EXPECT_EQ(JSON::formatNumber(1e100), "1e+100");
}

TEST(JSONNumber, AppendNumberAppends) {
  std::string out = "n=";
  JSON::appendNumber(out, 2.5);
  EXPECT_EQ(out, "n=2.5");
  std::string q = "q=";
  JSON::appendQuoted(q, "x");
  EXPECT_EQ(q, "q=\"x\"");
}

// The number of significant digits in a plain or exponent number text.
int significantDigits(const std::string& s) {
  std::string digits;
  for (char c : s) {
    if (c == 'e') break;
    if (c >= '0' && c <= '9') digits += c;
  }
  size_t first = digits.find_first_not_of('0');
  if (first == std::string::npos) return 0;
  size_t last = digits.find_last_not_of('0');
  return static_cast<int>(last - first + 1);
}

bool isPlainLayout(const std::string& s) {
  size_t i = s[0] == '-';
  size_t digitsStart = i;
  while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])))
    ++i;
  size_t whole = i - digitsStart;
  if (whole == 0 || (whole > 1 && s[digitsStart] == '0')) return false;
  if (i == s.size()) return true;
  if (s[i] != '.') return false;
  size_t fracStart = ++i;
  while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])))
    ++i;
  return i == s.size() && i > fracStart && s.back() != '0';
}

bool isExponentLayout(const std::string& s) {
  size_t e = s.find('e');
  if (e == std::string::npos) return false;
  std::string mantissa = s.substr(0, e), exponent = s.substr(e + 1);
  size_t i = mantissa[0] == '-';
  if (mantissa.size() <= i || mantissa[i] < '1' || mantissa[i] > '9') return false;
  if (mantissa.size() > i + 1) {
    if (mantissa[i + 1] != '.' || mantissa.size() < i + 3 || mantissa.back() == '0') return false;
    for (size_t k = i + 2; k < mantissa.size(); ++k) {
      if (!std::isdigit(static_cast<unsigned char>(mantissa[k]))) return false;
    }
  }
  if (exponent.size() < 3 || (exponent[0] != '+' && exponent[0] != '-')) return false;
  for (size_t k = 1; k < exponent.size(); ++k) {
    if (!std::isdigit(static_cast<unsigned char>(exponent[k]))) return false;
  }
  return exponent.size() == 3 || exponent[1] != '0';
}

bool sameBits(double a, double b) {
  uint64_t x, y;
  std::memcpy(&x, &a, 8);
  std::memcpy(&y, &b, 8);
  return x == y;
}

// Checks one finite double's text against every rule; returns an empty string or a complaint.
std::string checkNumberText(double v) {
  std::string s = JSON::formatNumber(v);
  double a = std::fabs(v);
  bool integral = std::trunc(v) == v;
  char buf[64];
  if (integral && a < 9.2e18) {
    std::snprintf(buf, sizeof buf, "%" PRId64, static_cast<int64_t>(v));
    return s == buf ? "" : "integer text " + s + " want " + buf;
  }
  if (integral && a < 1e21) {
    std::snprintf(buf, sizeof buf, "%.0f", v);
    return s == buf ? "" : "large integer text " + s + " want " + buf;
  }
  double back = std::strtod(s.c_str(), nullptr);
  if (!sameBits(back, v)) return "does not read back: " + s;
  int n = significantDigits(s);
  if (n > 1) {
    // The nearest text with one digit fewer must not read back to the same double.
    std::snprintf(buf, sizeof buf, "%.*e", n - 2, v);
    if (std::strtod(buf, nullptr) == v) return "not shortest: " + s + " vs " + buf;
  }
  if (a >= 1e-4 && a < 9007199254740992.0) {
    if (!isPlainLayout(s)) return "want plain layout: " + s;
  } else if (!isExponentLayout(s)) {
    return "want exponent layout: " + s;
  }
  return "";
}

TEST(JSONNumber, RandomDoublesAreShortestAndReadBack) {
  std::mt19937_64 rng(20240611);
  int checked = 0, subnormal = 0, largeIntegral = 0, plainFraction = 0, exponentForm = 0;
  for (int i = 0; i < 200000; ++i) {
    double v;
    switch (i % 4) {
      case 0:
      case 1: {  // any bit pattern: every exponent, subnormals included
        uint64_t bits = rng();
        std::memcpy(&v, &bits, 8);
        break;
      }
      case 2: {  // short decimals across a wide range
        int digits = static_cast<int>(rng() % 17) + 1;
        uint64_t m = rng() % static_cast<uint64_t>(std::pow(10.0, digits));
        int exponent = static_cast<int>(rng() % 80) - 40;
        v = std::strtod((std::to_string(m) + "e" + std::to_string(exponent)).c_str(), nullptr);
        if (rng() & 1) v = -v;
        break;
      }
      default: {  // small magnitudes near the layout boundaries
        int exponent = static_cast<int>(rng() % 50) - 25;
        v = std::ldexp(static_cast<double>(rng() >> 11) / 9007199254740992.0, exponent * 3);
        break;
      }
    }
    if (!std::isfinite(v)) {
      EXPECT_EQ(JSON::formatNumber(v), "null");
      continue;
    }
    std::string complaint = checkNumberText(v);
    ASSERT_EQ(complaint, "") << "value bits " << std::hexfloat << v;
    ++checked;
    double a = std::fabs(v);
    if (a != 0 && a < std::numeric_limits<double>::min()) ++subnormal;
    if (a >= 9.2e18 && a < 1e21) ++largeIntegral;
    if (std::trunc(v) != v && a >= 1e-4) ++plainFraction;
    if (JSON::formatNumber(v).find('e') != std::string::npos) ++exponentForm;
  }
  EXPECT_GT(checked, 190000);
  // Every region of the layout was reached.
  EXPECT_GT(subnormal, 10);
  EXPECT_GT(largeIntegral, 100);
  EXPECT_GT(plainFraction, 10000);
  EXPECT_GT(exponentForm, 10000);
}

TEST(JSONNumber, SubnormalsAndExtremes) {
  for (double v : {5e-324, -5e-324, 1e-310, 2.2250738585072009e-308, 2.2250738585072014e-308,
                   1.7976931348623157e308, 9.999999999999999e-5, 1e-4, 1e21, 1e22, 1e23, 4.35, 0.3,
                   2.0 / 3, 1e15 + 0.5}) {
    EXPECT_EQ(checkNumberText(v), "") << v;
  }
}

}  // namespace
}  // namespace vorn
