#include "verbs/verbs.h"

namespace vorn {

VerbTable workspaceVerbs() { return {}; }

}  // namespace vorn
