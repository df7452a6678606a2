// The parsed command line after <noun> <verb>, and the parsing itself.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/command_table.h"

namespace vorn {

struct Flags {
  std::optional<std::string> instance;
  std::optional<int64_t> pid;
  std::optional<std::string> sock;
  bool all = false;
  bool json = false;
  std::vector<std::string> args;
  // Verb options by long name: the value, or nullopt for a switch that is present.
  std::map<std::string, std::optional<std::string>> opts;

  bool has(const std::string& option) const { return opts.count(option) > 0; }
  // The value of a value option, or nullptr when absent.
  const std::string* value(const std::string& option) const {
    auto it = opts.find(option);
    return it == opts.end() || !it->second ? nullptr : &*it->second;
  }

  bool operator==(const Flags&) const = default;
};

std::pair<std::string_view, std::optional<std::string_view>> splitEq(std::string_view word);
const OptionSpec* lookup(const std::vector<OptionSpec>& options, std::string_view word);
bool isFlagWord(std::string_view word);
std::vector<std::string> hoistGlobals(const std::vector<std::string>& args, size_t count = 2);
bool wantsJSON(const std::vector<std::string>& args,
               const std::vector<OptionSpec>& verbOptions = {});
// Throws CliError (code 2).
Flags parseFlags(const std::vector<std::string>& words, const std::vector<OptionSpec>& verbOptions);
struct CliError;
// Throws "vorn <label>: unexpected argument '<word>'" (code 2) when more than `allowed`
// positional words were given: a verb with a fixed number of them takes a stray one as a typo.
void rejectExtraArguments(const Flags& flags, size_t allowed, const std::string& label);
CliError outputError(std::string_view value, const std::vector<OptionSpec>& verbOptions);

}  // namespace vorn
