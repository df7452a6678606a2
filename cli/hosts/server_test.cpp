#include "hosts/server.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "core/test_support.h"
#include "hosts/test_hosts.h"
#include "instances/test_instances.h"
#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::KeepCwd;
using testing::TempDir;
using Env = std::map<std::string, std::string>;

std::string runtimeFor(const Env& env) {
  CapturedContext io;
  io.ctx.env = env;
  return runtimeDir(io.ctx);
}

int modeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

std::string contentOf(const std::string& path) {
  return Paths::readFile(path).value_or("<unreadable>");
}

// Waits for a child of this process and gives its exit status (-1 when it did not exit).
int reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// True when this process has no child left, running or exited.
bool noChildren() {
  return ::waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
}

// An app bundle whose Bun is the given shell script and whose headless.js exists.
std::string appWithBun(const TempDir& tmp, const std::string& rel, const std::string& script) {
  std::string bun = tmp.file(rel + "/Contents/MacOS/bun", "#!/bin/sh\n" + script);
  ::chmod(bun.c_str(), 0755);
  tmp.file(rel + "/Contents/Resources/app/bun/headless.js", "");
  return tmp / rel;
}

// ---- runtimeDir ----

TEST(RuntimeDir, TmpUnlessTheEnvironmentSaysOtherwise) {
  EXPECT_EQ(runtimeFor({}), "/tmp");
  EXPECT_EQ(runtimeFor({{"TMPDIR", "/var/folders/x/T/"}}), "/var/folders/x/T");
  EXPECT_EQ(runtimeFor({{"TMPDIR", ""}}), "/tmp");
  EXPECT_EQ(runtimeFor({{"XDG_RUNTIME_DIR", "/run//user/./501/"}, {"TMPDIR", "/var/t"}}),
            "/run/user/501");
}

TEST(RuntimeDir, AnEmptyXdgRuntimeDirBeatsTmpdir) {
  EXPECT_EQ(runtimeFor({{"XDG_RUNTIME_DIR", ""}, {"TMPDIR", "/var/t"}}), "");
}

// ---- makePrivateDirectories ----

TEST(MakePrivateDirectories, EveryNewFolderIsTheOwnersAlone) {
  TempDir tmp;
  mode_t old = ::umask(0);
  int error = makePrivateDirectories(tmp / "a/b/vorn");
  ::umask(077);
  int second = makePrivateDirectories(tmp / "c/vorn");
  ::umask(old);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(second, 0);
  for (const char* dir : {"a", "a/b", "a/b/vorn", "c", "c/vorn"})
    EXPECT_EQ(modeOf(tmp / dir), 0700) << dir;
}

TEST(MakePrivateDirectories, AnExistingFolderIsLeftAsItIs) {
  TempDir tmp;
  std::string dir = tmp.dir("shared/vorn");
  ::chmod(dir.c_str(), 0755);
  EXPECT_EQ(makePrivateDirectories(dir), 0);
  EXPECT_EQ(modeOf(dir), 0755);
}

TEST(MakePrivateDirectories, AFileInTheWay) {
  TempDir tmp;
  tmp.file("file", "x");
  EXPECT_EQ(makePrivateDirectories(tmp / "file/vorn"), ENOTDIR);
  EXPECT_EQ(makePrivateDirectories(tmp / "file"), EEXIST);
}

// ---- spawnDetached ----

TEST(SpawnDetached, OutputIsAppendedToTheLog) {
  TempDir tmp;
  std::string log = tmp.file("server.log", "earlier\n");
  pid_t pid = spawnDetached({"/bin/sh", "-c", "echo out; echo err >&2"}, {}, log);
  EXPECT_EQ(reap(pid), 0);
  pid = spawnDetached({"/bin/sh", "-c", "echo again"}, {}, log);
  EXPECT_EQ(reap(pid), 0);
  EXPECT_EQ(contentOf(log), "earlier\nout\nerr\nagain\n");
}

TEST(SpawnDetached, ANewLogIsTheOwnersAlone) {
  TempDir tmp;
  mode_t old = ::umask(022);
  pid_t pid = spawnDetached({"/bin/sh", "-c", "true"}, {}, tmp / "new.log");
  ::umask(old);
  EXPECT_EQ(reap(pid), 0);
  EXPECT_EQ(modeOf(tmp / "new.log"), 0600);
}

TEST(SpawnDetached, ExactlyTheEnvironmentGiven) {
  TempDir tmp;
  pid_t pid = spawnDetached({"/bin/sh", "-c", "echo \"[$A][$B][${HOME-unset}]\""},
                            {{"A", "one two"}, {"B", ""}}, tmp / "log");
  EXPECT_EQ(reap(pid), 0);
  EXPECT_EQ(contentOf(tmp / "log"), "[one two][][unset]\n");
}

TEST(SpawnDetached, StandardInputIsEmpty) {
  TempDir tmp;
  pid_t pid = spawnDetached({"/bin/sh", "-c", "if read line; then echo got; else echo eof; fi"}, {},
                            tmp / "log");
  EXPECT_EQ(reap(pid), 0);
  EXPECT_EQ(contentOf(tmp / "log"), "eof\n");
}

TEST(SpawnDetached, TheProgramIsFoundOnPath) {
  TempDir tmp;
  // The lookup uses this process's PATH, which the test runner keeps.
  pid_t pid = spawnDetached({"sh", "-c", "echo found"}, {}, tmp / "log");
  EXPECT_EQ(reap(pid), 0);
  EXPECT_EQ(contentOf(tmp / "log"), "found\n");
}

TEST(SpawnDetached, TheHostLeadsItsOwnSession) {
  TempDir tmp;
  // The child waits for its stdin... which is /dev/null, so it waits on a fifo instead.
  std::string fifo = tmp / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  pid_t pid = spawnDetached({"/bin/sh", "-c", "read x < \"$0\"", fifo}, {}, tmp / "log");
  EXPECT_EQ(::getsid(pid), pid);
  EXPECT_NE(::getsid(pid), ::getsid(0));
  testing::writeFile(fifo, "go\n");
  EXPECT_EQ(reap(pid), 0);
}

TEST(SpawnDetached, NoOtherDescriptorIsInherited) {
  TempDir tmp;
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);  // without close-on-exec, as a caller's pipe would be
  std::string script = "for fd in " + std::to_string(fds[0]) + " " + std::to_string(fds[1]) +
                       "; do [ -e /dev/fd/$fd ] && echo \"$fd open\"; done; echo checked";
  pid_t pid = spawnDetached({"/bin/sh", "-c", script}, {}, tmp / "log");
  EXPECT_EQ(reap(pid), 0);
  // The same check does see a descriptor that is passed on.
  std::string control = tmp / "control";
  int status = std::system(("/bin/sh -c '" + script + "' > " + control).c_str());
  ::close(fds[0]);
  ::close(fds[1]);
  EXPECT_EQ(contentOf(tmp / "log"), "checked\n");
  EXPECT_EQ(status, 0);
  EXPECT_NE(contentOf(control), "checked\n");
}

TEST(SpawnDetached, AProgramThatCannotRun) {
  TempDir tmp;
  CliError error = thrown([&] { spawnDetached({tmp / "no-such-bun", "x"}, {}, tmp / "log"); });
  EXPECT_EQ(error.message,
            "vorn server start: cannot run " + tmp / "no-such-bun" + ": No such file or directory");
  EXPECT_EQ(error.code, 1);
  EXPECT_TRUE(noChildren());
  error = thrown([&] { spawnDetached({"no-such-program-anywhere"}, {}, tmp / "log"); });
  EXPECT_EQ(error.message,
            "vorn server start: cannot run no-such-program-anywhere: No such file or directory");
  EXPECT_TRUE(noChildren());
}

TEST(SpawnDetached, ALogThatCannotBeOpened) {
  TempDir tmp;
  CliError error = thrown([&] { spawnDetached({"/bin/sh", "-c", "true"}, {}, tmp / "no/log"); });
  EXPECT_EQ(error.message, "vorn server start: cannot run /bin/sh: No such file or directory");
  EXPECT_EQ(error.code, 1);
  EXPECT_TRUE(noChildren());
  tmp.dir("dir.log");
  error = thrown([&] { spawnDetached({"/bin/sh", "-c", "true"}, {}, tmp / "dir.log"); });
  EXPECT_EQ(error.message, "vorn server start: cannot run /bin/sh: Is a directory");
  EXPECT_TRUE(noChildren());
}

// ---- a log that is ours ----

const std::string fix =
    " \u2014 remove it, or set XDG_RUNTIME_DIR to a folder of your own";

TEST(RequirePrivateLogFolder, MadeWhenMissingAndKeptWhenOurs) {
  TempDir tmp;
  EXPECT_NO_THROW(requirePrivateLogFolder(tmp / "run/vorn"));
  EXPECT_EQ(modeOf(tmp / "run/vorn"), 0700);
  std::string shared = tmp.dir("readable/vorn");
  ASSERT_EQ(::chmod(shared.c_str(), 0755), 0);
  EXPECT_NO_THROW(requirePrivateLogFolder(shared));
  EXPECT_EQ(modeOf(shared), 0755);
}

TEST(RequirePrivateLogFolder, AFolderOthersMayWriteIsRefused) {
  for (int mode : {0775, 0777, 01777}) {
    TempDir tmp;
    std::string dir = tmp.dir("vorn");
    ASSERT_EQ(::chmod(dir.c_str(), mode), 0);
    CliError error = thrown([&] { requirePrivateLogFolder(dir); });
    EXPECT_EQ(error.message, "vorn server start: the log folder " + dir +
                                 " cannot be trusted: writable by group or others" + fix);
    EXPECT_EQ(error.code, 1);
    EXPECT_EQ(modeOf(dir), mode);  // left as it was
  }
}

TEST(RequirePrivateLogFolder, ALinkIsRefusedAndItsTargetUntouched) {
  TempDir tmp;
  std::string photos = tmp.dir("photos");
  ASSERT_EQ(::chmod(photos.c_str(), 0755), 0);
  std::string dir = tmp / "vorn";
  ASSERT_EQ(::symlink(photos.c_str(), dir.c_str()), 0);
  CliError error = thrown([&] { requirePrivateLogFolder(dir); });
  EXPECT_EQ(error.message,
            "vorn server start: the log folder " + dir + " cannot be trusted: a symbolic link" + fix);
  EXPECT_EQ(modeOf(photos), 0755);
}

TEST(RequirePrivateLogFolder, AnotherUsersFolderIsRefused) {
  TempDir tmp;
  std::string dir = tmp.dir("vorn");
  ASSERT_EQ(::chmod(dir.c_str(), 0700), 0);
  if (::geteuid() != 0 || ::chown(dir.c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "cannot give a folder to another user here";
  }
  CliError error = thrown([&] { requirePrivateLogFolder(dir); });
  EXPECT_EQ(error.message,
            "vorn server start: the log folder " + dir + " cannot be trusted: owned by uid 12345" +
                fix);
}

TEST(SpawnDetached, ALinkOfOurOwnIsFollowed) {
  TempDir tmp;
  std::string target = tmp.file("elsewhere.log", "earlier\n");
  std::string log = tmp / "server-1.log";
  ASSERT_EQ(::symlink(target.c_str(), log.c_str()), 0);
  pid_t pid = spawnDetached({"/bin/sh", "-c", "echo out"}, {}, log);
  EXPECT_EQ(reap(pid), 0);
  EXPECT_EQ(contentOf(target), "earlier\nout\n");
}

TEST(SpawnDetached, ALinkOfAnotherUserIsRefusedBeforeAnythingRuns) {
  TempDir tmp;
  std::string bashrc = tmp.file("bashrc", "alias ll='ls -l'\n");
  std::string log = tmp / "server-1.log";
  ASSERT_EQ(::symlink(bashrc.c_str(), log.c_str()), 0);
  if (::geteuid() != 0 || ::lchown(log.c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "cannot give a link to another user here";
  }
  CliError error = thrown([&] { spawnDetached({"/bin/sh", "-c", "echo owned"}, {}, log); });
  EXPECT_EQ(error.message, "vorn server start: the log " + log +
                               " cannot be trusted: a symbolic link owned by uid 12345" + fix);
  EXPECT_EQ(error.code, 1);
  EXPECT_TRUE(noChildren());
  EXPECT_EQ(contentOf(bashrc), "alias ll='ls -l'\n");
}

TEST(SpawnDetached, ALinkToAnotherUsersFileIsRefused) {
  TempDir tmp;
  std::string theirs = tmp.file("theirs.log", "theirs\n");
  if (::geteuid() != 0 || ::chown(theirs.c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "cannot give a file to another user here";
  }
  std::string log = tmp / "server-1.log";
  ASSERT_EQ(::symlink(theirs.c_str(), log.c_str()), 0);
  CliError error = thrown([&] { spawnDetached({"/bin/sh", "-c", "echo owned"}, {}, log); });
  EXPECT_EQ(error.message, "vorn server start: the log " + log +
                               " cannot be trusted: a symbolic link to a file owned by uid 12345" +
                               fix);
  EXPECT_TRUE(noChildren());
  EXPECT_EQ(contentOf(theirs), "theirs\n");
}

TEST(SpawnDetached, ALogWithAnotherNameIsRefused) {
  TempDir tmp;
  std::string elsewhere = tmp.file("elsewhere", "theirs\n");
  std::string log = tmp / "server-1.log";
  ASSERT_EQ(::link(elsewhere.c_str(), log.c_str()), 0);
  CliError error = thrown([&] { spawnDetached({"/bin/sh", "-c", "echo owned"}, {}, log); });
  EXPECT_EQ(error.message, "vorn server start: the log " + log +
                               " cannot be trusted: a file with other names (hard links)" + fix);
  EXPECT_TRUE(noChildren());
  EXPECT_EQ(contentOf(elsewhere), "theirs\n");
}

TEST(SpawnDetached, ALogOfAnotherUserIsRefused) {
  TempDir tmp;
  std::string log = tmp.file("server-1.log", "");
  if (::geteuid() != 0 || ::chown(log.c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "cannot give a file to another user here";
  }
  CliError error = thrown([&] { spawnDetached({"/bin/sh", "-c", "echo owned"}, {}, log); });
  EXPECT_EQ(error.message,
            "vorn server start: the log " + log + " cannot be trusted: owned by uid 12345" + fix);
  EXPECT_TRUE(noChildren());
  EXPECT_EQ(contentOf(log), "");
}

// ---- waitForSocket ----

TEST(WaitForSocket, AHealthySocket) {
  TempDir tmp;
  testing::SleepingChild host;
  std::string sock = tmp / ("vorn/" + std::to_string(host.pid()) + "/fs.sock");
  testing::FakeInstanceServer server(sock, [](const testing::SeenRequest& request) {
    return testing::FakeReply{request.path == "/health" ? 200 : 404, "{\"ok\":true}"};
  });
  EXPECT_EQ(waitForSocket(tmp.path(), host.pid(), std::chrono::seconds(20)), sock);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].method, "GET");
  EXPECT_EQ(server.requests()[0].path, "/health");
}

TEST(WaitForSocket, AnUnhealthySocketIsWaitedOutToTheDeadline) {
  TempDir tmp;
  testing::SleepingChild host;
  std::string sock = tmp / ("vorn/" + std::to_string(host.pid()) + "/fs.sock");
  testing::FakeInstanceServer server(sock, [](const testing::SeenRequest&) {
    return testing::FakeReply{503, "{}"};
  });
  EXPECT_EQ(waitForSocket(tmp.path(), host.pid(), std::chrono::milliseconds(400)), std::nullopt);
  EXPECT_GE(server.requests().size(), 1u);
}

TEST(WaitForSocket, NoSocketAtAll) {
  TempDir tmp;
  testing::SleepingChild host;
  EXPECT_EQ(waitForSocket(tmp.path(), host.pid(), std::chrono::milliseconds(300)), std::nullopt);
}

TEST(WaitForSocket, AHostThatExitedEndsTheWaitAtOnce) {
  TempDir tmp;
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) ::_exit(3);
  // Far longer than any test may take: only noticing the exit ends the wait.
  EXPECT_EQ(waitForSocket(tmp.path(), pid, std::chrono::hours(1)), std::nullopt);
  EXPECT_TRUE(noChildren());  // the wait reaped it
}

// ---- serverStart ----

TEST(ServerStart, AMissingDirectoryFailsBeforeAnyScriptLookup) {
  TempDir tmp;
  CapturedContext io(tmp.dir("outside"));
  io.ctx.env["VORN_APP"] = "";  // and there is no script anywhere
  CliError error = thrown([&] { serverStart(withArgs({"missing-dir"}), io.ctx); });
  EXPECT_EQ(error.message, "vorn server start: not a directory: missing-dir");
  EXPECT_EQ(error.code, 2);
  tmp.file("outside/file.txt");
  error = thrown([&] { serverStart(withArgs({"./file.txt"}), io.ctx); });
  EXPECT_EQ(error.message, "vorn server start: not a directory: ./file.txt");
  EXPECT_EQ(error.code, 2);
}

TEST(ServerStart, OneFolderAtMost) {
  TempDir tmp;
  CapturedContext io(tmp.dir("outside"));
  CliError error = thrown([&] { serverStart(withArgs({".", "second"}), io.ctx); });
  EXPECT_EQ(error.message, "vorn server start: unexpected argument second");
  EXPECT_EQ(error.code, 2);
}

TEST(ServerStart, NoHeadlessHostAnywhere) {
  TempDir tmp;
  CapturedContext io(tmp.dir("outside"));
  io.ctx.env["VORN_APP"] = tmp / "missing.app";
  CliError error = thrown([&] { serverStart(withArgs({"."}), io.ctx); });
  EXPECT_EQ(error.message,
            "vorn server start: no headless host \u2014 run the vorn inside Vorn.app, from a "
            "Vorn checkout, or set VORN_APP");
  EXPECT_EQ(error.code, 1);
}

TEST(ServerStart, InTheForegroundTheCliBecomesTheCheckoutsHost) {
  TempDir tmp;
  KeepCwd keep;
  std::string root = tmp.checkout("repo");
  std::string site = tmp.dir("repo/pkg/site");
  CapturedContext io(root + "/pkg");
  io.ctx.env = {{"XDG_RUNTIME_DIR", "/run/user/7/"}, {"VORN_EDITION", "markdown"}};
  Outcome outcome = serverStart(withArgs({"site/../site/."}), io.ctx);
  EXPECT_EQ(outcome, Outcome::execHost({"bun", "--conditions=vorn-edition-markdown",
                                        root + "/src/bun/headless.ts", site},
                                       {{"XDG_RUNTIME_DIR", "/run/user/7"}}, {}));
  EXPECT_EQ(KeepCwd::now(), root);
  EXPECT_EQ(io.out, "");
}

TEST(ServerStart, AnAppBundledHostLeavesTheCheckoutBehind) {
  TempDir tmp;
  KeepCwd keep;
  std::string app = appWithBun(tmp, "x/Vorn.app", "exit 0");
  tmp.checkout("repo");
  CapturedContext io(tmp / "repo");  // a checkout, but the CLI's own bundle comes first
  io.ctx.executable = app + "/Contents/Resources/app/bin/vorn";
  io.ctx.env = {{"TMPDIR", "/var/t"}, {"VORN_EDITION", "markdown"}};
  Outcome outcome = serverStart(withArgs({}), io.ctx);
  EXPECT_EQ(outcome, Outcome::execHost({app + "/Contents/MacOS/bun",
                                        app + "/Contents/Resources/app/bun/headless.js"},
                                       {{"XDG_RUNTIME_DIR", "/var/t"}}, {"VORN_REPO_ROOT"}));
  EXPECT_EQ(KeepCwd::now(), app + "/Contents/Resources/app");
}

TEST(ServerStart, DetachedARuntimeDirThatCannotBeCreated) {
  TempDir tmp;
  KeepCwd keep;
  std::string app = appWithBun(tmp, "x/Vorn.app", "exit 0");
  tmp.file("file", "x");
  CapturedContext io(tmp.path());
  io.ctx.executable = app + "/Contents/Resources/app/bin/vorn";
  io.ctx.env = {{"XDG_RUNTIME_DIR", tmp / "file/sub"}};
  Flags flags;
  flags.opts["--detach"] = std::nullopt;
  CliError error = thrown([&] { serverStart(flags, io.ctx); });
  EXPECT_EQ(error.message,
            "vorn server start: cannot create " + tmp / "file/sub/vorn" + ": Not a directory");
  EXPECT_EQ(error.code, 1);
  EXPECT_TRUE(noChildren());
}

TEST(ServerStart, DetachedAHostThatExitsAtOnceFailsNamingTheLog) {
  TempDir tmp;
  KeepCwd keep;
  std::string app = appWithBun(
      tmp, "x/Vorn.app", "echo \"host says $# $XDG_RUNTIME_DIR ${VORN_REPO_ROOT-unset}\"; exit 3");
  std::string work = tmp.dir("work");
  CapturedContext io(tmp.path());
  io.ctx.executable = app + "/Contents/Resources/app/bin/vorn";
  io.ctx.env = {{"XDG_RUNTIME_DIR", tmp / "rt"}, {"VORN_REPO_ROOT", "/elsewhere"}};
  Flags flags = withArgs({"work"});
  flags.opts["--detach"] = std::nullopt;
  CliError error = thrown([&] { serverStart(flags, io.ctx); });
  ASSERT_EQ(error.code, 1);
  const std::string prefix = "vorn server start: the host (pid ";
  const std::string middle = ") did not come up within 30s \u2014 see " + tmp / "rt/vorn/server-";
  ASSERT_EQ(error.message.substr(0, prefix.size()), prefix) << error.message;
  size_t at = error.message.find(middle);
  ASSERT_NE(at, std::string::npos) << error.message;
  std::string log = error.message.substr(error.message.find(tmp / "rt/vorn/server-"));
  EXPECT_EQ(log.substr(log.size() - 4), ".log");
  EXPECT_EQ(contentOf(log), "host says 2 " + tmp / "rt" + " unset\n");
  EXPECT_EQ(modeOf(tmp / "rt"), 0700);
  EXPECT_EQ(modeOf(tmp / "rt/vorn"), 0700);
  EXPECT_EQ(modeOf(log), 0600);
  EXPECT_TRUE(noChildren());
  EXPECT_EQ(io.out, "");
}

}  // namespace
}  // namespace vorn
