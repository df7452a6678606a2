#include "core/text.h"
#include "shell/fish_completion.h"

namespace vorn {

namespace {

const char* const header = R"FISH(# fish completion for vorn
# Generated from the command table by `vorn shell-command completion fish`; do not edit.
# Load it with
#   vorn shell-command completion fish | source
# or save it as ~/.config/fish/completions/vorn.fish (the installed copy is
# share/fish/vendor_completions.d/vorn.fish).

# The positional words before the cursor, one a line, without the flags and the values they take.
function __vorn_positionals
    set -l tokens (commandline -opc)
    set -e tokens[1]
    set -l skip 0
    set -l rest 0
    for w in $tokens
        if test $skip = 1
            set skip 0
        else if test $rest = 1
            printf '%s\n' $w
        else if test "$w" = --
            set rest 1
        else if string match -qr -- '^-($|[0-9])' $w
            printf '%s\n' $w
        else if string match -q -- '-*' $w
            contains -- $w $__vorn_value_flags; and set skip 1
        else
            printf '%s\n' $w
        end
    end
end

# True when the positionals are exactly the arguments.
function __vorn_is
    set -l pos (__vorn_positionals)
    test (count $pos) = (count $argv); and test "$pos" = "$argv"
end

# True when the positionals start with the arguments.
function __vorn_starts
    set -l pos (__vorn_positionals)
    set -l n (count $argv)
    test (count $pos) -ge $n; or return 1
    test $n = 0; or test "$pos[1..$n]" = "$argv"
end

# The ids of the live instances. A hung instance must not freeze the shell, so the wait is
# bounded; errors are not shown.
function __vorn_ids
    VORN_TIMEOUT=1 command vorn instance list -q 2>/dev/null
end

# True when the word being completed starts like a path: `vorn <dir>` and `vorn <file>` open it.
function __vorn_path_like
    string match -qr -- '^[./~]' (commandline -ct)
end

complete -c vorn -e
)FISH";

// The -s/-l part of a complete line for one option, and how its value completes.
std::string optionSpec(const OptionSpec& option) {
  std::string out;
  for (const std::string* word : {&option.name, option.alias ? &*option.alias : nullptr}) {
    if (!word) continue;
    if (word->rfind("--", 0) == 0)
      out += " -l " + word->substr(2);
    else
      out += " -s " + word->substr(1);
  }
  if (!option.value) return out;
  if (option.name == "--instance") return out + " -x -a '(__vorn_ids)'";
  if (option.name == "--output") return out + " -x -a json";
  return out + " -r";
}

std::string line(const std::string& condition, const std::string& spec,
                 const std::string& summary) {
  std::string out = "complete -c vorn";
  if (!condition.empty()) out += " -n " + fishQuote(condition);
  out += spec;
  if (!summary.empty()) out += " -d " + fishQuote(summary);
  return out + "\n";
}

// Offers a word, and no files, where the positionals are exactly `at`.
std::string word(const std::string& at, const std::string& word, const std::string& summary) {
  return line("__vorn_is" + (at.empty() ? "" : " " + at), " -f -a " + fishQuote(word), summary);
}

std::string nounLines(const std::vector<CompletionNoun>& nouns, const std::string& prefix) {
  std::string out;
  const std::string at = prefix.empty() ? "" : prefix.substr(0, prefix.size() - 1);
  for (const CompletionNoun& noun : nouns)
    out += word(at, noun.name, noun.summary);
  for (const CompletionNoun& noun : nouns)
    out += word(prefix + "help", noun.name, noun.summary);
  for (const CompletionNoun& noun : nouns) {
    for (const CompletionVerb& verb : noun.verbs)
      out += word(prefix + noun.name, verb.name, verb.summary);
  }
  for (const CompletionNoun& noun : nouns) {
    for (const CompletionVerb& verb : noun.verbs) {
      const std::string key = prefix + noun.name + " " + verb.name;
      for (const OptionSpec& option : verb.options)
        out += line("__vorn_starts " + key, optionSpec(option), option.summary);
      if (verb.liveIds) out += line("__vorn_is " + key, " -f -a '(__vorn_ids)'", "");
      if (!verb.firstWords.empty())
        out += line("__vorn_is " + key, " -f -a " + fishQuote(joinWords(verb.firstWords)), "");
    }
  }
  return out;
}

}  // namespace

std::string fishQuote(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\\' || c == '\'') out += '\\';
    out += c;
  }
  return out + "'";
}

std::string fishScript(const CompletionModel& model) {
  std::string out = header;
  out += "set -g __vorn_value_flags " + joinWords(model.valueFlags) + "\n";
  out += "\n# Global flags, valid on every command.\n";
  for (const OptionSpec& option : model.globals)
    out += line("", optionSpec(option), option.summary);
  out += "\n# The first word: help, version, dev, a noun, or a path (the shorthand).\n";
  for (const TopWord& top : model.topWords)
    out += word("", top.word, top.summary);
  out += line("__vorn_is; and __vorn_path_like", " -F", "");
  out += "\n# Nouns, their verbs, the verbs' options and first arguments.\n";
  out += nounLines(model.nouns, "");
  out += "\n# The developer tooling of a checkout: vorn dev <noun> <verb>.\n";
  for (const TopWord& top : model.devTopWords)
    out += word("dev", top.word, top.summary);
  out += nounLines(model.devNouns, "dev ");
  out.pop_back();
  return out;
}

}  // namespace vorn
