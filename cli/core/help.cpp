#include "core/help.h"

#include <algorithm>

#include "core/text.h"

namespace vorn {

bool isHelp(const std::optional<std::string_view>& word) {
  return word && (*word == "help" || *word == "--help" || *word == "-h");
}

std::string joinLines(const std::vector<std::string>& lines) { return joinWords(lines, "\n"); }

namespace {

std::string leftPart(const OptionSpec& option) {
  std::string left = option.alias ? *option.alias + ", " : "";
  left += option.name;
  if (option.value) left += " " + *option.value;
  return left;
}

bool clashes(const OptionSpec& global, const std::vector<OptionSpec>& verbOptions) {
  for (const OptionSpec& own : verbOptions) {
    auto same = [&](const std::string& word) {
      return own.name == word || (own.alias && *own.alias == word);
    };
    if (same(global.name) || (global.alias && same(*global.alias))) return true;
  }
  return false;
}

void append(std::vector<std::string>& lines, std::vector<std::string> more) {
  lines.insert(lines.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
}

}  // namespace

std::vector<std::string> optionLines(const std::vector<OptionSpec>& options) {
  size_t width = 0;
  for (const OptionSpec& option : options)
    width = std::max(width, charCount(leftPart(option)));
  std::vector<std::string> lines;
  for (const OptionSpec& option : options) {
    std::string line = "  ";
    appendPadded(line, leftPart(option), width);
    line += "  " + option.summary;
    lines.push_back(std::move(line));
  }
  return lines;
}

std::vector<std::string> globalHelp(const std::vector<OptionSpec>& verbOptions) {
  std::vector<std::string> lines = {
      "Global flags (every command, anywhere on the line; see docs/vorn-cli.md \u00a75):"};
  std::vector<OptionSpec> shown;
  std::vector<std::string> clashing;
  for (const OptionSpec& global : globalOptions()) {
    if (!clashes(global, verbOptions)) {
      shown.push_back(global);
      continue;
    }
    // Name the words the verb took over, long and short, as the user would type them.
    std::string words;
    for (const OptionSpec& own : verbOptions) {
      for (const std::string* word : {&global.name, global.alias ? &*global.alias : nullptr}) {
        if (!word) continue;
        if ((own.name == *word || (own.alias && *own.alias == *word)) &&
            std::find(clashing.begin(), clashing.end(), *word) == clashing.end()) {
          clashing.push_back(*word);
        }
      }
    }
  }
  append(lines, optionLines(shown));
  if (!clashing.empty()) {
    lines.push_back("  (" + joinWords(clashing, "; ") + ": this verb's own option above)");
  }
  append(lines, {
                    "  Mutating verbs with no selector act on the only instance (run from a "
                    "checkout:",
                    "  the only one started from it); with several, or none of the checkout's, "
                    "they",
                    "  exit 2 and list them. Read-only verbs default to every instance.",
                });
  return lines;
}

std::string topHelp() {
  std::vector<std::string> lines = {
      std::string("Vorn CLI ") + cliVersion,
      "",
      "Usage:",
      "  vorn <noun> <verb> [args] [flags]",
      "  vorn <dir> | <file>[:line[:col]]     shorthand for workspace open / file open",
      "  vorn dev <noun> <verb> [args] [flags]   QA + developer tooling (vorn dev help)",
      "  vorn help [<noun>] | vorn <noun> <verb> --help | vorn version",
  };
  for (const NounSpec& noun : productNouns()) {
    lines.push_back("");
    lines.push_back(noun.noun + " \u2014 " + noun.summary);
    for (const VerbSpec& verb : noun.verbs)
      lines.push_back("  " + verb.usage);
  }
  lines.push_back("");
  append(lines, globalHelp({}));
  lines.push_back("");
  lines.push_back("Environment:");
  size_t width = 0;
  for (const auto& [name, summary] : environmentHelp())
    width = std::max(width, charCount(name));
  for (const auto& [name, summary] : environmentHelp()) {
    std::string line = "  ";
    appendPadded(line, name, width);
    lines.push_back(line + "  " + summary);
  }
  return joinLines(lines);
}

const std::vector<std::pair<std::string, std::string>>& environmentHelp() {
  static const std::vector<std::pair<std::string, std::string>> variables = {
      {"VORN_REPO_ROOT", "checkout used by the PATH shim"},
      {"VORN_APP", "path to Vorn*.app for launch"},
      {"VORN_EDITION", "go | markdown: which checkout dev build to launch (default go)"},
      {"XDG_RUNTIME_DIR", "socket root (default: tmpdir)/vorn/<pid>/fs.sock"},
  };
  return variables;
}

std::vector<std::string> verbHelp(const VerbSpec& verb) {
  std::vector<std::string> lines = {"  " + verb.usage, "      " + verb.summary};
  for (std::string& line : optionLines(verb.options))
    lines.push_back("    " + line);
  return lines;
}

std::string verbHelpPage(const VerbSpec& verb) {
  std::vector<std::string> lines = verbHelp(verb);
  lines.push_back("");
  append(lines, globalHelp(verb.options));
  return joinLines(lines);
}

std::string nounHelp(const NounSpec& noun) {
  std::vector<std::string> lines = {"vorn " + noun.noun + " \u2014 " + noun.summary};
  for (const VerbSpec& verb : noun.verbs) {
    lines.push_back("");
    append(lines, verbHelp(verb));
  }
  lines.push_back("");
  append(lines, globalHelp({}));
  return joinLines(lines);
}

}  // namespace vorn
