#include <gtest/gtest.h>

#include "core/error_output.h"
#include "instances/instances.h"

namespace vorn {
namespace {

TEST(InstanceTable, HeaderAndRowsWithDefaults) {
  InstanceInfo a;
  a.id = "abc";
  a.pid = 42;
  a.socketPath = "/tmp/vorn/42/fs.sock";
  a.workspace = "/Users/me/proj";
  a.mode = "headless";
  InstanceInfo b;
  b.id = "d";
  b.pid = 1234567;
  b.socketPath = "/tmp/vorn/1234567/fs.sock";
  EXPECT_EQ(instanceTable({a, b}),
            formatTable({{"ID", "PID", "MODE", "WORKSPACE", "SOCK"},
                         {"abc", "42", "headless", "/Users/me/proj", "/tmp/vorn/42/fs.sock"},
                         {"d", "1234567", "app", "(none)", "/tmp/vorn/1234567/fs.sock"}}));
  std::string table = instanceTable({a, b});
  EXPECT_EQ(table.rfind("ID   PID      MODE      WORKSPACE       SOCK", 0), 0u) << table;
}

TEST(InstanceTable, NoInstancesIsTheHeaderAlone) {
  EXPECT_EQ(instanceTable({}), formatTable({{"ID", "PID", "MODE", "WORKSPACE", "SOCK"}}));
}

}  // namespace
}  // namespace vorn
