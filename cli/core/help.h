// Help text, generated from the command table.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/command_table.h"

namespace vorn {

bool isHelp(const std::optional<std::string_view>& word);
std::vector<std::string> optionLines(const std::vector<OptionSpec>& options);
std::vector<std::string> globalHelp(const std::vector<OptionSpec>& verbOptions);
std::string topHelp();
// The variables of the top help's Environment block: name and what it does.
const std::vector<std::pair<std::string, std::string>>& environmentHelp();
std::string nounHelp(const NounSpec& noun);
std::vector<std::string> verbHelp(const VerbSpec& verb);
// The verb's lines, an empty line and the global block, as `vorn <noun> <verb> --help` prints.
std::string verbHelpPage(const VerbSpec& verb);

std::string joinLines(const std::vector<std::string>& lines);

}  // namespace vorn
