// Whose is this? The ownership and mode rules that decide whether a folder, file or socket
// may be believed: what another user owns, or could have written, is passed over.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>

namespace vorn {

namespace Trust {

// The real uid of this process: the user whose files we trust (root's are trusted too).
uid_t self();

// Owned by `self` or by root.
bool trustedOwner(uid_t owner, uid_t self);
// Group or others may write it.
bool writableByOthers(mode_t mode);

// Each rule takes what lstat or stat said and the uid to compare with, and gives the reason
// the thing is not to be trusted ("a symbolic link", "not a directory", "owned by uid 1001",
// "writable by group or others"), or nothing when it may be.
//
// The runtime root: a real directory of ours or root's that no one else may write, unless its
// sticky bit keeps them from removing or renaming what is not theirs (as in /tmp).
std::optional<std::string> runtimeRootProblem(const struct stat& lst, uid_t self);
// A checkout's root folder or one of its marker files: ours or root's, and no one else may
// write it (a sticky bit does not help: a planted marker would be the planter's own).
std::optional<std::string> checkoutPartProblem(const struct stat& st, uid_t self);
// A folder we write private files into: a real directory of our own that no one else may write.
std::optional<std::string> privateFolderProblem(const struct stat& lst, uid_t self);
// A log we append to: a regular file of our own with no other name (a hard link elsewhere
// would carry our output into someone else's file).
std::optional<std::string> ownFileProblem(const struct stat& st, uid_t self);

// Opens `root` as a directory without following a symbolic link at its last component, and
// only when it passes runtimeRootProblem (checked with lstat, then with fstat on what was
// opened). The descriptor (close-on-exec), or -1.
int openRuntimeRoot(const std::string& root, uid_t self);

// A checkout's root folder or marker file (followed if a link) passes checkoutPartProblem.
bool trustedCheckoutPart(const std::string& path, uid_t self);

}  // namespace Trust

}  // namespace vorn
