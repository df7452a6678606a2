#include "core/text.h"
#include "shell/bash_completion.h"

#include <utility>
#include <vector>

namespace vorn {

namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;

// A case label: keys of two words ("instance list") are quoted.
std::string label(const std::string& key) {
  return key.find(' ') == std::string::npos ? key : "'" + key + "'";
}

// A function that sets _vorn_words from its first argument by a case over `rows`.
std::string lookupFunction(const std::string& comment, const std::string& name, const Rows& rows) {
  std::string out = comment + name + "() {\n  case $1 in\n";
  for (const auto& [key, words] : rows) {
    if (!words.empty()) out += "    " + label(key) + ") _vorn_words='" + words + "' ;;\n";
  }
  out += "    *) _vorn_words= ;;\n  esac\n}\n";
  return out;
}

std::vector<std::string> nounNames(const std::vector<CompletionNoun>& nouns) {
  std::vector<std::string> names;
  for (const CompletionNoun& noun : nouns)
    names.push_back(noun.name);
  return names;
}

std::vector<std::string> verbNames(const CompletionNoun& noun) {
  std::vector<std::string> names;
  for (const CompletionVerb& verb : noun.verbs)
    names.push_back(verb.name);
  return names;
}

std::vector<std::string> topWords(const std::vector<TopWord>& words,
                                  const std::vector<CompletionNoun>& nouns) {
  std::vector<std::string> out;
  for (const TopWord& word : words)
    out.push_back(word.word);
  for (std::string& name : nounNames(nouns))
    out.push_back(std::move(name));
  return out;
}

// Rows keyed by noun ("instance", "dev qa") or by noun and verb ("instance list").
void addRows(Rows& verbs, Rows& flags, Rows& first, const std::vector<CompletionNoun>& nouns,
             const std::string& prefix) {
  for (const CompletionNoun& noun : nouns) {
    verbs.emplace_back(prefix + noun.name, joinWords(verbNames(noun)));
    for (const CompletionVerb& verb : noun.verbs) {
      const std::string key = prefix + noun.name + " " + verb.name;
      flags.emplace_back(key, joinWords(flagWords(verb.options)));
      first.emplace_back(key, verb.liveIds ? "@ids" : joinWords(verb.firstWords));
    }
  }
}

std::string functions(const CompletionModel& model) {
  Rows verbs, flags, first;
  addRows(verbs, flags, first, model.nouns, "");
  addRows(verbs, flags, first, model.devNouns, "dev ");

  std::string valueFlags = joinWords(model.valueFlags, " | ");

  std::string out;
  out += "# True when the word is a flag that takes a value (product and dev flags alike): the\n";
  out += "# word after it is that value, never a positional.\n";
  out += "_vorn_value_flag() {\n  case $1 in\n    " + valueFlags +
         ") return 0 ;;\n  esac\n  return 1\n}\n\n";
  out += lookupFunction("# The verbs of a noun (\"instance\") or of a dev noun (\"dev qa\").\n",
                        "_vorn_verbs", verbs);
  out += "\n";
  out += lookupFunction("# The own flags of a verb (\"instance list\", \"dev qa run\").\n",
                        "_vorn_flags", flags);
  out += "\n";
  out += lookupFunction(
      "# Words for the first argument of a verb; \"@ids\" stands for the live instance ids.\n",
      "_vorn_first_words", first);
  out += R"SH(
# Adds to COMPREPLY each candidate ($2...) that starts with the word being completed ($1).
_vorn_offer() {
  local cur=$1 w
  shift
  for w in "$@"; do
    case $w in "$cur"*) COMPREPLY+=("$w") ;; esac
  done
}

# Adds the ids of the live instances that start with $1. A hung instance must not freeze the
# shell, so the wait is bounded; errors are not shown.
_vorn_ids() {
  local id
  while IFS= read -r id; do
    if [[ -n $id && $id == "$1"* ]]; then COMPREPLY+=("$id"); fi
  done < <(VORN_TIMEOUT=1 command vorn instance list -q 2>/dev/null)
}

# Completes COMP_WORDS[COMP_CWORD] into COMPREPLY; nothing offered leaves it to the shell's
# default (file) completion.
_vorn_complete() {
  local cur prev w key eq= dev= rest= i n _vorn_words
  local -a pos
  COMPREPLY=()
  # The positionals before the cursor, without the flags and the values they take.
  pos=()
  for (( i = 1; i < COMP_CWORD; i++ )); do
    w=${COMP_WORDS[i]}
    if [[ -n $rest ]]; then
      pos+=("$w")
      continue
    fi
    case $w in
      --) rest=1 ;;
      "=") (( i++ )) ;;
      - | -[0-9]*) pos+=("$w") ;;
      -*)
        if _vorn_value_flag "$w" && [[ ${COMP_WORDS[i+1]} != "=" ]]; then (( i++ )); fi
        ;;
      *)
        # A leading "dev" switches to the developer tooling's words.
        if [[ -z $dev && ${#pos[@]} -eq 0 && $w == dev ]]; then dev=1; else pos+=("$w"); fi
        ;;
    esac
  done
  n=${#pos[@]}
  key=
  if [[ -n $dev ]]; then key='dev '; fi

  # The flag before the word being completed, if any. bash splits --flag=value into "--flag"
  # "=" "value"; zsh leaves it one word. After "--" every word is a positional.
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=
  if [[ -n $rest ]]; then
    :
  elif [[ $cur == "=" ]]; then
    cur=
    prev=${COMP_WORDS[COMP_CWORD-1]}
  elif (( COMP_CWORD > 1 )) && [[ ${COMP_WORDS[COMP_CWORD-1]} == "=" ]]; then
    prev=${COMP_WORDS[COMP_CWORD-2]}
  elif (( COMP_CWORD > 0 )); then
    prev=${COMP_WORDS[COMP_CWORD-1]}
    case $cur in
      --*=* | -?=*) prev=${cur%%=*}; eq=$prev=; cur=${cur#*=} ;;
    esac
  fi

  if [[ $prev == -i || $prev == --instance ]]; then
    _vorn_ids "$cur"
  elif [[ $prev == -o || $prev == --output ]]; then
    _vorn_offer "$cur" json
  elif _vorn_value_flag "$prev" || [[ -n $eq ]]; then
    return 0
  elif [[ -z $rest && $cur == -* ]]; then
    _vorn_offer "$cur" @GLOBALS@
    if (( n >= 2 )); then
      _vorn_flags "$key${pos[0]} ${pos[1]}"
      _vorn_offer "$cur" $_vorn_words
    fi
  elif (( n == 0 )); then
    if [[ -n $dev ]]; then
      _vorn_offer "$cur" @DEVTOP@
    else
      _vorn_offer "$cur" @TOP@
    fi
  elif (( n == 1 )); then
    if [[ ${pos[0]} == help && -n $dev ]]; then
      _vorn_offer "$cur" @DEVNOUNS@
    elif [[ ${pos[0]} == help ]]; then
      _vorn_offer "$cur" @NOUNS@
    else
      _vorn_verbs "$key${pos[0]}"
      _vorn_offer "$cur" $_vorn_words
    fi
  elif (( n == 2 )); then
    _vorn_first_words "$key${pos[0]} ${pos[1]}"
    if [[ $_vorn_words == @ids ]]; then
      _vorn_ids "$cur"
    else
      _vorn_offer "$cur" $_vorn_words
    fi
  fi
  if [[ -n $eq ]]; then
    for (( i = 0; i < ${#COMPREPLY[@]}; i++ )); do COMPREPLY[i]=$eq${COMPREPLY[i]}; done
  fi
  return 0
}
)SH";
  auto put = [&out](const std::string& slot, const std::string& words) {
    out.replace(out.find(slot), slot.size(), words);
  };
  put("@GLOBALS@", joinWords(flagWords(model.globals)));
  put("@DEVTOP@", joinWords(topWords(model.devTopWords, model.devNouns)));
  put("@TOP@", joinWords(topWords(model.topWords, model.nouns)));
  put("@DEVNOUNS@", joinWords(nounNames(model.devNouns)));
  put("@NOUNS@", joinWords(nounNames(model.nouns)));
  return out;
}

const char* const registration = "complete -o default -F _vorn_complete vorn";

}  // namespace

std::string bashScript(const CompletionModel& model) {
  std::string out =
      "# bash completion for vorn\n"
      "# Generated from the command table by `vorn shell-command completion bash`; do not edit.\n"
      "# Load it from ~/.bashrc:\n"
      "#   eval \"$(vorn shell-command completion bash)\"\n"
      "# (bash-completion loads the installed copy, share/bash-completion/completions/vorn, by "
      "itself.)\n\n";
  out += functions(model);
  out += "\n";
  out += registration;
  return out;
}

std::string zshScript(const CompletionModel& model) {
  std::string out =
      "#compdef vorn\n"
      "# zsh completion for vorn: the bash completion functions, run through bashcompinit\n"
      "# Generated from the command table by `vorn shell-command completion zsh`; do not edit.\n"
      "# Load it from ~/.zshrc, after compinit:\n"
      "#   eval \"$(vorn shell-command completion zsh)\"\n"
      "# or save it as _vorn in a folder of $fpath before compinit runs (the installed copy is\n"
      "# share/zsh/site-functions/_vorn).\n\n"
      "(( ${+functions[compdef]} )) || { autoload -Uz compinit && compinit; }\n"
      "(( ${+functions[complete]} )) || { autoload -Uz bashcompinit && bashcompinit; }\n\n";
  out += functions(model);
  out += "\n";
  out += registration;
  out +=
      "\n\n# Autoloaded by compinit as the function _vorn, this text runs on the first TAB after\n"
      "# `vorn`: the line above has taken over from there on, and this answers the first one.\n"
      "if [[ ${funcstack[1]-} == _vorn ]]; then\n"
      "  _bash_complete -o default -F _vorn_complete\n"
      "fi";
  return out;
}

}  // namespace vorn
