// "did you mean ...?": the known word closest to one the command table does not know.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/command_table.h"

namespace vorn {

namespace Suggest {

// The edit distance of a and b with adjacent transpositions (optimal string alignment):
// "instnace" is one edit from "instance". Compared without regard to ASCII case.
size_t distance(std::string_view a, std::string_view b);
// The most edits a word of this many characters may be away from a known one to be taken as
// a mistyping of it: a third of its length, at least one.
size_t allowedEdits(size_t length);
// The candidates closest to the word: those of least distance within allowedEdits, in the
// candidates' order; else the one candidate the word is a prefix of (two characters or more).
// Nothing for a word shorter than two characters, or when nothing is close.
std::vector<std::string> closest(std::string_view word, const std::vector<std::string>& candidates);
// "did you mean 'a'?", "did you mean 'a' or 'b'?"; nothing for no candidates.
std::optional<std::string> didYouMean(const std::vector<std::string>& words);
// A command line as one would type it again: words with spaces or shell characters are quoted.
std::string commandLine(const std::vector<std::string>& words);

// For an unknown first word: the nouns of the table, and "help" and "version".
std::optional<std::string> forCommand(std::string_view word);
// For an unknown verb of a noun. `words` is the line after "vorn", noun and word first: when no
// verb is close and the noun has one verb only, and that takes arguments, the word was likely
// its argument, and the whole line with the verb put in is suggested.
std::optional<std::string> forVerb(const NounSpec& noun, const std::vector<std::string>& words);
// For an unknown flag "--name" or "--name=value": the verb's and the global long options.
std::optional<std::string> forFlag(std::string_view flag, const std::vector<OptionSpec>& options);

}  // namespace Suggest
}  // namespace vorn
