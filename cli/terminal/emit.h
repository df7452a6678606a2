// The one routine that puts output bytes on a file descriptor.
#pragma once

#include <string_view>

namespace vorn {

// Writes every byte of text to fd, retrying EINTR; other failures drop the rest.
void emit(int fd, std::string_view text);

}  // namespace vorn
