#include "core/text.h"
#include "shell/completion_model.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

TEST(CompletionModel, Shells) {
  EXPECT_EQ(completionShells(), (std::vector<std::string>{"bash", "zsh", "fish"}));
}

// The product's value flags come first, globals then verb options in table order; the dev
// group's follow, each word once.
TEST(CompletionModel, ValueFlags) {
  const CompletionModel model = completionModel();
  const std::vector<std::string> product = {"--instance", "-i",    "--pid",       "--sock",
                                            "--output",   "-o",    "--source",    "--include",
                                            "--exclude",  "--max", "--ssh-config"};
  ASSERT_GT(model.valueFlags.size(), product.size());
  EXPECT_EQ(
      std::vector<std::string>(model.valueFlags.begin(), model.valueFlags.begin() + product.size()),
      product);
  std::set<std::string> unique(model.valueFlags.begin(), model.valueFlags.end());
  EXPECT_EQ(unique.size(), model.valueFlags.size());
  EXPECT_EQ(model.valueFlags.size(), product.size() + 44);  // the dev group's 44 words
  for (const std::string& word : {"--resume-from", "-n", "-d", "--data", "--rtt"})
    EXPECT_TRUE(unique.count(word)) << word;
  for (const std::string& word : {"--prune", "-q", "--all", "-a", "--regex", "--no-wait"})
    EXPECT_FALSE(unique.count(word)) << word;
}

TEST(CompletionModel, FirstArguments) {
  const CompletionModel model = completionModel();
  std::vector<std::string> withWords;
  for (const CompletionNoun& noun : model.nouns) {
    for (const CompletionVerb& verb : noun.verbs) {
      if (verb.liveIds) withWords.push_back(noun.name + " " + verb.name + ": ids");
      if (!verb.firstWords.empty())
        withWords.push_back(noun.name + " " + verb.name + ": " + joinWords(verb.firstWords));
    }
  }
  EXPECT_EQ(withWords, (std::vector<std::string>{
                           "instance inspect: ids",
                           "test rerun: last failed",
                           "shell-command completion: bash zsh fish",
                       }));
}

TEST(CompletionModel, TopWords) {
  const CompletionModel model = completionModel();
  ASSERT_EQ(model.topWords.size(), 3u);
  EXPECT_EQ(model.topWords[0].word, "help");
  EXPECT_EQ(model.topWords[0].summary, "help [<noun>]");
  EXPECT_EQ(model.topWords[1].word, "version");
  EXPECT_EQ(model.topWords[1].summary, "CLI and host versions");
  EXPECT_EQ(model.topWords[2].word, "dev");
  EXPECT_EQ(model.topWords[2].summary, "QA + developer tooling");
  ASSERT_EQ(model.devTopWords.size(), 1u);
  EXPECT_EQ(model.devTopWords[0].word, "help");
  EXPECT_EQ(model.nouns.size(), 13u);
  EXPECT_EQ(model.devNouns.size(), 11u);
}

TEST(FlagWords, LongThenShort) {
  EXPECT_EQ(flagWords(globalOptions()),
            (std::vector<std::string>{"--instance", "-i", "--all", "-a", "--pid", "--sock",
                                      "--output", "-o"}));
  EXPECT_EQ(joinWords({}), "");
  EXPECT_EQ(joinWords({"a", "b"}), "a b");
  EXPECT_EQ(joinWords({"a", "b", "c"}, ", "), "a, b, c");
  EXPECT_EQ(joinWords({"a"}, "|"), "a");
}

}  // namespace
}  // namespace vorn
