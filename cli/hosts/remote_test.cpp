#include "hosts/remote.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "core/test_support.h"
#include "hosts/test_hosts.h"
#include "instances/instances.h"
#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::KeepCwd;
using testing::TempDir;
using Args = std::vector<std::string>;

Flags sshFlags(std::vector<std::string> args, bool noWindow = true) {
  Flags flags = withArgs(std::move(args));
  if (noWindow) flags.opts["--no-window"] = std::nullopt;
  return flags;
}

// ---- looksLikeSshTarget ----

TEST(LooksLikeSshTarget, HostsWithOrWithoutUserAndPath) {
  for (const char* target : {"dev@box:~/src", "box", "ssh://box/srv", "box:", "u@h:/srv/app",
                             "10.0.0.7", "[::1]:x", "ssh://dev@box:22"}) {
    EXPECT_TRUE(looksLikeSshTarget(target)) << target;
  }
}

TEST(LooksLikeSshTarget, BarePathsMissingHostsAndBlanks) {
  for (const char* target :
       {"/srv/app", ":path", "@box", "", "ssh://", "ssh:///srv", "ssh://:22", "ssh://@box",
        "box name", "box\tname", "box\n", " box", "dev@box:~/my src"}) {
    EXPECT_FALSE(looksLikeSshTarget(target)) << target;
  }
}

TEST(LooksLikeSshTarget, NothingThatSshCouldTakeForAnOption) {
  for (const char* target : {"-oProxyCommand=id", "ssh://-oProxyCommand=id", "-", "--", "-l",
                             "ssh://-", "-box:~/src"}) {
    EXPECT_FALSE(looksLikeSshTarget(target)) << target;
  }
  // A dash later in the name is a host name like any other.
  for (const char* target : {"my-box", "dev@my-box:-dir", "ssh://box-1"}) {
    EXPECT_TRUE(looksLikeSshTarget(target)) << target;
  }
}

// ---- tunnelArgv ----

TEST(TunnelArgv, TargetThenConfigThenJson) {
  HeadlessHost source{"bun", "/r/src/bun/remote/tunnel-main.ts", "/r", false};
  EXPECT_EQ(tunnelArgv(source, "box", std::nullopt, false),
            (Args{"bun", "/r/src/bun/remote/tunnel-main.ts", "box"}));
  EXPECT_EQ(tunnelArgv(source, "dev@box:~/src", std::string("/h/my cfg"), true),
            (Args{"bun", "/r/src/bun/remote/tunnel-main.ts", "dev@box:~/src", "--ssh-config",
                  "/h/my cfg", "--json"}));
  HeadlessHost bundled{"/A.app/Contents/MacOS/bun", "/A.app/x/tunnel-main.js", "/A.app/x", true};
  EXPECT_EQ(tunnelArgv(bundled, "box", std::nullopt, true),
            (Args{"/A.app/Contents/MacOS/bun", "/A.app/x/tunnel-main.js", "box", "--json"}));
}

// ---- windowEnvironment ----

TEST(WindowEnvironment, TheTargetAlwaysTheConfigWhenGiven) {
  EXPECT_EQ(windowEnvironment("box", std::nullopt),
            (std::map<std::string, std::string>{{"VORN_REMOTE_SSH", "box"}}));
  EXPECT_EQ(windowEnvironment("dev@box:~/src", std::string("/home/u/cfg")),
            (std::map<std::string, std::string>{{"VORN_REMOTE_SSH", "dev@box:~/src"},
                                                {"VORN_SSH_CONFIG", "/home/u/cfg"}}));
}

// ---- remoteSsh ----

TEST(RemoteSsh, UsageErrorsComeBeforeAnythingRuns) {
  TempDir tmp;
  CapturedContext io(tmp.dir("outside"));  // no runner anywhere
  io.ctx.env["VORN_APP"] = "";
  struct Case {
    Args args;
    std::string message;
  };
  for (const Case& c : std::vector<Case>{
           {{}, "vorn remote ssh: missing target ([user@]host[:path])"},
           {{"/srv/app"}, "vorn remote ssh: not an ssh target: /srv/app (want [user@]host[:path])"},
           {{":path"}, "vorn remote ssh: not an ssh target: :path (want [user@]host[:path])"},
           {{"@box"}, "vorn remote ssh: not an ssh target: @box (want [user@]host[:path])"},
           {{""}, "vorn remote ssh: not an ssh target:  (want [user@]host[:path])"},
           {{"my box"}, "vorn remote ssh: not an ssh target: my box (want [user@]host[:path])"},
           {{"/srv", "extra"},
            "vorn remote ssh: not an ssh target: /srv (want [user@]host[:path])"},
           {{"box", "extra"}, "vorn remote ssh: unexpected argument extra"},
       }) {
    for (bool noWindow : {true, false}) {
      CliError error = thrown([&] { remoteSsh(sshFlags(c.args, noWindow), io.ctx); });
      EXPECT_EQ(error.message, c.message);
      EXPECT_EQ(error.code, 2) << c.message;
    }
  }
  EXPECT_EQ(io.out, "");
}

TEST(RemoteSsh, NoRunnerAnywhere) {
  TempDir tmp;
  CapturedContext io(tmp.dir("outside"));
  io.ctx.env["VORN_APP"] = tmp / "missing.app";
  CliError error = thrown([&] { remoteSsh(sshFlags({"box"}), io.ctx); });
  EXPECT_EQ(error.message,
            "vorn remote ssh: no remote session runner \u2014 run the vorn inside Vorn.app, from "
            "a Vorn checkout, or set VORN_APP");
  EXPECT_EQ(error.code, 1);
}

TEST(RemoteSsh, TheCheckoutsRunnerWithAnAbsoluteConfig) {
  TempDir tmp;
  KeepCwd keep;
  std::string home = tmp.checkout("u");
  CapturedContext io(home);
  io.ctx.env["VORN_EDITION"] = "markdown";  // no edition condition for the runner
  Flags flags = sshFlags({"dev@box:~/src"});
  flags.opts["--ssh-config"] = "./cfg";
  EXPECT_EQ(remoteSsh(flags, io.ctx),
            Outcome::execHost({"bun", home + "/src/bun/remote/tunnel-main.ts", "dev@box:~/src",
                               "--ssh-config", home + "/cfg"},
                              {}, {}));
  EXPECT_EQ(KeepCwd::now(), home);
}

TEST(RemoteSsh, JsonOutputIsAskedOfTheRunner) {
  TempDir tmp;
  KeepCwd keep;
  std::string root = tmp.checkout("repo");
  CapturedContext io(root);
  Flags flags = sshFlags({"box"});
  flags.json = true;
  flags.opts["--ssh-config"] = "";  // an empty value counts as none
  EXPECT_EQ(
      remoteSsh(flags, io.ctx),
      Outcome::execHost({"bun", root + "/src/bun/remote/tunnel-main.ts", "box", "--json"}, {}, {}));
}

TEST(RemoteSsh, AnAppBundledRunnerLeavesTheCheckoutBehind) {
  TempDir tmp;
  KeepCwd keep;
  std::string app = tmp / "x/Vorn.app";
  tmp.file("x/Vorn.app/Contents/MacOS/bun", "");
  tmp.file("x/Vorn.app/Contents/Resources/app/bun/tunnel-main.js", "");
  CapturedContext io(tmp.dir("outside"));
  io.ctx.env["VORN_APP"] = app;
  EXPECT_EQ(remoteSsh(sshFlags({"ssh://box/srv"}), io.ctx),
            Outcome::execHost({app + "/Contents/MacOS/bun",
                               app + "/Contents/Resources/app/bun/tunnel-main.js", "ssh://box/srv"},
                              {}, {"VORN_REPO_ROOT"}));
  EXPECT_EQ(KeepCwd::now(), app + "/Contents/Resources/app");
}

TEST(RemoteSsh, WithoutAWindowToOpenTheRunnerIsTheDefault) {
  if (Instances::canLaunchApp()) GTEST_SKIP() << "this system opens windows";
  TempDir tmp;
  KeepCwd keep;
  std::string root = tmp.checkout("repo");
  CapturedContext io(root);
  EXPECT_EQ(remoteSsh(sshFlags({"box"}, false), io.ctx),
            Outcome::execHost({"bun", root + "/src/bun/remote/tunnel-main.ts", "box"}, {}, {}));
  EXPECT_EQ(io.out, "");
}

}  // namespace
}  // namespace vorn
