// Nothing of the command table or the dev group's table may be missing from what is generated
// from them: the help, the three completion scripts and the manual page.
#include <gtest/gtest.h>

#include <sstream>

#include "core/command_table.h"
#include "core/dev_table.h"
#include "core/help.h"
#include "shell/bash_completion.h"
#include "shell/completion_model.h"
#include "shell/fish_completion.h"
#include "shell/man_page.h"

namespace vorn {
namespace {

std::vector<std::string> split(const std::string& words) {
  std::istringstream in(words);
  std::vector<std::string> out;
  for (std::string word; in >> word;)
    out.push_back(word);
  return out;
}

// The words the bash function `function` gives for `key`, e.g. ("_vorn_flags", "instance list").
std::vector<std::string> bashRow(const std::string& script, const std::string& function,
                                 const std::string& key) {
  size_t start = script.find("\n" + function + "() {\n");
  size_t end = script.find("\n}\n", start);
  if (start == std::string::npos || end == std::string::npos) return {};
  std::string label = key.find(' ') == std::string::npos ? key : "'" + key + "'";
  size_t row = script.find("\n    " + label + ") _vorn_words='", start);
  if (row == std::string::npos || row > end) return {};
  size_t from = script.find('\'', row + 5 + label.size()) + 1;
  return split(script.substr(from, script.find('\'', from) - from));
}

bool has(const std::vector<std::string>& words, const std::string& word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

// The lines `fish` adds for an option: its long and short forms under the verb's condition.
std::string fishOption(const std::string& condition, const OptionSpec& option) {
  std::string spec;
  for (const std::string* word : {&option.name, option.alias ? &*option.alias : nullptr}) {
    if (!word) continue;
    spec += word->rfind("--", 0) == 0 ? " -l " + word->substr(2) : " -s " + word->substr(1);
  }
  return "complete -c vorn" + (condition.empty() ? "" : " -n '" + condition + "'") + spec;
}

// The words after `marker` up to the end of its line.
std::vector<std::string> lineAfter(const std::string& script, const std::string& marker) {
  size_t at = script.find(marker);
  if (at == std::string::npos) return {};
  at += marker.size();
  return split(script.substr(at, script.find('\n', at) - at));
}

class Drift : public ::testing::Test {
 protected:
  CompletionModel model = completionModel();
  std::string bash = bashScript(model);
  std::string zsh = zshScript(model);
  std::string fish = fishScript(model);
  std::string man = manPage();
  std::string help = topHelp();
};

TEST_F(Drift, EveryNounVerbAndOptionIsInTheHelp) {
  for (const NounSpec& noun : productNouns()) {
    EXPECT_NE(help.find("\n" + noun.noun + " \u2014 " + noun.summary + "\n"), std::string::npos);
    for (const VerbSpec& verb : noun.verbs) {
      EXPECT_NE(help.find("\n  " + verb.usage + "\n"), std::string::npos) << verb.usage;
      const std::string page = verbHelpPage(verb);
      for (const OptionSpec& option : verb.options) {
        EXPECT_NE(page.find(option.name), std::string::npos) << verb.usage << " " << option.name;
        EXPECT_NE(page.find(option.summary), std::string::npos) << option.summary;
      }
    }
  }
  for (const std::string& line : optionLines(globalOptions()))
    EXPECT_NE(help.find("\n" + line + "\n"), std::string::npos) << line;
}

// The flags that `_vorn_value_flag` knows: the words of its one case pattern.
std::vector<std::string> bashValueFlags(const std::string& script) {
  const std::string marker = "_vorn_value_flag() {\n  case $1 in\n    ";
  size_t at = script.find(marker);
  if (at == std::string::npos) return {};
  at += marker.size();
  std::string pattern = script.substr(at, script.find(')', at) - at);
  for (char& c : pattern)
    if (c == '|') c = ' ';
  return split(pattern);
}

TEST_F(Drift, EveryNounVerbAndOptionIsInTheBashAndZshScripts) {
  for (const std::string* script : {&bash, &zsh}) {
    const std::vector<std::string> top =
        lineAfter(*script, "_vorn_offer \"$cur\" help version dev");
    const std::vector<std::string> globals =
        lineAfter(*script, "$cur == -* ]]; then\n    _vorn_offer \"$cur\"");
    const std::vector<std::string> valueFlags = bashValueFlags(*script);
    auto checkOptions = [&](const std::string& key, const std::vector<OptionSpec>& options,
                            const std::vector<std::string>& offered) {
      for (const OptionSpec& option : options) {
        for (const std::string& word : flagWords({option})) {
          EXPECT_TRUE(has(offered, word)) << key << " " << word;
          EXPECT_EQ(has(valueFlags, word), option.value.has_value()) << key << " " << word;
        }
      }
    };
    checkOptions("global", globalOptions(), globals);
    for (const NounSpec& noun : productNouns()) {
      EXPECT_TRUE(has(top, noun.noun)) << noun.noun;
      const std::vector<std::string> verbs = bashRow(*script, "_vorn_verbs", noun.noun);
      for (const VerbSpec& verb : noun.verbs) {
        EXPECT_TRUE(has(verbs, verb.name)) << noun.noun << " " << verb.name;
        const std::string key = noun.noun + " " + verb.name;
        checkOptions(key, verb.options, bashRow(*script, "_vorn_flags", key));
      }
    }
    const std::vector<std::string> devTop =
        lineAfter(*script, "if [[ -n $dev ]]; then\n      _vorn_offer \"$cur\" help");
    for (const DevNounSpec& noun : devNouns()) {
      EXPECT_TRUE(has(devTop, noun.noun)) << noun.noun;
      const std::vector<std::string> verbs = bashRow(*script, "_vorn_verbs", "dev " + noun.noun);
      for (const DevVerbSpec& verb : noun.verbs) {
        EXPECT_TRUE(has(verbs, verb.name)) << noun.noun << " " << verb.name;
        const std::string key = "dev " + noun.noun + " " + verb.name;
        checkOptions(key, verb.options, bashRow(*script, "_vorn_flags", key));
        if (!verb.firstWords.empty())
          EXPECT_EQ(bashRow(*script, "_vorn_first_words", key), verb.firstWords) << key;
      }
    }
  }
}

TEST_F(Drift, EveryNounVerbAndOptionIsInTheFishScript) {
  for (const OptionSpec& option : globalOptions())
    EXPECT_NE(fish.find("\n" + fishOption("", option)), std::string::npos) << option.name;
  for (const NounSpec& noun : productNouns()) {
    EXPECT_NE(fish.find("complete -c vorn -n '__vorn_is' -f -a '" + noun.noun + "' -d " +
                        fishQuote(noun.summary) + "\n"),
              std::string::npos)
        << noun.noun;
    for (const VerbSpec& verb : noun.verbs) {
      EXPECT_NE(fish.find("complete -c vorn -n '__vorn_is " + noun.noun + "' -f -a '" + verb.name +
                          "' -d " + fishQuote(verb.summary) + "\n"),
                std::string::npos)
          << noun.noun << " " << verb.name;
      for (const OptionSpec& option : verb.options)
        EXPECT_NE(fish.find(fishOption("__vorn_starts " + noun.noun + " " + verb.name, option)),
                  std::string::npos)
            << verb.name << " " << option.name;
    }
  }
  for (const DevNounSpec& noun : devNouns()) {
    EXPECT_NE(fish.find("complete -c vorn -n '__vorn_is dev' -f -a '" + noun.noun + "'"),
              std::string::npos);
    for (const DevVerbSpec& verb : noun.verbs) {
      EXPECT_NE(fish.find("complete -c vorn -n '__vorn_is dev " + noun.noun + "' -f -a '" +
                          verb.name + "' -d " + fishQuote(verb.summary) + "\n"),
                std::string::npos);
      for (const OptionSpec& option : verb.options)
        EXPECT_NE(fish.find(fishOption("__vorn_starts dev " + noun.noun + " " + verb.name, option)),
                  std::string::npos)
            << verb.name << " " << option.name;
    }
  }
}

TEST_F(Drift, EveryNounVerbAndOptionIsInTheManualPage) {
  auto tag = [](const OptionSpec& option) {
    std::string out = option.alias ? "\\fB" + roffText(*option.alias) + "\\fR, " : "";
    out += "\\fB" + roffText(option.name) + "\\fR";
    if (option.value) out += " \\fI" + roffText(*option.value) + "\\fR";
    return ".TP\n" + out + "\n" + roffText(option.summary) + "\n";
  };
  for (const NounSpec& noun : productNouns()) {
    EXPECT_NE(man.find(".SS " + roffText(noun.noun) + "\n" + roffText(noun.summary) + "\n"),
              std::string::npos)
        << noun.noun;
    for (const VerbSpec& verb : noun.verbs) {
      EXPECT_NE(man.find(".TP\n\\fB" + roffText(verb.usage) + "\\fR\n" + roffText(verb.summary)),
                std::string::npos)
          << verb.usage;
      for (const OptionSpec& option : verb.options)
        EXPECT_NE(man.find(tag(option)), std::string::npos) << option.name;
    }
  }
  for (const OptionSpec& option : globalOptions())
    EXPECT_NE(man.find(tag(option)), std::string::npos) << option.name;
  for (const DevNounSpec& noun : devNouns())
    EXPECT_NE(man.find("\\fBvorn dev " + noun.noun + "\\fR"), std::string::npos) << noun.noun;
}

}  // namespace
}  // namespace vorn
