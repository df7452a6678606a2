#include "core/flags.h"

#include "core/cli_error.h"
#include "core/suggest.h"
#include "core/text.h"

namespace vorn {

std::pair<std::string_view, std::optional<std::string_view>> splitEq(std::string_view word) {
  size_t eq = word.find('=');
  if (eq == std::string_view::npos) return {word, std::nullopt};
  return {word.substr(0, eq), word.substr(eq + 1)};
}

const OptionSpec* lookup(const std::vector<OptionSpec>& options, std::string_view word) {
  for (const OptionSpec& option : options) {
    if (option.name == word || (option.alias && *option.alias == word)) return &option;
  }
  return nullptr;
}

// "-" alone and negative numbers ("-1") are positional words.
bool isFlagWord(std::string_view word) {
  return word.size() >= 2 && word[0] == '-' && !(word[1] >= '0' && word[1] <= '9');
}

std::vector<std::string> hoistGlobals(const std::vector<std::string>& args, size_t count) {
  std::vector<std::string> positionals;
  std::vector<std::string> hoisted;
  size_t i = 0;
  while (i < args.size() && positionals.size() < count) {
    const std::string& word = args[i];
    if (!isFlagWord(word)) {
      positionals.push_back(word);
      ++i;
      continue;
    }
    auto [name, inlineValue] = splitEq(word);
    const OptionSpec* option = lookup(globalOptions(), name);
    if (!option) break;
    if (!option->value || inlineValue) {
      hoisted.push_back(word);
      ++i;
    } else {
      if (i + 1 >= args.size()) break;
      hoisted.push_back(word);
      hoisted.push_back(args[i + 1]);
      i += 2;
    }
  }
  std::vector<std::string> out = std::move(positionals);
  size_t dashes = i;
  while (dashes < args.size() && args[dashes] != "--")
    ++dashes;
  out.insert(out.end(), args.begin() + i, args.begin() + dashes);
  out.insert(out.end(), hoisted.begin(), hoisted.end());
  out.insert(out.end(), args.begin() + dashes, args.end());
  return out;
}

bool wantsJSON(const std::vector<std::string>& args, const std::vector<OptionSpec>& verbOptions) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--") return false;
    auto [name, inlineValue] = splitEq(args[i]);
    const OptionSpec* option = lookup(globalOptions(), name);
    if (!option || option->name != "--output") continue;
    if (lookup(verbOptions, name)) continue;  // the verb owns this name
    std::optional<std::string_view> value = inlineValue;
    if (!value && i + 1 < args.size()) value = args[i + 1];
    if (value && *value == "json") return true;
  }
  return false;
}

CliError outputError(std::string_view value, const std::vector<OptionSpec>& verbOptions) {
  std::string message = "-o takes json (got " + std::string(value) + ")";
  if (value.find('/') != std::string_view::npos || value.find('.') != std::string_view::npos) {
    bool hasOut = false;
    for (const OptionSpec& option : verbOptions)
      hasOut = hasOut || option.name == "--out";
    message += hasOut ? ": -o is the output format; write the file with --out " + std::string(value)
                      : ": -o is the output format; this command takes no -o FILE";
  }
  return usageError(std::move(message));
}

namespace {

std::optional<int64_t> positiveInteger(std::string_view text) {
  std::optional<int64_t> n = parseSignedInteger(text);
  if (!n || *n <= 0) return std::nullopt;
  return n;
}

void assign(Flags& flags, const OptionSpec& option, std::optional<std::string> value,
            const std::vector<OptionSpec>& verbOptions, bool isVerbOption) {
  if (isVerbOption) {
    flags.opts[option.name] = std::move(value);
  } else if (option.name == "--instance") {
    flags.instance = std::move(value);
  } else if (option.name == "--pid") {
    std::optional<int64_t> pid = positiveInteger(*value);
    if (!pid) throw usageError("--pid needs a positive integer (got " + *value + ")");
    flags.pid = pid;
  } else if (option.name == "--sock") {
    flags.sock = std::move(value);
  } else if (option.name == "--all") {
    flags.all = true;
  } else if (option.name == "--output") {
    if (*value != "json") throw outputError(*value, verbOptions);
    flags.json = true;
  }
}

}  // namespace

Flags parseFlags(const std::vector<std::string>& words,
                 const std::vector<OptionSpec>& verbOptions) {
  Flags flags;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--") {
      flags.args.insert(flags.args.end(), words.begin() + i + 1, words.end());
      break;
    }
    if (!isFlagWord(word)) {
      flags.args.push_back(word);
      continue;
    }
    auto [name, inlineValue] = splitEq(word);
    const OptionSpec* option = lookup(verbOptions, name);
    bool isVerbOption = option != nullptr;
    if (!option) option = lookup(globalOptions(), name);
    if (!option) {
      if (name == "--json") throw usageError("unknown flag --json (JSON output is -o json)");
      CliError error = usageError("unknown flag " + std::string(name));
      error.suggestion = Suggest::forFlag(name, verbOptions);
      throw error;
    }
    std::optional<std::string> value;
    if (!option->value) {
      if (inlineValue) throw usageError(std::string(name) + " takes no value");
    } else if (inlineValue) {
      value = std::string(*inlineValue);
    } else if (i + 1 < words.size()) {
      value = words[++i];
    } else {
      throw usageError(std::string(name) + " needs a value (" + *option->value + ")");
    }
    assign(flags, *option, std::move(value), verbOptions, isVerbOption);
  }
  return flags;
}

void rejectExtraArguments(const Flags& flags, size_t allowed, const std::string& label) {
  if (flags.args.size() > allowed) {
    throw usageError("vorn " + label + ": unexpected argument '" + flags.args[allowed] + "'");
  }
}

}  // namespace vorn
