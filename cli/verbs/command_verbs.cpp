#include "verbs/verbs.h"

namespace vorn {

VerbTable commandVerbs() { return {}; }

VerbTable diagnosticsVerbs() { return {}; }

VerbTable nogoVerbs() { return {}; }

}  // namespace vorn
