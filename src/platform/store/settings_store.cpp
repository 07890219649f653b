#include "platform/store/settings_store.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>
#include <vector>

#include "platform/files/read_file.h"
#include "platform/values/plist_io.h"

namespace vantor {
namespace {

std::string errnoText(const std::string& what, int err) {
  return what + ": " + std::strerror(err);
}

// Writes all of `bytes` from the start of the file.
bool writeAll(int fd, const std::vector<std::uint8_t>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n =
        ::pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

namespace {

constexpr auto kFlushDelay = std::chrono::milliseconds(1000);
// Far beyond what clients keep in it; a larger file is not one of ours.
constexpr std::size_t kMaxFileBytes = 64u << 20;

}  // namespace

SettingsStore::SettingsStore(std::filesystem::path path)
    : path_(std::move(path)), durability_(path_, kFlushDelay) {}

std::unique_ptr<SettingsStore> SettingsStore::open(const std::filesystem::path& path,
                                                   Diagnostics* diagnostics) {
  std::error_code ec;
  const auto dir = path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
  std::filesystem::create_directories(dir, ec);
  if (ec) {
    if (diagnostics != nullptr)
      diagnostics->warning = "cannot create " + dir.string() + ": " + ec.message();
    return nullptr;
  }
  if (::access(dir.c_str(), W_OK | X_OK) != 0) {
    if (diagnostics != nullptr)
      diagnostics->warning = errnoText("cannot write " + dir.string(), errno);
    return nullptr;
  }
  std::unique_ptr<SettingsStore> store(new SettingsStore(path));
  std::string warning;
  store->load(&warning);
  if (diagnostics != nullptr)
    diagnostics->warning = warning;
  return store;
}

const Value* SettingsStore::objectForKey(const std::string& key) const {
  return contents_.find(key);
}

bool SettingsStore::setObject(const std::string& key, std::optional<Value> value,
                              std::string* error) {
  if (value && !value->isNull()) {
    contents().insert_or_assign(key, std::move(*value));
  } else {
    contents().erase(key);
  }
  return write(error);
}

bool SettingsStore::synchronize(std::string* error) {
  struct stat st {};
  std::optional<FileStamp> current;
  if (::stat(path_.c_str(), &st) == 0)
    current = FileStamp::of(st);
  if (current == stamp_)
    return true;
  return load(error);
}

// Reads the file into memory. A missing file is an empty store; a file that
// does not parse as a dictionary is moved aside so it is kept for inspection
// but never read again.
bool SettingsStore::load(std::string* error) {
  contents_ = Value(Value::Dictionary{});
  stamp_.reset();
  // Stamped before reading: should the file be replaced in between, the
  // stamp is the older one and the next synchronize reads it again.
  struct stat st {};
  if (::stat(path_.c_str(), &st) != 0) {
    if (errno == ENOENT)
      return true;
    if (error != nullptr)
      *error = errnoText("cannot read " + path_.string(), errno);
    return false;
  }
  const FileStamp stamp = FileStamp::of(st);
  std::vector<std::uint8_t> bytes;
  std::string reason;
  if (st.st_size > static_cast<off_t>(kMaxFileBytes)) {
    reason = "larger than " + std::to_string(kMaxFileBytes) + " bytes";
  } else if (auto read = readRegularFile(path_, kMaxFileBytes, &reason)) {
    bytes = std::move(*read);
  } else {
    if (error != nullptr)
      *error = "cannot read " + path_.string() + ": " + reason;
    return false;
  }
  // A file too large to be ours was refused above and is kept aside too.
  if (reason.empty() && bytes.empty())
    reason = "empty file";
  if (reason.empty()) {
    auto parsed = parsePlist(bytes);
    if (!parsed.value) {
      reason = parsed.error;
    } else if (!parsed.value->isDictionary()) {
      reason = "top level is not a dictionary";
    } else {
      contents_ = std::move(*parsed.value);
      stamp_ = stamp;
      return true;
    }
  }
  // Never replace an earlier corrupt copy: add a counter when the name is taken.
  const std::string base =
      path_.string() + ".corrupt-" + std::to_string(static_cast<long long>(std::time(nullptr)));
  std::string text = path_.string() + " is corrupt (" + reason + ")";
  int moveErrno = 0;
  std::string aside = base;
  for (int attempt = 1; attempt < 1000; ++attempt) {
    if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
      moveErrno = 0;
      break;
    }
    moveErrno = errno;
    if (moveErrno != EEXIST)
      break;
    aside = base + "." + std::to_string(attempt);
  }
  if (moveErrno == 0) {
    text += "; moved aside to " + aside;
  } else {
    text += "; " + errnoText("could not move it aside", moveErrno);
  }
  if (error != nullptr)
    *error = text;
  return false;
}

// Puts the spare file in the store file's place. Exchanging the two names
// is as atomic as renaming over the file, but costs neither a new inode nor
// the immediate writeback that ext4 starts when a file is renamed over
// another; the deferred flush does that work for many writes together. The
// previous contents stay in the spare, which the next write overwrites.
bool SettingsStore::replaceWithSpare() {
  const std::string spare = sparePath();
  if (::renameat2(AT_FDCWD, spare.c_str(), AT_FDCWD, path_.c_str(), RENAME_EXCHANGE) == 0)
    return true;
  // No store file to exchange with yet, or a file system without exchange.
  if (errno != ENOENT && errno != EINVAL && errno != ENOSYS)
    return false;
  return ::rename(spare.c_str(), path_.c_str()) == 0;
}

std::string SettingsStore::sparePath() const {
  return path_.string() + ".next";
}

bool SettingsStore::write(std::string* error) {
  const auto bytes = encodePlist(contents_, PlistFormat::kBinary);
  const std::string spare = sparePath();
  // Never the store file itself: whatever happens to the spare, the store
  // file keeps its last complete contents until the exchange.
  const int fd = ::open(spare.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    if (error != nullptr)
      *error = errnoText("cannot open " + spare, errno);
    return false;
  }
  struct stat st {};
  bool ok = writeAll(fd, bytes) && ::fstat(fd, &st) == 0;
  if (ok && static_cast<std::size_t>(st.st_size) != bytes.size())
    ok = ::ftruncate(fd, static_cast<off_t>(bytes.size())) == 0 && ::fstat(fd, &st) == 0;
  if (ok && (st.st_mode & 07777) != 0600)
    ok = ::fchmod(fd, 0600) == 0;
  const int err = errno;
  ::close(fd);
  if (!ok || !replaceWithSpare()) {
    if (error != nullptr)
      *error = errnoText("cannot write " + path_.string(), ok ? errno : err);
    return false;
  }
  stamp_ = FileStamp::of(st);
  durability_.schedule();
  return true;
}

}  // namespace vantor
