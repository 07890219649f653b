#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>

#include "platform/files/file_calls.h"

namespace vantor {

// Writes all `size` bytes at `data` to `fd`, going on after EINTR and short
// writes. False with errno set when a write fails; a write that takes no
// bytes counts as ENOSPC.
bool writeAll(int fd, const void* data, std::size_t size, FileCalls& calls = FileCalls::system());

// How far replaceFile goes before it returns.
enum class Durability {
  // The new contents are in the file system, not yet on disk: a power failure
  // may lose them, never mixing them with the old ones. The names are
  // exchanged and the old file removed, which is as atomic as renaming over
  // it but spares the writeback ext4 starts at once when a file is renamed
  // over another.
  kInFileSystem,
  // The file's data is flushed (fdatasync) before the rename over the target,
  // and the directory (fsync) after it: the new contents survive a power
  // failure.
  kOnDisk,
};

struct ReplaceOptions {
  mode_t mode = 0600;
  // Whether the umask narrows `mode`, as for any new file; otherwise the file
  // gets exactly `mode`.
  bool narrowedByUmask = false;
  Durability durability = Durability::kInFileSystem;
};

// The step of replaceFile that failed, and the errno it failed with.
enum class ReplaceStep {
  kCreate,
  kWrite,
  kStat,
  kChmod,
  kFlush,
  kClose,
  kRename,
  kOpenDirectory,
  kFlushDirectory,
};
struct ReplaceFailure {
  ReplaceStep step;
  int error;
};
// The step as a verb for error texts: "create", "write", "stat", "chmod",
// "flush", "close", "rename", "open the directory of", "flush the directory of".
const char* describe(ReplaceStep step);

// Replaces `target` with a file holding `bytes`, so that a reader, or a
// process killed at any moment, sees either the old or the new contents,
// never a mix. The bytes go into `temporary` (beside `target`, on the same
// file system), which then takes the target's name; no file that is, or may
// still be on disk, the target is ever changed. `temporary` is always a new
// file (one left by a writer stopped half-way is removed first, it never was
// the target) and is removed again when a step before the rename fails.
// Returns nullopt on success, with the new file's status in `*written` when
// given; otherwise the failed step, the target unchanged unless only the
// directory flush failed. Every file operation goes through `calls`.
std::optional<ReplaceFailure> replaceFile(const std::filesystem::path& target,
                                          const std::filesystem::path& temporary,
                                          std::span<const std::uint8_t> bytes,
                                          const ReplaceOptions& options,
                                          FileCalls& calls = FileCalls::system(),
                                          struct stat* written = nullptr);

}  // namespace vantor
