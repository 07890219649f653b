#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/file_calls.h"
#include "platform/store/durable_copy.h"
#include "platform/values/value.h"

namespace vantor {

// A persistent dictionary of property-list values kept in one binary
// property-list file (the daemon's settings suite).
//
// Writes never change a file in place. The new contents go into a new file
// beside the store ("<name>.next"), which then takes the store's place (the
// names are exchanged atomically and the old file is removed), so
// a reader, or a process killed at any moment, sees either the old or the new
// contents, never a mix: an acknowledged `setObject` is in the file system
// when it returns and survives the process being killed. Writes are not
// flushed to disk one by one; instead a `DurableCopy` keeps "<name>.backup"
// flushed with the newest contents within about a second. Every file the store
// writes carries a checksum (in the five bytes the binary property-list
// trailer leaves unused, which other readers ignore), so after a power failure
// a store file that did not reach the disk whole is recognised and the backup
// takes its place: the store then holds the contents of the last flush,
// complete.
//
// A store file that cannot be parsed, whose checksum does not match, or whose
// top level is not a dictionary, is moved aside (renamed to
// "<name>.corrupt-<unix seconds>", never deleted) and the store continues with
// the backup's contents when that is sound, else empty; the reason is reported
// to the caller, who logs it. Not thread-safe by itself: the daemon touches it
// from one serial queue only, but for `writeStaged`.
class SettingsStore {
 public:
  struct Diagnostics {
    std::string warning;  // empty when there was nothing to report
  };

  // Opens (and creates the directory of) the store file at `path`. Returns
  // null with a reason in `diagnostics` when the directory cannot be created
  // or written. `files` is the seam for the file operations of writes.
  static std::unique_ptr<SettingsStore> open(const std::filesystem::path& path,
                                             Diagnostics* diagnostics = nullptr,
                                             FileCalls& files = FileCalls::system());

  // The stored value under `key`, or null. Valid until the store changes.
  const Value* objectForKey(const std::string& key) const;

  // Stores `value` under `key` (nullopt removes the key) and writes the file
  // through. Returns false with a reason when the file could not be written;
  // the store is then unchanged, in memory and on disk.
  bool setObject(const std::string& key, std::optional<Value> value, std::string* error = nullptr);

  // Sets the entries of `changes` in the dictionary under `key` (a null
  // value removes the entry) and writes the file through: many changes in one
  // write, without copying the dictionary. A missing key, or a value that is
  // not a dictionary, gives way to a fresh dictionary. Fails like `setObject`,
  // leaving the store unchanged.
  bool mergeIntoDictionary(const std::string& key, Value::Dictionary changes,
                           std::string* error = nullptr);

  // `mergeIntoDictionary` in three steps, so that the file work can run on
  // another thread while the store's own thread goes on serving reads:
  // `stageMerge` makes the changes in memory and encodes the new contents,
  // `writeStaged` puts them in the file, and `finishStaged` keeps them, or
  // undoes them when the write failed. From stage to finish the store takes
  // no other change and `synchronize` reads nothing.
  class StagedMerge;
  std::shared_ptr<StagedMerge> stageMerge(const std::string& key, Value::Dictionary changes);
  // The one step that may run on another thread.
  bool writeStaged(StagedMerge& staged, std::string* error) const;
  void finishStaged(StagedMerge& staged, bool written);

  // Re-reads the file when it changed on disk since it was last read or
  // written (another writer, or a restore). Returns false with a reason when
  // it was found corrupt (and moved aside), or could not be read (the
  // contents in memory are then kept).
  bool synchronize(std::string* error = nullptr);

  const std::filesystem::path& path() const { return path_; }
  const DurableCopy& backup() const { return backup_; }

  // Encodes `value` as the store writes it: a binary property list carrying
  // its checksum.
  static std::vector<std::uint8_t> encode(const Value& value);
  // Reads the contents of a store file: the dictionary, or nullopt with the
  // reason when they are not sound (not a property list, a checksum that does
  // not match, a top level other than a dictionary).
  static std::optional<Value> decode(const std::vector<std::uint8_t>& bytes, std::string* reason);

 private:
  SettingsStore(std::filesystem::path path, FileCalls& files);
  bool load(std::string* error);
  bool write(std::string* error);
  std::string nextPath() const;

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
  // Puts `bytes` in the store's place; the stamp of the new file, or nullopt
  // with a reason. Touches files only, none of the store's members.
  std::optional<FileStamp> writeFile(const std::vector<std::uint8_t>& bytes,
                                     std::string* error) const;

  std::filesystem::path path_;
  FileCalls& files_;
  // Always a dictionary; kept as a value so writing it needs no copy.
  Value contents_{Value::Dictionary{}};
  Value::Dictionary& contents() { return contents_.get<Value::Dictionary>(); }
  std::optional<FileStamp> stamp_;
  bool staged_ = false;
  DurableCopy backup_;
};

class SettingsStore::StagedMerge {
 public:
  // What `name` held in the merged dictionary before the merge: null when
  // the merge does not touch it, else the value (nullopt: no entry).
  const std::optional<Value>* previous(const std::string& name) const;
  // Puts the entries the merge touched back as they were, in a copy of the
  // merged dictionary.
  void restore(Value::Dictionary& dictionary) const;
  // Whether the merge made a new dictionary (there was none, or the key held
  // another type), so that nothing of the one before is left to read.
  bool replacedDictionary() const { return added_ || displaced_.has_value(); }

 private:
  friend class SettingsStore;
  std::string key_;
  std::map<std::string, std::optional<Value>, std::less<>> undo_;
  bool added_ = false;
  std::optional<Value> displaced_;
  std::shared_ptr<const std::vector<std::uint8_t>> bytes_;
  std::optional<FileStamp> stamp_;  // of the file written
};

}  // namespace vantor
