#include "shell/generate.h"

#include "shell/bash_completion.h"
#include "shell/completion_model.h"
#include "shell/fish_completion.h"
#include "shell/man_page.h"

namespace vorn {

std::vector<std::pair<std::string, std::string>> generatedScripts() {
  const CompletionModel model = completionModel();
  std::vector<std::pair<std::string, std::string>> scripts;
  for (const std::string& shell : completionShells()) {
    if (shell == "bash") scripts.emplace_back(shell, bashScript(model));
    if (shell == "zsh") scripts.emplace_back(shell, zshScript(model));
    if (shell == "fish") scripts.emplace_back(shell, fishScript(model));
  }
  return scripts;
}

std::vector<GeneratedFile> generatedFiles() {
  const auto scripts = generatedScripts();
  std::vector<GeneratedFile> files = {{"completion_scripts.cpp", scriptsSource(scripts)}};
  for (const auto& [shell, text] : scripts) {
    if (shell == "bash") files.push_back({"share/bash-completion/completions/vorn", text + "\n"});
    if (shell == "zsh") files.push_back({"share/zsh/site-functions/_vorn", text + "\n"});
    if (shell == "fish")
      files.push_back({"share/fish/vendor_completions.d/vorn.fish", text + "\n"});
  }
  files.push_back({"share/man/man1/vorn.1", manPage()});
  return files;
}

std::string rawStringLiteral(std::string_view text) {
  // The literal ends at the first )DELIM": pick a delimiter that never occurs that way.
  std::string delimiter = "VORN";
  for (int n = 0; text.find(")" + delimiter + "\"") != std::string_view::npos; ++n)
    delimiter = "VORN" + std::to_string(n);
  return "R\"" + delimiter + "(" + std::string(text) + ")" + delimiter + "\"";
}

std::string scriptsSource(const std::vector<std::pair<std::string, std::string>>& scripts) {
  std::string out =
      "// Generated at build time from the command table; do not edit.\n"
      "#include \"shell/completion.h\"\n\n"
      "namespace vorn {\n\n"
      "const std::map<std::string_view, std::string_view>& completionScripts() {\n"
      "  static const std::map<std::string_view, std::string_view> scripts = {\n";
  for (const auto& [shell, text] : scripts)
    out += "      {\"" + shell + "\",\n       " + rawStringLiteral(text) + "},\n";
  out += "  };\n  return scripts;\n}\n\n}  // namespace vorn\n";
  return out;
}

}  // namespace vorn
