#include "paths/trust.h"

#include <fcntl.h>
#include <unistd.h>

namespace vorn {

namespace Trust {

namespace {

std::string ownedBy(uid_t owner) {
  return "owned by uid " + std::to_string(owner);
}

}  // namespace

uid_t self() {
  return ::getuid();
}

bool trustedOwner(uid_t owner, uid_t self) {
  return owner == self || owner == 0;
}

bool writableByOthers(mode_t mode) {
  return (mode & (S_IWGRP | S_IWOTH)) != 0;
}

std::optional<std::string> runtimeRootProblem(const struct stat& lst, uid_t self) {
  if (S_ISLNK(lst.st_mode)) return "a symbolic link";
  if (!S_ISDIR(lst.st_mode)) return "not a directory";
  if (!trustedOwner(lst.st_uid, self)) return ownedBy(lst.st_uid);
  if (writableByOthers(lst.st_mode) && (lst.st_mode & S_ISVTX) == 0) {
    return "writable by group or others";
  }
  return std::nullopt;
}

std::optional<std::string> checkoutPartProblem(const struct stat& st, uid_t self) {
  if (!trustedOwner(st.st_uid, self)) return ownedBy(st.st_uid);
  if (writableByOthers(st.st_mode)) return "writable by group or others";
  return std::nullopt;
}

std::optional<std::string> privateFolderProblem(const struct stat& lst, uid_t self) {
  if (S_ISLNK(lst.st_mode)) return "a symbolic link";
  if (!S_ISDIR(lst.st_mode)) return "not a directory";
  if (lst.st_uid != self) return ownedBy(lst.st_uid);
  if (writableByOthers(lst.st_mode)) return "writable by group or others";
  return std::nullopt;
}

std::optional<std::string> ownFileProblem(const struct stat& st, uid_t self) {
  if (S_ISLNK(st.st_mode)) return "a symbolic link";
  if (!S_ISREG(st.st_mode)) return "not a regular file";
  if (st.st_uid != self) return ownedBy(st.st_uid);
  if (st.st_nlink != 1) return "a file with other names (hard links)";
  return std::nullopt;
}

int openRuntimeRoot(const std::string& root, uid_t self) {
  struct stat before;
  if (::lstat(root.c_str(), &before) != 0 || runtimeRootProblem(before, self)) return -1;
  int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  // What was opened must be what lstat saw: the name may have been swapped in between.
  struct stat opened;
  if (::fstat(fd, &opened) != 0 || opened.st_dev != before.st_dev ||
      opened.st_ino != before.st_ino || runtimeRootProblem(opened, self)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool trustedCheckoutPart(const std::string& path, uid_t self) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && !checkoutPartProblem(st, self);
}

}  // namespace Trust

}  // namespace vorn
