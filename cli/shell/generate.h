// What the build generates from the command table: the completion scripts (as a C++ source
// that stores them in the program, and as files to install) and the manual page.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vorn {

struct GeneratedFile {
  std::string path;  // relative to the output folder
  std::string text;
};

// The script of each completion shell, in completionShells() order, without a final newline.
std::vector<std::pair<std::string, std::string>> generatedScripts();

// Every file the build writes: "completion_scripts.cpp", the installable completion files under
// "share/" as bash-completion, zsh and fish look for them, and "share/man/man1/vorn.1".
std::vector<GeneratedFile> generatedFiles();

// A C++ raw string literal holding exactly `text`, with a delimiter that `text` does not end.
std::string rawStringLiteral(std::string_view text);

// The C++ source of completionScripts(): each shell's script stored as text.
std::string scriptsSource(const std::vector<std::pair<std::string, std::string>>& scripts);

}  // namespace vorn
