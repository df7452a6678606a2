#include "terminal/emit.h"

#include <errno.h>
#include <unistd.h>

namespace vorn {

void emit(int fd, std::string_view text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // a closed pipe or a full disk: the rest is dropped
    p += n;
    left -= static_cast<size_t>(n);
  }
}

}  // namespace vorn
