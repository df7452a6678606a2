#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "core/test_support.h"
#include "doctor/doctor.h"
#include "paths/test_files.h"
#include "shell/shim.h"

namespace vorn {
namespace {

using testing::TempDir;

const std::string dash = " \u2014 ";

struct CliChecksTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io{tmp.dir("work")};
  std::string bin = tmp.dir("bin");
  std::string shim = tmp / "home/.local/bin/vorn";
  CliChecksTest() {
    io.ctx.env["HOME"] = tmp.dir("home");
    io.ctx.env["PATH"] = bin;
    io.ctx.env["HOMEBREW_PREFIX"] = tmp / "brew";
  }
  Doctor doctor() { return Doctor{io.ctx}; }
  DoctorCheck row(const std::string& name) {
    for (const DoctorCheck& check : doctor().cliChecks()) {
      if (check.name == name) return check;
    }
    return {};
  }
  std::string executable(const std::string& rel, const std::string& text = "#!/bin/sh\n") {
    std::string path = tmp.file(rel, text);
    ::chmod(path.c_str(), 0755);
    return path;
  }
  void installShim(const std::string& text) {
    executable("home/.local/bin/vorn", text);
    io.ctx.env["PATH"] = tmp.path() + "/home/.local/bin:" + bin;
  }
  void brewLink() { executable("brew/bin/vorn"); }
};

bool systemHomebrew() {
  struct stat st;
  return ::lstat("/opt/homebrew/bin/vorn", &st) == 0;
}

TEST_F(CliChecksTest, RowsInOrder) {
  std::vector<DoctorCheck> rows = doctor().cliChecks();
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[0].name, "cli.repo");
  EXPECT_EQ(rows[1].name, "cli.bun");
  EXPECT_EQ(rows[2].name, "cli.brew");
  EXPECT_EQ(rows[3].name, "cli.shim");
}

TEST_F(CliChecksTest, RepoOutsideAnyCheckout) {
  EXPECT_EQ(row("cli.repo"),
            (DoctorCheck{"cli.repo", "ok",
                         "no checkout" + dash +
                             "product verbs only (vorn dev needs one: run from it or set "
                             "VORN_REPO_ROOT)"}));
}

TEST_F(CliChecksTest, RepoFromTheCurrentDirectoryOrTheVariable) {
  std::string root = tmp.checkout("repo");
  std::string other = tmp.checkout("other");
  io.ctx.env["VORN_REPO_ROOT"] = other;
  EXPECT_EQ(row("cli.repo"), (DoctorCheck{"cli.repo", "ok", other}));
  io.ctx.cwd = tmp.dir("repo/a/b");
  EXPECT_EQ(row("cli.repo"), (DoctorCheck{"cli.repo", "ok", root}));
  // Found from the current directory, a bad variable does not matter.
  io.ctx.env["VORN_REPO_ROOT"] = tmp / "nothing";
  EXPECT_EQ(row("cli.repo"), (DoctorCheck{"cli.repo", "ok", root}));
}

TEST_F(CliChecksTest, ARepoRootThatIsNoCheckoutFails) {
  io.ctx.env["VORN_REPO_ROOT"] = tmp / "nothing";
  EXPECT_EQ(row("cli.repo"),
            (DoctorCheck{"cli.repo", "fail",
                         "VORN_REPO_ROOT=" + tmp.path() + "/nothing is not a Vorn checkout"}));
  io.ctx.env["VORN_REPO_ROOT"] = "";
  EXPECT_EQ(row("cli.repo").status, "ok");
}

TEST_F(CliChecksTest, BunOnPath) {
  std::string bun = executable("bin/bun");
  EXPECT_EQ(row("cli.bun"), (DoctorCheck{"cli.bun", "ok", bun}));
  EXPECT_EQ(doctor().which("bun"), bun);
}

TEST_F(CliChecksTest, WhichTakesTheFirstExecutableFileInPathOrder) {
  tmp.file("a/bun", "not executable");
  tmp.dir("b/bun");  // a folder of that name
  std::string c = executable("c/bun");
  executable("d/bun");
  io.ctx.env["PATH"] =
      ":" + tmp.path() + "/a:" + tmp.path() + "/b::" + tmp.path() + "/c:" + tmp.path() + "/d";
  EXPECT_EQ(doctor().which("bun"), c);
  // A relative entry is taken from the current directory.
  io.ctx.cwd = tmp.path();
  io.ctx.env["PATH"] = "d";
  EXPECT_EQ(doctor().which("bun"), tmp / "d/bun");
  io.ctx.env.erase("PATH");
  EXPECT_EQ(doctor().which("bun"), std::nullopt);
}

TEST_F(CliChecksTest, NoBunOutsideACheckoutIsFine) {
  EXPECT_EQ(row("cli.bun"),
            (DoctorCheck{"cli.bun", "ok",
                         "bun is not on PATH; product verbs run in the native CLI (vorn dev "
                         "needs bun)"}));
}

TEST_F(CliChecksTest, NoBunInACheckoutWithoutANativeBuildWarns) {
  std::string root = tmp.checkout("repo");
  io.ctx.cwd = root;
  EXPECT_EQ(row("cli.bun"), (DoctorCheck{"cli.bun", "warn",
                                         "bun is not on PATH and there is no native CLI build "
                                         "at " +
                                             root + "/cli/native/.build/debug/vorn" + dash +
                                             "the vorn shim needs one (make -C cli/native dev)"}));
  tmp.file("repo/cli/native/.build/debug/vorn", "not executable");
  EXPECT_EQ(row("cli.bun").status, "warn");
  executable("repo/cli/native/.build/debug/vorn");
  EXPECT_EQ(row("cli.bun").status, "ok");
}

TEST_F(CliChecksTest, Brew) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  EXPECT_EQ(row("cli.brew"),
            (DoctorCheck{"cli.brew", "ok",
                         "Homebrew does not link vorn (brew install --cask qor-labs/tap/vorn)"}));
  std::string target = executable("Cellar/vorn/1.0/bin/vorn");
  tmp.dir("brew/bin");
  ASSERT_EQ(::symlink(target.c_str(), (tmp / "brew/bin/vorn").c_str()), 0);
  EXPECT_EQ(row("cli.brew"), (DoctorCheck{"cli.brew", "ok",
                                          "Homebrew links vorn at " + tmp.path() +
                                              "/brew/bin/vorn \u2192 " + target}));
}

TEST_F(CliChecksTest, ShimNotInstalled) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  EXPECT_EQ(doctor().shimCheck(),
            (DoctorCheck{"cli.shim", "ok",
                         shim + " not installed" + dash +
                             "Omnibar \"Install 'vorn' in PATH\" or vorn shell-command install"}));
  brewLink();
  EXPECT_EQ(doctor().shimCheck(),
            (DoctorCheck{"cli.shim", "ok",
                         shim + " not installed" + dash + "Homebrew links vorn at " + tmp.path() +
                             "/brew/bin/vorn"}));
}

TEST_F(CliChecksTest, ShimThatIsADirectoryOrForeign) {
  tmp.dir("home/.local/bin/vorn");
  EXPECT_EQ(doctor().shimCheck(), (DoctorCheck{"cli.shim", "warn", shim + " is a directory"}));
  ::rmdir(shim.c_str());
  installShim("#!/bin/sh\nexec other\n");
  EXPECT_EQ(doctor().shimCheck(),
            (DoctorCheck{"cli.shim", "warn", shim + " exists but is not Vorn-managed"}));
}

TEST_F(CliChecksTest, ShimWhoseFallbackIsGoneOrHasNoCli) {
  installShim(shimBody(tmp / "gone", ""));
  EXPECT_EQ(doctor().shimCheck(), (DoctorCheck{"cli.shim", "warn",
                                               shim + " falls back to " + tmp.path() +
                                                   "/gone, which is gone" + dash + "reinstall"}));
  installShim(shimBody(tmp.dir("plain"), ""));
  EXPECT_EQ(doctor().shimCheck(),
            (DoctorCheck{"cli.shim", "warn",
                         shim + " falls back to " + tmp.path() + "/plain, which has no CLI" + dash +
                             "reinstall"}));
}

TEST_F(CliChecksTest, ShimWithoutTheCheckoutSearch) {
  std::string old = shimBody("", "");
  old.erase(old.find(shimCheckoutSearch), shimCheckoutSearch.size());
  installShim(old);
  EXPECT_EQ(doctor().shimCheck(), (DoctorCheck{"cli.shim", "warn",
                                               shim + " predates $PWD checkout detection" + dash +
                                                   "reinstall (vorn shell-command install)"}));
}

TEST_F(CliChecksTest, ShimNotExecutableOrNotOnPath) {
  installShim(shimBody("", ""));
  ::chmod(shim.c_str(), 0644);
  EXPECT_EQ(doctor().shimCheck(), (DoctorCheck{"cli.shim", "warn",
                                               shim + " is not executable" + dash +
                                                   "reinstall (vorn shell-command install)"}));
  ::chmod(shim.c_str(), 0755);
  io.ctx.env["PATH"] = bin;
  EXPECT_EQ(doctor().shimCheck(), (DoctorCheck{"cli.shim", "warn",
                                               shim + " is not on PATH" + dash + "add " +
                                                   tmp.path() + "/home/.local/bin to PATH"}));
}

TEST_F(CliChecksTest, AnotherVornFirstOnPathShadowsTheShim) {
  installShim(shimBody("", ""));
  std::string first = executable("bin/vorn");
  io.ctx.env["PATH"] = bin + ":" + tmp.path() + "/home/.local/bin";
  EXPECT_EQ(doctor().shimCheck(),
            (DoctorCheck{"cli.shim", "warn",
                         "vorn on PATH resolves to " + first + ", shadowing " + shim}));
  // The shim reached through a link on PATH is the shim.
  ::unlink(first.c_str());
  ASSERT_EQ(::symlink(shim.c_str(), first.c_str()), 0);
  EXPECT_EQ(doctor().shimCheck().status, "ok");
}

TEST_F(CliChecksTest, AShimShadowingHomebrew) {
  installShim(shimBody("", ""));
  brewLink();
  EXPECT_EQ(doctor().shimCheck(),
            (DoctorCheck{"cli.shim", "warn",
                         shim + " shadows Homebrew's " + tmp.path() + "/brew/bin/vorn" + dash +
                             "vorn shell-command uninstall"}));
}

TEST_F(CliChecksTest, AHealthyShimNamesWhereItFallsBack) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  std::string root = tmp.checkout("repo");
  installShim(shimBody(root, "/A/Vorn.app/Contents/Resources/app/bin/vorn"));
  std::string head = shim + " \u2192 checkout of $PWD, else VORN_REPO_ROOT, else ";
  EXPECT_EQ(doctor().shimCheck(), (DoctorCheck{"cli.shim", "ok", head + root}));
  installShim(shimBody("", "/A/Vorn.app/Contents/Resources/app/bin/vorn"));
  EXPECT_EQ(doctor().shimCheck().detail, head + "/A/Vorn.app/Contents/Resources/app/bin/vorn");
  installShim(shimBody("", ""));
  EXPECT_EQ(doctor().shimCheck().detail, head + "nothing");
}

TEST_F(CliChecksTest, NoHomeNoShimToCheck) {
  io.ctx.env.erase("HOME");
  EXPECT_EQ(doctor().shimCheck(),
            (DoctorCheck{"cli.shim", "warn", "HOME is not set to an absolute path"}));
}

TEST(ShimValue, ReadsOneAssignment) {
  std::string text = shimBody("/src/a \"b\" \\c", "/A.app/x");
  EXPECT_EQ(Doctor::shimValue(text, "FALLBACK"), "/src/a \"b\" \\c");
  EXPECT_EQ(Doctor::shimValue(text, "APP"), "/A.app/x");
  EXPECT_EQ(Doctor::shimValue(text, "NOPE"), std::nullopt);
  EXPECT_EQ(Doctor::shimValue("FALLBACK=\"\"\n", "FALLBACK"), "");
  EXPECT_EQ(Doctor::shimValue("FALLBACK='/x y'\n", "FALLBACK"), "/x y");
  EXPECT_EQ(Doctor::shimValue("FALLBACK=/x\nFALLBACK=/y\n", "FALLBACK"), "/x");
  EXPECT_EQ(Doctor::shimValue("FALLBACK=\"/x\n", "FALLBACK"), "\"/x");
  // Only the name itself at the start of a line.
  EXPECT_EQ(Doctor::shimValue("MYFALLBACK=/x\n  FALLBACK=/y\nFALLBACKS=/z", "FALLBACK"),
            std::nullopt);
  EXPECT_EQ(Doctor::shimValue("", "FALLBACK"), std::nullopt);
}

}  // namespace
}  // namespace vorn
