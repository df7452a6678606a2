// What the completion scripts know, gathered from the command table and the dev group's table:
// the one input of the bash, zsh and fish writers, so the three cannot tell different stories.
#pragma once

#include <string>
#include <vector>

#include "core/command_table.h"

namespace vorn {

struct CompletionVerb {
  std::string name;
  std::string summary;
  std::vector<OptionSpec> options;
  bool liveIds = false;                 // the first argument is a live instance id
  std::vector<std::string> firstWords;  // fixed words for the first argument
};

struct CompletionNoun {
  std::string name;
  std::string summary;
  std::vector<CompletionVerb> verbs;
};

// A word of the first position that is not a noun: help, version, dev.
struct TopWord {
  std::string word;
  std::string summary;
};

struct CompletionModel {
  std::vector<OptionSpec> globals;
  // Every flag word that takes a value, product and dev alike, long and short forms, each once:
  // the word after one of them is its value, never a positional.
  std::vector<std::string> valueFlags;
  std::vector<TopWord> topWords;     // at the first position, before the nouns
  std::vector<TopWord> devTopWords;  // at the first position after "dev", before its nouns
  std::vector<CompletionNoun> nouns;
  std::vector<CompletionNoun> devNouns;
};

// The shells `vorn shell-command completion` writes for, in this order.
const std::vector<std::string>& completionShells();

CompletionModel completionModel();

// The words a user may type for these options: each long name, then its alias.
std::vector<std::string> flagWords(const std::vector<OptionSpec>& options);


}  // namespace vorn
