#pragma once

// A user's Trash as a source of space: `<trash>/files/<name>` is a trashed
// item (a file, a link or a whole directory) and
// `<trash>/info/<name>.trashinfo` its record, which says when it was trashed:
//
//   [Trash Info]
//   Path=/home/u/doc.txt
//   DeletionDate=2026-11-20T10:00:00    (local time)
//
// A scan lists the items with a valid record, oldest deletion first, into an
// immutable index that may be read from any thread. An item without a
// readable record is never deleted, since nothing says how long it has been
// there. A record without its item is left alone too: programs that trash
// write the record first, to reserve the name, and move the item in after, so
// such a record is often a trashing under way. Nothing is followed out of the
// Trash: items are sized and removed with the rules of safe_fs.h, on the
// Trash's own device and mount only.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "safe_fs.h"

namespace vantor::cachedir {

struct TrashItem {
  std::string name;      // in files/
  std::int64_t deleted;  // seconds since 1970
  std::uint64_t bytes;   // allocated bytes of the item and its record
  // Left under an aside name by a removal that stopped midway; it has no
  // record any more, was already chosen to go, and counts as trashed at 0.
  bool leftover = false;
};

class TrashIndex {
 public:
  Fd trash;  // the Trash directory that was scanned
  Fd files;  // its files/ and info/, invalid when missing
  Fd info;
  dev_t dev = 0;
  std::optional<std::uint64_t> mount;  // the mount it is on, where that can be told
  std::vector<TrashItem> items;        // oldest deletion first
  std::uint64_t totalBytes = 0;        // of all listed items
  bool complete = true;                // false when parts could not be read

  // Allocated bytes of the items trashed at or before `cutoff`.
  std::uint64_t bytesDeletedBefore(std::int64_t cutoff) const;

 private:
  friend std::shared_ptr<const TrashIndex> scanTrash(Fd, const std::atomic<bool>&);
  std::vector<std::uint64_t> prefix_;  // bytes of the items before each one
};

// Scans the Trash directory `trash` (opened by the caller with the functions
// of safe_fs.h). Null when it cannot be read, or once `*stop` is set; an
// empty index when it has no files/ or info/ yet.
std::shared_ptr<const TrashIndex> scanTrash(Fd trash, const std::atomic<bool>& stop);

// The DeletionDate of a .trashinfo text, in seconds since 1970, or nullopt
// when the text is not a valid record.
std::optional<std::int64_t> parseTrashInfo(std::string_view text);

struct TrashPurgeOutcome {
  std::uint64_t freed = 0;  // allocated bytes removed, whole items or not
  std::uint64_t items = 0;  // items removed with their record
  std::uint64_t kept = 0;   // items that stayed, entirely or in part
  bool cancelled = false;
};

// Removes the items of `index` trashed at or before `deletedBefore`, oldest
// first, until `amount` bytes are freed. Each item's record is read again
// just before it goes (the item may have been restored and another trashed
// under its name), and removed only once the whole item is gone; an item
// that stays in part keeps its record. `cancelled` is asked before every item
// and between the entries of a directory.
TrashPurgeOutcome purgeTrash(const TrashIndex& index, std::int64_t deletedBefore,
                             std::uint64_t amount, const std::function<bool()>& cancelled);

}  // namespace vantor::cachedir
