#include "shell/man_page.h"

#include <gtest/gtest.h>

#include <sstream>

namespace vorn {
namespace {

TEST(RoffText, EscapesWhatRoffWouldRead) {
  EXPECT_EQ(roffText("plain words"), "plain words");
  EXPECT_EQ(roffText("--prune -q"), "\\-\\-prune \\-q");
  EXPECT_EQ(roffText("a\\b"), "a\\eb");
  EXPECT_EQ(roffText(".gitignore honored"), "\\&.gitignore honored");
  EXPECT_EQ(roffText("'quoted' start"), "\\&'quoted' start");
  EXPECT_EQ(roffText("mid. dot 'q'"), "mid. dot 'q'");
  EXPECT_EQ(roffText("ids as \u2318\u21e7P \u2014 args\u2026"),
            "ids as \\[u2318]\\[u21E7]P \\[u2014] args\\[u2026]");
  EXPECT_EQ(roffText("caf\u00e9 \U0001F600"), "caf\\[u00E9] \\[u1F600]");
  EXPECT_EQ(roffText("two\nlines"), "two lines");
  EXPECT_EQ(roffText(""), "");
}

class ManPage : public ::testing::Test {
 protected:
  std::string page = manPage();
};

TEST_F(ManPage, SectionsInOrder) {
  size_t last = 0;
  for (const char* section :
       {".TH VORN 1 ", ".SH NAME\n", ".SH SYNOPSIS\n", ".SH DESCRIPTION\n", ".SH COMMANDS\n",
        ".SH OPTIONS\n", ".SH DEVELOPER TOOLING\n", ".SH ENVIRONMENT\n", ".SH EXIT STATUS\n",
        ".SH FILES\n", ".SH EXAMPLES\n"}) {
    size_t at = page.find(section);
    ASSERT_NE(at, std::string::npos) << section;
    EXPECT_GT(at, last) << section;
    last = at;
  }
  EXPECT_NE(page.find(".SH NAME\nvorn \\- command\\-line front end of the Vorn code editor\n"),
            std::string::npos);
}

TEST_F(ManPage, EnvironmentExitStatusAndFiles) {
  for (const char* text :
       {".TP\n\\fBVORN_REPO_ROOT\\fR\ncheckout used by the PATH shim\n",
        ".TP\n\\fBXDG_RUNTIME_DIR\\fR\nsocket root (default: tmpdir)/vorn/<pid>/fs.sock\n",
        ".TP\n\\fBVORN_TIMEOUT\\fR\nseconds to wait for any one instance before giving up "
        "(default: wait as long as it takes). An instance that does not answer the scan's GET "
        "/instance within it is left out as unreachable: a fan\\-out has no row for it and "
        "selecting it finds no instance. Only an instance that answers the scan and then hangs "
        "gets a failed row, or fails the command aimed at it.\n",
        ".TP\n.B 0\n", ".TP\n.B 1\n", ".TP\n.B 2\n", ".TP\n.B 127\n",
        ".I $XDG_RUNTIME_DIR/vorn/<pid>/fs.sock\n", ".I ~/.local/bin/vorn\n",
        ".I <checkout>/.cache/vorn/dev\\-app.json\n"}) {
    EXPECT_NE(page.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(page.find("VORN_TIMEOUT"), page.rfind("VORN_TIMEOUT"));
}

// Plain ASCII roff: every character beyond it escaped, every line that starts with a dot a
// request or a comment, no tabs, and no line that could be a stray request.
TEST_F(ManPage, WellFormedRoff) {
  for (unsigned char c : page)
    EXPECT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7F)) << static_cast<int>(c);
  std::istringstream in(page);
  for (std::string line; std::getline(in, line);) {
    EXPECT_FALSE(line.empty()) << "an empty line is a blank line in the output";
    if (line[0] == '.')
      EXPECT_TRUE(line == ".PP" || line == ".TP" || line == ".RS" || line == ".RE" ||
                  line == ".nf" || line == ".fi" || line.rfind(".\\\" ", 0) == 0 ||
                  line.rfind(".TH ", 0) == 0 || line.rfind(".SH ", 0) == 0 ||
                  line.rfind(".SS ", 0) == 0 || line.rfind(".B ", 0) == 0 ||
                  line.rfind(".I ", 0) == 0)
          << line;
    EXPECT_NE(line[0], '\'') << line;
    EXPECT_NE(line[0], ' ') << line;
  }
  EXPECT_EQ(page.back(), '\n');
}

}  // namespace
}  // namespace vorn
