#include "verbs/language_verbs.h"

#include <gtest/gtest.h>

#include "core/cli_error.h"
#include "core/test_support.h"
#include "instances/instances.h"

namespace vorn {
namespace {

CliError errorOf(const Flags& flags, const std::string& verb) {
  try {
    positionBody(flags, verb);
  } catch (const CliError& error) {
    return error;
  }
  ADD_FAILURE() << "expected an error";
  return {};
}

TEST(PositionBody, MembersInOrderPathAsTyped) {
  EXPECT_EQ(positionBody(withArgs({"main.go", "9", "4"}), "hover").serialized(0),
            R"({"path":"main.go","line":9,"character":4})");
  EXPECT_EQ(positionBody(withArgs({"./a/../b.go", "+3", "-1", "extra"}), "hover").serialized(0),
            R"({"path":"./a/../b.go","line":3,"character":-1})");
}

TEST(PositionBody, HugeValuesBecomeJSONNumbers) {
  EXPECT_EQ(positionBody(withArgs({"a.go", "9007199254740993", "-9223372036854775808"}), "hover")
                .serialized(0),
            R"({"path":"a.go","line":9007199254740992,"character":-9223372036854775808})");
}

TEST(PositionBody, TooFewArguments) {
  CliError error = errorOf(withArgs({"main.go", "9"}), "definition");
  EXPECT_EQ(error.message, "vorn language definition: needs <path> <line> <char> (0-based)");
  EXPECT_EQ(error.code, 2);
}

TEST(PositionBody, NotIntegers) {
  for (const auto& [line, character] : std::vector<std::pair<std::string, std::string>>{
           {"1", "x"}, {"3.0", "1"}, {" 3", "1"}, {"1", ""}, {"1", "9223372036854775808"}}) {
    CliError error = errorOf(withArgs({"a.go", line, character}), "type-definition");
    EXPECT_EQ(error.message,
              "vorn language type-definition: <line> and <char> must be integers (0-based)");
    EXPECT_EQ(error.code, 2);
  }
}

TEST(LanguageVerbs, Table) {
  VerbTable table = languageVerbs();
  EXPECT_EQ(table.size(), 4u);
  for (const char* verb : {"status", "hover", "definition", "type-definition"}) {
    EXPECT_TRUE(table.count(verb)) << verb;
  }
}

TEST(LanguageVerbs, UsageErrorBeforeAnyInstance) {
  CapturedContext captured;
  captured.ctx.env["XDG_RUNTIME_DIR"] = "/nonexistent-vorn-test-runtime";
  Instances instances{captured.ctx};
  try {
    languageVerbs().at("hover")(withArgs({"a.go", "1"}), instances);
    FAIL() << "expected a usage error";
  } catch (const CliError& error) {
    EXPECT_EQ(error.message, "vorn language hover: needs <path> <line> <char> (0-based)");
    EXPECT_EQ(error.code, 2);
  }
}

}  // namespace
}  // namespace vorn
