#include "core/dev_table.h"

#include <gtest/gtest.h>

#include <set>

namespace vorn {
namespace {

TEST(DevTable, NounsAndVerbsInOrder) {
  std::vector<std::string> rows;
  for (const DevNounSpec& noun : devNouns()) {
    std::string row = noun.noun + ":";
    for (const DevVerbSpec& verb : noun.verbs)
      row += " " + verb.name;
    rows.push_back(row);
  }
  EXPECT_EQ(rows, (std::vector<std::string>{
                      "qa: run parity sweep bisect",
                      "ui: show query terminal shot eval resize wait",
                      "input: key type click scroll drag",
                      "app: start stop",
                      "lock: run status",
                      "perf: memory cpu startup renders latency commits remote",
                      "profile: pprof sample",
                      "log: show",
                      "process: list",
                      "rpc: get post ops call",
                      "action: list run log",
                  }));
}

// The words that take a value across the group are exactly the ones the tooling knows, and
// each of them is used by some verb.
TEST(DevTable, ValueFlagsAreTheToolingsOwn) {
  std::set<std::string> words;
  for (const DevNounSpec& noun : devNouns()) {
    for (const DevVerbSpec& verb : noun.verbs) {
      for (const OptionSpec& option : verb.options) {
        if (!option.value) continue;
        words.insert(option.name);
        if (option.alias) words.insert(*option.alias);
      }
    }
  }
  EXPECT_EQ(words,
            (std::set<std::string>{
                "--base",    "--commit", "--resume-from", "--only",     "--target",   "--out",
                "--runs",    "--bead",   "--good",        "--worktree", "--bad",      "--limit",
                "--id",      "--lines",  "--sel",         "--text",     "--timeout",  "--nth",
                "--offset",  "--pos",    "--button",      "--mods",     "--by",       "--to",
                "--edition", "--idle",   "--budget",      "--seconds",  "--interval", "--type",
                "--watch",   "--key",    "--then",        "--open",     "--click",    "--settle",
                "--rtt",     "--at",     "--search",      "-n",         "--grep",     "--role",
                "--data",    "-d",
            }));
}

TEST(DevTable, SpellingAndSummaries) {
  for (const DevNounSpec& noun : devNouns()) {
    EXPECT_FALSE(noun.summary.empty()) << noun.noun;
    for (const DevVerbSpec& verb : noun.verbs) {
      EXPECT_FALSE(verb.summary.empty()) << noun.noun << " " << verb.name;
      std::set<std::string> seen;
      for (const OptionSpec& option : verb.options) {
        // A long name, or a lone short form such as "-n".
        bool isLong = option.name.rfind("--", 0) == 0 && option.name.size() > 2;
        bool isShort = option.name.size() == 2 && option.name[0] == '-' && option.name[1] != '-';
        EXPECT_TRUE(isLong || (isShort && !option.alias)) << option.name;
        if (option.alias) EXPECT_EQ(option.alias->size(), 2u) << *option.alias;
        EXPECT_FALSE(option.summary.empty()) << option.name;
        EXPECT_TRUE(seen.insert(option.name).second)
            << noun.noun << " " << verb.name << " " << option.name << " twice";
      }
      // Plain words: no shell needs them quoted.
      for (const std::string& word : verb.firstWords) {
        EXPECT_FALSE(word.empty());
        EXPECT_EQ(word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"),
                  std::string::npos)
            << word;
      }
    }
  }
}

}  // namespace
}  // namespace vorn
