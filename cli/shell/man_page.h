// The manual page vorn(1), written from the command table at build time.
#pragma once

#include <string>
#include <string_view>

namespace vorn {

std::string manPage();

// Text made safe for a roff text line: backslashes and hyphens escaped (a hyphen is typed
// as a minus by whoever copies an option), characters beyond ASCII as \[uXXXX], line breaks
// as spaces, and a leading "." or "'" kept from being read as a request.
std::string roffText(std::string_view text);

}  // namespace vorn
