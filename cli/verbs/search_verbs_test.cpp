#include "verbs/search_verbs.h"

#include <gtest/gtest.h>

#include <random>

#include "instances/instances.h"
#include "json/test_mutations.h"
#include "verbs/verbs.h"

namespace vorn {
namespace {

// The listing and summary of a reply value, read from its compact text as a reply would be.
std::string searchLines(const JSON& body) {
  return readSearchReply(body.serialized(0)).lines;
}
std::string searchSummary(const JSON& body) {
  return vorn::searchSummary(readSearchReply(body.serialized(0)));
}

// The listing as lookups on the whole value give it: the reference the one-pass reader must
// agree with, whatever the shape of the reply.
std::string linesByLookup(const JSON& body) {
  std::string out;
  const JSON* files = body.get("files");
  if (!files) return out;
  for (const JSON& file : files->list()) {
    const JSON* matches = file.get("matches");
    if (!matches) continue;
    for (const JSON& match : matches->list()) {
      out += renderValue(file.get("path")) + ":" + renderValue(match.get("line")) + ":" +
             renderValue(match.get("col")) + ": " + renderValue(match.get("preview")) + "\n";
    }
  }
  return out;
}

std::string summaryByLookup(const JSON& body) {
  const JSON* limitHit = body.get("limitHit");
  return renderValue(body.get("matchCount")) + " matches in " + renderValue(body.get("fileCount")) +
         " files (" + renderValue(body.get("engine")) + ")" +
         (limitHit && limitHit->isTrue() ? " \u2014 limit hit, results truncated" : "") + "\n";
}

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

TEST(SearchListing, OddShapesAgreeWithLookups) {
  for (
      const char* text : {
          R"({"files":[{"path":"a","matches":[1,[2],{"line":3},null]}]})",
          R"({"files":[{"matches":[{"line":1}],"path":"late"}]})",
          R"({"files":[{"path":"a","path":"b","matches":[{"line":1,"line":2}]}]})",
          R"({"files":[{"path":"a","matches":[{"line":1}],"matches":"none"}]})",
          R"({"files":[{"path":"a","matches":"none","matches":[{"col":1}]}]})",
          R"({"files":[{"path":"a","matches":[{"line":1}]}],"files":[{"path":"b","matches":[{}]}]})",
          R"({"files":[{"path":"a","matches":[{}]}],"files":{}})",
          R"({"files":[[{"path":"x"}],"s",{"path":{"p":[1]},"matches":[{"preview":{"files":[]}}]}]})",
          R"({"x":{"files":[{"path":"a","matches":[{}]}]}})",
          R"([{"files":[{"path":"a","matches":[{}]}]}])",
          R"({"files":[{"path":"a","matches":[{"line":[1,{"a":[]}],"col":null,"preview":true}]}]})",
          R"("files")",
      }) {
    JSON body = JSON::parse(text);
    EXPECT_EQ(readSearchReply(text).lines, linesByLookup(body)) << text;
  }
}

TEST(SearchListing, SummaryFieldsTakeTheLastValue) {
  SearchListing listing = readSearchReply(
      R"({"matchCount":1,"engine":"a","matchCount":{"n":[2]},"error":"x","error":5,"limitHit":true})");
  EXPECT_EQ(listing.matchCount->serialized(0), R"({"n":[2]})");
  EXPECT_EQ(listing.engine->serialized(0), R"("a")");
  EXPECT_EQ(listing.error->serialized(0), "5");
  EXPECT_FALSE(listing.fileCount.has_value());
  EXPECT_EQ(vorn::searchSummary(listing),
            "{\"n\":[2]} matches in undefined files (a) \u2014 limit hit, results truncated\n");
}

TEST(SearchListing, MutatedRepliesAgreeWithLookups) {
  const std::string seed =
      R"({"files":[{"path":"a.go","matches":[{"line":1,"col":2,"preview":"x"},{"line":3}]},)"
      R"({"matches":[{"col":[4]},5],"path":"b"}],"matchCount":3,"fileCount":2,"engine":"e",)"
      R"("limitHit":true,"files":[{"path":"c","matches":[{"preview":{"k":[1]}}]}]})";
  std::mt19937 rng(31337);
  int compared = 0;
  for (int i = 0; i < 5000; ++i) {
    std::string text = mutated(seed, rng, 0, 3);
    JSON body;
    try {
      body = JSON::parse(text);
    } catch (const JSONParseError&) {
      EXPECT_THROW(readSearchReply(text), JSONParseError) << text;
      continue;
    }
    ++compared;
    SearchListing listing = readSearchReply(text);
    ASSERT_EQ(listing.lines, linesByLookup(body)) << text;
    ASSERT_EQ(vorn::searchSummary(listing), summaryByLookup(body)) << text;
    const JSON* error = body.get("error");
    ASSERT_EQ(listing.error ? listing.error->serialized(0) : "-",
              error ? error->serialized(0) : "-")
        << text;
  }
  EXPECT_GT(compared, 500);
}

TEST(SearchListing, NotJSONThrows) {
  EXPECT_THROW(readSearchReply("oops"), JSONParseError);
}

}  // namespace
}  // namespace vorn
