// How a CliError prints (text or JSON), and the text tables of the list verbs.
#pragma once

#include <string>
#include <vector>

#include "core/cli_error.h"

namespace vorn {

std::string errorOutput(const CliError& error, bool json);
std::string formatTable(const std::vector<std::vector<std::string>>& rows);

}  // namespace vorn
