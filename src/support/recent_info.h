#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/values/value.h"

namespace vantor {

// The recent-info cache: per volume, what each service last reported as its
// purgeable amount and when. Plain records; the daemon keeps them only in the
// settings store, archived (see archiveRecentInfo) under one key.

// One service's answer.
class VantorRecentServiceInfo {
 public:
  static std::shared_ptr<VantorRecentServiceInfo> vantorRecentServiceInfo(Value amount,
                                                                          Date timestamp);
  Value amount;  // what the service returned as "VANTOR_AMOUNT"
  Date timestamp;
};

// One volume.
class VantorRecentVolumeInfo {
 public:
  using Services = std::map<std::string, std::shared_ptr<VantorRecentServiceInfo>>;
  static std::shared_ptr<VantorRecentVolumeInfo> vantorRecentVolumeInfo(
      Services services, std::uint64_t freespace, Date timestamp, const std::string& volumeName);
  Services services;
  std::uint64_t freespace = 0;  // bytes free on the volume when last written
  Date timestamp;               // time of the last write
  std::string volumeName;
};

// The whole cache.
class VantorRecentInfo {
 public:
  using Volumes = std::map<std::string, std::shared_ptr<VantorRecentVolumeInfo>>;
  static std::shared_ptr<VantorRecentInfo> vantorRecentInfo(Volumes volumes);

  // Validation statuses.
  static constexpr std::int32_t kUnchanged = 1;
  static constexpr std::int32_t kRemoveRecord = 2;
  static constexpr std::int32_t kStoreAgain = 3;

  // Prunes entries that can no longer be trusted, in place, and says what the
  // caller must do with the stored record: kRemoveRecord when nothing is left,
  // kStoreAgain when entries fell, kUnchanged otherwise. See the .cpp for
  // which entries fall.
  std::int32_t validate(std::uint64_t freespaceTolerance, double threshold);

  // A deep copy: no entry is shared with this record.
  std::shared_ptr<VantorRecentInfo> copy() const;

  Volumes volumes;
};

// The keyed-archive form of the cache, as stored: a binary property list
// ($archiver, $version, $top, $objects with UID references and $class
// entries). Decoding never crashes on a malformed archive: it returns null
// and sets `*error`.
std::vector<std::uint8_t> archiveRecentInfo(const VantorRecentInfo& info);
std::shared_ptr<VantorRecentInfo> unarchiveRecentInfo(std::span<const std::uint8_t> bytes,
                                                      std::string* error = nullptr);

}  // namespace vantor
