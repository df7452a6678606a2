#include "doctor/doctor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "core/test_support.h"
#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;

TEST(DoctorText, AlignedRowsThenTheSummary) {
  std::vector<DoctorCheck> checks = {
      {"runtime.dir", "ok", "/r/vorn (mode 700; tmpdir)"},
      {"cli.shim", "warn", "not on PATH"},
      {"instance.\u00e9t\u00e9", "fail", "pid 3 \u00b7 x: /health not ok"},
      {"go", "ok", ""}};
  EXPECT_EQ(doctorText(checks),
            "[ok  ] runtime.dir   /r/vorn (mode 700; tmpdir)\n"
            "[warn] cli.shim      not on PATH\n"
            "[fail] instance.\u00e9t\u00e9  pid 3 \u00b7 x: /health not ok\n"
            "[ok  ] go            \n"
            "\n"
            "1 failed, 1 warning(s).\n");
}

TEST(DoctorText, TheSummaryAlsoWhenAllIsWell) {
  EXPECT_EQ(doctorText({{"a", "ok", "fine"}}), "[ok  ] a  fine\n\n0 failed, 0 warning(s).\n");
  EXPECT_EQ(doctorText({}), "\n0 failed, 0 warning(s).\n");
}

TEST(DoctorJSON, OkAndTheRowsInOrder) {
  EXPECT_EQ(
      doctorJSON({{"a", "ok", "x"}, {"b", "warn", "y \"q\""}}),
      "{\n"
      "  \"ok\": true,\n"
      "  \"checks\": [\n"
      "    {\n      \"name\": \"a\",\n      \"status\": \"ok\",\n      \"detail\": \"x\"\n    },\n"
      "    {\n      \"name\": \"b\",\n      \"status\": \"warn\",\n      \"detail\": "
      "\"y \\\"q\\\"\"\n    }\n"
      "  ]\n"
      "}\n");
  EXPECT_EQ(doctorJSON({{"a", "fail", ""}}).rfind("{\n  \"ok\": false,\n", 0), 0u);
  EXPECT_EQ(doctorJSON({}), "{\n  \"ok\": true,\n  \"checks\": []\n}\n");
}

// A whole run in a private world: runtime root, HOME and PATH in a temp folder.
struct DoctorRunTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io{tmp.dir("work")};
  DoctorRunTest() {
    io.ctx.env["HOME"] = tmp.dir("home");
    io.ctx.env["PATH"] = tmp.dir("bin");
    io.ctx.env["XDG_RUNTIME_DIR"] = tmp.dir("run");
    io.ctx.env["HOMEBREW_PREFIX"] = tmp / "brew";
  }
  void check(bool json = false) {
    Flags flags;
    flags.json = json;
    doctorVerbs().at("check")(flags, io.ctx);
  }
  std::vector<std::string> names() {
    std::vector<std::string> out;
    for (const DoctorCheck& row : Doctor{io.ctx}.run())
      out.push_back(row.name);
    return out;
  }
};

TEST_F(DoctorRunTest, RowsInTheirFixedOrder) {
  if (::access("/Applications/Vorn.app", F_OK) == 0) GTEST_SKIP() << "a Vorn.app is installed";
  EXPECT_EQ(names(),
            (std::vector<std::string>{"runtime.dir", "support.dir", "instances", "cli.repo",
                                      "cli.bun", "cli.brew", "cli.shim", "languages"}));
  // A dead instance's folder is removed by the scan and reported after support.dir.
  tmp.dir("run/vorn/999999999");
  ::chmod((tmp / "run/vorn").c_str(), 0700);
  EXPECT_EQ(names(),
            (std::vector<std::string>{"runtime.dir", "support.dir", "runtime.pruned", "instances",
                                      "cli.repo", "cli.bun", "cli.brew", "cli.shim", "languages"}));
}

TEST_F(DoctorRunTest, WarningsAloneExitZero) {
  check();
  EXPECT_NE(io.out.find("\n[warn] languages"), std::string::npos) << io.out;
  EXPECT_NE(io.out.find("\n0 failed, "), std::string::npos) << io.out;
  EXPECT_EQ(io.err, "");
}

TEST_F(DoctorRunTest, AFailedRowFailsWithNothingMoreToSay) {
  tmp.file("run/vorn", "a file");
  EXPECT_EQ(thrown([&] { check(); }), CliError("", 1));
  EXPECT_EQ(io.out.rfind("[fail] runtime.dir  " + tmp.path() + "/run/vorn is not a directory\n", 0),
            0u)
      << io.out;
  EXPECT_NE(io.out.find("\n1 failed, "), std::string::npos);
  io.out.clear();
  EXPECT_EQ(thrown([&] { check(true); }), CliError("", 1));
  EXPECT_EQ(io.out.rfind("{\n  \"ok\": false,\n", 0), 0u) << io.out;
}

TEST_F(DoctorRunTest, StrayWordsAreUsageErrors) {
  EXPECT_EQ(thrown([&] { doctorVerbs().at("check")(withArgs({"now"}), io.ctx); }),
            usageError("vorn doctor check: unexpected argument 'now'"));
  EXPECT_EQ(io.out, "");
}

}  // namespace
}  // namespace vorn
