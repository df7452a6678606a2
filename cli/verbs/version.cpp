#include "core/command_table.h"
#include "verbs/verbs.h"

namespace vorn {

void printVersion(const Flags&, Instances& instances) {
  instances.ctx.writeOut(std::string("vorn ") + cliVersion + "\n");
}

}  // namespace vorn
