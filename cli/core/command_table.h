// The one table of nouns, verbs and options: routing, parsing, help and completion read it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn {

struct OptionSpec {
  std::string name;                  // "--instance"
  std::optional<std::string> alias;  // "-i"
  std::optional<std::string> value;  // placeholder; absent for a switch
  std::string summary;
};

// The tables' options: a switch (with or without an alias) and an option that takes a value.
OptionSpec switchOption(std::string name, std::string summary);
OptionSpec switchOption(std::string name, std::string alias, std::string summary);
OptionSpec valueOption(std::string name, std::string value, std::string summary);

struct VerbSpec {
  std::string name;
  std::string usage;
  std::string summary;
  std::vector<OptionSpec> options;
};

struct NounSpec {
  std::string noun;
  std::string summary;
  std::vector<VerbSpec> verbs;

  const VerbSpec* verb(std::string_view name) const;
  std::string verbNames() const;
};

const std::vector<OptionSpec>& globalOptions();
const std::vector<NounSpec>& productNouns();
const NounSpec* findNoun(std::string_view word);

constexpr const char* cliVersion = "0.2.0";

}  // namespace vorn
