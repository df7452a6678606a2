#include "core/suggest.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

using Words = std::vector<std::string>;

const NounSpec& noun(const std::string& name) {
  const NounSpec* found = findNoun(name);
  EXPECT_NE(found, nullptr) << name;
  return *found;
}

TEST(SuggestDistance, CountsInsertionsDeletionsSubstitutionsAndTranspositions) {
  EXPECT_EQ(Suggest::distance("instance", "instance"), 0u);
  EXPECT_EQ(Suggest::distance("instnace", "instance"), 1u);  // one transposition
  EXPECT_EQ(Suggest::distance("prnue", "prune"), 1u);
  EXPECT_EQ(Suggest::distance("lst", "list"), 1u);
  EXPECT_EQ(Suggest::distance("lisst", "list"), 1u);
  EXPECT_EQ(Suggest::distance("lust", "list"), 1u);
  EXPECT_EQ(Suggest::distance("", "abc"), 3u);
  EXPECT_EQ(Suggest::distance("abc", ""), 3u);
  EXPECT_EQ(Suggest::distance("LIST", "list"), 0u);  // case does not count
  // Optimal string alignment: a transposed pair is not edited again.
  EXPECT_EQ(Suggest::distance("ca", "abc"), 3u);
}

TEST(SuggestDistance, AllowsAThirdOfTheWordAtLeastOne) {
  EXPECT_EQ(Suggest::allowedEdits(2), 1u);
  EXPECT_EQ(Suggest::allowedEdits(5), 1u);
  EXPECT_EQ(Suggest::allowedEdits(6), 2u);
  EXPECT_EQ(Suggest::allowedEdits(9), 3u);
}

TEST(SuggestClosest, TakesTheNearestWithinTheLimitThenAUniquePrefix) {
  Words verbs = {"list", "inspect", "focus", "quit", "prune", "health"};
  EXPECT_EQ(Suggest::closest("lsit", verbs), Words{"list"});
  EXPECT_EQ(Suggest::closest("helth", verbs), Words{"health"});
  EXPECT_EQ(Suggest::closest("insp", verbs), Words{"inspect"});  // prefix
  EXPECT_EQ(Suggest::closest("frobnicate", verbs), Words{});
  EXPECT_EQ(Suggest::closest("x", verbs), Words{});  // too short to guess from
  EXPECT_EQ(Suggest::closest("qx", verbs), Words{});
  // A prefix of two candidates names neither.
  EXPECT_EQ(Suggest::closest("st", Words{"start", "status"}), Words{});
  // Equally close candidates are all named, in their order.
  EXPECT_EQ(Suggest::closest("rn", Words{"run", "rm"}), (Words{"run", "rm"}));
  // The nearest wins over one further away.
  EXPECT_EQ(Suggest::closest("stat", Words{"start", "stat", "status"}), Words{"stat"});
}

TEST(SuggestText, NamesOneOrSeveral) {
  EXPECT_EQ(Suggest::didYouMean({"instance"}), "did you mean 'instance'?");
  EXPECT_EQ(Suggest::didYouMean({"run", "rm"}), "did you mean 'run' or 'rm'?");
  EXPECT_EQ(Suggest::didYouMean({"a", "b", "c"}), "did you mean 'a', 'b' or 'c'?");
  EXPECT_EQ(Suggest::didYouMean({}), std::nullopt);
}

TEST(SuggestText, QuotesWordsOfTheCommandLineThatNeedIt) {
  EXPECT_EQ(Suggest::commandLine({"search", "run", "TODO"}), "vorn search run TODO");
  EXPECT_EQ(Suggest::commandLine({"search", "run", "two words", "-i", "a1"}),
            "vorn search run \"two words\" -i a1");
  EXPECT_EQ(Suggest::commandLine({"search", "run", "$x\"`\\"}),
            "vorn search run \"\\$x\\\"\\`\\\\\"");
  EXPECT_EQ(Suggest::commandLine({"search", "run", ""}), "vorn search run \"\"");
}

TEST(SuggestFromTable, UnknownCommand) {
  EXPECT_EQ(Suggest::forCommand("instnace"), "did you mean 'instance'?");
  EXPECT_EQ(Suggest::forCommand("workspcae"), "did you mean 'workspace'?");
  EXPECT_EQ(Suggest::forCommand("verison"), "did you mean 'version'?");
  EXPECT_EQ(Suggest::forCommand("diag"), "did you mean 'diagnostics'?");
  EXPECT_EQ(Suggest::forCommand("nosuch"), std::nullopt);
  EXPECT_EQ(Suggest::forCommand("."), std::nullopt);
}

TEST(SuggestFromTable, UnknownVerb) {
  EXPECT_EQ(Suggest::forVerb(noun("instance"), {"instance", "lsit"}), "did you mean 'list'?");
  EXPECT_EQ(Suggest::forVerb(noun("instance"), {"instance", "frobnicate"}), std::nullopt);
  // A noun with one verb that takes arguments: the word was its argument.
  EXPECT_EQ(Suggest::forVerb(noun("search"), {"search", "TODO"}),
            "did you mean 'vorn search run TODO'?");
  EXPECT_EQ(Suggest::forVerb(noun("search"), {"search", "TODO", "--max", "3"}),
            "did you mean 'vorn search run TODO --max 3'?");
  EXPECT_EQ(Suggest::forVerb(noun("search"), {"search", "rnu"}), "did you mean 'run'?");
  // One verb without arguments: nothing to put the word into.
  EXPECT_EQ(Suggest::forVerb(noun("doctor"), {"doctor", "everything"}), std::nullopt);
}

TEST(SuggestFromTable, UnknownFlag) {
  const std::vector<OptionSpec>& list = noun("instance").verb("list")->options;
  EXPECT_EQ(Suggest::forFlag("--prnue", list), "did you mean '--prune'?");
  EXPECT_EQ(Suggest::forFlag("--prnue=1", list), "did you mean '--prune'?");
  EXPECT_EQ(Suggest::forFlag("--quite", list), "did you mean '--quiet'?");
  EXPECT_EQ(Suggest::forFlag("--instnace", list), "did you mean '--instance'?");  // global
  EXPECT_EQ(Suggest::forFlag("--bogus", list), std::nullopt);
  EXPECT_EQ(Suggest::forFlag("-x", list), std::nullopt);  // short flags are not guessed
}

}  // namespace
}  // namespace vorn
