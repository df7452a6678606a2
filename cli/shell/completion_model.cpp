#include "shell/completion_model.h"

#include <algorithm>

#include "core/dev_table.h"

namespace vorn {

namespace {

void addValueFlags(std::vector<std::string>& out, const std::vector<OptionSpec>& options) {
  for (const OptionSpec& option : options) {
    if (!option.value) continue;
    for (const std::string& word : flagWords({option})) {
      if (std::find(out.begin(), out.end(), word) == out.end()) out.push_back(word);
    }
  }
}

// The first argument of the product verbs that have one worth completing.
void addFirstArgument(const std::string& noun, CompletionVerb& verb) {
  if (noun == "instance" && verb.name == "inspect") verb.liveIds = true;
  if (noun == "test" && verb.name == "rerun") verb.firstWords = {"last", "failed"};
  if (noun == "shell-command" && verb.name == "completion") verb.firstWords = completionShells();
}

}  // namespace

const std::vector<std::string>& completionShells() {
  static const std::vector<std::string> shells = {"bash", "zsh", "fish"};
  return shells;
}

std::vector<std::string> flagWords(const std::vector<OptionSpec>& options) {
  std::vector<std::string> words;
  for (const OptionSpec& option : options) {
    words.push_back(option.name);
    if (option.alias) words.push_back(*option.alias);
  }
  return words;
}

CompletionModel completionModel() {
  CompletionModel model;
  model.globals = globalOptions();
  addValueFlags(model.valueFlags, model.globals);
  model.topWords = {{"help", "help [<noun>]"},
                    {"version", "CLI and host versions"},
                    {"dev", "QA + developer tooling"}};
  model.devTopWords = {{"help", "help [<noun>]"}};
  for (const NounSpec& noun : productNouns()) {
    CompletionNoun out{noun.noun, noun.summary, {}};
    for (const VerbSpec& verb : noun.verbs) {
      CompletionVerb v{verb.name, verb.summary, verb.options, false, {}};
      addFirstArgument(noun.noun, v);
      addValueFlags(model.valueFlags, verb.options);
      out.verbs.push_back(std::move(v));
    }
    model.nouns.push_back(std::move(out));
  }
  for (const DevNounSpec& noun : devNouns()) {
    CompletionNoun out{noun.noun, noun.summary, {}};
    for (const DevVerbSpec& verb : noun.verbs) {
      out.verbs.push_back({verb.name, verb.summary, verb.options, false, verb.firstWords});
      addValueFlags(model.valueFlags, verb.options);
    }
    model.devNouns.push_back(std::move(out));
  }
  return model;
}

}  // namespace vorn
