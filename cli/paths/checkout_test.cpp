#include "paths/checkout.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;
using Env = std::map<std::string, std::string>;

TEST(CheckoutRoot, FromASubdirectoryOfTheCurrentCheckout) {
  TempDir tmp;
  std::string root = tmp.checkout("repo");
  std::string deep = tmp.dir("repo/pkg/deep");
  EXPECT_EQ(checkoutRoot(deep, "/usr/local/bin/vorn", {}), root);
}

TEST(CheckoutRoot, CurrentDirectoryWinsOverTheVariable) {
  TempDir tmp;
  std::string here = tmp.checkout("here");
  std::string other = tmp.checkout("other");
  EXPECT_EQ(checkoutRoot(here + "/", "", Env{{"VORN_REPO_ROOT", other}}), here);
}

TEST(CheckoutRoot, TheExecutableLeadsToItsCheckout) {
  TempDir tmp;
  std::string root = tmp.checkout("repo");
  std::string outside = tmp.dir("elsewhere");
  std::string other = tmp.checkout("other");
  std::string exe = root + "/cli/native/.build/debug/vorn";
  // The executable's checkout comes before the variable.
  EXPECT_EQ(checkoutRoot(outside, exe, Env{{"VORN_REPO_ROOT", other}}), root);
  // A relative executable path is not walked.
  EXPECT_EQ(checkoutRoot(outside, "repo/vorn", {}), std::nullopt);
}

TEST(CheckoutRoot, TheVariableIsTheLastResort) {
  TempDir tmp;
  std::string other = tmp.checkout("other");
  std::string outside = tmp.dir("elsewhere");
  EXPECT_EQ(checkoutRoot(outside, "/usr/local/bin/vorn", Env{{"VORN_REPO_ROOT", other}}), other);
}

TEST(CheckoutRoot, AVariableThatIsNoCheckoutIsIgnored) {
  TempDir tmp;
  std::string outside = tmp.dir("elsewhere");
  EXPECT_EQ(checkoutRoot(outside, "/usr/local/bin/vorn", Env{{"VORN_REPO_ROOT", outside}}),
            std::nullopt);
  EXPECT_EQ(checkoutRoot(outside, "/usr/local/bin/vorn", Env{{"VORN_REPO_ROOT", ""}}),
            std::nullopt);
  EXPECT_EQ(checkoutRoot(outside, "/usr/local/bin/vorn", {}), std::nullopt);
}

TEST(CheckoutRoot, NeverInsideAnAppBundle) {
  TempDir tmp;
  std::string app = tmp.checkout("Vorn.app/Contents/Resources/app");
  EXPECT_EQ(checkoutRoot(app, app + "/bin/vorn", {}), std::nullopt);
}

}  // namespace
}  // namespace vorn
