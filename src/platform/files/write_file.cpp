#include "platform/files/write_file.h"

#include <cerrno>

namespace vantor {
namespace {

// Gives `temporary` the target's name. Without a target to exchange with yet,
// or on a file system without exchange, it is renamed instead.
bool takeTargetsPlace(const char* temporary, const char* target, Durability durability,
                      FileCalls& calls) {
  if (durability == Durability::kInFileSystem) {
    if (calls.exchange(temporary, target) == 0) {
      // A failure is harmless: the next replacement clears the old file away.
      calls.unlink(temporary);
      return true;
    }
    if (errno != ENOENT && errno != EINVAL && errno != ENOSYS)
      return false;
  }
  return calls.rename(temporary, target) == 0;
}

// Flushes the directory of `target`, so that the rename survives a power
// failure.
std::optional<ReplaceFailure> flushDirectoryOf(const std::filesystem::path& target,
                                               FileCalls& calls) {
  const auto dir = target.parent_path().empty() ? std::filesystem::path(".") : target.parent_path();
  const int fd = calls.open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (fd < 0)
    return ReplaceFailure{ReplaceStep::kOpenDirectory, errno};
  const bool synced = calls.fsync(fd) == 0;
  const int err = errno;
  calls.close(fd);
  if (!synced)
    return ReplaceFailure{ReplaceStep::kFlushDirectory, err};
  return std::nullopt;
}

}  // namespace

bool writeAll(int fd, const void* data, std::size_t size, FileCalls& calls) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = calls.write(fd, bytes + done, size - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      if (n == 0)
        errno = ENOSPC;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

const char* describe(ReplaceStep step) {
  switch (step) {
    case ReplaceStep::kCreate:
      return "create";
    case ReplaceStep::kWrite:
      return "write";
    case ReplaceStep::kStat:
      return "stat";
    case ReplaceStep::kChmod:
      return "chmod";
    case ReplaceStep::kFlush:
      return "flush";
    case ReplaceStep::kClose:
      return "close";
    case ReplaceStep::kRename:
      return "rename";
    case ReplaceStep::kOpenDirectory:
      return "open the directory of";
    case ReplaceStep::kFlushDirectory:
      return "flush the directory of";
  }
  return "replace";
}

std::optional<ReplaceFailure> replaceFile(const std::filesystem::path& target,
                                          const std::filesystem::path& temporary,
                                          std::span<const std::uint8_t> bytes,
                                          const ReplaceOptions& options, FileCalls& calls,
                                          struct stat* written) {
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
  int fd = calls.open(temporary.c_str(), flags, options.mode);
  if (fd < 0 && errno == EEXIST) {
    calls.unlink(temporary.c_str());
    fd = calls.open(temporary.c_str(), flags, options.mode);
  }
  if (fd < 0)
    return ReplaceFailure{ReplaceStep::kCreate, errno};

  struct stat st {};
  std::optional<ReplaceStep> failed;
  if (!writeAll(fd, bytes.data(), bytes.size(), calls)) {
    failed = ReplaceStep::kWrite;
  } else if (calls.fstat(fd, &st) != 0) {
    failed = ReplaceStep::kStat;
  } else if (!options.narrowedByUmask && (st.st_mode & 07777) != options.mode) {
    // The mode asked for at creation was narrowed by the umask.
    if (calls.fchmod(fd, options.mode) != 0)
      failed = ReplaceStep::kChmod;
    st.st_mode = (st.st_mode & ~mode_t{07777}) | options.mode;
  }
  if (!failed && options.durability == Durability::kOnDisk && calls.fdatasync(fd) != 0)
    failed = ReplaceStep::kFlush;
  int err = errno;
  if (calls.close(fd) != 0 && !failed) {
    failed = ReplaceStep::kClose;
    err = errno;
  }
  if (!failed && !takeTargetsPlace(temporary.c_str(), target.c_str(), options.durability, calls)) {
    failed = ReplaceStep::kRename;
    err = errno;
  }
  if (failed) {
    calls.unlink(temporary.c_str());
    return ReplaceFailure{*failed, err};
  }
  if (options.durability == Durability::kOnDisk) {
    if (auto failure = flushDirectoryOf(target, calls))
      return failure;
  }
  if (written != nullptr)
    *written = st;
  return std::nullopt;
}

}  // namespace vantor
