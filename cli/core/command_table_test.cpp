#include "core/command_table.h"

#include <gtest/gtest.h>

#include <set>

namespace vorn {
namespace {

TEST(CommandTable, NounLookupIsExact) {
  EXPECT_EQ(findNoun("Instance"), nullptr);
  EXPECT_EQ(findNoun("instanc"), nullptr);
  EXPECT_EQ(findNoun("dev"), nullptr);
  EXPECT_EQ(findNoun("help"), nullptr);
  ASSERT_NE(findNoun("shell-command"), nullptr);
  EXPECT_EQ(findNoun("instance")->verb("List"), nullptr);
  EXPECT_EQ(findNoun("instance")->verb("list")->usage, "vorn instance list [--prune] [-q]");
}

TEST(CommandTable, NounsInOrder) {
  std::vector<std::string> nouns;
  for (const NounSpec& noun : productNouns())
    nouns.push_back(noun.noun);
  EXPECT_EQ(nouns, (std::vector<std::string>{"instance", "workspace", "file", "command",
                                             "diagnostics", "nogo", "search", "test", "language",
                                             "server", "remote", "doctor", "shell-command"}));
}

TEST(CommandTable, VerbNames) {
  EXPECT_EQ(findNoun("language")->verbNames(), "status, hover, definition, type-definition");
  EXPECT_EQ(findNoun("instance")->verbNames(), "list, inspect, focus, quit, prune, health");
  EXPECT_EQ(findNoun("nogo")->verbNames(), "run");
}

TEST(CommandTable, OptionSpelling) {
  auto check = [](const OptionSpec& option) {
    EXPECT_EQ(option.name.rfind("--", 0), 0u) << option.name;
    EXPECT_GT(option.name.size(), 2u);
    if (option.alias) {
      EXPECT_EQ(option.alias->size(), 2u) << *option.alias;
      EXPECT_EQ((*option.alias)[0], '-');
      EXPECT_NE((*option.alias)[1], '-');
    }
    EXPECT_FALSE(option.summary.empty());
  };
  for (const OptionSpec& option : globalOptions())
    check(option);
  for (const NounSpec& noun : productNouns()) {
    std::set<std::string> verbs;
    for (const VerbSpec& verb : noun.verbs) {
      EXPECT_TRUE(verbs.insert(verb.name).second) << verb.name;
      EXPECT_EQ(verb.usage.rfind("vorn " + noun.noun + " " + verb.name, 0), 0u) << verb.usage;
      for (const OptionSpec& option : verb.options) {
        check(option);
        EXPECT_NE(verb.usage.find(option.alias ? *option.alias : option.name), std::string::npos)
            << verb.usage << " lacks " << option.name;
      }
    }
  }
}

}  // namespace
}  // namespace vorn
