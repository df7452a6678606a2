// The `dev` group's nouns, verbs and options, as data for the completion scripts and the man
// page. `vorn dev ...` itself is handed to the checkout's script untouched: this table never
// parses a command line, it only describes what the checkout's tooling accepts.
#pragma once

#include <string>
#include <vector>

#include "core/command_table.h"

namespace vorn {

struct DevVerbSpec {
  std::string name;
  std::string summary;
  // The verb's options. Unlike the product table, an option may exist only in its short form
  // ("-n"); then `name` holds that form and there is no alias.
  std::vector<OptionSpec> options;
  // Words offered for the verb's first argument (none: any word, completed as a file).
  std::vector<std::string> firstWords;
};

struct DevNounSpec {
  std::string noun;
  std::string summary;
  std::vector<DevVerbSpec> verbs;
};

// In the order the completion offers them.
const std::vector<DevNounSpec>& devNouns();

}  // namespace vorn
