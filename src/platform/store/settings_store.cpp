#include "platform/store/settings_store.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>
#include <vector>

// Header-only: the checksum needs no library at run time.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "platform/files/read_file.h"
#include "platform/files/write_file.h"
#include "platform/values/plist_io.h"

namespace vantor {
namespace {

constexpr auto kFlushDelay = std::chrono::milliseconds(1000);
// Far beyond what clients keep in it; a larger file is not one of ours.
constexpr std::size_t kMaxFileBytes = 64u << 20;

// A binary property list starts with this magic and ends with a 32-byte
// trailer whose first bytes are unused; the checksum lives in five of them.
constexpr char kBinaryMagic[] = "bplist00";
constexpr std::size_t kMagicBytes = 8;
constexpr std::size_t kTrailerBytes = 32;
constexpr std::size_t kSumBytes = 5;

std::string errnoText(const std::string& what, int err) {
  return what + ": " + std::strerror(err);
}

bool isBinaryPlist(const std::vector<std::uint8_t>& bytes) {
  return bytes.size() >= kMagicBytes + kTrailerBytes &&
         std::memcmp(bytes.data(), kBinaryMagic, kMagicBytes) == 0;
}

// XXH3 over the whole file with the checksum field read as zeros, folded to
// 40 bits; never 0, which stands for "no checksum" (files other programs wrote).
std::uint64_t checksumOf(const std::vector<std::uint8_t>& bytes) {
  static constexpr std::uint8_t kZeros[kSumBytes] = {};
  const std::size_t field = bytes.size() - kTrailerBytes;
  XXH3_state_t state;
  XXH3_64bits_reset(&state);
  XXH3_64bits_update(&state, bytes.data(), field);
  XXH3_64bits_update(&state, kZeros, kSumBytes);
  XXH3_64bits_update(&state, bytes.data() + field + kSumBytes, bytes.size() - field - kSumBytes);
  const std::uint64_t hash = XXH3_64bits_digest(&state);
  const std::uint64_t folded = (hash ^ (hash >> 40)) & ((1ULL << 40) - 1);
  return folded == 0 ? 1 : folded;
}

std::uint64_t storedChecksum(const std::vector<std::uint8_t>& bytes) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < kSumBytes; ++i)
    sum = (sum << 8) | bytes[bytes.size() - kTrailerBytes + i];
  return sum;
}

// Renames a corrupt file aside, never replacing an earlier corrupt copy (a
// counter is added when the name is taken). Returns what happened, for the log.
std::string moveAside(const std::filesystem::path& path) {
  const std::string base =
      path.string() + ".corrupt-" + std::to_string(static_cast<long long>(std::time(nullptr)));
  std::string aside = base;
  int err = 0;
  for (int attempt = 1; attempt < 1000; ++attempt) {
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0)
      return "moved aside to " + aside;
    err = errno;
    if (err != EEXIST)
      break;
    aside = base + "." + std::to_string(attempt);
  }
  return errnoText("could not move it aside", err);
}

}  // namespace

std::vector<std::uint8_t> SettingsStore::encode(const Value& value) {
  auto bytes = encodePlist(value, PlistFormat::kBinary);
  if (isBinaryPlist(bytes)) {
    std::uint64_t sum = checksumOf(bytes);
    for (std::size_t i = kSumBytes; i-- > 0; sum >>= 8)
      bytes[bytes.size() - kTrailerBytes + i] = static_cast<std::uint8_t>(sum & 0xff);
  }
  return bytes;
}

std::optional<Value> SettingsStore::decode(const std::vector<std::uint8_t>& bytes,
                                           std::string* reason) {
  if (bytes.empty()) {
    *reason = "empty file";
    return std::nullopt;
  }
  if (isBinaryPlist(bytes)) {
    const std::uint64_t stored = storedChecksum(bytes);
    if (stored != 0 && stored != checksumOf(bytes)) {
      *reason = "checksum mismatch: the file is not the one that was written";
      return std::nullopt;
    }
  }
  auto parsed = parsePlist(bytes);
  if (!parsed.value) {
    *reason = parsed.error;
    return std::nullopt;
  }
  if (!parsed.value->isDictionary()) {
    *reason = "top level is not a dictionary";
    return std::nullopt;
  }
  return std::move(*parsed.value);
}

SettingsStore::SettingsStore(std::filesystem::path path, FileCalls& files)
    : path_(std::move(path)),
      files_(files),
      backup_(path_.string() + ".backup", kFlushDelay, files) {}

std::unique_ptr<SettingsStore> SettingsStore::open(const std::filesystem::path& path,
                                                   Diagnostics* diagnostics, FileCalls& files) {
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
  std::unique_ptr<SettingsStore> store(new SettingsStore(path, files));
  std::string warning;
  store->load(&warning);
  // Until the backup holds what the store holds, a write of this run that
  // does not reach the disk whole would leave nothing sound to fall back on.
  if (store->stamp_) {
    const auto bytes = encode(store->contents_);
    std::string ignored;
    if (readRegularFile(store->backup_.path(), kMaxFileBytes, &ignored) != bytes) {
      std::string error;
      if (!store->backup_.writeNow(bytes, &error))
        warning += (warning.empty() ? "" : "; ") + error;
    }
  }
  if (diagnostics != nullptr)
    diagnostics->warning = warning;
  return store;
}

const Value* SettingsStore::objectForKey(const std::string& key) const {
  return contents_.find(key);
}

bool SettingsStore::setObject(const std::string& key, std::optional<Value> value,
                              std::string* error) {
  Value::Dictionary& dict = contents();
  const bool setting = value && !value->isNull();
  std::optional<Value> previous;
  if (auto it = dict.find(key); it != dict.end()) {
    if (setting) {
      previous = std::exchange(it->second, std::move(*value));
    } else {
      previous = std::move(it->second);
      dict.erase(it);
    }
  } else if (setting) {
    dict.emplace(key, std::move(*value));
  }
  if (write(error))
    return true;
  // What was not written is not kept: memory stays what the disk holds.
  if (previous) {
    dict.insert_or_assign(key, std::move(*previous));
  } else {
    dict.erase(key);
  }
  return false;
}

bool SettingsStore::mergeIntoDictionary(const std::string& key, Value::Dictionary changes,
                                        std::string* error) {
  auto staged = stageMerge(key, std::move(changes));
  const bool written = writeStaged(*staged, error);
  finishStaged(*staged, written);
  return written;
}

std::shared_ptr<SettingsStore::StagedMerge> SettingsStore::stageMerge(const std::string& key,
                                                                      Value::Dictionary changes) {
  auto staged = std::make_shared<StagedMerge>();
  staged->key_ = key;
  Value::Dictionary& dict = contents();
  const auto [it, added] = dict.try_emplace(key, Value::Dictionary{});
  staged->added_ = added;
  if (!it->second.isDictionary())
    staged->displaced_ = std::exchange(it->second, Value(Value::Dictionary{}));
  Value::Dictionary& target = it->second.get<Value::Dictionary>();
  // What each change replaced (nullopt: nothing), to read or put back until
  // the write is done.
  for (auto& [name, value] : changes) {
    const auto at = target.find(name);
    std::optional<Value>& undo = staged->undo_[name];
    if (at == target.end()) {
      if (!value.isNull())
        target.emplace(name, std::move(value));
    } else if (value.isNull()) {
      undo = std::move(at->second);
      target.erase(at);
    } else {
      undo = std::exchange(at->second, std::move(value));
    }
  }
  staged->bytes_ = std::make_shared<const std::vector<std::uint8_t>>(encode(contents_));
  staged_ = true;
  return staged;
}

bool SettingsStore::writeStaged(StagedMerge& staged, std::string* error) const {
  staged.stamp_ = writeFile(*staged.bytes_, error);
  return staged.stamp_.has_value();
}

void SettingsStore::finishStaged(StagedMerge& staged, bool written) {
  staged_ = false;
  if (written) {
    stamp_ = staged.stamp_;
    backup_.schedule(std::move(staged.bytes_));
    return;
  }
  // What was not written is not kept: memory stays what the disk holds.
  Value::Dictionary& dict = contents();
  const auto it = dict.find(staged.key_);
  if (staged.added_) {
    dict.erase(it);
  } else if (staged.displaced_) {
    it->second = std::move(*staged.displaced_);
  } else {
    staged.restore(it->second.get<Value::Dictionary>());
  }
}

const std::optional<Value>* SettingsStore::StagedMerge::previous(const std::string& name) const {
  const auto it = undo_.find(name);
  return it != undo_.end() ? &it->second : nullptr;
}

void SettingsStore::StagedMerge::restore(Value::Dictionary& dictionary) const {
  for (const auto& [name, previous] : undo_) {
    if (previous) {
      dictionary.insert_or_assign(name, *previous);
    } else {
      dictionary.erase(name);
    }
  }
}

bool SettingsStore::synchronize(std::string* error) {
  struct stat st {};
  std::optional<FileStamp> current;
  if (::stat(path_.c_str(), &st) == 0)
    current = FileStamp::of(st);
  // While a staged write is on its way the file is the writer's: memory is
  // newer than it, and is what the write puts there.
  if (staged_ || current == stamp_)
    return true;
  return load(error);
}

// Reads the file into memory. A missing file is an empty store (the backup
// is not consulted: whoever removed the store meant to clear it); a file that
// is not sound is moved aside, kept for inspection but never read again, and
// the backup's contents take its place when they are sound. A file that
// cannot be read at all leaves the contents as they were.
bool SettingsStore::load(std::string* error) {
  // Stamped before reading: should the file be replaced in between, the
  // stamp is the older one and the next synchronize reads it again.
  struct stat st {};
  if (::stat(path_.c_str(), &st) != 0) {
    if (errno == ENOENT) {
      contents_ = Value(Value::Dictionary{});
      stamp_.reset();
      return true;
    }
    if (error != nullptr)
      *error = errnoText("cannot read " + path_.string(), errno);
    return false;
  }
  const FileStamp stamp = FileStamp::of(st);
  std::string reason;
  std::optional<Value> parsed;
  if (st.st_size > static_cast<off_t>(kMaxFileBytes)) {
    // Too large to be ours: kept aside as well.
    reason = "larger than " + std::to_string(kMaxFileBytes) + " bytes";
  } else if (auto bytes = readRegularFile(path_, kMaxFileBytes, &reason)) {
    parsed = decode(*bytes, &reason);
  } else {
    if (error != nullptr)
      *error = "cannot read " + path_.string() + ": " + reason;
    return false;
  }
  if (parsed) {
    contents_ = std::move(*parsed);
    stamp_ = stamp;
    return true;
  }

  std::string text = path_.string() + " is corrupt (" + reason + "); " + moveAside(path_);
  contents_ = Value(Value::Dictionary{});
  stamp_.reset();
  std::string backupReason;
  std::optional<Value> restored;
  if (auto bytes = readRegularFile(backup_.path(), kMaxFileBytes, &backupReason))
    restored = decode(*bytes, &backupReason);
  if (restored) {
    contents_ = std::move(*restored);
    std::string writeError;
    text += "; restored the contents last flushed to " + backup_.path().string();
    if (!write(&writeError))
      text += ", but " + writeError;
  } else {
    text += "; the store starts empty";
  }
  if (error != nullptr)
    *error = text;
  return false;
}

std::string SettingsStore::nextPath() const {
  return path_.string() + ".next";
}

// Writes the contents into a new file and renames it over the store: no file
// that is, or may still be on disk, the store is ever changed.
bool SettingsStore::write(std::string* error) {
  auto bytes = std::make_shared<const std::vector<std::uint8_t>>(encode(contents_));
  auto stamp = writeFile(*bytes, error);
  if (!stamp)
    return false;
  stamp_ = stamp;
  backup_.schedule(std::move(bytes));
  return true;
}

std::optional<SettingsStore::FileStamp> SettingsStore::writeFile(
    const std::vector<std::uint8_t>& bytes, std::string* error) const {
  const std::string next = nextPath();
  struct stat st {};
  // Not flushed here: the backup rounds do the flushing, for many writes
  // together.
  const auto failure = replaceFile(path_, next, bytes, {.mode = 0600}, files_, &st);
  if (!failure)
    return FileStamp::of(st);
  if (error != nullptr) {
    const std::string step =
        failure->step == ReplaceStep::kCreate ? "create " + next : describe(failure->step);
    *error = errnoText("cannot write " + path_.string() + " (" + step + ")", failure->error);
  }
  return std::nullopt;
}

}  // namespace vantor
