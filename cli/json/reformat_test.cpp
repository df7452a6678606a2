// reformat must give exactly what parse followed by serialized gives, error messages included.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "json/block_writer.h"
#include "json/json.h"
#include "json/test_mutations.h"

namespace vorn {
namespace {

// What parse + serialized gives: the text, or the error message.
std::string viaTree(std::string_view text, int indent) {
  try {
    return JSON::parse(text).serialized(indent);
  } catch (const JSONParseError& e) {
    return "error: " + e.message;
  }
}

std::string viaReformat(std::string_view text, int indent) {
  try {
    return JSON::reformat(text, indent);
  } catch (const JSONParseError& e) {
    return "error: " + e.message;
  }
}

// What write(out, indent, depth) of the parsed value appends, or the error message.
std::string viaTreeAt(std::string_view text, int indent, int depth) {
  try {
    std::string out;
    JSON::parse(text).write(out, indent, depth);
    return out;
  } catch (const JSONParseError& e) {
    return "error: " + e.message;
  }
}

// What reformatTo hands on in blocks of `block` bytes, or the error message; text that does not
// parse must have had nothing at all handed on or added.
std::string viaBlocks(std::string_view text, int indent, int depth, size_t block) {
  std::string written;
  BlockWriter out([&](std::string_view piece) { written += piece; }, block);
  try {
    JSON::reformatTo(text, indent, depth, out);
    out.flush();
    return written;
  } catch (const JSONParseError& e) {
    EXPECT_EQ(written, "");
    EXPECT_EQ(out.text(), "");
    return "error: " + e.message;
  }
}

void expectSame(std::string_view text) {
  for (int indent : {0, 2, 4}) {
    ASSERT_EQ(viaReformat(text, indent), viaTree(text, indent))
        << "indent " << indent << ": " << text;
  }
  for (int depth : {0, 3}) {
    std::string want = viaTreeAt(text, 2, depth);
    ASSERT_EQ(viaBlocks(text, 2, depth, 16), want) << "depth " << depth << ": " << text;
    ASSERT_EQ(viaBlocks(text, 2, depth, BlockWriter::defaultBlockBytes), want)
        << "depth " << depth << ": " << text;
  }
}

TEST(JSONReformat, Examples) {
  EXPECT_EQ(JSON::reformat("{\"a\":1,\"b\":[true]}", 2),
            "{\n  \"a\": 1,\n  \"b\": [\n    true\n  ]\n}");
  EXPECT_EQ(JSON::reformat(" [ {} , [ ] ] ", 2), "[\n  {},\n  []\n]");
  EXPECT_EQ(JSON::reformat("[ {} , [ ] ]", 0), "[{},[]]");
  EXPECT_EQ(JSON::reformat("\"\\u00e9\\/\"", 2), "\"\u00e9/\"");
  EXPECT_EQ(JSON::reformat("1.0e0", 2), "1");
  EXPECT_EQ(JSON::reformat("{\"a\":1,\"a\":2}", 0), "{\"a\":1,\"a\":2}");
}

TEST(JSONReformat, BlocksEndBetweenEntriesOnceFull) {
  std::vector<std::string> blocks;
  BlockWriter out([&](std::string_view piece) { blocks.emplace_back(piece); }, 8);
  out.text() = "x: ";
  JSON::reformatTo("[\"abcdefgh\",1,2,{\"k\":[3]}]", 2, 1, out);
  out.flush();
  EXPECT_EQ(blocks, (std::vector<std::string>{"x: [\n    \"abcdefgh\"", ",\n    1,\n    2",
                                              ",\n    {\n      \"k\": [",
                                              "\n        3\n      ]\n    }\n  ]"}));
}

TEST(JSONReformat, NothingIsHandedOnForTextThatEndsBadly) {
  size_t writes = 0;
  BlockWriter out([&](std::string_view) { ++writes; }, 1);
  out.text() = "kept";
  std::string big = "[" + std::string(100000, '1') + ",";
  for (int i = 0; i < 1000; ++i)
    big += "\"entry\",";
  EXPECT_THROW(JSON::reformatTo(big, 2, 0, out), JSONParseError);
  EXPECT_EQ(writes, 0u);
  EXPECT_EQ(out.text(), "kept");
}

TEST(JSONReformat, AgreesWithTheTreeOnHandWrittenCases) {
  for (const char* text : {"",
                           "   ",
                           "null",
                           "true",
                           "false",
                           "0",
                           "-0",
                           "+5",
                           ".5",
                           "1e400",
                           "\"\"",
                           "[]",
                           "{}",
                           "[[[]]]",
                           "{\"a\":{\"b\":{}}}",
                           "[1,[2,[3,{\"x\":[]}]],{}]",
                           "{\"k\":\"\\ud83d\\ude00\"}",
                           "\"a\xff\"",
                           "[1 2]",
                           "[1,",
                           "[1",
                           "{\"a\" 1}",
                           "{1:2}",
                           "{\"a\":1,}",
                           "[1,]",
                           "nul",
                           "true false",
                           "\"\\u12\"",
                           "\"abc",
                           "{\"a\"",
                           "{\"a\":",
                           "-",
                           "1-2",
                           "[\"\\q\"]"}) {
    expectSame(text);
  }
}

TEST(JSONReformat, AgreesAtTheNestingLimit) {
  expectSame(std::string(511, '[') + "1" + std::string(511, ']'));
  expectSame(std::string(512, '[') + "1" + std::string(512, ']'));
  expectSame(std::string(512, '[') + std::string(512, ']'));
  expectSame(std::string(100000, '['));
}

std::string readWholeFile(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

TEST(JSONReformat, AgreesOnTheWholeCorpus) {
  auto dir = std::filesystem::path(VORN_TESTDATA) / "json-test-suite";
  size_t files = 0;
  for (const char* sub : {"test_parsing", "test_transform"}) {
    for (const auto& entry : std::filesystem::directory_iterator(dir / sub)) {
      expectSame(readWholeFile(entry.path()));
      ++files;
    }
  }
  EXPECT_GT(files, 300u);
}

TEST(JSONReformat, AgreesOnMutatedDocuments) {
  const std::string seed =
      "{\"a\":[1,2.5e-3,-0,true,false,null,\"s\\n\\u00e9\\ud83d\\ude00\"],\"b\":{\"c\":{}},"
      "\"d\":[[],[{}]],\"e\":\"\xC3\xA9\",\"e\":[{\"f\":[[1],{\"g\":null}]}]}";
  std::mt19937 rng(4242);
  for (int i = 0; i < 3000; ++i) {
    std::string text = mutated(seed, rng, 0, 3);
    expectSame(text);
  }
}

}  // namespace
}  // namespace vorn
