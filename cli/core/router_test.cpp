#include "core/router.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>

#include "core/cli_error.h"
#include "core/help.h"
#include "core/test_support.h"
#include "terminal/status_line.h"
#include "transport/deadline.h"

namespace vorn {
namespace {

using Words = std::vector<std::string>;

struct RouterTest : ::testing::Test {
  CapturedContext io;
  Commands commands;
  std::vector<std::pair<std::string, Flags>> calls;
  std::optional<Words> delegated;
  std::optional<Flags> versionFlags;

  RouterTest() {
    commands.handlers["instance"]["list"] = [this](const Flags& f, Context&) {
      calls.emplace_back("instance list", f);
    };
    commands.handlers["instance"]["quit"] = [](const Flags&, Context&) {
      throw CliError{"vorn instance quit: 2 target(s) failed", 1};
    };
    commands.handlers["file"]["open"] = [this](const Flags& f, Context&) {
      calls.emplace_back("file open", f);
    };
    commands.handlers["workspace"]["open"] = [this](const Flags& f, Context&) {
      calls.emplace_back("workspace open", f);
    };
    commands.handlers["search"]["run"] = [](const Flags&, Context&) { throw CliError{"", 1}; };
    commands.outcomeHandlers["server"]["start"] = [](const Flags& f, Context&) {
      return Outcome::execHost({"bun", f.args.empty() ? "" : f.args[0]}, {}, {});
    };
    commands.version = [this](const Flags& f, Context& ctx) {
      versionFlags = f;
      ctx.writeOut("vorn 0.2.0\n");
    };
    commands.delegate = [this](const Words& words, Context&) {
      delegated = words;
      return Outcome::exec({"bun", "x"}, "/root");
    };
  }

  // A run sets the exchange limit of the process; later tests start without one.
  ~RouterTest() override { Transport::setTimeout(std::nullopt); }

  Outcome run(const Words& args) { return VornCLI::main(args, io.ctx, commands); }
};

TEST_F(RouterTest, TopHelpForEveryHelpSpelling) {
  for (const Words& args : std::vector<Words>{{}, {"help"}, {"--help"}, {"-h"}}) {
    io.out.clear();
    EXPECT_EQ(run(args), Outcome::exit(0));
    EXPECT_EQ(io.out, topHelp() + "\n");
    EXPECT_EQ(io.err, "");
  }
}

TEST_F(RouterTest, HelpIsCaseSensitive) {
  EXPECT_EQ(run({"HELP"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown command 'HELP' (vorn help)\n");
  EXPECT_FALSE(isHelp("-H"));
  EXPECT_FALSE(isHelp(std::nullopt));
  EXPECT_TRUE(isHelp("-h"));
}

TEST_F(RouterTest, HelpForANoun) {
  EXPECT_EQ(run({"help", "instance"}), Outcome::exit(0));
  EXPECT_EQ(io.out, nounHelp(*findNoun("instance")) + "\n");
  io.out.clear();
  EXPECT_EQ(run({"instance", "--help"}), Outcome::exit(0));
  EXPECT_EQ(io.out, nounHelp(*findNoun("instance")) + "\n");
}

TEST_F(RouterTest, HelpForAnUnknownNoun) {
  EXPECT_EQ(run({"help", "nosuch"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown command 'nosuch' (vorn help)\n");
  EXPECT_EQ(io.out, "");
}

TEST_F(RouterTest, MissingVerbPrintsNounHelpOnStderr) {
  EXPECT_EQ(run({"instance"}), Outcome::exit(2));
  EXPECT_EQ(io.out, "");
  EXPECT_EQ(io.err, nounHelp(*findNoun("instance")) +
                        "\nvorn instance: missing verb (list, inspect, focus, quit, prune, "
                        "health)\n");
}

// Hoisting puts the global flags right after the positionals it found, so with only a noun
// on the line the hoisted flag stands where the verb would.
TEST_F(RouterTest, AGlobalFlagAfterALoneNounStandsInTheVerbsPlace) {
  EXPECT_EQ(run({"-o", "json", "instance"}), Outcome::exit(2));
  EXPECT_EQ(io.err,
            "{\"error\":\"vorn instance: unknown verb '-o' (list, inspect, focus, quit, prune, "
            "health)\",\"code\":2}\n");
  io.err.clear();
  EXPECT_EQ(run({"instance", "-o", "json"}), Outcome::exit(2));
  EXPECT_EQ(io.err,
            "{\"error\":\"vorn instance: unknown verb '-o' (list, inspect, focus, quit, prune, "
            "health)\",\"code\":2}\n");
}

TEST_F(RouterTest, UnknownVerb) {
  EXPECT_EQ(run({"instance", "frobnicate"}), Outcome::exit(2));
  EXPECT_EQ(io.err,
            "vorn instance: unknown verb 'frobnicate' (list, inspect, focus, quit, prune, "
            "health)\n");
}

TEST_F(RouterTest, VerbHelpWinsOverBadFlags) {
  EXPECT_EQ(run({"instance", "list", "--help", "--bogus"}), Outcome::exit(0));
  EXPECT_EQ(io.out, verbHelpPage(*findNoun("instance")->verb("list")) + "\n");
  io.out.clear();
  EXPECT_EQ(run({"instance", "list", "--bogus", "-h"}), Outcome::exit(0));
  EXPECT_EQ(io.out, verbHelpPage(*findNoun("instance")->verb("list")) + "\n");
  EXPECT_TRUE(calls.empty());
}

TEST_F(RouterTest, NotImplemented) {
  EXPECT_EQ(run({"doctor", "check"}), Outcome::exit(1));
  EXPECT_EQ(io.err, "vorn doctor check: not implemented in this CLI\n");
  io.err.clear();
  EXPECT_EQ(run({"instance", "health", "-o", "json"}), Outcome::exit(1));
  EXPECT_EQ(io.err,
            "{\"error\":\"vorn instance health: not implemented in this CLI\",\"code\":1}\n");
}

TEST_F(RouterTest, HandlerGetsHoistedFlags) {
  EXPECT_EQ(run({"-i", "abc", "instance", "list", "--prune"}), Outcome::exit(0));
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].first, "instance list");
  EXPECT_EQ(calls[0].second.instance, "abc");
  EXPECT_TRUE(calls[0].second.has("--prune"));
}

TEST_F(RouterTest, HandlerErrorsAreTextOrJson) {
  EXPECT_EQ(run({"instance", "quit", "-a"}), Outcome::exit(1));
  EXPECT_EQ(io.err, "vorn instance quit: 2 target(s) failed\n");
  io.err.clear();
  EXPECT_EQ(run({"instance", "quit", "-a", "--output=json"}), Outcome::exit(1));
  EXPECT_EQ(io.err, "{\"error\":\"vorn instance quit: 2 target(s) failed\",\"code\":1}\n");
}

TEST_F(RouterTest, EmptyErrorExitsQuietly) {
  EXPECT_EQ(run({"search", "run", "x"}), Outcome::exit(1));
  EXPECT_EQ(io.err, "");
  EXPECT_EQ(run({"search", "run", "x", "-o", "json"}), Outcome::exit(1));
  EXPECT_EQ(io.err, "");
}

TEST_F(RouterTest, OutcomeHandlersReturnTheirOutcome) {
  EXPECT_EQ(run({"server", "start", "dir"}), Outcome::execHost({"bun", "dir"}, {}, {}));
}

TEST_F(RouterTest, FlagErrorsAreUsageErrors) {
  EXPECT_EQ(run({"instance", "list", "-o", "yaml"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: -o takes json (got yaml)\n");
  io.err.clear();
  EXPECT_EQ(run({"instance", "list", "--json"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown flag --json (JSON output is -o json)\n");
}

TEST_F(RouterTest, JsonModeIsDecidedBeforeTheCommandIsKnown) {
  EXPECT_EQ(run({"-o", "json", "nosuch"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "{\"error\":\"unknown command 'nosuch' (vorn help)\",\"code\":2}\n");
}

TEST_F(RouterTest, JsonErrorForALaterFlagError) {
  EXPECT_EQ(run({"instance", "list", "-o", "json", "--pid", "0"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "{\"error\":\"--pid needs a positive integer (got 0)\",\"code\":2}\n");
}

TEST_F(RouterTest, VersionPath) {
  for (const char* word : {"version", "--version", "-V"}) {
    io.out.clear();
    EXPECT_EQ(run({word}), Outcome::exit(0));
    EXPECT_EQ(io.out, "vorn 0.2.0\n");
  }
  EXPECT_EQ(run({"version", "-o", "json"}), Outcome::exit(0));
  EXPECT_TRUE(versionFlags->json);
  EXPECT_EQ(run({"version", "--bogus"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown flag --bogus\n");
}

TEST_F(RouterTest, OnlyAFirstWordVersionTakesTheVersionPath) {
  EXPECT_EQ(run({"-o", "json", "version"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "{\"error\":\"unknown command 'version' (vorn help)\",\"code\":2}\n");
}

TEST_F(RouterTest, DevIsHandedOverUntouched) {
  EXPECT_EQ(run({"dev", "anything", "--weird", "-o", "json"}),
            Outcome::exec({"bun", "x"}, "/root"));
  EXPECT_EQ(delegated, (Words{"anything", "--weird", "-o", "json"}));
  EXPECT_EQ(io.err, "");
}

TEST_F(RouterTest, OtherFailuresArePrintedNotFatal) {
  commands.handlers["nogo"]["run"] = [](const Flags&, Context&) { throw std::runtime_error("x"); };
  commands.handlers["test"]["status"] = [](const Flags&, Context&) { throw std::bad_alloc(); };
  EXPECT_EQ(run({"nogo", "run"}), Outcome::exit(1));
  EXPECT_EQ(io.err, "vorn: internal error: x\n");
  io.err.clear();
  EXPECT_EQ(run({"test", "status", "-o", "json"}), Outcome::exit(1));
  EXPECT_EQ(io.err, "{\"error\":\"out of memory\",\"code\":1}\n");
}

TEST_F(RouterTest, OddArgumentVectorsNeverCrash) {
  std::string longWord(200000, 'z');
  for (const Words& args : std::vector<Words>{{""},
                                              {"="},
                                              {"--"},
                                              {"-"},
                                              {"\xff\xfe"},
                                              {longWord},
                                              {"instance", ""},
                                              {"", "", ""},
                                              {"instance", "list", "--", "--help"}}) {
    Outcome outcome = run(args);
    auto* exit = std::get_if<Outcome::Exit>(&outcome.value);
    ASSERT_NE(exit, nullptr);
    EXPECT_TRUE(exit->code == 0 || exit->code == 2) << exit->code;
  }
}

TEST_F(RouterTest, TimeoutIsTakenFromTheEnvironmentBeforeAnythingRuns) {
  std::optional<double> seen;
  commands.handlers["instance"]["list"] = [&](const Flags&, Context&) {
    seen = Transport::timeout();
  };
  io.ctx.env["VORN_TIMEOUT"] = "0.5";
  EXPECT_EQ(run({"instance", "list"}), Outcome::exit(0));
  EXPECT_EQ(seen, 0.5);

  io.ctx.env["VORN_TIMEOUT"] = "";  // empty: as if not set
  EXPECT_EQ(run({"instance", "list"}), Outcome::exit(0));
  EXPECT_EQ(seen, std::nullopt);
  io.ctx.env["VORN_TIMEOUT"] = "3";
  EXPECT_EQ(run({"instance", "list"}), Outcome::exit(0));
  io.ctx.env.erase("VORN_TIMEOUT");
  EXPECT_EQ(run({"instance", "list"}), Outcome::exit(0));
  EXPECT_EQ(seen, std::nullopt);
}

TEST_F(RouterTest, ABadTimeoutIsAUsageErrorNamingTheVariable) {
  for (const char* bad : {"0", "-1", "abc", "1e3", " 1", "inf", "nan", "1.2.3", "."}) {
    io.err.clear();
    io.ctx.env["VORN_TIMEOUT"] = bad;
    EXPECT_EQ(run({"instance", "list"}), Outcome::exit(2)) << bad;
    EXPECT_EQ(io.err, "vorn: VORN_TIMEOUT must be a positive number of seconds (got " +
                          std::string(bad) + ")\n");
  }
  EXPECT_TRUE(calls.empty());

  io.err.clear();
  io.ctx.env["VORN_TIMEOUT"] = "soon";
  EXPECT_EQ(run({"-o", "json", "instance", "list"}), Outcome::exit(2));
  EXPECT_EQ(io.err,
            "{\"error\":\"VORN_TIMEOUT must be a positive number of seconds (got soon)\","
            "\"code\":2}\n");
  io.err.clear();
  EXPECT_EQ(run({"version"}), Outcome::exit(2));
  EXPECT_FALSE(versionFlags);
  EXPECT_EQ(run({"help"}), Outcome::exit(2));
}

TEST_F(RouterTest, DevIsHandedOverWhateverTheTimeout) {
  io.ctx.env["VORN_TIMEOUT"] = "never";
  EXPECT_EQ(run({"dev", "x"}), Outcome::exec({"bun", "x"}, "/root"));
  EXPECT_EQ(io.err, "");
}

struct ShorthandTest : RouterTest {
  std::filesystem::path dir;
  ShorthandTest() {
    char tmpl[] = "/tmp/vorn-router-XXXXXX";
    dir = ::mkdtemp(tmpl);
    std::filesystem::create_directories(dir / "sub");
    std::filesystem::create_directories(dir / "test");
    std::ofstream(dir / "main.go") << "package main\n";
    std::ofstream(dir / "odd:12") << "x\n";
    io.ctx.cwd = dir.string();
  }
  ~ShorthandTest() override { std::filesystem::remove_all(dir); }
};

TEST_F(ShorthandTest, DirectoryBecomesWorkspaceOpen) {
  EXPECT_EQ(pathShorthand({".", "-i", "abc"}, io.ctx),
            (Words{"workspace", "open", ".", "-i", "abc"}));
  EXPECT_EQ(run({".", "-i", "abc"}), Outcome::exit(0));
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].first, "workspace open");
  EXPECT_EQ(calls[0].second.args, Words{"."});
  EXPECT_EQ(calls[0].second.instance, "abc");
  EXPECT_EQ(pathShorthand({dir.string() + "/sub"}, io.ctx),
            (Words{"workspace", "open", dir.string() + "/sub"}));
}

TEST_F(ShorthandTest, FileTargetBecomesFileOpen) {
  EXPECT_EQ(pathShorthand({"main.go:12:5"}, io.ctx), (Words{"file", "open", "main.go:12:5"}));
  EXPECT_EQ(pathShorthand({"main.go"}, io.ctx), (Words{"file", "open", "main.go"}));
  EXPECT_EQ(pathShorthand({"odd:12"}, io.ctx), (Words{"file", "open", "odd:12"}));
  EXPECT_EQ(pathShorthand({"missing.go"}, io.ctx), std::nullopt);
}

TEST_F(ShorthandTest, OnlyOnePositionalWord) {
  EXPECT_EQ(pathShorthand({".", "extra"}, io.ctx), std::nullopt);
  EXPECT_EQ(run({".", "extra"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown command '.' (vorn help)\n");
  EXPECT_EQ(pathShorthand({"-x"}, io.ctx), std::nullopt);
  EXPECT_EQ(pathShorthand({}, io.ctx), std::nullopt);
}

TEST_F(ShorthandTest, ExplicitSocketAllowsAPathThatIsNotHere) {
  EXPECT_EQ(pathShorthand({"missing.go", "--sock", "/tmp/s"}, io.ctx),
            (Words{"file", "open", "missing.go", "--sock", "/tmp/s"}));
  EXPECT_EQ(pathShorthand({"a/b", "--sock=/tmp/s"}, io.ctx),
            (Words{"file", "open", "a/b", "--sock=/tmp/s"}));
  EXPECT_EQ(pathShorthand({"missing", "--sock", "/tmp/s"}, io.ctx), std::nullopt);
  EXPECT_EQ(run({"missing", "--sock", "/tmp/s"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown command 'missing' (vorn help)\n");
}

// At a terminal (a status line in the context) a mistyped word gets the word that was meant on
// a line of its own; without one, or with JSON output, the error is as it always was.
struct SuggestionTest : RouterTest {
  StatusLine line{[](int, std::string_view) {}, [] { return size_t{80}; }, true, {}};
  SuggestionTest() { io.ctx.status = &line; }
};

TEST_F(SuggestionTest, AMistypedNounVerbOrFlagGetsTheKnownOne) {
  EXPECT_EQ(run({"instnace", "list"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown command 'instnace' (vorn help)\ndid you mean 'instance'?\n");
  io.err.clear();
  EXPECT_EQ(run({"search", "TODO"}), Outcome::exit(2));
  EXPECT_EQ(io.err,
            "vorn search: unknown verb 'TODO' (run)\ndid you mean 'vorn search run TODO'?\n");
  io.err.clear();
  EXPECT_EQ(run({"instance", "list", "--prnue"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown flag --prnue\ndid you mean '--prune'?\n");
  io.err.clear();
  EXPECT_EQ(run({"help", "instnace"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown command 'instnace' (vorn help)\ndid you mean 'instance'?\n");
  EXPECT_EQ(io.out, "");
}

TEST_F(SuggestionTest, NothingCloseNothingSuggested) {
  EXPECT_EQ(run({"nosuch"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown command 'nosuch' (vorn help)\n");
  io.err.clear();
  EXPECT_EQ(run({"instance", "list", "--bogus"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown flag --bogus\n");
}

TEST_F(SuggestionTest, JSONOutputGetsNoSuggestionAndNoStatusLine) {
  EXPECT_EQ(run({"-o", "json", "instnace", "list"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "{\"error\":\"unknown command 'instnace' (vorn help)\",\"code\":2}\n");
  EXPECT_EQ(io.ctx.status, nullptr);
  io.ctx.status = &line;
  io.err.clear();
  EXPECT_EQ(run({"instance", "list", "--prnue", "-o", "json"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "{\"error\":\"unknown flag --prnue\",\"code\":2}\n");
}

TEST_F(SuggestionTest, WithoutATerminalTheErrorIsUnchanged) {
  io.ctx.status = nullptr;
  EXPECT_EQ(run({"instnace", "list"}), Outcome::exit(2));
  EXPECT_EQ(io.err, "vorn: unknown command 'instnace' (vorn help)\n");
}

TEST_F(ShorthandTest, ANounWinsOverAFolderOfTheSameName) {
  EXPECT_EQ(run({"test"}), Outcome::exit(2));
  EXPECT_NE(io.err.find("vorn test: missing verb (run, rerun, cancel, status)"), std::string::npos);
}

}  // namespace
}  // namespace vorn
