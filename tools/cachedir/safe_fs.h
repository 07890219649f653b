#pragma once

// File-system steps that cannot be led astray. Every path is resolved from a
// directory descriptor downwards, never as a string from `/`: no symbolic
// link is followed, no mount point is crossed, and a name is unlinked only
// relative to the directory that was verified, and only the very inode that
// was checked.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/files/fd.h"

namespace vantor::cachedir {

// Whether the kernel resolves paths with openat2 (Linux 5.6 and later).
bool haveOpenat2();

// Whether statx reports mount IDs and mount roots (Linux 5.8 and later).
// VANTOR_CACHEDIR_NO_OPENAT2 turns this off too, as on the kernels that lack
// openat2.
bool haveStatxMounts();

// The mount `fd` is on, or nullopt when the kernel cannot say (statx without
// mount IDs and a file system without file handles, such as ramfs).
std::optional<std::uint64_t> mountOf(int fd);

// Opens the directory `absolute` without following a symbolic link in any
// of its components (the configured roots are real paths). Invalid Fd with
// errno set on failure.
Fd openRootDirectory(const std::string& absolute);

// Opens the directory `relative` (one or more components) below `dirfd`.
// It must stay below `dirfd`, pass no symbolic link and no mount point; the
// fallback without openat2 walks one component at a time with O_NOFOLLOW and
// checks each directory's device against `dev` and its mount against
// `dirfd`'s. A mount that cannot be determined is not entered (EXDEV, logged
// once per file system). Invalid Fd with errno set on failure.
Fd openDirectoryBelow(int dirfd, const char* relative, dev_t dev);

// Stats the entry `name` of `dirfd` without following a symbolic link or
// triggering an automount. False when it cannot, or when something is
// mounted on the entry: told by statx where the kernel reports mounts
// (another mount than `mount`, or a mount root), otherwise by its inode
// differing from `direntIno`, the one the directory lists for the name.
bool statOnMount(int dirfd, const char* name, std::optional<std::uint64_t> mount, ino_t direntIno,
                 struct stat* st);

// The later of access and modification time, in seconds since 1970.
std::int64_t lastUse(const struct stat& st);

// A file is checked and unlinked under a name of its own, so that what is
// checked is what goes: ".vantor-purging-<process>-<n>". What such a name
// says about the file behind it:
enum class AsideKind {
  kNone,      // an ordinary name
  kOurs,      // a removal of this process, under way
  kLeftover,  // left by a process that stopped between the rename and the unlink
};
AsideKind asideKind(const char* name);

// What a file must still be for removeFile to delete it.
struct Expected {
  dev_t dev = 0;
  std::int64_t usedBefore = 0;  // lastUse must not be later than this
  std::optional<uid_t> owner;   // when set, the file's owner must be this
};

enum class Removal { kRemoved, kGone, kChanged, kLocked, kFailed };

// Renames `name` of `dirfd` aside (RENAME_NOREPLACE, so no file is ever
// replaced), then checks the file that now has the aside name: a regular file
// with one link that `expected` allows (device, last use, owner), on which
// nobody holds a BSD lock. Only then is it unlinked; otherwise it is renamed
// back, never over a file that took its name meanwhile: that keeps it as
// ".vantor-kept-<process>-<n>" and tells the name in `*keptAs`. A mount point
// cannot be renamed, so a file mounted over a name is never opened.
// `*freed` receives its allocated bytes when it went.
Removal removeFile(int dirfd, const char* name, const Expected& expected, std::uint64_t* freed,
                   std::string* keptAs);

// Removes the directory `name` of `parentfd` when it is empty, still the
// inode `dev`/`ino` and, when `owner` is set, owned by them.
bool removeEmptyDirectory(int parentfd, const char* name, dev_t dev, ino_t ino,
                          std::optional<uid_t> owner);

enum class TreeRemoval {
  kRemoved,    // the entry and everything below it went
  kGone,       // there was no such entry
  kKept,       // all or part of it stays, back under its name
  kCancelled,  // stopped between two entries; what remains is back under its name
  kFailed,     // it could not be taken aside; nothing was touched
};

// Removes the entry `name` of `parentfd` and, when it is a directory,
// everything below it, depth first. The entry is first renamed aside as by
// removeFile, so that the tree removed is the one that was checked; whatever
// cannot go is renamed back (or kept as in removeFile, told in `*keptAs`).
// Below it, every directory is opened with openDirectoryBelow and every entry
// statted with statOnMount: symbolic links are unlinked, never followed, and
// nothing on another device than `dev` or another mount than `mount` is
// entered or removed, so a mount point inside stays, and with it its
// parents. Directories of the caller that deny their owner writing are made
// writable first. Directories deeper than Scanner::kMaxDepth stay (one
// descriptor is held per level). `cancelled` is asked before every entry.
// `*freed` receives the allocated bytes removed, also when not all went.
TreeRemoval removeTree(int parentfd, const char* name, dev_t dev,
                       std::optional<std::uint64_t> mount, const std::function<bool()>& cancelled,
                       std::uint64_t* freed, std::string* keptAs);

}  // namespace vantor::cachedir
