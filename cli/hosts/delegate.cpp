#include "hosts/delegate.h"

#include <string.h>

#include "core/cli_error.h"
#include "core/text.h"
#include "paths/checkout.h"
#include "paths/paths.h"

namespace vorn {

Outcome delegate(const Context& ctx, const std::vector<std::string>& args,
                 const std::string& label) {
  std::optional<std::string> root = checkoutRoot(ctx.cwd, ctx.executable, ctx.env);
  if (!root) {
    throw CliError{"vorn " + label +
                       ": needs a Vorn checkout (run from one, or set VORN_REPO_ROOT) \u2014 the "
                       "installed app ships only the product CLI",
                   1};
  }
  std::vector<std::string> argv = {"bun", Paths::join({*root, Paths::checkoutScriptEntry})};
  argv.insert(argv.end(), args.begin(), args.end());
  return Outcome::exec(std::move(argv), root);
}

std::string execFailure(const std::string& program, int error,
                        const std::optional<std::string>& root) {
  if (program == "bun" && error == ENOENT) {
    std::string where = root ? " in " + *root : "";
    std::string what =
        root ? "Bun >= " +
                   std::string(trimBlanks(
                       Paths::readFile(Paths::join({*root, ".bun-version"})).value_or("")))
             : "Bun";
    return "vorn: bun not on PATH \u2014 run `direnv allow`" + where + ", or install " + what +
           " (https://bun.sh puts it in ~/.bun/bin)\n";
  }
  return "vorn: cannot run " + program + ": " + ::strerror(error) + "\n";
}

}  // namespace vorn
