#include "core/suggest.h"

#include <algorithm>
#include <limits>

namespace vorn {

namespace Suggest {

namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  if (prefix.size() > text.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (lower(text[i]) != lower(prefix[i])) return false;
  }
  return true;
}

// A verb takes arguments when its usage names one after "vorn <noun> <verb>": "<pattern>",
// "[dir]", "[<dir>|...]", but not "[--flag]".
bool takesArguments(const VerbSpec& verb) {
  std::string_view usage = verb.usage;
  size_t at = usage.find(" " + verb.name);
  if (at == std::string_view::npos) return false;
  usage.remove_prefix(at + 1 + verb.name.size());
  for (size_t i = 0; i + 1 < usage.size(); ++i) {
    if (usage[i] != ' ') continue;
    char next = usage[i + 1];
    if (next == '<') return true;
    if (next == '[' && i + 2 < usage.size() && usage[i + 2] != '-') return true;
  }
  return false;
}

bool plainWord(std::string_view word) {
  if (word.empty()) return false;
  for (char c : word) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 std::string_view("-_./:=@%+,").find(c) != std::string_view::npos;
    if (!plain) return false;
  }
  return true;
}

}  // namespace

size_t distance(std::string_view a, std::string_view b) {
  // Three rows of the table: two back for a transposition, one back, and this one.
  std::vector<size_t> before(b.size() + 1), previous(b.size() + 1), row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j)
    previous[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t cost = lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1;
      row[j] = std::min({previous[j] + 1, row[j - 1] + 1, previous[j - 1] + cost});
      if (i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) &&
          lower(a[i - 2]) == lower(b[j - 1])) {
        row[j] = std::min(row[j], before[j - 2] + 1);
      }
    }
    std::swap(before, previous);
    std::swap(previous, row);
  }
  return previous[b.size()];
}

size_t allowedEdits(size_t length) {
  return std::max<size_t>(1, length / 3);
}

std::vector<std::string> closest(std::string_view word,
                                 const std::vector<std::string>& candidates) {
  std::vector<std::string> best;
  if (word.size() < 2) return best;
  const size_t allowed = allowedEdits(word.size());
  size_t least = allowed;
  for (const std::string& candidate : candidates) {
    size_t edits = distance(word, candidate);
    // A word as far from the candidate as the candidate is long shares nothing with it.
    if (edits >= candidate.size() || edits > allowed) continue;
    if (best.empty() || edits < least) {
      least = edits;
      best.clear();
    } else if (edits > least) {
      continue;
    }
    if (std::find(best.begin(), best.end(), candidate) == best.end()) best.push_back(candidate);
  }
  if (!best.empty()) return best;
  for (const std::string& candidate : candidates) {
    if (candidate.size() > word.size() && startsWith(candidate, word)) best.push_back(candidate);
  }
  if (best.size() != 1) best.clear();
  return best;
}

std::optional<std::string> didYouMean(const std::vector<std::string>& words) {
  if (words.empty()) return std::nullopt;
  std::string text = "did you mean ";
  for (size_t i = 0; i < words.size(); ++i) {
    if (i) text += i + 1 == words.size() ? " or " : ", ";
    text += "'" + words[i] + "'";
  }
  return text + "?";
}

std::string commandLine(const std::vector<std::string>& words) {
  std::string line = "vorn";
  for (const std::string& word : words) {
    line += ' ';
    if (plainWord(word)) {
      line += word;
      continue;
    }
    line += '"';
    for (char c : word) {
      if (c == '"' || c == '\\' || c == '$' || c == '`') line += '\\';
      line += c;
    }
    line += '"';
  }
  return line;
}

std::optional<std::string> forCommand(std::string_view word) {
  std::vector<std::string> candidates;
  for (const NounSpec& noun : productNouns())
    candidates.push_back(noun.noun);
  candidates.push_back("help");
  candidates.push_back("version");
  return didYouMean(closest(word, candidates));
}

std::optional<std::string> forVerb(const NounSpec& noun, const std::vector<std::string>& words) {
  if (words.size() < 2) return std::nullopt;
  std::vector<std::string> verbs;
  for (const VerbSpec& verb : noun.verbs)
    verbs.push_back(verb.name);
  if (auto close = didYouMean(closest(words[1], verbs))) return close;
  if (noun.verbs.size() != 1 || !takesArguments(noun.verbs[0])) return std::nullopt;
  std::vector<std::string> line = words;
  line.insert(line.begin() + 1, noun.verbs[0].name);
  return didYouMean({commandLine(line)});
}

std::optional<std::string> forFlag(std::string_view flag, const std::vector<OptionSpec>& options) {
  if (flag.rfind("--", 0) != 0) return std::nullopt;
  std::string_view name = flag.substr(2);
  name = name.substr(0, name.find('='));
  std::vector<std::string> candidates;
  for (const auto* list : {&options, &globalOptions()}) {
    for (const OptionSpec& option : *list) {
      if (option.name.rfind("--", 0) == 0) candidates.push_back(option.name.substr(2));
    }
  }
  std::vector<std::string> found = closest(name, candidates);
  for (std::string& option : found)
    option = "--" + option;
  return didYouMean(found);
}

}  // namespace Suggest
}  // namespace vorn
