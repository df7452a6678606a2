#include "shell/generate.h"

#include <gtest/gtest.h>

#include "shell/completion_model.h"

namespace vorn {
namespace {

// The text between R"DELIM( and )DELIM", and the delimiter.
std::pair<std::string, std::string> unwrap(const std::string& literal) {
  size_t open = literal.find('(');
  std::string delimiter = literal.substr(2, open - 2);
  std::string close = ")" + delimiter + "\"";
  EXPECT_EQ(literal.substr(0, 2), "R\"");
  EXPECT_EQ(literal.substr(literal.size() - close.size()), close);
  // The literal ends at the first close: there must be no earlier one.
  EXPECT_EQ(literal.find(close), literal.size() - close.size());
  return {literal.substr(open + 1, literal.size() - close.size() - open - 1), delimiter};
}

TEST(RawStringLiteral, HoldsTheTextAsItIs) {
  const std::string text = "a \"quoted\" \\ back\\slash\n)\" and )VOR\"\n";
  auto [inner, delimiter] = unwrap(rawStringLiteral(text));
  EXPECT_EQ(inner, text);
  EXPECT_EQ(delimiter, "VORN");
}

TEST(RawStringLiteral, PicksADelimiterTheTextDoesNotClose) {
  const std::string text = "x )VORN\" y )VORN0\" z";
  auto [inner, delimiter] = unwrap(rawStringLiteral(text));
  EXPECT_EQ(inner, text);
  EXPECT_EQ(delimiter, "VORN1");
  EXPECT_LE(delimiter.size(), 16u);  // the language's limit
}

TEST(RawStringLiteral, EmptyText) {
  EXPECT_EQ(rawStringLiteral(""), "R\"VORN()VORN\"");
}

TEST(ScriptsSource, StoresEveryShellsScript) {
  const std::string source = scriptsSource({{"bash", "B"}, {"fish", "F )VORN\" F"}});
  EXPECT_NE(source.find("#include \"shell/completion.h\""), std::string::npos);
  EXPECT_NE(source.find("{\"bash\",\n       R\"VORN(B)VORN\"},"), std::string::npos);
  EXPECT_NE(source.find("{\"fish\",\n       R\"VORN0(F )VORN\" F)VORN0\"},"), std::string::npos);
  EXPECT_NE(source.find("completionScripts()"), std::string::npos);
}

TEST(GeneratedFiles, TheSourceTheInstalledScriptsAndTheManualPage) {
  std::vector<std::string> paths;
  for (const GeneratedFile& file : generatedFiles())
    paths.push_back(file.path);
  EXPECT_EQ(paths, (std::vector<std::string>{
                       "completion_scripts.cpp",
                       "share/bash-completion/completions/vorn",
                       "share/zsh/site-functions/_vorn",
                       "share/fish/vendor_completions.d/vorn.fish",
                       "share/man/man1/vorn.1",
                   }));
}

// Installed files are the printed scripts: the same text and the newline the verb adds.
TEST(GeneratedFiles, InstalledScriptsAreThePrintedOnes) {
  const auto files = generatedFiles();
  const auto scripts = generatedScripts();
  ASSERT_EQ(scripts.size(), 3u);
  EXPECT_EQ(scripts[0].first, "bash");
  EXPECT_EQ(files[1].text, scripts[0].second + "\n");
  EXPECT_EQ(scripts[1].first, "zsh");
  EXPECT_EQ(files[2].text, scripts[1].second + "\n");
  EXPECT_EQ(scripts[2].first, "fish");
  EXPECT_EQ(files[3].text, scripts[2].second + "\n");
  EXPECT_EQ(files[0].text, scriptsSource(scripts));
}

}  // namespace
}  // namespace vorn
