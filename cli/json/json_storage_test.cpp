// How a value holds its payload: short strings inside it, longer ones and containers behind a
// pointer; copies are deep, moves take the storage, and a value built by the parser is the same
// as one built by hand. Also the block scans that find the end of plain string text.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "json/block_writer.h"
#include "json/byte_scan.h"
#include "json/json.h"

namespace vorn {
namespace {

TEST(JSONStorage, StringsOnBothSidesOfTheInlineLength) {
  for (size_t n = 0; n <= 40; ++n) {
    std::string text(n, 'x');
    if (n > 3) text[3] = '\0';  // a NUL byte is text like any other
    JSON v(text);
    ASSERT_TRUE(v.string()) << n;
    EXPECT_EQ(*v.string(), text) << n;
    JSON copy = v;
    EXPECT_EQ(copy, v);
    EXPECT_EQ(*copy.string(), text);
    JSON moved = std::move(copy);
    EXPECT_EQ(*moved.string(), text);
    EXPECT_TRUE(copy.isNull());  // a moved-from value is null
    EXPECT_EQ(JSON::parse(JSON::quote(text)), v) << n;
  }
}

TEST(JSONStorage, CopiesAreDeep) {
  JSON a = JSON::parse(R"({"list":[1,"a string longer than fourteen bytes",{"k":[true]}]})");
  JSON b = a;
  b.mutableObject()->front().second.mutableArray()->push_back(JSON(2));
  EXPECT_EQ(a.serialized(0), R"({"list":[1,"a string longer than fourteen bytes",{"k":[true]}]})");
  EXPECT_EQ(b.serialized(0),
            R"({"list":[1,"a string longer than fourteen bytes",{"k":[true]},2]})");
  JSON c;
  c = a;
  EXPECT_EQ(c, a);
  const JSON& same = c;
  c = same;  // assigning a value to itself keeps it
  EXPECT_EQ(c, a);
}

TEST(JSONStorage, AValueCanTakeOverOneOfItsOwnParts) {
  JSON v = JSON::parse(R"([["inner value that is long enough", [1, 2]], 3])");
  v = std::move(v.mutableArray()->front());
  EXPECT_EQ(v.serialized(0), R"(["inner value that is long enough",[1,2]])");
  JSON w = JSON::parse(R"({"a":{"b":"a long string stored apart"}})");
  w = *w.get("a");
  EXPECT_EQ(w.serialized(0), R"({"b":"a long string stored apart"})");
}

TEST(JSONStorage, EmptyContainersAreTheSameHoweverMade) {
  JSON parsed = JSON::parse(R"([[],{},[[]],{"a":{}},[{}]])");
  JSON built = JSON::array({JSON::array(), JSON::object(), JSON::array({JSON::array()}),
                            JSON::object({{"a", JSON::object()}}),
                            JSON::array({JSON::object()})});
  EXPECT_EQ(parsed, built);
  EXPECT_EQ(parsed.serialized(2), built.serialized(2));
  // An empty array or object can still be filled in place.
  JSON e = JSON::parse("[]");
  ASSERT_NE(e.mutableArray(), nullptr);
  e.mutableArray()->push_back(JSON(1));
  EXPECT_EQ(e.serialized(0), "[1]");
  JSON o = JSON::parse("{}");
  ASSERT_NE(o.mutableObject(), nullptr);
  o.mutableObject()->emplace_back("k", JSON("v"));
  EXPECT_EQ(o.serialized(0), R"({"k":"v"})");
  EXPECT_EQ(JSON::object().members()->size(), 0u);
  EXPECT_TRUE(JSON::array().list().empty());
}

TEST(JSONStorage, ParsedContainersHoldExactlyTheirEntries) {
  JSON v = JSON::parse("[0,0,0,[1,2],{\"a\":1,\"b\":[]}]");
  EXPECT_EQ(v.list().size(), 5u);
  EXPECT_EQ(v.list().capacity(), 5u);
  EXPECT_EQ(v.list()[3].list().capacity(), 2u);
  EXPECT_EQ(v.list()[4].members()->capacity(), 2u);
}

TEST(JSONStorage, AValueTakesSixteenBytes) {
  EXPECT_EQ(sizeof(JSON), 16u);
}

TEST(JSONStorage, DeepValuesCopyAndCompare) {
  std::string text;
  for (int i = 0; i < 500; ++i)
    text += "[";
  text += "\"deep\"";
  for (int i = 0; i < 500; ++i)
    text += "]";
  JSON v = JSON::parse(text);
  JSON copy = v;
  EXPECT_EQ(copy, v);
  EXPECT_EQ(copy.serialized(0), text);
}

TEST(JSONStorage, WrittenInBlocksIsTheSameText) {
  JSON v = JSON::parse(
      R"({"a":[1,2.5,"x",{"b":[],"c":{}},[[true,false,null]]],"long":"text of some length here"})");
  for (int indent : {0, 2}) {
    for (int depth : {0, 3}) {
      std::string whole;
      v.write(whole, indent, depth);
      std::string joined;
      size_t blocks = 0;
      BlockWriter out(
          [&](std::string_view block) {
            joined += block;
            ++blocks;
          },
          16);
      v.writeTo(out, indent, depth);
      out.flush();
      EXPECT_EQ(joined, whole) << indent << " " << depth;
      EXPECT_GT(blocks, 3u);  // handed on as it went, not at the end
    }
  }
}

// A string read from text is printed from that text when nothing in it needs a look, and from
// its decoded bytes otherwise; both ways give what a string built by hand gives, before and
// after a copy, at every length around the inline limit, for text known valid or not.
TEST(JSONStorage, ReadStringsPrintAsBuiltOnes) {
  const std::vector<std::string> cases = {
      "plain",
      "a plain string well past fourteen bytes",
      R"(caf\u00e9 and \"quotes\" and a\\backslash)",
      R"(tab\there\nnewline \/ solidus)",
      "raw\x01" "control byte kept, written escaped",
      "donn\xc3\xa9" "es \xe6\x95\xb0\xe6\x8d\xae \xf0\x9f\x98\x80",
      "escaped high \\\xc3\xa9" " byte",
      R"(lone \ud800 surrogate)",
      "bad \xff\xfe" " bytes",
      "cut \xe6\x95",
  };
  for (const std::string& body : cases) {
    for (size_t n = 0; n <= body.size(); ++n) {
      // Only cuts that leave the escapes whole.
      std::string prefix = body.substr(0, n);
      if (!prefix.empty() && prefix.back() == '\\') continue;
      size_t slash = prefix.rfind("\\u");
      if (slash != std::string::npos && prefix.size() - slash < 6) continue;
      std::string text = "[\"" + prefix + "\",{\"" + prefix + "\":\"" + prefix + "\"}]";
      JSON read = JSON::parse(text);
      std::string decoded(*read.list()[0].string());
      JSON built = JSON::array({JSON(decoded), JSON::object({{decoded, JSON(decoded)}})});
      for (int indent : {0, 2}) {
        EXPECT_EQ(read.serialized(indent), built.serialized(indent)) << text;
        JSON copy = read;
        EXPECT_EQ(copy.serialized(indent), built.serialized(indent)) << text;
        EXPECT_EQ(JSON::reformat(text, indent), built.serialized(indent)) << text;
      }
      if (isValidUTF8(text)) {
        EXPECT_EQ(JSON::parse(text, TextBytes::validUTF8).serialized(0), built.serialized(0));
        std::string blocks;
        BlockWriter out([&](std::string_view block) { blocks += block; }, 16);
        JSON::reformatTo(text, 2, 0, out, TextBytes::validUTF8);
        out.flush();
        EXPECT_EQ(blocks, built.serialized(2)) << text;
      }
    }
  }
}

// The plain reference: the first byte with its high bit set.
const char* referenceASCII(const char* p, const char* end) {
  while (p < end && static_cast<unsigned char>(*p) < 0x80)
    ++p;
  return p;
}

const char* referenceVerbatim(const char* p, const char* end, bool* high) {
  for (; p < end; ++p) {
    auto c = static_cast<unsigned char>(*p);
    if (c < 0x20 || c == '"' || c == '\\') break;
    if (c >= 0x80) *high = true;
  }
  return p;
}

// A scan may stop early only where fewer than a block of bytes remain; where it stops, the bytes
// it passed agree with the reference.
TEST(ByteScan, AgreesWithBytewiseScanning) {
  std::mt19937 rng(7);
  const char alphabet[] = {'a', ' ', '"', '\\', '\x1f', '\x01', '\x7f', '\x80', '\xc3', '\xff', 'z'};
  for (int round = 0; round < 20000; ++round) {
    std::string s(rng() % 70, 'a');
    for (char& c : s) {
      if (rng() % 12 == 0) c = alphabet[rng() % sizeof alphabet];
    }
    const char* b = s.data();
    const char* e = b + s.size();
    for (int which = 0; which < 2; ++which) {
      bool high = false, refHigh = false;
      const char* got = which ? ByteScan::skipVerbatim(b, e, &high) : ByteScan::skipASCII(b, e);
      const char* ref = which ? referenceVerbatim(b, e, &refHigh) : referenceASCII(b, e);
      ASSERT_LE(got, ref) << s;
      if (got < ref) {
        ASSERT_LT(e - got, 16) << s;
      }
      bool passedHigh = false;  // only the bytes passed count
      for (const char* p = b; p < got; ++p)
        passedHigh = passedHigh || static_cast<unsigned char>(*p) >= 0x80;
      EXPECT_EQ(high, passedHigh) << s;
    }
  }
}

}  // namespace
}  // namespace vorn
