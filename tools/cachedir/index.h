#pragma once

// The index of one cache directory: what a scan found, kept compact so that
// a million files fit in a few tens of MiB. Directories and files refer to
// their parent by position and to their name by offset into one arena of
// NUL-terminated names. Only files that may ever be deleted are listed:
// regular files with a single link whose name the policy matches, and the
// files an interrupted removal left under an aside name. An index is
// immutable once built and may be read from any thread.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "config.h"
#include "safe_fs.h"

namespace vantor::cachedir {

struct DirRecord {
  std::uint32_t parent;  // position in dirs; the root is its own parent (0)
  std::uint32_t name;    // offset into names
  std::uint64_t ino;
};

// No inode number: the purge checks each file against the policy again when
// it deletes it, whichever file then has the name.
struct FileRecord {
  std::uint32_t dir;      // position in dirs
  std::uint32_t name;     // offset into names
  std::uint32_t lastUse;  // seconds since 1970
  std::uint32_t blocks;   // allocated 512-byte blocks, saturated
};

class RootIndex {
 public:
  DirPolicy policy;
  Fd root;  // the directory that was scanned
  dev_t dev = 0;
  std::optional<std::uint64_t> mount;  // the mount it is on, where that can be told
  std::vector<DirRecord> dirs;
  std::vector<FileRecord> files;  // oldest last use first
  std::string names;
  std::uint64_t totalBytes = 0;  // every regular file with one link, any name or age
  bool complete = true;          // false when parts could not be read

  // Allocated bytes of the listed files last used at or before `cutoff`.
  std::uint64_t bytesUsedBefore(std::int64_t cutoff) const;
  // The path of directory `dir` relative to the root ("" for the root).
  std::string relativePath(std::uint32_t dir) const;
  const char* name(std::uint32_t offset) const { return names.c_str() + offset; }
  std::size_t memoryBytes() const;

 private:
  friend class Scanner;
  static constexpr std::size_t kPrefixStride = 1024;
  // Bytes of the files before every kPrefixStride-th one, for quick sums.
  std::vector<std::uint64_t> prefix_;
  void sortAndSum();
};

class Scanner {
 public:
  // Directories deeper than this below a root are left out: each level holds
  // a descriptor open.
  static constexpr int kMaxDepth = 200;

  // Opens the directory of `policy`: a configured one by its path, a tagged
  // one only below the tree it was found in, and only when it is still the
  // directory the search found. Invalid (logged) when it cannot.
  static Fd openRoot(const DirPolicy& policy);

  // Other cache directories, each governed by its own policy: a scan does
  // not enter them, so their files never go under an outer directory's
  // policy, nor they themselves as emptied.
  struct Nested {
    std::set<std::pair<dev_t, ino_t>> roots;  // every root's device and inode
    std::set<std::string> paths;              // those below this root, relative to it
  };

  // Scans `root`, the directory of `policy`. Null when it cannot be read;
  // stops early, returning null, once `*stop` is set. `previous`, the last
  // index of the same directory, sizes the lists up front so that a rescan
  // costs no regrowth.
  static std::shared_ptr<RootIndex> scan(const DirPolicy& policy, Fd root,
                                         const std::atomic<bool>& stop, const Nested& nested,
                                         const RootIndex* previous = nullptr);

  // Directories below `below` that hold a CACHEDIR.TAG file of one link with
  // the signature line, up to a few levels deep; each with the default policy
  // restricted to the tag's owner. Tagged directories are not searched
  // further.
  static std::vector<DirPolicy> findTagged(const std::string& below, const std::atomic<bool>& stop);
};

}  // namespace vantor::cachedir
