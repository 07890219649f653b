#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/store/deferred_sync.h"
#include "platform/values/value.h"

namespace vantor {

// A persistent dictionary of property-list values kept in one binary
// property-list file (the daemon's settings suite).
//
// Writes replace the file atomically: the new contents go into a spare file
// in the same directory ("<name>.next"), which then takes the file's place,
// so a reader, or a process killed at any moment, sees either the old or the
// new contents, never a mix. An acknowledged `setObject` is in the file
// system when it returns and survives the process being killed. Writes are
// not flushed to disk one by one: a background flush follows within about a
// second, so a power failure can take only the writes of that last second.
// After a write the spare holds the previous contents.
//
// A file that cannot be parsed, or whose top level is not a dictionary, is
// moved aside (renamed to "<name>.corrupt-<unix seconds>", never deleted) and
// the store starts empty; the reason is reported through `Diagnostics`, the
// caller logs it. Not thread-safe by itself: the daemon touches it from one
// serial queue only.
class SettingsStore {
 public:
  struct Diagnostics {
    std::string warning;  // empty when there was nothing to report
  };

  // Opens (and creates the directory of) the store file at `path`. Returns
  // null with a reason in `diagnostics` when the directory cannot be created
  // or written.
  static std::unique_ptr<SettingsStore> open(const std::filesystem::path& path,
                                             Diagnostics* diagnostics = nullptr);

  // The stored value under `key`, or null. Valid until the store changes.
  const Value* objectForKey(const std::string& key) const;

  // Stores `value` under `key` (nullopt removes the key) and writes the file
  // through. Returns false with a reason when the file could not be written;
  // the in-memory contents then still hold the new value.
  bool setObject(const std::string& key, std::optional<Value> value, std::string* error = nullptr);

  // Re-reads the file when it changed on disk since it was last read or
  // written (another writer, or a restore). Returns false with a reason when
  // it was found corrupt (and moved aside).
  bool synchronize(std::string* error = nullptr);

  const std::filesystem::path& path() const { return path_; }

 private:
  explicit SettingsStore(std::filesystem::path path);
  bool load(std::string* error);
  bool write(std::string* error);
  bool replaceWithSpare();
  std::string sparePath() const;

  struct FileStamp {
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = -1;
    long long mtimeNs = 0;
    bool operator==(const FileStamp&) const = default;
    static FileStamp of(const struct stat& st) {
      return {st.st_dev, st.st_ino, st.st_size,
              static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec};
    }
  };

  std::filesystem::path path_;
  // Always a dictionary; kept as a value so writing it needs no copy.
  Value contents_{Value::Dictionary{}};
  Value::Dictionary& contents() { return contents_.get<Value::Dictionary>(); }
  std::optional<FileStamp> stamp_;
  DeferredSync durability_;
};

}  // namespace vantor
