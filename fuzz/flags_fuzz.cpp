// Global-flag hoisting and flag parsing against the real command table. The input is a
// command line with its words separated by spaces; the first byte also picks a verb whose
// options the whole line is parsed against.
//
// Hoisting only moves words and does nothing the second time. JSON mode is never asked for
// by a verb's options that the line without them did not ask for. Parsing either fails with
// a usage error of a known form, or gives Flags that are the same when parsed again from
// their own canonical spelling.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "core/cli_error.h"
#include "core/command_table.h"
#include "core/flags.h"
#include "fuzz_check.h"

using namespace vorn;
using vorn::fuzz::check;

namespace {

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const auto& word : words)
    out += "[" + word + "]";
  return out;
}

std::vector<const VerbSpec*> allVerbs() {
  std::vector<const VerbSpec*> verbs;
  for (const NounSpec& noun : productNouns()) {
    for (const VerbSpec& verb : noun.verbs)
      verbs.push_back(&verb);
  }
  return verbs;
}

bool endsInValuelessGlobal(const std::vector<std::string>& args) {
  if (args.empty() || !isFlagWord(args.back())) return false;
  auto [name, inlineValue] = splitEq(args.back());
  const OptionSpec* option = lookup(globalOptions(), name);
  return option && option->value && !inlineValue;
}

void checkHoisting(const std::vector<std::string>& args) {
  std::vector<std::string> hoisted = hoistGlobals(args);
  std::vector<std::string> a = args, b = hoisted;
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  check(a == b, "hoisting only moves words", joined(args) + " -> " + joined(hoisted));
  // A line that ends in a global option without its value keeps that option where it stands,
  // before the hoisted ones, where it may take one of them as its value the second time.
  if (!endsInValuelessGlobal(args)) {
    check(hoistGlobals(hoisted) == hoisted, "hoisting twice changes nothing",
          joined(args) + " -> " + joined(hoisted));
  }
}

void checkUsageError(const CliError& error, const std::vector<std::string>& words) {
  check(error.code == 2, "a flag error is a usage error", error.message);
  std::string_view m = error.message;
  bool known = m.starts_with("unknown flag ") || m.ends_with(" takes no value") ||
               (m.find(" needs a value (") != std::string_view::npos && m.ends_with(")")) ||
               m.starts_with("--pid needs a positive integer (got ") ||
               m.starts_with("-o takes json (got ");
  check(known, "a flag error has a known form", error.message + "\n" + joined(words));
}

// A spelling of a global option that the verb does not take for one of its own.
std::optional<std::string> globalSpelling(const std::string& name,
                                          const std::vector<OptionSpec>& verbOptions) {
  const OptionSpec* option = lookup(globalOptions(), name);
  if (!lookup(verbOptions, option->name)) return option->name;
  if (option->alias && !lookup(verbOptions, *option->alias)) return *option->alias;
  return std::nullopt;
}

// The Flags written out again: every option with an inline value, then "--" and the
// positional words.
std::vector<std::string> canonicalWords(const Flags& flags,
                                        const std::vector<OptionSpec>& verbOptions) {
  std::vector<std::string> words;
  auto global = [&](const std::string& name, std::optional<std::string> value) {
    std::optional<std::string> spelling = globalSpelling(name, verbOptions);
    check(spelling.has_value(), "a global that was set has a spelling", name);
    words.push_back(*spelling + (value ? "=" + *value : ""));
  };
  if (flags.instance) global("--instance", *flags.instance);
  if (flags.pid) global("--pid", std::to_string(*flags.pid));
  if (flags.sock) global("--sock", *flags.sock);
  if (flags.all) global("--all", std::nullopt);
  if (flags.json) global("--output", "json");
  for (const auto& [name, value] : flags.opts)
    words.push_back(name + (value ? "=" + *value : ""));
  words.push_back("--");
  words.insert(words.end(), flags.args.begin(), flags.args.end());
  return words;
}

void checkParsed(const Flags& flags, const std::vector<std::string>& words,
                 const std::vector<OptionSpec>& verbOptions) {
  if (flags.pid) check(*flags.pid > 0, "a pid is positive");
  for (const auto& [name, value] : flags.opts) {
    const OptionSpec* option = lookup(verbOptions, name);
    check(option && option->name == name, "options are kept by their long name", name);
    check(value.has_value() == option->value.has_value(),
          "a value option has a value and a switch none", name);
  }
  // The positional words are some of the words, in their order.
  size_t at = 0;
  for (const std::string& arg : flags.args) {
    while (at < words.size() && words[at] != arg)
      ++at;
    check(at < words.size(), "positional words come from the line in order", joined(words));
    ++at;
  }

  std::vector<std::string> canonical = canonicalWords(flags, verbOptions);
  Flags again;
  try {
    again = parseFlags(canonical, verbOptions);
  } catch (const CliError& e) {
    fuzz::broken("the canonical spelling parses", e.message + "\n" + joined(canonical));
  }
  check(again == flags, "the canonical spelling parses to the same Flags",
        joined(words) + " -> " + joined(canonical));
}

void checkParse(const std::vector<std::string>& words, const std::vector<OptionSpec>& verbOptions) {
  Flags flags;
  try {
    flags = parseFlags(words, verbOptions);
  } catch (const CliError& e) {
    checkUsageError(e, words);
    return;
  }
  checkParsed(flags, words, verbOptions);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<const VerbSpec*> verbs = allVerbs();
  if (size == 0) return 0;
  std::vector<std::string> args = fuzz::split(fuzz::text(data + 1, size - 1), ' ');

  // A verb that owns -o for itself (no verb of the table does yet) leaves only --output.
  static const std::vector<OptionSpec> ownsO = {{"--out", "-o", "FILE", "write to FILE"}};
  const VerbSpec* picked = verbs[data[0] % verbs.size()];

  checkHoisting(args);
  bool json = wantsJSON(args);
  for (const std::vector<OptionSpec>* options : {&picked->options, &ownsO}) {
    if (wantsJSON(args, *options)) {
      check(json, "a verb's options never ask for JSON the bare line does not", joined(args));
    }
  }

  // The line as the router sees it: the words after noun and verb, when it names them.
  std::vector<std::string> words = hoistGlobals(args);
  if (words.size() >= 2) {
    if (const NounSpec* noun = findNoun(words[0])) {
      if (const VerbSpec* verb = noun->verb(words[1])) {
        checkParse({words.begin() + 2, words.end()}, verb->options);
      }
    }
  }
  checkParse(args, picked->options);
  checkParse(args, ownsO);
  checkParse(args, {});
  return 0;
}
