// The handler tables, assembled once at the top so that the router never includes a verb.
#pragma once

#include "core/router.h"

namespace vorn {

const Commands& commands();

}  // namespace vorn
