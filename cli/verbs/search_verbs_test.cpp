#include "verbs/search_verbs.h"

#include <gtest/gtest.h>

#include "instances/instances.h"

namespace vorn {
namespace {

Flags pattern(std::string text) {
  Flags flags;
  flags.args = {std::move(text)};
  return flags;
}

TEST(SearchPairs, PatternOnly) {
  EXPECT_EQ(searchPairs(pattern("foo")), (QueryPairs{{"q", "foo"}}));
}

TEST(SearchPairs, FixedOrderWhateverTheCommandLineOrder) {
  Flags flags = pattern("foo");
  flags.opts["--max"] = "5";
  flags.opts["--word"] = std::nullopt;
  flags.opts["--exclude"] = "vendor/";
  flags.opts["--case"] = std::nullopt;
  flags.opts["--include"] = "*.go, pkg/";
  flags.opts["--regex"] = std::nullopt;
  EXPECT_EQ(searchPairs(flags), (QueryPairs{{"q", "foo"},
                                            {"regex", "1"},
                                            {"case", "1"},
                                            {"word", "1"},
                                            {"include", "*.go, pkg/"},
                                            {"exclude", "vendor/"},
                                            {"max", "5"}}));
}

TEST(SearchPairs, CaseAndWordEncoded) {
  Flags flags = pattern("foo");
  flags.opts["--case"] = std::nullopt;
  flags.opts["--word"] = std::nullopt;
  EXPECT_EQ(searchParams(searchPairs(flags)), "q=foo&case=1&word=1");
}

TEST(SearchPairs, AnyBytesAreEncodedNotRejected) {
  Flags flags = pattern("a b&c=d+e%f\"g'h\xC3\xA9~");
  flags.opts["--max"] = "ten thousand";
  EXPECT_EQ(searchParams(searchPairs(flags)),
            "q=a+b%26c%3Dd%2Be%25f%22g%27h%C3%A9%7E&max=ten+thousand");
}

TEST(SearchLines, OneLinePerMatchInReplyOrder) {
  JSON body = JSON::parse(R"({"files":[
    {"path":"a.go","matches":[{"line":7,"col":3,"preview":"x := 1"},{"line":9,"col":1,"preview":"y"}]},
    {"path":"b/c.go","matches":[{"line":1,"col":1,"preview":"z"}]}]})");
  EXPECT_EQ(searchLines(body), "a.go:7:3: x := 1\na.go:9:1: y\nb/c.go:1:1: z\n");
}

TEST(SearchLines, MissingFieldsRenderAsUndefined) {
  JSON body = JSON::parse(R"({"files":[{"matches":[{"line":7,"col":3}, 5]}]})");
  EXPECT_EQ(searchLines(body),
            "undefined:7:3: undefined\nundefined:undefined:undefined: undefined\n");
}

TEST(SearchLines, WronglyTypedFieldsFollowTheRenderingRules) {
  JSON body = JSON::parse(R"({"files":[
    {"path":["p"],"matches":[{"line":"7","col":2.5,"preview":null}]},
    {"path":{"k":1},"matches":[{"line":true,"col":1e21,"preview":{"a":[1,"b"]}}]},
    {"path":"s.go","matches":"not a list"},
    {"path":"t.go","matches":{"line":1}}]})");
  EXPECT_EQ(searchLines(body), "[\"p\"]:7:2.5: null\n{\"k\":1}:true:1e+21: {\"a\":[1,\"b\"]}\n");
}

TEST(SearchLines, FilesNotAListPrintsNothing) {
  EXPECT_EQ(searchLines(JSON::parse(R"({"files":{"path":"a","matches":[]}})")), "");
  EXPECT_EQ(searchLines(JSON::parse(R"({"files":"a.go"})")), "");
  EXPECT_EQ(searchLines(JSON::parse(R"({"error":"boom"})")), "");
  EXPECT_EQ(searchLines(JSON::parse("[1,2]")), "");
}

TEST(SearchLines, LastDuplicateKeyWins) {
  JSON body = JSON::parse(
      R"({"files":[{"path":"a","path":"b","matches":[{"line":1,"line":2,"col":3,"preview":"p"}]}]})");
  EXPECT_EQ(searchLines(body), "b:2:3: p\n");
}

TEST(SearchLines, TenThousandMatches) {
  JSON::Array matches;
  std::string expected;
  for (int i = 1; i <= 10000; ++i) {
    matches.push_back(JSON::object(
        {{"line", JSON(i)}, {"col", JSON(i % 80)}, {"preview", JSON("m" + std::to_string(i))}}));
    expected += "big.go:" + std::to_string(i) + ":" + std::to_string(i % 80) + ": m" +
                std::to_string(i) + "\n";
  }
  JSON body = JSON::object(
      {{"files", JSON::array({JSON::object(
                     {{"path", JSON("big.go")}, {"matches", JSON(std::move(matches))}})})}});
  EXPECT_EQ(searchLines(body), expected);
}

TEST(SearchSummary, Counts) {
  EXPECT_EQ(searchSummary(JSON::parse(R"({"matchCount":12,"fileCount":3,"engine":"ripgrep"})")),
            "12 matches in 3 files (ripgrep)\n");
}

TEST(SearchSummary, LimitHitOnlyWhenTrue) {
  EXPECT_EQ(searchSummary(
                JSON::parse(R"({"matchCount":10000,"fileCount":2,"engine":"rg","limitHit":true})")),
            "10000 matches in 2 files (rg) \u2014 limit hit, results truncated\n");
  EXPECT_EQ(searchSummary(
                JSON::parse(R"({"matchCount":1,"fileCount":1,"engine":"rg","limitHit":false})")),
            "1 matches in 1 files (rg)\n");
  EXPECT_EQ(searchSummary(
                JSON::parse(R"({"matchCount":1,"fileCount":1,"engine":"rg","limitHit":"true"})")),
            "1 matches in 1 files (rg)\n");
}

TEST(SearchSummary, MissingFields) {
  EXPECT_EQ(searchSummary(JSON::object()), "undefined matches in undefined files (undefined)\n");
  EXPECT_EQ(searchSummary(JSON::parse(R"({"matchCount":0,"fileCount":0,"engine":null})")),
            "0 matches in 0 files (null)\n");
}

}  // namespace
}  // namespace vorn
